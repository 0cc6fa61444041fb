// The setup-file grammar, the candidate order and the precedence of the environment, through a
// replaceable candidate list (never /etc).
#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>

#include "env.h"
#include "test_support.h"

namespace {

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

class SetupFile : public ::testing::Test {
 protected:
  void SetUp() override {
    set_setup_file_candidates(candidates_);
    for (const char* name : {"QUARRY_PATH", "QUARRY_DEC_PATH", "QUARRY_PERSIST"}) unsetenv(name);
  }
  void TearDown() override {
    set_setup_file_candidates(nullptr);
    setenv("QUARRY_PATH", quarry_test::base_dir().c_str(), 1);
    setenv("QUARRY_DEC_PATH", quarry_test::base_dir().c_str(), 1);
  }
  // The record as "path|dec|persist", or "null"; standard error goes to err_.
  std::string read_env(quarry_env* (*get)() = quarry_get_env) {
    CaptureStderr();
    quarry_env* env = get();
    err_ = GetCapturedStderr();
    if (env == nullptr) return "null";
    std::string result = std::string(quarry_env_get_quarry_path(env)) + "|" +
                         quarry_env_get_quarry_dec_path(env) + "|" + std::to_string(env->persist);
    quarry_free_env(env);
    return result;
  }
  const std::string dir_ =
      quarry_test::make_dir(::testing::UnitTest::GetInstance()->current_test_info()->name());
  const std::string first_ = dir_ + "first.setup", second_ = dir_ + "second.setup";
  const char* candidates_[3] = {first_.c_str(), second_.c_str(), nullptr};
  std::string err_;
};

const std::string kDec = "/usr/local/etc/quarry/|0";
const std::string kPath = "/dev/shm/quarry/|";

TEST_F(SetupFile, GrammarAndItsTwoMessages) {
  const std::string eq = "Missing '=' after variable ";
  const std::string val = "Missing value for variable ";
  const std::string at = " while parsing " + first_ + "\n";
  const struct {
    std::string content, expected, message;
  } cases[] = {
      {"", kPath + kDec, ""},
      {"QUARRY_PATH=/a\nQUARRY_DEC_PATH=/d/\n", "/a/|/d/|0", ""},
      {"  QUARRY_PATH \t=\t /a  more words\n", "/a/|" + kDec, ""},
      {"# QUARRY_PATH=/not\n\n   \t \nQUARRY_PATH=/a", "/a/|" + kDec, ""},
      {"QUARRY_PATH=/crlf\r\n", "/crlf/|" + kDec, ""},
      {"QUARRY_DEC_PATH=/one\nQUARRY_DEC_PATH=/two\n", kPath + "/two/|0", ""},
      {"quarry_path=/x\nOTHER_NAME=1\n=anonymous\n", kPath + kDec, ""},
      {"QUARRY_PATH=" + std::string(600, 'v') + "\n", std::string(511, 'v') + "/|" + kDec, ""},
      // Persistence is on for "1" alone.
      {"QUARRY_PERSIST=1\n", kPath + "/usr/local/etc/quarry/|1", ""},
      {"QUARRY_PERSIST=yes\n", kPath + kDec, ""},
      // 1023 characters are read at a time: the rest of a long comment is a line of its own.
      {"#" + std::string(1022, 'x') + "QUARRY_PATH=/tail\n", "/tail/|" + kDec, ""},
      // Malformed lines yield no record and name the variable.
      {"  # only column one starts a comment\n", "null", eq + at},
      {"QUARRY_PATH=/ok\nQUARRY_PATH /a\n", "null", eq + "QUARRY_PATH" + at},
      {"MY-VAR=1\n", "null", eq + "MY" + at},
      {std::string(600, 'N') + "=1\n", "null", eq + std::string(511, 'N') + at},
      {"QUARRY_PATH=\n", "null", val + "QUARRY_PATH" + at},
      {"QUARRY_DEC_PATH =  \t\r\n", "null", val + "QUARRY_DEC_PATH" + at},
      {"X=" + std::string(1100, 'a') + "\n", "null", eq + std::string(79, 'a') + at},
  };
  for (const auto& c : cases) {
    quarry_test::write_file(first_, c.content);
    EXPECT_EQ(c.expected, read_env()) << c.content;
    EXPECT_EQ(c.message, err_) << c.content;
    EXPECT_EQ(first_, *setup_file_in_use);
  }
  // The initialisation's fallback: defaults and environment, the malformed file left alone.
  setenv("QUARRY_PATH", "/env", 1);
  EXPECT_EQ("/env/|" + kDec, read_env(quarry_env_from_defaults));
  EXPECT_EQ("", err_);
}

TEST_F(SetupFile, CandidatesAreTriedInOrderAndTheEnvironmentWins) {
  quarry_test::write_file(second_, "QUARRY_DEC_PATH=/second\n");
  EXPECT_EQ(kPath + "/second/|0", read_env());
  EXPECT_EQ(second_, *setup_file_in_use);
  quarry_test::write_file(first_, "QUARRY_PATH=/first\nQUARRY_DEC_PATH=/file/\nQUARRY_PERSIST=1\n");
  EXPECT_EQ("/first/|/file/|1", read_env());  // the second file is not read at all
  EXPECT_EQ(first_, *setup_file_in_use);
  setenv("QUARRY_PATH", "/env/", 1);
  setenv("QUARRY_PERSIST", "0", 1);
  EXPECT_EQ("/env/|/file/|0", read_env());
  // An empty variable counts as not set; a value without the final '/' gets one.
  setenv("QUARRY_PATH", "", 1);
  setenv("QUARRY_DEC_PATH", "/dec", 1);
  setenv("QUARRY_PERSIST", "", 1);
  EXPECT_EQ("/first/|/dec/|1", read_env());
  quarry_test::write_file(first_, "QUARRY_PERSIST=0\n");
  setenv("QUARRY_PERSIST", "1", 1);
  EXPECT_EQ(kPath + "/dec/|1", read_env());
}

TEST(DupDirPath, AppendsOneSlashAndNeverReadsBeforeTheString) {
  // Heap strings, so that a read before the first byte lands in a sanitizer's red zone.
  for (const auto& c : {std::pair{"", "/"}, std::pair{"/a", "/a/"}, std::pair{"/a/", "/a/"}}) {
    char* input = strdup(c.first);
    char* copy = dup_dir_path(input);
    EXPECT_STREQ(c.second, copy);
    free(copy);
    free(input);
  }
}

}  // namespace

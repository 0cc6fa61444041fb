// The setup-file grammar, the candidate order and the precedence of the environment, through a
// replaceable candidate list (never /etc).
#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>

#include "env.h"
#include "test_support.h"

namespace {

class SetupFile : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = quarry_test::make_dir(::testing::UnitTest::GetInstance()->current_test_info()->name());
    first_ = dir_ + "first.setup";
    second_ = dir_ + "second.setup";
    candidates_[0] = first_.c_str();
    candidates_[1] = second_.c_str();
    set_setup_file_candidates(candidates_);
    unsetenv("QUARRY_PATH");
    unsetenv("QUARRY_DEC_PATH");
  }
  void TearDown() override {
    set_setup_file_candidates(nullptr);
    setenv("QUARRY_PATH", quarry_test::base_dir().c_str(), 1);
    setenv("QUARRY_DEC_PATH", quarry_test::base_dir().c_str(), 1);
  }
  // Reads the environment record; "path|dec" or "null", and what went to standard error.
  std::string read_env(std::string* err = nullptr) {
    testing::internal::CaptureStderr();
    quarry_env* env = quarry_get_env();
    std::string out = testing::internal::GetCapturedStderr();
    if (err != nullptr) *err = out;
    if (env == nullptr) return "null";
    std::string result =
        std::string(quarry_env_get_quarry_path(env)) + "|" + quarry_env_get_quarry_dec_path(env);
    quarry_free_env(env);
    return result;
  }
  std::string dir_, first_, second_;
  const char* candidates_[3] = {nullptr, nullptr, nullptr};
};

const std::string kDefaults = "/dev/shm/quarry/|/usr/local/etc/quarry/";

TEST_F(SetupFile, WellFormedLinesSetTheirVariables) {
  const std::string long_value(600, 'v');
  const struct {
    std::string content, expected;
  } cases[] = {
      {"", kDefaults},
      {"QUARRY_PATH=/a\nQUARRY_DEC_PATH=/d/\n", "/a/|/d/"},
      {"  QUARRY_PATH \t=\t /a  more words\n", "/a/|/usr/local/etc/quarry/"},
      {"# QUARRY_PATH=/not\n\n   \t \nQUARRY_PATH=/a", "/a/|/usr/local/etc/quarry/"},
      {"QUARRY_PATH=/crlf\r\n", "/crlf/|/usr/local/etc/quarry/"},
      {"QUARRY_DEC_PATH=/one\nQUARRY_DEC_PATH=/two\n", "/dev/shm/quarry/|/two/"},
      {"quarry_path=/x\nOTHER_NAME=1\n=anonymous\n", kDefaults},
      {"QUARRY_PATH=" + long_value + "\n", std::string(511, 'v') + "/|/usr/local/etc/quarry/"},
      // 1023 characters are read at a time: the rest of a long comment is a line of its own.
      {"#" + std::string(1022, 'x') + "QUARRY_PATH=/tail\n", "/tail/|/usr/local/etc/quarry/"},
  };
  for (const auto& c : cases) {
    quarry_test::write_file(first_, c.content);
    std::string err;
    EXPECT_EQ(c.expected, read_env(&err)) << c.content;
    EXPECT_EQ("", err) << c.content;
    ASSERT_NE(nullptr, setup_file_in_use);
    EXPECT_EQ(first_, *setup_file_in_use);
  }
}

TEST_F(SetupFile, MalformedLinesYieldNoRecordAndNameTheVariable) {
  const std::string eq = "Missing '=' after variable ";
  const std::string val = "Missing value for variable ";
  const std::string tail = " while parsing " + first_ + "\n";
  const struct {
    std::string content, message;
  } cases[] = {
      {"  # only column one starts a comment\n", eq + tail},
      {"QUARRY_PATH=/ok\nQUARRY_PATH /a\n", eq + "QUARRY_PATH" + tail},
      {"MY-VAR=1\n", eq + "MY" + tail},
      {std::string(600, 'N') + "=1\n", eq + std::string(511, 'N') + tail},
      {"QUARRY_PATH=\n", val + "QUARRY_PATH" + tail},
      {"QUARRY_DEC_PATH =  \t\r\n", val + "QUARRY_DEC_PATH" + tail},
      {"X=" + std::string(1100, 'a') + "\n", eq + std::string(79, 'a') + tail},
  };
  setenv("QUARRY_PATH", "/env", 1);
  for (const auto& c : cases) {
    quarry_test::write_file(first_, c.content);
    std::string err;
    EXPECT_EQ("null", read_env(&err)) << c.content;
    EXPECT_EQ(c.message, err) << c.content;
  }
  // The initialisation's fallback: defaults and environment, the setup file left alone.
  testing::internal::CaptureStderr();
  quarry_env* env = quarry_env_from_defaults();
  EXPECT_EQ("", testing::internal::GetCapturedStderr());
  ASSERT_NE(nullptr, env);
  EXPECT_STREQ("/env/", quarry_env_get_quarry_path(env));
  EXPECT_STREQ("/usr/local/etc/quarry/", quarry_env_get_quarry_dec_path(env));
  quarry_free_env(env);
}

TEST_F(SetupFile, CandidatesAreTriedInOrderAndTheEnvironmentWins) {
  quarry_test::write_file(second_, "QUARRY_DEC_PATH=/second\n");
  EXPECT_EQ("/dev/shm/quarry/|/second/", read_env());
  EXPECT_EQ(second_, *setup_file_in_use);

  quarry_test::write_file(first_, "QUARRY_PATH=/first\nQUARRY_DEC_PATH=/file/\n");
  EXPECT_EQ("/first/|/file/", read_env());  // the second file is not read at all
  EXPECT_EQ(first_, *setup_file_in_use);

  setenv("QUARRY_PATH", "/env/", 1);
  EXPECT_EQ("/env/|/file/", read_env());
  // An empty variable counts as not set; a value without the final '/' gets one.
  setenv("QUARRY_PATH", "", 1);
  setenv("QUARRY_DEC_PATH", "/dec", 1);
  EXPECT_EQ("/first/|/dec/", read_env());
}

TEST(DupDirPath, AppendsOneSlashAndNeverReadsBeforeTheString) {
  // Heap strings, so that a read before the first byte lands in a sanitizer's red zone.
  const char* cases[][2] = {{"", "/"}, {"/a", "/a/"}, {"/a/", "/a/"}};
  for (const auto& c : cases) {
    char* input = strdup(c[0]);
    char* copy = dup_dir_path(input);
    EXPECT_STREQ(c[1], copy);
    free(copy);
    free(input);
  }
}

}  // namespace

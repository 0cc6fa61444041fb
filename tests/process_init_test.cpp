// The process's own state: its identity (name, thread-name list, deprecated spellings), clock
// calibration, the setup file against the environment, the set-up as the first opens see it (a
// fresh process each: ctest runs each case in its own), and forked workers that make it theirs.
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <thread>

#include "env.h"
#include "live_test_support.h"
#include "process_init.h"
#include "trace_fixture.h"

#if defined(__SANITIZE_ADDRESS__)
// The leak check at exit can hang in a forked child of a threaded parent; the parent's check runs.
static const pid_t g_test_pid = getpid();
extern "C" int __lsan_is_turned_off() {
  return getpid() != g_test_pid;
}
#endif

namespace {

using quarry_test::base_dir;
using quarry_test::open_handle;
using quarry_test::read_file;
using quarry_test::read_trace;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

TEST(Identity, ProcessAndThreadNamesAndTheirDeprecatedSpellings) {
  char* name = quarry_get_process_prefix();
  quarry_set_process_name("my daemon\t2");  // only spaces are replaced
  EXPECT_STREQ("my_daemon\t2", name);
  quarry_set_process_name(std::string(300, 'p').c_str());
  EXPECT_EQ(std::string(255, 'p'), name);
  // Only the deprecated spellings warn; the old thread call names the caller, not its argument.
  pthread_t main_thread = pthread_self(), worker_thread{};
  CaptureStderr();
  quarry_set_process_prefix("old style");
  EXPECT_EQ(0, quarry_set_current_thread_name(std::string(80, 'n').c_str()));
  std::thread([&] {
    worker_thread = pthread_self();
    EXPECT_EQ(0, quarry_set_thread_name(main_thread, "w"));
  }).join();
  EXPECT_EQ(
      "WARNING: deprecated quarry_set_process_prefix() API invoked. Please, use "
      "quarry_set_process_name() instead.\n"
      "WARNING: deprecated quarry_set_thread_name() API invoked. Please, use "
      "quarry_set_current_thread_name() instead.\n",
      GetCapturedStderr());
  EXPECT_STREQ("old_style", name);
  std::vector<std::string> added;
  for (thread_name_entry* e = thread_name_list.load(); e != nullptr; e = e->next.load())
    added.push_back(e->text);
  // A line is cut at 63 characters.
  const std::string worker_line = "THREAD w " + std::to_string(int32_t(worker_thread)) + "\n";
  EXPECT_EQ((std::vector<std::string>{"THREAD " + std::string(56, 'n'), worker_line}), added);
}

// A clock that advances by step_for(n) ns after its n-th reading (reading fail_at fails).
int (*step_for)(int n);
int64_t now_ns;
int reads, fail_at;
constexpr uint32_t kKept = 0x77;  // what calibration leaves alone keeps this value

int scripted_clock(struct timespec* t) {
  if (reads == fail_at) return -1;
  t->tv_sec = now_ns / 1000000000;
  t->tv_nsec = now_ns % 1000000000;
  now_ns += step_for(reads++);
  return 0;
}

TEST(Calibration, ResolutionIndexMaskAndTimeOut) {
  const std::string timeout =
      "quarry_mem_impl failed to compute minimal resolution within 2s. Assuming high "
      "resolution\n";
  const struct {
    int (*steps)(int);
    int fail_at;
    std::string message;
    uint64_t res, mask, index;
  } cases[] = {
      // A 4 ms clock whose readings repeat twice before each step: the repeats are not steps.
      {[](int n) { return n % 3 == 2 ? 4000000 : 0; }, -1, "", 4000000, (1u << 21) - 1,
       (1u << 21) - 1 - 5},
      {[](int) { return 99; }, -1, "", 1, 1, kKept},  // fine: counts as 1 ns
      // Steps over 10 ms are preemptions: the time-out keeps the smallest good step, if any.
      {[](int) { return 20000000; }, -1, timeout, UINT64_MAX, kKept, kKept},
      {[](int n) { return n < 6 ? 5000000 : 20000000; }, -1, timeout, 5000000, kKept, kKept},
      // A clock read that fails stops the calibration where it is.
      {[](int) { return 3000000; }, 0, "", UINT64_MAX, kKept, kKept},
      {[](int) { return 3000000; }, 7, "", 3000000, kKept, kKept},
  };
  for (const auto& c : cases) {
    step_for = c.steps;
    now_ns = 999999000;  // just below a second: the steps cross seconds
    reads = 0;
    fail_at = c.fail_at;
    ts_idx_mask.store(kKept);
    ts_index.store(kKept);
    set_calibration_clock(scripted_clock);
    CaptureStderr();
    calibrate_clock();
    set_calibration_clock(nullptr);
    EXPECT_EQ(c.message, GetCapturedStderr());
    EXPECT_EQ(c.res, ts_res.load());
    EXPECT_EQ(c.mask, ts_idx_mask.load());
    EXPECT_EQ(c.index, ts_index.load());
  }
}

class SetupFile : public ::testing::Test {
 protected:
  void SetUp() override {
    set_setup_file_candidates(candidates_);
    for (const char* name : {"QUARRY_PATH", "QUARRY_DEC_PATH", "QUARRY_PERSIST"}) unsetenv(name);
  }
  void TearDown() override {
    set_setup_file_candidates(nullptr);
    for (const char* name : {"QUARRY_PATH", "QUARRY_DEC_PATH"}) setenv(name, base_dir().c_str(), 1);
  }
  // The record as "path|dec|persist", or "null"; standard error goes to err_.
  std::string read_env() {
    CaptureStderr();
    quarry_env* env = quarry_get_env();
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

const std::string kDec = "/usr/local/etc/quarry/|0", kPath = "/dev/shm/quarry/|";

TEST_F(SetupFile, GrammarAndItsTwoMessages) {
  const std::string eq = "Missing '=' after variable ", val = "Missing value for variable ";
  const std::string at = " while parsing " + first_ + "\n";
  const struct {
    std::string content, expected, message;
  } cases[] = {
      {"", kPath + kDec, ""},
      {"  QUARRY_PATH \t=\t /a  more words\n", "/a/|" + kDec, ""},
      {"# QUARRY_PATH=/not\n\n   \t \nQUARRY_PATH=/a", "/a/|" + kDec, ""},
      {"QUARRY_PATH=/crlf\r\n", "/crlf/|" + kDec, ""},
      {"QUARRY_DEC_PATH=/one\nQUARRY_DEC_PATH=/two\n", kPath + "/two/|0", ""},
      {"quarry_path=/x\nOTHER_NAME=1\n=anonymous\n", kPath + kDec, ""},
      {"QUARRY_PATH=" + std::string(600, 'v') + "\n", std::string(511, 'v') + "/|" + kDec, ""},
      {"QUARRY_PERSIST=yes\n", kPath + kDec, ""},
      // 1023 characters are read at a time: the rest of a long comment is a line of its own.
      {"#" + std::string(1022, 'x') + "QUARRY_PATH=/tail\n", "/tail/|" + kDec, ""},
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
  }
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

std::string info_text(pid_t pid) {
  return "PROCESS_PID " + std::to_string(pid) + "\nDUMP_SIGNAL " + std::to_string(SIGRTMAX - 2) +
         "\n";
}

TEST(FirstOpens, HostNameMalformedSetupFileAndAnInfoFileWrittenOnce) {
  if (init_done != 0 || process_env != nullptr) GTEST_SKIP() << "needs a fresh process";
  quarry_set_process_name("svc one");
  const std::string setup = quarry_test::make_dir("setup") + "quarry.setup";
  quarry_test::write_file(setup, "QUARRY_PATH=/elsewhere\nbad line\n");
  const char* candidates[] = {setup.c_str(), nullptr};
  set_setup_file_candidates(candidates);
  CaptureStderr();
  open_handle("a");
  EXPECT_EQ("Missing '=' after variable bad while parsing " + setup + "\n", GetCapturedStderr());
  set_setup_file_candidates(nullptr);
  // The environment's path; the process directory came after the info file's first try.
  EXPECT_EQ(base_dir(), quarry_env_get_quarry_path(process_env));
  const std::string info = base_dir() + "svc_one/quarry.info";
  EXPECT_FALSE(quarry_test::file_exists(info));
  open_handle("b");
  EXPECT_EQ(info_text(getpid()), read_file(info));
  EXPECT_EQ(getpid(), quarry_get_process_id());
  ASSERT_EQ(0, unlink(info.c_str()));
  open_handle("c");
  EXPECT_FALSE(quarry_test::file_exists(info));
}

TEST(FirstOpens, BaseDirectoryThroughARegularFileFailsOnlyTheInfoFile) {
  if (init_done != 0 || process_env != nullptr) GTEST_SKIP() << "needs a fresh process";
  const std::string file = base_dir() + "plain";
  quarry_test::write_file(file, "x");
  setenv("QUARRY_PATH", (file + "/x").c_str(), 1);
  CaptureStderr();
  EXPECT_EQ(-3, quarry_global_init_once());
  open_handle("b");
  EXPECT_EQ(-3, quarry_global_init_once());  // tried again on every call
  EXPECT_EQ("", GetCapturedStderr());
  // Without a name from the host, the program's path with '/' replaced names the process.
  std::string derived = program_invocation_name;
  std::replace(derived.begin(), derived.end(), '/', '_');
  EXPECT_EQ(derived, process_name);
}

// Traces, dumps with its info file cut short, then opens, configures and exits or crashes.
int worker(quarry_handle* h, bool crashes) {
  for (uint32_t i = 0; i < 3; ++i) QUARRY_TRACE(h, 1, "d", 0xB0 + i);
  struct rlimit limit;
  getrlimit(RLIMIT_FSIZE, &limit);
  const struct rlimit tiny = {8, limit.rlim_max};
  signal(SIGXFSZ, SIG_IGN);
  setrlimit(RLIMIT_FSIZE, &tiny);
  quarry_dump(h);
  setrlimit(RLIMIT_FSIZE, &limit);
  quarry_set_enabled(h, false);
  bool ok = open_handle("own") != nullptr && quarry_set_current_thread_name("worker") == 0 &&
            quarry_enable_configuration2(h) == 0;
  if (!crashes) exit(ok ? 0 : 1);
  const struct rlimit no_core = {0, 0};
  setrlimit(RLIMIT_CORE, &no_core);
  abort();
}

TEST(ForkTest, WorkersForkedWhileLocksAreHeldKeepTheirOwnFilesAndIdentity) {
  quarry_set_process_name("prefork");
  quarry_handle* h = open_handle("net");
  // The set-up completes (its info file) now, so that a worker's info file is the fork's own.
  ASSERT_EQ(0, quarry_global_init_once());
  QUARRY_TRACE(h, 1, "d", 0xA0);
  ASSERT_EQ(0, quarry_enable_configuration2(h));  // the parent's control file: TRACE net
  ASSERT_EQ(0, quarry_dump(h));  // a worker's file landing here would replace this one
  const std::string parent_pid = std::to_string(getpid()), parent = base_dir() + "prefork/net/";
  // Holds the registry lock and the buffer's lock nearly all the time while the workers fork.
  std::atomic<bool> stop{false};
  std::thread holder([&] {
    while (!stop.load()) {
      pthread_mutex_lock(&circular_buffer_list_mutex);
      pthread_mutex_lock(&h->cb->mutex);
      usleep(200);
      pthread_mutex_unlock(&h->cb->mutex);
      pthread_mutex_unlock(&circular_buffer_list_mutex);
      usleep(20);  // lets a waiting fork in
    }
  });
  for (int w = 0; w < 4; ++w) {
    const bool crashes = w == 3;
    SCOPED_TRACE("worker " + std::to_string(w));
    pid_t pid = 0;
    int status = quarry_test::in_child([&] { return worker(h, crashes); }, &pid);
    EXPECT_TRUE(crashes ? WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT
                        : WIFEXITED(status) && WEXITSTATUS(status) == 0)
        << status;
    const std::string name = "prefork." + std::to_string(pid), dir = base_dir() + name + "/";
    const quarry_test::trace_file file = read_trace(dir + "net/quarry_0.trc");
    EXPECT_EQ(std::to_string(pid), file.value("QUARRY_PROCESS_ID"));
    EXPECT_NE(std::string::npos,
              file.header.find("PROG_NAME " + name + "\nPARENT_PID " + parent_pid + "\n"));
    EXPECT_EQ(crashes ? "6" : "<missing SIGNAL>", file.value("SIGNAL"));
    // Every record is one integer ("d": five words, the value last).
    std::vector<uint32_t> values, words = file.data();
    for (size_t i = 4; i < words.size(); i += 5) values.push_back(words[i]);
    EXPECT_EQ((std::vector<uint32_t>{0xA0, 0xB0, 0xB1, 0xB2}), values);
    EXPECT_EQ(std::to_string(pid), read_trace(dir + "own/quarry_0.trc").value("QUARRY_PROCESS_ID"));
    EXPECT_NE(std::string::npos, read_file(dir + "net/quarry.ctrl").find("NOTRACE"));
    EXPECT_EQ(info_text(pid), read_file(dir + "quarry.info"));
  }
  stop = true;
  holder.join();
  EXPECT_EQ(parent_pid, read_trace(parent + "quarry_0.trc").value("QUARRY_PROCESS_ID"));
  EXPECT_NE(std::string::npos, read_file(parent + "quarry.ctrl").find("\nTRACE net\n"));
}

}  // namespace

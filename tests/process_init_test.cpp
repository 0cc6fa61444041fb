// Clock calibration against scripted clocks, and the once-per-process set-up as the first opens
// see it: the info file, the derived process name, an unusable base directory, a malformed
// setup file. The set-up cases need a fresh process (ctest runs each case in its own).
#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "buffer.h"
#include "env.h"
#include "process_init.h"
#include "test_support.h"

namespace {

// A clock that advances by step_for(n) nanoseconds after its n-th reading, from just below a
// second boundary so that steps cross seconds; reading number fail_at fails.
int64_t (*step_for)(int n);
int64_t now_ns;
int reads;
int fail_at;
constexpr uint32_t kUntouched = 0x77;

int scripted_clock(struct timespec* t) {
  if (reads == fail_at) return -1;
  t->tv_sec = now_ns / 1000000000;
  t->tv_nsec = now_ns % 1000000000;
  now_ns += step_for(reads++);
  return 0;
}

// Runs calibrate_clock on the scripted clock; returns what it printed.
std::string calibrate(int64_t (*steps)(int), int fail) {
  step_for = steps;
  now_ns = 999999000;
  reads = 0;
  fail_at = fail;
  ts_idx_mask.store(kUntouched);
  ts_index.store(kUntouched);
  set_calibration_clock(scripted_clock);
  testing::internal::CaptureStderr();
  calibrate_clock();
  set_calibration_clock(nullptr);
  return testing::internal::GetCapturedStderr();
}

TEST(Calibration, ResolutionIndexMaskAndTimeOut) {
  const std::string timeout =
      "quarry_mem_impl failed to compute minimal resolution within 2s. Assuming high "
      "resolution\n";
  const struct {
    int64_t (*steps)(int);
    int fail_at;
    std::string message;
    uint64_t res, mask;
    uint32_t index;
  } cases[] = {
      // A 4 ms clock whose readings repeat twice before each step: the repeats are not steps.
      {[](int n) -> int64_t { return n % 3 == 2 ? 4000000 : 0; }, -1, "", 4000000, (1u << 21) - 1,
       (1u << 21) - 1 - 5},
      {[](int) -> int64_t { return 99; }, -1, "", 1, 1, kUntouched},  // fine: counts as 1 ns
      // Steps above 10 ms are preemptions, never the resolution: with only such steps the
      // time-out comes with nothing found; after some good steps it keeps the smallest one.
      // Either way the mask stays as it was.
      {[](int) -> int64_t { return 20000000; }, -1, timeout, UINT64_MAX, kUntouched, kUntouched},
      {[](int n) -> int64_t { return n < 6 ? 5000000 : 20000000; }, -1, timeout, 5000000,
       kUntouched, kUntouched},
      // A clock read that fails stops the calibration where it is.
      {[](int) -> int64_t { return 3000000; }, 0, "", UINT64_MAX, kUntouched, kUntouched},
      {[](int) -> int64_t { return 3000000; }, 7, "", 3000000, kUntouched, kUntouched},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.message, calibrate(c.steps, c.fail_at));
    EXPECT_EQ(c.res, ts_res.load());
    EXPECT_EQ(c.mask, ts_idx_mask.load());
    EXPECT_EQ(c.index, ts_index.load());
  }
}

class FirstOpens : public ::testing::Test {
 protected:
  void SetUp() override {
    if (init_done != 0 || process_env != nullptr) GTEST_SKIP() << "needs a fresh process";
  }
  static int open(const char* name) {
    quarry_handle* h = nullptr;
    return quarry_open_internal(&h, name, 4096, 1, "init.dec", "0", nullptr);
  }
};

TEST_F(FirstOpens, InfoFileAppearsWithTheSecondOpenAndIsWrittenOnce) {
  std::string derived = program_invocation_name;
  for (char& c : derived) c = c == '/' ? '_' : c;
  const std::string info = quarry_test::base_dir() + derived + "/quarry.info";
  ASSERT_EQ(0, open("first"));
  EXPECT_EQ(derived, process_name);
  EXPECT_FALSE(quarry_test::file_exists(info));  // the process directory came after it
  ASSERT_EQ(0, open("second"));
  EXPECT_EQ("PROCESS_PID " + std::to_string(getpid()) + "\nDUMP_SIGNAL " +
                std::to_string(SIGRTMAX - 2) + "\n",
            quarry_test::read_file(info));
  EXPECT_EQ(getpid(), quarry_get_process_id());
  ASSERT_EQ(0, unlink(info.c_str()));
  ASSERT_EQ(0, open("third"));
  EXPECT_FALSE(quarry_test::file_exists(info));
}

TEST_F(FirstOpens, BaseDirectoryThroughARegularFileFailsOnlyTheInfoFile) {
  const std::string file = quarry_test::base_dir() + "plain";
  quarry_test::write_file(file, "x");
  setenv("QUARRY_PATH", (file + "/x").c_str(), 1);
  testing::internal::CaptureStderr();
  EXPECT_EQ(-3, quarry_global_init_once());
  quarry_handle* h = nullptr;
  EXPECT_EQ(0, quarry_open_internal(&h, "b", 4096, 1, "d", "0", nullptr));
  EXPECT_EQ(-3, quarry_global_init_once());  // tried again on every call
  EXPECT_EQ("", testing::internal::GetCapturedStderr());
  EXPECT_EQ(0, init_done);
  EXPECT_EQ(file + "/x/", quarry_env_get_quarry_path(process_env));
  ASSERT_NE(nullptr, h);
  EXPECT_EQ(0, std::string(h->cb->output_file_name).rfind(file + "/x/", 0));
}

TEST_F(FirstOpens, HostNameIsKeptAndAMalformedSetupFileFallsBackToTheEnvironment) {
  quarry_set_process_name("svc one");
  const std::string setup = quarry_test::make_dir("setup") + "quarry.setup";
  quarry_test::write_file(setup, "QUARRY_PATH=/elsewhere\nbad line\n");
  const char* candidates[] = {setup.c_str(), nullptr};
  set_setup_file_candidates(candidates);
  testing::internal::CaptureStderr();
  EXPECT_EQ(0, open("a"));
  EXPECT_EQ("Missing '=' after variable bad while parsing " + setup + "\n",
            testing::internal::GetCapturedStderr());
  set_setup_file_candidates(nullptr);
  EXPECT_EQ(quarry_test::base_dir(), quarry_env_get_quarry_path(process_env));
  EXPECT_EQ(0, open("b"));
  EXPECT_EQ(1, init_done);
  EXPECT_TRUE(quarry_test::file_exists(quarry_test::base_dir() + "svc_one/a/"));
  EXPECT_TRUE(quarry_test::file_exists(quarry_test::base_dir() + "svc_one/quarry.info"));
}

}  // namespace

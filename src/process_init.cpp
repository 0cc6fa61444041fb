// Once per process: dump signal, clock calibration, time base, process identity, exit hook,
// environment record and the info file. Thread contract: quarry_global_init_once runs under
// circular_buffer_list_mutex (not recursive: never call it with the mutex held).
#include "process_init.h"

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "buffer.h"
#include "env.h"
#include "fork_handlers.h"
#include "identity.h"
#include "safe_files.h"
#include "trace_file.h"

namespace {

constexpr int kCalibrationSteps = 128;
constexpr int64_t kCalibrationTimeoutNs = 2000000000;  // reported as whole seconds
constexpr int64_t kPreemptedStepNs = 10000000;  // a step this long was a preemption, not the clock
constexpr uint64_t kFineResolutionNs = 99;

int read_monotonic(struct timespec* now) {
  return clock_gettime(CLOCK_MONOTONIC, now);
}

calibration_clock clock_reader = read_monotonic;

int64_t elapsed_ns(const struct timespec& from, const struct timespec& to) {
  return (static_cast<int64_t>(to.tv_sec) - from.tv_sec) * 1000000000 + (to.tv_nsec - from.tv_nsec);
}

bool same_time(const struct timespec& a, const struct timespec& b) {
  return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

// Largest power of two not above value, minus one: the bits below value's highest set bit.
uint64_t mask_below_highest_bit(uint64_t value) {
  return (uint64_t{1} << (63 - __builtin_clzll(value))) - 1;
}

// The record holding the trace base directory for the life of the process. A malformed setup
// file has been reported by quarry_get_env already; tracing then goes on with the defaults and
// the environment rather than not at all. Null only when memory runs out: the caller must then
// not go on, since nothing may be created without a trace base directory.
quarry_env* obtain_env() {
  quarry_env* env = quarry_get_env();
  if (env != nullptr && quarry_env_get_quarry_path(env) != nullptr) return env;
  quarry_free_env(env);
  return quarry_env_from_defaults();
}

int write_info_file() {
  const char* base = quarry_env_get_quarry_path(process_env);
  char* path = nullptr;
  if (asprintf(&path, "%s%s/%s", base, process_name, "quarry.info") < 0) return -3;
  // By the umask as before (0600 in private mode); never through a link or into somebody
  // else's file (safe_files.h).
  bool exact = private_file_mode();
  int fd = open_for_writing(path, exact ? 0600 : 0666, exact);
  free(path);
  FILE* file = fd >= 0 ? fdopen(fd, "w") : nullptr;
  if (file == nullptr) {
    if (fd >= 0) close(fd);
    return -3;
  }
  fprintf(file, "%s %d\n", "PROCESS_PID", process_id);
  fprintf(file, "%s %d\n", "DUMP_SIGNAL", dump_signal);
  fclose(file);
  return 0;
}

}  // namespace

void set_calibration_clock(calibration_clock clock) {
  clock_reader = clock != nullptr ? clock : read_monotonic;
}

void calibrate_clock() {
  uint64_t resolution = UINT64_MAX;
  struct timespec t0, t1, t2;
  bool complete = false;
  if (clock_reader(&t0) != 0) goto stop;
  for (int i = 0; i < kCalibrationSteps; ++i) {
    if (clock_reader(&t1) != 0) goto stop;
    for (;;) {
      do {
        if (clock_reader(&t2) != 0) goto stop;
      } while (same_time(t1, t2));
      if (elapsed_ns(t0, t2) > kCalibrationTimeoutNs) {
        fprintf(stderr,
                "quarry_mem_impl failed to compute minimal resolution within %ds. Assuming high "
                "resolution\n",
                static_cast<int>(kCalibrationTimeoutNs / 1000000000));
        goto stop;
      }
      int64_t step = elapsed_ns(t1, t2);
      if (step <= kPreemptedStepNs) {
        if (static_cast<uint64_t>(step) < resolution) resolution = static_cast<uint64_t>(step);
        break;
      }
      usleep(1000);
      if (clock_reader(&t1) != 0) goto stop;
    }
  }
  complete = true;
stop:
  // Record writers load the clock state relaxed at any time: a repeated initialisation (after an
  // earlier run failed at the info file) calibrates again while they run.
  if (!complete) {
    // Stopped early: the smallest step so far stands and the mask stays as it was.
    ts_res.store(resolution, std::memory_order_relaxed);
    return;
  }
  if (resolution <= kFineResolutionNs) {
    ts_res.store(1, std::memory_order_relaxed);
    ts_idx_mask.store(1, std::memory_order_relaxed);
    return;
  }
  uint64_t mask = mask_below_highest_bit(resolution);
  ts_res.store(resolution, std::memory_order_relaxed);
  if (ts_idx_mask.exchange(mask, std::memory_order_relaxed) != mask) {
    // The index starts five below the mask, so the seventh indexed record wraps to 0. A repeated
    // calibration that finds the same mask leaves the running index alone: resetting it would
    // hand out index values that records of the current clock step already carry.
    ts_index.store(static_cast<uint32_t>(mask - 5), std::memory_order_relaxed);
  }
}

int quarry_global_init_once() {
  // Before anything a child could inherit exists, and outside the lock (fork_handlers.h).
  register_fork_handlers();
  if (pthread_mutex_lock(&circular_buffer_list_mutex) != 0) return -1;
  if (init_done == 1) {
    QUARRY_UNLOCK_LIST();
    return 0;
  }
  // Written only when it differs: signal handlers may read it while a later run repeats this.
  if (dump_signal != SIGRTMAX - 2) dump_signal = SIGRTMAX - 2;
  calibrate_clock();
  if (take_time_sample(&time_alpha) != 0) {
    fputs("QUARRY ERROR: Unable to read clock time-alpha\n", stderr);
    QUARRY_UNLOCK_LIST();
    return -2;
  }
  if (argv0[0] == '\0') read_cmdline(argv0, sizeof argv0);
  if (process_name[0] == '\0') {
    // A name derived from the command line keeps its path, with '/' made harmless.
    for (size_t i = 0; i < sizeof process_name; ++i) {
      process_name[i] = argv0[i] == '/' ? '_' : argv0[i];
      if (argv0[i] == '\0') break;
    }
  }
  quarry_init_process_id();
  // The pipe writer installs this action for SIGPIPE around its writes, possibly while a later
  // run of this function repeats the set-up; it is written only while it is not set yet.
  if (sigpipe_ignore_action.sa_handler != SIG_IGN) {
    memset(&sigpipe_ignore_action, 0, sizeof sigpipe_ignore_action);
    sigemptyset(&sigpipe_ignore_action.sa_mask);
    sigpipe_ignore_action.sa_handler = SIG_IGN;
  }
  atexit(dump_at_exit);
  if (process_env == nullptr) process_env = obtain_env();
  // Without a trace base directory (out of memory) there is no info file; init_done stays 0 so
  // the next open tries again, and the open creates no buffer meanwhile.
  if (process_env == nullptr || write_info_file() != 0) {
    QUARRY_UNLOCK_LIST();
    return -3;
  }
  init_done = 1;
  QUARRY_UNLOCK_LIST();
  return 0;
}

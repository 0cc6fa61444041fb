// The registry of buffers, the process-wide state, time samples and the small handle
// operations. Thread contract: take_time_sample and monotonic_ns are async-signal-safe; the
// state below is written as documented in buffer.h.
#include "buffer.h"

#include <sys/time.h>
#include <time.h>

extern "C" {
QUARRY_EXPORT std::atomic<circular_buffer*> circular_buffer_list{nullptr};
// glibc's assertion reporter; declared here because <assert.h> hides it under NDEBUG.
void __assert_fail(const char* assertion, const char* file, unsigned int line,
                   const char* function) noexcept __attribute__((noreturn));
}
pthread_mutex_t circular_buffer_list_mutex = PTHREAD_MUTEX_INITIALIZER;

char process_name[256];
char argv0[256];
uint32_t node_id;
int32_t process_id;
int32_t init_done;
int32_t dump_signal;
std::atomic<uint64_t> ts_res{0};
std::atomic<uint64_t> ts_idx_mask{0};
std::atomic<uint32_t> ts_index{0};
time_sample time_alpha;
time_sample time_omega;
struct sigaction sigpipe_ignore_action;
std::atomic<thread_name_entry*> thread_name_list{nullptr};
quarry_env* process_env;
volatile sig_atomic_t crash_handled;
volatile int32_t crash_signal;
volatile int32_t crash_sender_pid;

// The assertion names the library's historical source file so that reports from hosts stay
// recognisable across versions.
[[noreturn]] void quarry_fatal_unlock(const char* expression, const char* function) {
  __assert_fail(expression, "shared_pkg/common/quarry/target/src/quarry_mem_impl", __LINE__,
                function);
}

int take_time_sample(time_sample* t) {
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  t->wall_sec = tv.tv_sec;
  t->wall_usec = tv.tv_usec;
  struct timespec ts;
  if (clock_gettime(CLOCK_MONOTONIC, &ts) != 0) return 1;
  t->mono_sec = ts.tv_sec;
  t->mono_nsec = ts.tv_nsec;
  return 0;
}

uint64_t monotonic_ns() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000000ull + static_cast<uint64_t>(ts.tv_nsec);
}

extern "C" QUARRY_EXPORT const char* quarry_handle_get_name(quarry_handle* hdl) {
  return hdl->name;
}

extern "C" QUARRY_EXPORT int quarry_close(quarry_handle* hdl) {
  (void)hdl;  // handles live until the process ends
  return 0;
}

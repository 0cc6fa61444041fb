// Proof that the dump path is async-signal-safe: on a watched thread, any allocation, lock, stdio
// call or strerror is a violation. malloc is replaced (except under a sanitizer's allocator) so
// the C library's own allocations count too; the linked objects' calls are caught by --wrap.
#include <dirent.h>
#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "crash_signals.h"
#include "trace_file.h"
#include "trace_fixture.h"

namespace {

// Volatile: else the compiler, knowing malloc, drops the flag's stores around a call of it.
thread_local volatile bool g_watching = false;
std::atomic<const char*> g_first_violation{nullptr};
std::atomic<int> g_violations{0};

void note(const char* what) {
  if (!g_watching) return;
  const char* none = nullptr;
  g_first_violation.compare_exchange_strong(none, what);
  ++g_violations;
}

// The first forbidden call that `call` made on this thread, or "none".
template <typename F>
std::string first_seen(F call) {
  g_first_violation = nullptr;
  g_violations = 0;
  g_watching = true;
  call();
  g_watching = false;
  const char* what = g_first_violation.load();
  return what != nullptr ? what : "none";
}

}  // namespace

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
#define QUARRY_TEST_REPLACES_MALLOC 1
extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* p, size_t size);
void __libc_free(void* p);

// clang-format off
void* malloc(size_t n) { note("malloc"); return __libc_malloc(n); }
void* calloc(size_t c, size_t n) { note("calloc"); return __libc_calloc(c, n); }
void* realloc(void* p, size_t n) { note("realloc"); return __libc_realloc(p, n); }
void free(void* p) { note("free"); __libc_free(p); }
// clang-format on
}
#endif

// Each wrapped function notes the call and forwards to the real one.
#define QUARRY_WRAP(result, name, parameters, arguments) \
  extern "C" result __real_##name parameters;            \
  extern "C" result __wrap_##name parameters {           \
    note(#name);                                         \
    return __real_##name arguments;                      \
  }
#define QUARRY_WRAP_VARIADIC(name, real, parameters, ...) \
  extern "C" int __wrap_##name parameters {               \
    note(#name);                                          \
    va_list args;                                         \
    va_start(args, format);                               \
    int r = real(__VA_ARGS__, args);                      \
    va_end(args);                                         \
    return r;                                             \
  }

QUARRY_WRAP(void*, malloc, (size_t n), (n))
QUARRY_WRAP(void*, calloc, (size_t c, size_t n), (c, n))
QUARRY_WRAP(void*, realloc, (void* p, size_t n), (p, n))
QUARRY_WRAP(void, free, (void* p), (p))
QUARRY_WRAP(void*, aligned_alloc, (size_t a, size_t n), (a, n))
QUARRY_WRAP(int, pthread_mutex_lock, (pthread_mutex_t * m), (m))
QUARRY_WRAP(int, pthread_mutex_trylock, (pthread_mutex_t * m), (m))
QUARRY_WRAP(FILE*, fopen, (const char* p, const char* m), (p, m))
QUARRY_WRAP(size_t, fwrite, (const void* p, size_t s, size_t n, FILE* f), (p, s, n, f))
QUARRY_WRAP(int, fputs, (const char* s, FILE* f), (s, f))
QUARRY_WRAP(int, vfprintf, (FILE * f, const char* format, va_list a), (f, format, a))
QUARRY_WRAP(int, vsnprintf, (char* s, size_t n, const char* format, va_list a), (s, n, format, a))
QUARRY_WRAP(void, perror, (const char* s), (s))
QUARRY_WRAP(char*, strerror, (int e), (e))
QUARRY_WRAP(char*, strerror_r, (int e, char* b, size_t n), (e, b, n))
QUARRY_WRAP(DIR*, opendir, (const char* p), (p))
QUARRY_WRAP_VARIADIC(fprintf, __real_vfprintf, (FILE * f, const char* format, ...), f, format)
QUARRY_WRAP_VARIADIC(printf, __real_vfprintf, (const char* format, ...), stdout, format)
QUARRY_WRAP_VARIADIC(snprintf, __real_vsnprintf, (char* s, size_t n, const char* format, ...), s, n,
                     format)

namespace {

// The detector itself: without it, a broken wrap would let the proof below pass vacuously.
TEST(SignalSafetyProof, DetectorSeesForbiddenCalls) {
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  char text[16];
  void* volatile p = nullptr;
  EXPECT_EQ("malloc", first_seen([&] { p = malloc(16); }));
  free(p);
  EXPECT_EQ("pthread_mutex_lock", first_seen([&] { pthread_mutex_lock(&mutex); }));
  pthread_mutex_unlock(&mutex);
  EXPECT_EQ("snprintf", first_seen([&] { snprintf(text, sizeof text, "%d", int{sizeof text}); }));
  EXPECT_EQ("strerror", first_seen([&] { p = strerror(EIO); }));
#if QUARRY_TEST_REPLACES_MALLOC
  DIR* dir = nullptr;
  first_seen([&] { dir = opendir("/"); });
  EXPECT_GE(g_violations.load(), 2) << "opendir's own allocation is seen too";
  closedir(dir);
#endif
}

std::atomic<int> g_host_calls{0};

// Every trigger, while another thread holds the registry lock and the dumped buffer's: no dump
// waits for or takes a lock, allocates or uses stdio. Headers hold every section, one buffer
// lacks its open block, one cannot be written (reported, except at exit where it opted out);
// the crash handler runs last, up to the host's. The alarm turns a deadlock into a failure.
TEST(SignalSafetyProof, EveryDumpTriggerAllocatesNothingAndLocksNothing) {
  signal(SIGTERM, [](int) { ++g_host_calls; });  // before the library installs its handlers
  quarry_set_process_name("proof");
  quarry_handle *parent = nullptr, *child = nullptr, *unwritable = nullptr;
  ASSERT_EQ(0, quarry_open_internal(&parent, "main", 8192, 4, "m.dec", "a", nullptr));
  ASSERT_EQ(0, quarry_open_internal(&child, "sub", 0, 4, "s.dec", "b", parent));
  ASSERT_EQ(0, quarry_open_internal(&unwritable, "gone", 4096, 1, "g.dec", "c", nullptr));
  ASSERT_EQ(0, quarry_set_current_thread_name("prover"));
  for (int i = 0; i < 100; ++i) QUARRY_TRACE(child, 1, "dsD", i, "text", 1ull << 40);
  ASSERT_TRUE(quarry_test::make_unwritable(unwritable->cb));
  quarry_set_dump_on_exit(unwritable, false);
  circular_buffer* cb = parent->cb;
  char* const open_block = cb->output_header;
  cb->output_header = nullptr;

  std::atomic<int> stage{0};
  std::thread holder([&] {
    pthread_mutex_lock(&circular_buffer_list_mutex);
    pthread_mutex_lock(&cb->mutex);
    stage = 1;
    while (stage.load() != 2) std::this_thread::yield();
    pthread_mutex_unlock(&cb->mutex);
    pthread_mutex_unlock(&circular_buffer_list_mutex);
  });
  while (stage.load() != 1) std::this_thread::yield();
  testing::internal::CaptureStdout();
  alarm(60);
  const std::string violation = first_seen([&] {
    quarry_dump(child);
    quarry_dump_all();
    dump_at_exit();
    raise(dump_signal);
    quarry_dump(unwritable);
    raise(SIGTERM);
  });
  alarm(0);
  const std::string reports = testing::internal::GetCapturedStdout();
  stage = 2;
  holder.join();
  cb->output_header = open_block;
  EXPECT_EQ("none", violation);

  // The dumps really ran, and each dump of the unwritable buffer reported.
  EXPECT_EQ(1, g_host_calls.load());
  const auto file = quarry_test::read_trace(std::string(cb->output_file_name) + "_0.trc");
  EXPECT_TRUE(file.complete);
  EXPECT_EQ(2u, file.items.count("QUARRY_DECODE_REF"));  // parent and child
  EXPECT_EQ("15", file.value("SIGNAL"));
  EXPECT_EQ(std::to_string(getpid()), file.value("SIGNALING_PID"));
  EXPECT_EQ(file.value("SIGNALING_PID"), file.value("QUARRY_PROCESS_ID"));  // formatted at dump
  const std::string report = "quarry abort handler: unable to open trace file " +
                             std::string(unwritable->cb->output_file_name) +
                             "_0.trc (Not a directory)";
  EXPECT_EQ(report + report + report + report, reports);
}

}  // namespace

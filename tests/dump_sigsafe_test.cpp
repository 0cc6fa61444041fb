// Proof that the dump path is async-signal-safe: while a dump runs on a watched thread, any
// allocation, lock, stdio call or strerror is counted as a violation. Allocation is caught for
// the whole process by replacing malloc and its family (so allocations inside the C library
// count too); locks, stdio and strerror are caught in the linked objects through the linker's
// --wrap (tests/extra_tests.cmake). Under a sanitizer, which brings its own allocator,
// allocation is caught through --wrap alone.
#include <dirent.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

#include "crash_signals.h"
#include "trace_file.h"
#include "trace_fixture.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define QUARRY_TEST_REPLACES_MALLOC 0
#else
#define QUARRY_TEST_REPLACES_MALLOC 1
#endif

namespace {

// Volatile: the compiler knows malloc's meaning and would otherwise drop a store to the flag
// around a direct call of it as unobservable.
thread_local volatile bool g_watching = false;
std::atomic<int> g_violations{0};
std::atomic<const char*> g_first_violation{nullptr};

void note(const char* what) {
  if (!g_watching) return;
  const char* none = nullptr;
  g_first_violation.compare_exchange_strong(none, what);
  ++g_violations;
}

// Watches the calling thread from construction to destruction.
struct watch {
  watch() {
    g_violations = 0;
    g_first_violation = nullptr;
    g_watching = true;
  }
  ~watch() { g_watching = false; }
};

std::string first_violation() {
  const char* what = g_first_violation.load();
  return what != nullptr ? what : "none";
}

}  // namespace

#if QUARRY_TEST_REPLACES_MALLOC
extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* p, size_t size);
void __libc_free(void* p);
void* __libc_memalign(size_t alignment, size_t size);

// clang-format off
void* malloc(size_t n) { note("malloc"); return __libc_malloc(n); }
void* calloc(size_t c, size_t n) { note("calloc"); return __libc_calloc(c, n); }
void* realloc(void* p, size_t n) { note("realloc"); return __libc_realloc(p, n); }
void free(void* p) { note("free"); __libc_free(p); }
void* memalign(size_t a, size_t n) { note("memalign"); return __libc_memalign(a, n); }
void* aligned_alloc(size_t a, size_t n) { note("aligned_alloc"); return __libc_memalign(a, n); }
// clang-format on
int posix_memalign(void** out, size_t alignment, size_t size) {
  note("posix_memalign");
  if (alignment % sizeof(void*) != 0 || (alignment & (alignment - 1)) != 0) return EINVAL;
  void* p = __libc_memalign(alignment, size);
  if (p == nullptr) return ENOMEM;
  *out = p;
  return 0;
}
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
QUARRY_WRAP(void*, _Znwm, (size_t n), (n))  // operator new
QUARRY_WRAP(int, pthread_mutex_lock, (pthread_mutex_t * m), (m))
QUARRY_WRAP(int, pthread_mutex_trylock, (pthread_mutex_t * m), (m))
QUARRY_WRAP(int, pthread_rwlock_rdlock, (pthread_rwlock_t * l), (l))
QUARRY_WRAP(int, pthread_rwlock_wrlock, (pthread_rwlock_t * l), (l))
QUARRY_WRAP(int, sem_wait, (sem_t * s), (s))
QUARRY_WRAP(FILE*, fopen, (const char* p, const char* m), (p, m))
QUARRY_WRAP(size_t, fwrite, (const void* p, size_t s, size_t n, FILE* f), (p, s, n, f))
QUARRY_WRAP(int, fputs, (const char* s, FILE* f), (s, f))
QUARRY_WRAP(int, puts, (const char* s), (s))
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

// The first forbidden call that `call` made on this thread, or "none".
template <typename F>
std::string first_seen(F call) {
  {
    watch w;
    call();
  }
  return first_violation();
}

// The detector itself: calls made on a watched thread are seen. Without this, a broken wrap
// would let every other case here pass vacuously.
TEST(SignalSafetyProof, DetectorSeesForbiddenCalls) {
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  char text[16];
  void* volatile p = nullptr;
  EXPECT_EQ("malloc", first_seen([&] { p = malloc(16); }));
  free(p);
  EXPECT_EQ("pthread_mutex_lock", first_seen([&] { pthread_mutex_lock(&mutex); }));
  pthread_mutex_unlock(&mutex);
  EXPECT_EQ("snprintf",
            first_seen([&] { snprintf(text, sizeof text, "%d", static_cast<int>(sizeof text)); }));
  EXPECT_EQ("strerror", first_seen([&] { p = strerror(EIO); }));
#if QUARRY_TEST_REPLACES_MALLOC
  // Allocations made inside the C library are seen too: opendir itself and its allocation.
  DIR* dir = nullptr;
  first_seen([&] { dir = opendir("/"); });
  EXPECT_GE(g_violations.load(), 2);
  closedir(dir);
#endif
}

struct opened {
  quarry_handle* parent;
  quarry_handle* child;
  quarry_handle* unwritable;
};

// Buffers with everything a header can hold, records, a thread name, and one buffer whose
// file cannot be opened so that the failure report runs as well.
opened open_buffers() {
  quarry_set_process_name("proof");
  opened o{};
  EXPECT_EQ(0, quarry_open_internal(&o.parent, "main", 8192, 4, "m.dec", "a", nullptr));
  EXPECT_EQ(0, quarry_open_internal(&o.child, "sub", 0, 4, "s.dec", "b", o.parent));
  EXPECT_EQ(0, quarry_open_internal(&o.unwritable, "gone", 4096, 1, "g.dec", "c", nullptr));
  EXPECT_EQ(0, quarry_set_current_thread_name("prover"));
  for (int i = 0; i < 100; ++i) QUARRY_TRACE(o.child, 1, "dsD", i, "text", 1ull << 40);
  EXPECT_TRUE(quarry_test::make_unwritable(o.unwritable->cb));
  return o;
}

std::string trace_path(quarry_handle* h) {
  return std::string(h->cb->output_file_name) + "_0.trc";
}

// Every trigger, while another thread holds the registry lock and the dumped buffer's lock:
// no dump waits for them or touches them, and none allocates or prints through stdio. The
// alarm turns a deadlock into a failure.
TEST(SignalSafetyProof, EveryDumpTriggerAllocatesNothingAndLocksNothing) {
  opened o = open_buffers();
  // A buffer without its open block exercises the dump-time formatter, a crash state the
  // termination lines.
  circular_buffer* cb = o.parent->cb;
  char* header = cb->output_header;
  cb->output_header = nullptr;
  crash_sender_pid = -4;
  crash_signal = 15;
  crash_handled = 1;
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
    quarry_dump(o.child);
    quarry_dump_all();
    dump_at_exit();
    raise(dump_signal);
    quarry_dump(o.unwritable);
  });
  alarm(0);
  std::string reports = testing::internal::GetCapturedStdout();
  stage = 2;
  holder.join();
  cb->output_header = header;
  EXPECT_EQ("none", violation);
  // The dumps really ran: the file is complete and each failing dump reported.
  auto file = quarry_test::read_trace(trace_path(o.parent));
  EXPECT_TRUE(file.complete);
  EXPECT_EQ("15", file.value("SIGNAL"));
  EXPECT_EQ("18446744073709551612", file.value("SIGNALING_PID"));
  const std::string report = "quarry abort handler: unable to open trace file " +
                             trace_path(o.unwritable) + " (Not a directory)";
  EXPECT_EQ(report + report + report + report, reports);
}

// The crash handler from its first step to the host's handler, in a child that ends there.
std::string g_crash_file;

void host_sigterm_handler(int) {
  g_watching = false;
  const char* what = g_first_violation.load();
  if (g_violations.load() != 0) {
    ssize_t ignored = write(STDERR_FILENO, what, strlen(what));
    (void)ignored;
    _exit(1);
  }
  _exit(quarry_test::file_exists(g_crash_file) ? 0 : 2);
}

TEST(SignalSafetyProof, CrashHandlerAllocatesNothingAndLocksNothing) {
  // The host's handler must come before the library's installation, which happens once per
  // process (ctest runs every case in a process of its own).
  if (circular_buffer_list.load() != nullptr) GTEST_SKIP() << "buffers exist already";
  EXPECT_EXIT(
      {
        signal(SIGTERM, host_sigterm_handler);
        g_crash_file = trace_path(open_buffers().parent);
        watch w;
        raise(SIGTERM);
        _exit(3);
      },
      ::testing::ExitedWithCode(0), "");
}

}  // namespace

// Dumping: the trace file's text, dumps, failure reports, the held ring and the proof that every
// dump trigger is signal-safe; --wrap makes write(2) fail on demand and counts locks, stdio, etc.
#include <dirent.h>
#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <unistd.h>

#include <atomic>

#include "crash_signals.h"
#include "live_test_support.h"
#include "sigsafe_format.h"
#include "trace_file.h"
#include "trace_fixture.h"

// Writes to descriptors above 2 are counted while a failure is armed; the armed one fails.
static std::atomic<int> g_fail_at{0};
static std::atomic<int> g_writes{0};

// Volatile: else the compiler, knowing malloc, drops the flag's stores around a call of it.
static thread_local volatile bool g_watching = false;
static std::atomic<const char*> g_first_violation{nullptr};

static void note(const char* what) {
  if (!g_watching) return;
  const char* none = nullptr;
  g_first_violation.compare_exchange_strong(none, what);
}

template <typename F>
static std::string first_seen(F call) {
  g_first_violation = nullptr;
  g_watching = true;
  call();
  g_watching = false;
  const char* what = g_first_violation.load();
  return what != nullptr ? what : "none";
}

extern "C" ssize_t __real_write(int fd, const void* buf, size_t count);
extern "C" ssize_t __wrap_write(int fd, const void* buf, size_t count) {
  if (fd > 2 && g_fail_at.load() != 0 && ++g_writes == g_fail_at.load()) {
    errno = EIO;
    return -1;
  }
  return __real_write(fd, buf, count);
}

#define QUARRY_FORWARD(result, name, real, noted, parameters, arguments) \
  extern "C" result real parameters;                                     \
  extern "C" result name parameters {                                    \
    note(noted);                                                         \
    return real arguments;                                               \
  }
#define QUARRY_WRAP(result, name, parameters, arguments) \
  QUARRY_FORWARD(result, __wrap_##name, __real_##name, #name, parameters, arguments)
#define QUARRY_WRAP_VARIADIC(name, real, parameters, ...) \
  extern "C" int __wrap_##name parameters {               \
    note(#name);                                          \
    va_list args;                                         \
    va_start(args, fmt);                                  \
    int r = real(__VA_ARGS__, args);                      \
    va_end(args);                                         \
    return r;                                             \
  }

// malloc is replaced (except under a sanitizer's allocator): the C library's own calls count.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
#define QUARRY_TEST_REPLACES_MALLOC 1
QUARRY_FORWARD(void*, malloc, __libc_malloc, "malloc", (size_t n), (n))
QUARRY_FORWARD(void*, calloc, __libc_calloc, "calloc", (size_t c, size_t n), (c, n))
QUARRY_FORWARD(void*, realloc, __libc_realloc, "realloc", (void* p, size_t n), (p, n))
QUARRY_FORWARD(void, free, __libc_free, "free", (void* p), (p))
#endif
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
QUARRY_WRAP_VARIADIC(fprintf, __real_vfprintf, (FILE * f, const char* fmt, ...), f, fmt)
QUARRY_WRAP_VARIADIC(printf, __real_vfprintf, (const char* fmt, ...), stdout, fmt)
QUARRY_WRAP_VARIADIC(snprintf, __real_vsnprintf, (char* s, size_t n, const char* fmt, ...), s, n,
                     fmt)

namespace {

using namespace quarry_test;

constexpr char kOpenFailed[] = "quarry abort handler: unable to open trace file ";

std::string file_of(const circular_buffer* cb) {
  return std::string(cb->output_file_name) + "_0.trc";
}

class DumpTest : public LibraryStateTest {
 protected:
  void SetUp() override {
    LibraryStateTest::SetUp();
    time_alpha = {0x5f5e100, 0x1e240, 0x3039, 0x3b9ac9ff};
    time_omega = {0x60000000, 0x7, 0x303a, 0};
    node_id = 0xbeef;
    process_id = 4242;
    strcpy(argv0, "/usr/bin/trace host");
    ts_idx_mask = 0x1fffff;
    ts_res = 0x3d0900;
    for (uint32_t i = 0; i < 1024; ++i) words_[i] = 0x11 + i * 0x01010101u;
  }
  // A buffer with its open block, one handle and counting words.
  circular_buffer* buffer(const std::string& name) {
    circular_buffer* cb = make_buffer(make_dir(name));
    build_output_header(cb);
    handle_ = add_handle(cb, name.c_str(), "QUARRY_DECODE_REF x \"x.dec\" 0.1.t\n");
    set_words(cb, words_);
    return cb;
  }

  std::string dir_ = make_dir("text");
  quarry_handle* handle_ = nullptr;
  std::vector<uint32_t> words_ = std::vector<uint32_t>(1024);
};

constexpr char kOpenBlock[] =
    "VERSION 1.0\nWALL_TIME_SEC 5f5e100\nWALL_TIME_USEC 1e240\nCLOCK_TIME_SEC 3039\n"
    "CLOCK_TIME_NSEC 3b9ac9ff\nQUARRY_NODE_ID beef\nQUARRY_PROCESS_ID 4242\n"
    "QUARRY_ARGV0 /usr/bin/trace host\nTS_IDX_MSK 1fffff\nTS_RES 3d0900\n"
    "WALL_TIME_Z_SEC 60000000\nWALL_TIME_Z_USEC 7\nCLOCK_TIME_Z_SEC 303a\nCLOCK_TIME_Z_NSEC 0\n";

// Headers byte for byte (the open block fixed at creation), then each write of a dump failing.
TEST_F(DumpTest, HeaderByteForByteThenEveryWriteFailing) {
  circular_buffer* cb = make_buffer(dir_);
  build_output_header(cb);
  set_words(cb, words_);
  node_id = 1;
  process_id = 1;
  auto expect_header = [&](const std::string& tail) {
    EXPECT_EQ(0, dump_circular_buffer(cb));
    const trace_file file = read_trace(file_of(cb));
    const std::string text = kOpenBlock + tail;
    EXPECT_EQ(text + std::string((4 - text.size() % 4) % 4, ' '), file.header + file.fill);
  };
  expect_header(
      "CREATION_TIME 0\nWRAPAROUND_TIME 0\nWRAPAROUND_COUNT 0\nENTRY_COUNT 0\n"
      "BUFFER_SIZE 400\nWORD_COUNT 0\nMIN_WRAPAROUND_TIME ffffffffffffffff\n"
      "MAX_WRAPAROUND_TIME 0\n\n");

  strcpy(process_name, "tracer");
  cb->creation_time = 0x123456789aull;
  cb->wraparound_time = 0xabc;
  cb->wraparound_count = 3;
  cb->entry_count = 0x10;
  cb->word_count = 0x1005;
  cb->min_wraparound_time = 0x10;
  cb->max_wraparound_time = 0xffffffffffull;
  add_handle(cb, "net", "QUARRY_DECODE_REF net \"net.dec\" 0.9.v1\n");
  add_handle(cb, "net/io", "QUARRY_DECODE_REF net/io \"io.dec\" 10.14.v2\n");
  add_thread_line("THREAD main 1234\n");
  // Cut at 63 characters: the next item follows on the same line.
  add_thread_line(("THREAD " + std::string(70, 't') + " 1\n").c_str());
  // A negative sender prints as its 64-bit two's-complement image.
  crash_handled = 1;
  crash_sender_pid = -1;
  crash_signal = 15;
  g_writes = 0;
  g_fail_at = -1;  // counts the writes: 10, or 11 with a fill
  expect_header(
      "CREATION_TIME 123456789a\nWRAPAROUND_TIME abc\nWRAPAROUND_COUNT 3\n"
      "ENTRY_COUNT 10\nBUFFER_SIZE 400\nWORD_COUNT 1005\nMIN_WRAPAROUND_TIME 10\n"
      "MAX_WRAPAROUND_TIME ffffffffff\nPROG_NAME tracer\n"
      "QUARRY_DECODE_REF net \"net.dec\" 0.9.v1\n"
      "QUARRY_DECODE_REF net/io \"io.dec\" 10.14.v2\nTHREAD main 1234\nTHREAD " +
      std::string(56, 't') + "SIGNALING_PID 18446744073709551615\nSIGNAL 15\n\n");
  const int total_writes = g_writes.load();
  ASSERT_TRUE(total_writes == 10 || total_writes == 11) << total_writes;
  const std::string clean = read_file(file_of(cb));
  const std::string data = clean.substr(clean.size() - 1024 * 4);
  // Failing write (0: the data, reported without errno), result, report after "unable to write ".
  const std::tuple<int, int, const char*> failures[] = {{1, 1, "header to trace file "},
                                                        {2, 1, "omega time to trace file "},
                                                        {3, 1, "program name to trace file "},
                                                        {4, -2, "base offsets to trace file "},
                                                        {5, -2, "base offsets to trace file "},
                                                        {6, -3, "thread id-to-name mapping"},
                                                        {7, -3, "thread id-to-name mapping"},
                                                        {8, 0, "termination reason to header"},
                                                        {9, 0, nullptr},
                                                        {0, 1, "data to trace file "}};
  for (const auto& [write_index, result, report] : failures) {
    const int index = write_index == 0 ? total_writes : write_index;
    SCOPED_TRACE("failing write " + std::to_string(index));
    g_writes = 0;
    g_fail_at = index;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    EXPECT_EQ(result, dump_circular_buffer(cb));
    EXPECT_EQ(report ? "" : "QUARRY_HEADER_DUMP: write failed",
              testing::internal::GetCapturedStderr());
    g_fail_at = 0;
    EXPECT_EQ(report ? "quarry abort handler: unable to write " + (report + file_of(cb)) +
                           (index < total_writes ? " (Input/output error)" : "")
                     : "",
              testing::internal::GetCapturedStdout());
    const std::string bytes = read_file(file_of(cb));
    if (result != 0) {
      EXPECT_EQ(index, g_writes.load());
      EXPECT_EQ(clean.substr(0, bytes.size()), bytes);
    }
    EXPECT_EQ(result == 0,
              bytes.size() >= data.size() && bytes.substr(bytes.size() - data.size()) == data);
  }
}

// Signal-safe text: bounded_copy cuts, terminates and NUL-pads up to n - 1, never beyond; the
// open block equals the built one, extremes included, and is cut to a small area.
TEST_F(DumpTest, SignalSafeTextIsBoundedAndMatchesTheBuiltOpenBlock) {
  char area[768];
  memset(area, '#', sizeof area);
  EXPECT_EQ(area, bounded_copy(area, "abc", 3));
  EXPECT_EQ(std::string("ab\0#", 4), std::string(area, 4));
  bounded_copy(area, "ab", 8);
  EXPECT_EQ(std::string("ab\0\0\0\0\0\0#", 9), std::string(area, 9));
  EXPECT_STREQ("Unknown error", sigsafe_strerror(100000));
  const std::tuple<time_sample, uint32_t, int32_t, std::string, uint64_t, uint64_t> states[] = {
      {{0, 0, 0, 0}, 0, 0, "", 0, 0},
      {{-1, INT64_MIN, INT64_MAX, 1}, 0xffffffffu, INT32_MIN, std::string(255, 'z'), ~0ull, 1},
      {{1, 2, 3, 4}, 7, -1, "with spaces in it", 1, 1},
  };
  for (const auto& [alpha, node, pid, path, mask, res] : states) {
    time_alpha = alpha;
    node_id = node;
    process_id = pid;
    strcpy(argv0, path.c_str());
    ts_idx_mask = mask;
    ts_res = res;
    circular_buffer* cb = make_buffer(dir_);
    build_output_header(cb);
    const std::string built = cb->output_header;
    EXPECT_EQ(built, std::string(area, format_open_block(area, sizeof area))) << "pid " << pid;

    // Room for the first character of the program path only.
    const uint32_t small = static_cast<uint32_t>(built.find("QUARRY_ARGV0 ") + 15);
    memset(area, '#', sizeof area);
    EXPECT_EQ(small - 1, format_open_block(area, small));
    EXPECT_EQ(built.substr(0, small - 1) + '\0' + '#', std::string(area, small + 1));
  }
}

// The loop index unless rotation is off or the path passes 255; no room for ".trc": refused.
TEST_F(DumpTest, PathSuffixAndLengthRule) {
  circular_buffer* cb = make_buffer(dir_);
  // Name length (0: the buffer's own name), loop count and index, the path's expected tail.
  const std::tuple<size_t, int, int, const char*> cases[] = {
      {0, 2, 0, "_0.trc"},  {0, 200, 105, "_105.trc"}, {0, 0, 5, ".trc"},   {0, -1, 0, ".trc"},
      {0, 1, 0, "_0.trc"},  {249, 2, 7, "_7.trc"},     {250, 2, 7, ".trc"}, {251, 2, 7, ".trc"},
      {252, 2, 7, nullptr}, {400, 2, 7, nullptr}};
  for (const auto& [length, count, index, tail] : cases) {
    std::string name = length == 0 ? dir_ + "quarry" : "/" + std::string(length - 1, 'n');
    cb->output_file_name = kept_string(name);
    cb->file_loop_count = count;
    cb->file_loop_index = index;
    const std::string expected = (name + (tail ? tail : "")).substr(0, 255);
    char path[256];
    EXPECT_EQ(tail ? static_cast<int>(expected.size()) : -1, trace_file_path(cb, path))
        << name.size() << " count " << count << " index " << index;
    EXPECT_EQ(expected, path) << name.size();
  }
}

// Each dump samples the clock and replaces the file with the ring's data: none, before the wrap,
// full, wrapped (whole ring in storage order), far past, past 2^32 (word_count words again).
TEST_F(DumpTest, DumpsOfOneBuffer) {
  circular_buffer* cb = buffer("data");
  const std::pair<uint32_t, size_t> cases[] = {
      {0, 0}, {10, 10}, {1024, 1024}, {1029, 1024}, {0xFFFFFFF0u, 1024}, {3, 3}};
  const std::string ring(reinterpret_cast<const char*>(words_.data()), 1024 * 4);
  time_omega = {};
  for (const auto& [word_count, expected_words] : cases) {
    cb->word_count = word_count;
    ASSERT_EQ(0, quarry_dump(handle_));
    const trace_file file = read_trace(file_of(cb));
    EXPECT_EQ(ring.substr(0, expected_words * 4), file.data_bytes) << word_count;
    EXPECT_NE(0u, file.hex("CLOCK_TIME_Z_SEC"));
  }
}

// Failed opens are reported (cut at 255); dump_all goes newest first, on past failures, to -1.
TEST_F(DumpTest, FailedOpensAreReportedAndDumpAllGoesOn) {
  time_omega = {};
  EXPECT_EQ(0, quarry_dump_all());  // no buffer yet: nothing, but the clock sample
  EXPECT_NE(0, time_omega.mono_sec + time_omega.mono_nsec);
  circular_buffer* cbs[] = {buffer("oldest"), buffer("middle"), buffer("newest")};
  for (circular_buffer* cb : cbs) {  // linked without signal handlers
    cb->next.store(circular_buffer_list.load());
    circular_buffer_list.store(cb);
  }
  const std::string overlong = cbs[2]->output_file_name + std::string(300, 'q');
  cbs[2]->output_file_name = kept_string(overlong);
  ASSERT_TRUE(make_unwritable(cbs[1]));
  testing::internal::CaptureStdout();
  EXPECT_EQ(1, quarry_dump(handle_));
  EXPECT_EQ(-1, quarry_dump_all());
  const std::string refused = (kOpenFailed + overlong).substr(0, 255);
  EXPECT_EQ(refused + refused + kOpenFailed + file_of(cbs[1]) + " (Not a directory)",
            testing::internal::GetCapturedStdout());
  EXPECT_TRUE(read_trace(file_of(cbs[0])).complete);
}

// The detector itself: without it, a broken wrap would let the proof below pass vacuously.
TEST(SignalSafetyProof, DetectorSeesForbiddenCalls) {
  char text[16];
  void* volatile p = nullptr;
  EXPECT_EQ("malloc", first_seen([&] { p = malloc(16); }));
  free(p);
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  EXPECT_EQ("pthread_mutex_lock", first_seen([&] { pthread_mutex_lock(&mutex); }));
  pthread_mutex_unlock(&mutex);
  EXPECT_EQ("snprintf", first_seen([&] { snprintf(text, sizeof text, "%d", int{sizeof text}); }));
#if QUARRY_TEST_REPLACES_MALLOC
  EXPECT_EQ("malloc", first_seen([&] { p = strdup("the C library's own allocation"); }));
  free(p);
#endif
}

std::atomic<int> g_host_calls{0};

// Every trigger, with the registry and buffer locks held (the alarm ends a deadlock): no lock,
// allocation or stdio, with a full header, a missing open block and an unwritable buffer.
TEST(SignalSafetyProof, EveryDumpTriggerAllocatesNothingAndLocksNothing) {
  signal(SIGTERM, [](int) { ++g_host_calls; });  // before the library installs its handlers
  quarry_set_process_name("proof");
  quarry_handle* parent = open_handle("main", 8192);
  quarry_handle* child = open_handle("sub", 0, parent);
  quarry_handle* unwritable = open_handle("gone");
  ASSERT_EQ(0, quarry_set_current_thread_name("prover"));
  for (int i = 0; i < 100; ++i) QUARRY_TRACE(child, 1, "dsD", i, "text", 1ull << 40);
  ASSERT_TRUE(make_unwritable(unwritable->cb));
  quarry_set_dump_on_exit(unwritable, false);
  circular_buffer* cb = parent->cb;
  char* const open_block = cb->output_header;
  cb->output_header = nullptr;

  pthread_mutex_lock(&circular_buffer_list_mutex);
  pthread_mutex_lock(&cb->mutex);
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
  pthread_mutex_unlock(&cb->mutex);
  pthread_mutex_unlock(&circular_buffer_list_mutex);
  cb->output_header = open_block;
  EXPECT_EQ("none", violation);

  EXPECT_EQ(1, g_host_calls.load());
  const auto file = read_trace(file_of(cb));
  EXPECT_EQ(2u, file.items.count("QUARRY_DECODE_REF"));  // parent and child
  EXPECT_EQ("15", file.value("SIGNAL"));
  EXPECT_EQ(std::to_string(getpid()), file.value("QUARRY_PROCESS_ID"));  // formatted at dump
  const std::string report = kOpenFailed + file_of(unwritable->cb) + " (Not a directory)";
  EXPECT_EQ(report + report + report + report, testing::internal::GetCapturedStdout());
}

// A held ring: later records spare it, the dump sees it; the release clears the words skipped.
TEST(CrashHold, HeldWordsStayWhileRecordsGoOnAndReleaseClearsTheGap) {
  quarry_handle* h = open_handle("held", 16384);
  circular_buffer* cb = h->cb;
  for (uint32_t i = 0; i < 3000; ++i) QUARRY_TRACE(h, 0, "dD", i, 7ull << 40);
  const ring_view real = load_ring(cb);
  const uint32_t count = cb->word_count.load();
  auto words = [&] { return std::vector<uint32_t>(real.buffer, real.buffer + real.size_words); };
  const std::vector<uint32_t> before = words();

  hold_ring(cb);
  hold_ring(cb);  // a second crash handler changes nothing
  for (uint32_t i = 0; i < 100; ++i) QUARRY_TRACE(h, 0, "s", "while held");
  EXPECT_EQ(before, words());
  EXPECT_EQ(real.buffer, dump_ring(cb).buffer);
  EXPECT_EQ(count, dump_word_count(cb));
  EXPECT_EQ(0, set_circular_buffer_size(cb, 65536));  // no growth out of the scratch ring
  EXPECT_TRUE(is_scratch_ring(load_ring(cb)));

  release_ring(cb);
  const uint32_t after = cb->word_count.load();
  EXPECT_EQ(real.buffer, load_ring(cb).buffer);
  EXPECT_EQ(after, dump_word_count(cb));
  std::vector<uint32_t> expected = before;
  for (uint32_t at = count; at != after; ++at) expected[at & (real.size_words - 1)] = 0;
  EXPECT_EQ(expected, words());
}

}  // namespace

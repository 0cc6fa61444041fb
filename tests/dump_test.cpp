// Dumping: the file of one buffer (data before and after a wrap, mode, overwrite), all buffers,
// the ring held for a crash dump, and the report and result of every failure.
// Linked with --wrap=write so that a chosen write(2) of a dump can be made to fail.
#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>

#include "trace_file.h"
#include "trace_fixture.h"

namespace {

// Writes to descriptors above 2 are counted while a failure is armed; the armed one fails.
std::atomic<int> g_fail_at{0};
std::atomic<int> g_writes{0};

}  // namespace

extern "C" ssize_t __real_write(int fd, const void* buf, size_t count);
extern "C" ssize_t __wrap_write(int fd, const void* buf, size_t count) {
  if (fd > 2 && g_fail_at.load() != 0 && ++g_writes == g_fail_at.load()) {
    errno = EIO;
    return -1;
  }
  return __real_write(fd, buf, count);
}

namespace {

using namespace quarry_test;

constexpr char kOpenFailed[] = "quarry abort handler: unable to open trace file ";

class DumpTest : public LibraryStateTest {
 protected:
  // A buffer in its own fresh directory, with its open block, one handle and counting words.
  circular_buffer* buffer(const std::string& name) {
    circular_buffer* cb = make_buffer(make_dir(name));
    build_output_header(cb);
    handle_ =
        add_handle(cb, name.c_str(), ("QUARRY_DECODE_REF " + name + " \"x.dec\" 0.1.t\n").c_str());
    for (uint32_t i = 0; i < 1024; ++i) words_[i] = 0x11 + i * 0x01010101u;
    set_words(cb, words_);
    return cb;
  }
  static std::string file_of(circular_buffer* cb) {
    return std::string(cb->output_file_name) + "_0.trc";
  }

  quarry_handle* handle_ = nullptr;
  std::vector<uint32_t> words_ = std::vector<uint32_t>(1024);
};

// Repeated dumps of one buffer: each samples the clock, writes the ring's data part over the
// previous file whole, with mode 0666 whatever the umask.
TEST_F(DumpTest, DumpsOfOneBuffer) {
  circular_buffer* cb = buffer("data");
  const struct {
    uint32_t word_count;
    size_t expected_words;
  } cases[] = {
      {0, 0},               // nothing written: header, empty line, fill, no data
      {10, 10},             // before the wrap: the first word_count words
      {1024, 1024},         // exactly full
      {1024 + 5, 1024},     // wrapped: the whole ring in storage order
      {0xFFFFFFF0u, 1024},  // far past
      {3, 3},               // the counter passed 2^32: only word_count words again
  };
  time_omega = {};
  const mode_t previous_umask = umask(022);
  for (const auto& c : cases) {
    cb->word_count = c.word_count;
    ASSERT_EQ(0, quarry_dump(handle_));
    auto file = read_trace(file_of(cb));
    ASSERT_TRUE(file.complete);
    const char* expected = reinterpret_cast<const char*>(words_.data());
    EXPECT_EQ(std::string(expected, c.expected_words * 4), file.data_bytes) << c.word_count;
    EXPECT_NE(0u, file.hex("CLOCK_TIME_Z_SEC"));
  }
  umask(previous_umask);
  struct stat st;
  ASSERT_EQ(0, stat(file_of(cb).c_str(), &st));
  EXPECT_EQ(0666u, st.st_mode & 0777);
}

// Failed opens are reported, cut at 255 characters; a path with no room for ".trc" is refused.
// quarry_dump_all dumps the newest buffer first, goes on after a failure and returns -1.
TEST_F(DumpTest, FailedOpensAreReportedAndDumpAllGoesOn) {
  circular_buffer* overlong = buffer("long");
  const std::string name = overlong->output_file_name + std::string(300, 'q');
  overlong->output_file_name = kept_string(name);
  testing::internal::CaptureStdout();
  EXPECT_EQ(1, quarry_dump(handle_));
  EXPECT_EQ((kOpenFailed + name).substr(0, 255), testing::internal::GetCapturedStdout());

  time_omega = {};
  EXPECT_EQ(0, quarry_dump_all());  // no buffer yet: nothing, but the clock sample
  EXPECT_NE(0, time_omega.mono_sec + time_omega.mono_nsec);
  circular_buffer* oldest = buffer("first");
  circular_buffer* middle = buffer("second");
  circular_buffer* newest = buffer("third");
  for (circular_buffer* cb : {oldest, middle, newest}) {  // linked without signal handlers
    cb->next.store(circular_buffer_list.load());
    circular_buffer_list.store(cb);
  }
  ASSERT_TRUE(make_unwritable(middle) && make_unwritable(oldest));
  testing::internal::CaptureStdout();
  EXPECT_EQ(-1, quarry_dump_all());
  EXPECT_EQ(kOpenFailed + file_of(middle) + " (Not a directory)" + kOpenFailed + file_of(oldest) +
                " (Not a directory)",
            testing::internal::GetCapturedStdout());
  EXPECT_TRUE(read_trace(file_of(newest)).complete);
}

// Every write of a dump, made to fail in turn: the result code, the report, and whether the
// dump went on to write the data (only when it succeeds).
TEST_F(DumpTest, EveryWriteFailureHasItsReportAndResult) {
  const struct {
    int write_index;  // 1-based among the dump's writes; 0 stands for the data write (the last)
    int result;
    const char* report;  // between "unable to write " and the path; null: on standard error
    bool with_error_text;
  } failures[] = {
      {1, 1, "header to trace file ", true},        {2, 1, "omega time to trace file ", true},
      {3, 1, "program name to trace file ", true},  {4, -2, "base offsets to trace file ", true},
      {5, -2, "base offsets to trace file ", true}, {6, -3, "thread id-to-name mapping", true},
      {7, 0, "termination reason to header", true}, {8, 0, nullptr, false},
      {0, 1, "data to trace file ", false},
  };
  circular_buffer* cb = buffer("fail");
  strcpy(process_name, "p");
  add_handle(cb, "fail/second", "QUARRY_DECODE_REF fail/second \"y.dec\" 2.2.t\n");
  add_thread_line("THREAD main 1\n");
  crash_handled = 1;
  crash_sender_pid = 9;
  crash_signal = 15;
  cb->word_count = 16;

  // A clean run counts the writes: open block, omega, name, two references, thread, reason,
  // empty line, fill (when needed), data. One time sample: the files compare byte for byte.
  take_time_sample(&time_omega);
  g_writes = 0;
  g_fail_at = -1;
  ASSERT_EQ(0, dump_circular_buffer(cb));
  const int total_writes = g_writes.load();
  const std::string clean = read_file(file_of(cb));
  const std::string data = clean.substr(clean.size() - 16 * 4);
  ASSERT_TRUE(total_writes == 9 || total_writes == 10) << total_writes;

  for (const auto& f : failures) {
    const int index = f.write_index == 0 ? total_writes : f.write_index;
    SCOPED_TRACE("failing write " + std::to_string(index));
    g_writes = 0;
    g_fail_at = index;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    EXPECT_EQ(f.result, dump_circular_buffer(cb));
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(f.report ? "" : "QUARRY_HEADER_DUMP: write failed",
              testing::internal::GetCapturedStderr());
    g_fail_at = 0;
    EXPECT_EQ(f.report ? "quarry abort handler: unable to write " + (f.report + file_of(cb)) +
                             (f.with_error_text ? " (Input/output error)" : "")
                       : "",
              out);
    const std::string bytes = read_file(file_of(cb));
    if (f.result != 0) {
      // Stopped at the failure: the file holds what came before.
      EXPECT_EQ(index, g_writes.load());
      EXPECT_EQ(clean.substr(0, bytes.size()), bytes);
    }
    EXPECT_EQ(f.result == 0,
              bytes.size() >= data.size() && bytes.substr(bytes.size() - data.size()) == data);
  }
}

std::vector<uint32_t> words_of(const ring_view& ring) {
  std::vector<uint32_t> words(ring.size_words);
  for (uint32_t i = 0; i < ring.size_words; ++i) words[i] = ring.buffer[i].load();
  return words;
}

// A ring held for a crash dump: later records leave the held words alone, the dump sees exactly
// them and their count; the release puts the ring back with the words reserved meanwhile cleared.
TEST(CrashHold, HeldWordsStayWhileRecordsGoOnAndReleaseClearsTheGap) {
  quarry_handle* h = nullptr;
  ASSERT_EQ(0, quarry_open_internal(&h, "held", 16384, 1, "h.dec", "1", nullptr));
  circular_buffer* cb = h->cb;
  for (uint32_t i = 0; i < 3000; ++i) QUARRY_TRACE(h, 0, "dD", i, 7ull << 40);
  const ring_view real = load_ring(cb);
  const uint32_t count = cb->word_count.load();
  const std::vector<uint32_t> before = words_of(real);

  hold_ring(cb);
  hold_ring(cb);  // a second crash handler changes nothing
  for (uint32_t i = 0; i < 100; ++i) QUARRY_TRACE(h, 0, "s", "while held");
  EXPECT_EQ(before, words_of(real));
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
  EXPECT_EQ(expected, words_of(real));
}

}  // namespace

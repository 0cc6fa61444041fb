// Dumping: the file of one buffer (data length before and after a wrap, mode, overwrite), all
// buffers (order, failures), the exit dump, and every failure report and result code. The
// executable is linked with --wrap=write so that a chosen write(2) of a dump can be made to
// fail.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <vector>

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

using quarry_test::add_handle;
using quarry_test::add_thread_line;
using quarry_test::file_exists;
using quarry_test::make_buffer;
using quarry_test::publish;
using quarry_test::read_file;
using quarry_test::read_trace;
using quarry_test::set_words;

constexpr char kOpenFailed[] = "quarry abort handler: unable to open trace file ";

class DumpTest : public quarry_test::LibraryStateTest {
 protected:
  void TearDown() override {
    g_fail_at = 0;
    g_writes = 0;
    LibraryStateTest::TearDown();
  }

  // A buffer in its own fresh directory, with its open block and one handle.
  circular_buffer* buffer(const std::string& name, uint32_t bytes = 4096) {
    std::string dir = quarry_test::make_dir(name);
    circular_buffer* cb = make_buffer(dir, bytes);
    build_output_header(cb);
    handle_ =
        add_handle(cb, name.c_str(), ("QUARRY_DECODE_REF " + name + " \"x.dec\" 0.1.t\n").c_str());
    return cb;
  }
  static std::string file_of(circular_buffer* cb) {
    return std::string(cb->output_file_name) + "_0.trc";
  }

  quarry_handle* handle_ = nullptr;
};

std::vector<uint32_t> counting_words(uint32_t count, uint32_t seed) {
  std::vector<uint32_t> words;
  for (uint32_t i = 0; i < count; ++i) words.push_back(seed + i * 0x01010101u);
  return words;
}

TEST_F(DumpTest, DataIsTheWrittenPartOfTheRingBeforeAndAfterAWrap) {
  circular_buffer* cb = buffer("data");
  strcpy(process_name, "dumper");
  const auto words = counting_words(1024, 0x11);
  set_words(cb, 0, words);

  struct {
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
  for (const auto& c : cases) {
    cb->word_count = c.word_count;
    ASSERT_EQ(0, quarry_dump(handle_));
    auto file = read_trace(file_of(cb));
    ASSERT_TRUE(file.complete);
    EXPECT_EQ(0u, (file.header.size() + file.fill.size()) % 4);
    EXPECT_EQ(c.expected_words * 4, file.data_bytes.size()) << c.word_count;
    EXPECT_EQ(std::vector<uint32_t>(words.begin(), words.begin() + c.expected_words), file.data());
    EXPECT_EQ("400", file.value("BUFFER_SIZE"));
    EXPECT_EQ(c.word_count, file.hex("WORD_COUNT"));
  }
}

TEST_F(DumpTest, HeaderKeysComeInDecoderOrder) {
  circular_buffer* cb = buffer("order");
  strcpy(process_name, "dumper");
  add_handle(cb, "order/child", "QUARRY_DECODE_REF order/child \"c.dec\" 2.3.t\n");
  add_thread_line("THREAD main 77\n");
  crash_handled = 1;
  crash_sender_pid = 12;
  crash_signal = 3;
  ASSERT_EQ(0, quarry_dump(handle_));
  auto file = read_trace(file_of(cb));
  std::vector<std::string> keys;
  for (const auto& item : file.items) keys.push_back(item.first);
  const std::vector<std::string> expected = {"VERSION",
                                             "WALL_TIME_SEC",
                                             "WALL_TIME_USEC",
                                             "CLOCK_TIME_SEC",
                                             "CLOCK_TIME_NSEC",
                                             "QUARRY_NODE_ID",
                                             "QUARRY_PROCESS_ID",
                                             "QUARRY_ARGV0",
                                             "TS_IDX_MSK",
                                             "TS_RES",
                                             "WALL_TIME_Z_SEC",
                                             "WALL_TIME_Z_USEC",
                                             "CLOCK_TIME_Z_SEC",
                                             "CLOCK_TIME_Z_NSEC",
                                             "CREATION_TIME",
                                             "WRAPAROUND_TIME",
                                             "WRAPAROUND_COUNT",
                                             "ENTRY_COUNT",
                                             "BUFFER_SIZE",
                                             "WORD_COUNT",
                                             "MIN_WRAPAROUND_TIME",
                                             "MAX_WRAPAROUND_TIME",
                                             "PROG_NAME",
                                             "QUARRY_DECODE_REF",
                                             "QUARRY_DECODE_REF",
                                             "THREAD",
                                             "SIGNALING_PID",
                                             "SIGNAL"};
  EXPECT_EQ(expected, keys);
  EXPECT_EQ("order \"x.dec\" 0.1.t", file.items[23].second);  // parent first
  EXPECT_EQ("order/child \"c.dec\" 2.3.t", file.items[24].second);
}

TEST_F(DumpTest, EachDumpSamplesTheClockPair) {
  circular_buffer* cb = buffer("omega");
  time_omega = {};
  struct timespec before, after;
  clock_gettime(CLOCK_MONOTONIC, &before);
  ASSERT_EQ(0, quarry_dump(handle_));
  clock_gettime(CLOCK_MONOTONIC, &after);
  auto file = read_trace(file_of(cb));
  uint64_t sec = file.hex("CLOCK_TIME_Z_SEC"), nsec = file.hex("CLOCK_TIME_Z_NSEC");
  EXPECT_GE(sec * 1000000000ull + nsec,
            static_cast<uint64_t>(before.tv_sec) * 1000000000ull + before.tv_nsec);
  EXPECT_LE(sec * 1000000000ull + nsec,
            static_cast<uint64_t>(after.tv_sec) * 1000000000ull + after.tv_nsec);
  EXPECT_NE(0u, file.hex("WALL_TIME_Z_SEC"));
}

TEST_F(DumpTest, FileIsWorldWritableAndOverwrittenByTheNextDump) {
  circular_buffer* cb = buffer("mode");
  set_words(cb, 0, counting_words(64, 7));
  cb->word_count = 64;
  mode_t previous = umask(022);
  ASSERT_EQ(0, quarry_dump(handle_));
  mode_t during = umask(previous);
  EXPECT_EQ(022u, during) << "the dump must put the umask back";
  struct stat st;
  ASSERT_EQ(0, stat(file_of(cb).c_str(), &st));
  EXPECT_EQ(0666u, st.st_mode & 0777);
  EXPECT_EQ(64u * 4, read_trace(file_of(cb)).data_bytes.size());

  // The same file again, truncated to the new, shorter content.
  cb->word_count = 2;
  ASSERT_EQ(0, quarry_dump(handle_));
  auto file = read_trace(file_of(cb));
  EXPECT_EQ(8u, file.data_bytes.size());
}

// A buffer whose open block could not be allocated still gets a decodable file: the block is
// formatted at dump time from the same state the open would have used.
TEST_F(DumpTest, BufferWithoutOpenBlockStillDumpsOne) {
  circular_buffer* cb = buffer("noheader");
  std::string built = cb->output_header;
  quarry_test::kept_alive().push_back(cb->output_header);
  cb->output_header = nullptr;
  set_words(cb, 0, {1, 2, 3});
  cb->word_count = 3;
  ASSERT_EQ(0, quarry_dump(handle_));
  std::string bytes = read_file(file_of(cb));
  EXPECT_EQ(built, bytes.substr(0, built.size()));
  auto file = quarry_test::parse_trace(bytes);
  EXPECT_EQ((std::vector<uint32_t>{1, 2, 3}), file.data());
}

TEST_F(DumpTest, DumpAllGoesOnAfterAFailureAndReportsIt) {
  circular_buffer* oldest = buffer("first");
  circular_buffer* middle = buffer("second");
  circular_buffer* newest = buffer("third");
  for (circular_buffer* cb : {oldest, middle, newest}) publish(cb);
  // The middle buffer's directory becomes a regular file: its open fails with ENOTDIR.
  std::string middle_dir = quarry_test::base_dir() + "second";
  ASSERT_EQ(0, rmdir(middle_dir.c_str()));
  quarry_test::write_file(middle_dir, "not a directory");

  testing::internal::CaptureStdout();
  EXPECT_EQ(-1, quarry_dump_all());
  std::string report = testing::internal::GetCapturedStdout();
  EXPECT_EQ(kOpenFailed + file_of(middle) + " (Not a directory)", report);
  EXPECT_TRUE(read_trace(file_of(oldest)).complete);
  EXPECT_TRUE(read_trace(file_of(newest)).complete);

  // With every open failing, the reports show the order: newest buffer first.
  for (const char* name : {"first", "third"}) {
    std::string dir = quarry_test::base_dir() + name;
    ASSERT_EQ(0, system(("rm -rf '" + dir + "'").c_str()));
    quarry_test::write_file(dir, "");
  }
  testing::internal::CaptureStdout();
  EXPECT_EQ(-1, quarry_dump_all());
  EXPECT_EQ(kOpenFailed + file_of(newest) + " (Not a directory)" + kOpenFailed + file_of(middle) +
                " (Not a directory)" + kOpenFailed + file_of(oldest) + " (Not a directory)",
            testing::internal::GetCapturedStdout());
}

TEST_F(DumpTest, DumpAllWithoutBuffersSamplesTheClockOnly) {
  time_omega = {};
  testing::internal::CaptureStdout();
  EXPECT_EQ(0, quarry_dump_all());
  EXPECT_EQ("", testing::internal::GetCapturedStdout());
  EXPECT_NE(0, time_omega.mono_sec + time_omega.mono_nsec);
}

TEST_F(DumpTest, ExitDumpSkipsBuffersThatOptedOut) {
  circular_buffer* kept = buffer("kept");
  circular_buffer* skipped = buffer("skipped");
  publish(kept);
  publish(skipped);
  skipped->dump_on_exit = 0;
  dump_at_exit();
  EXPECT_TRUE(file_exists(file_of(kept)));
  EXPECT_FALSE(file_exists(file_of(skipped)));
}

// The real exit path: the initialisation registers the exit dump; a buffer whose dump_on_exit
// was cleared stays unwritten, the others (parent and child handles in one file) are written.
// open_and_exit runs in the child: opens three handles, opts one buffer out of the exit dump,
// exits.
[[noreturn]] void open_and_exit() {
  // Registered before the library's exit dump, so it runs right after it and leaves without
  // the test harness removing the files the parent checks.
  atexit([] { _exit(0); });
  quarry_set_process_name("exit_host");
  quarry_handle *parent = nullptr, *child = nullptr, *quiet = nullptr;
  if (quarry_open_internal(&parent, "main", 4096, 4, "main.dec", "a", nullptr) != 0 ||
      quarry_open_internal(&child, "sub", 0, 2, "sub.dec", "b", parent) != 0 ||
      quarry_open_internal(&quiet, "quiet", 4096, 1, "q.dec", "c", nullptr) != 0) {
    _exit(3);
  }
  quarry_set_dump_on_exit(quiet, false);
  QUARRY_TRACE(child, 1, "d", 5);
  exit(0);
}

TEST(ExitDump, RunsAtProcessExit) {
  const std::string dir = quarry_test::base_dir() + "exit_host/";
  EXPECT_EXIT(open_and_exit(), ::testing::ExitedWithCode(0), "");
  auto file = read_trace(dir + "main/quarry_0.trc");
  ASSERT_TRUE(file.complete);
  std::vector<std::string> refs;
  for (const auto& item : file.items) {
    if (item.first == "QUARRY_DECODE_REF") refs.push_back(item.second);
  }
  ASSERT_EQ(2u, refs.size());
  EXPECT_EQ(0u, refs[0].find("main ")) << refs[0];
  EXPECT_EQ(0u, refs[1].find("main/sub ")) << refs[1];
  EXPECT_EQ(5u * 4, file.data_bytes.size());
  EXPECT_FALSE(file_exists(dir + "quiet/quarry_0.trc"));
}

TEST_F(DumpTest, OverlongNamesAreRefusedAndReportsCutAt255) {
  // A path that cannot take ".trc" within 255 characters is refused with the open report.
  circular_buffer* cb = buffer("long");
  std::string long_name = std::string(cb->output_file_name) + std::string(300, 'q');
  cb->output_file_name = strdup(long_name.c_str());
  quarry_test::kept_alive().push_back(cb->output_file_name);
  testing::internal::CaptureStdout();
  EXPECT_EQ(1, quarry_dump(handle_));
  std::string report = testing::internal::GetCapturedStdout();
  EXPECT_EQ((kOpenFailed + long_name).substr(0, 255), report);

  // A path within the limit whose open fails: the report with its error text, cut at 255.
  std::string blocker = quarry_test::base_dir() + "blocker";
  quarry_test::write_file(blocker, "");
  std::string name = blocker + "/" + std::string(180, 'd') + "/quarry";
  cb->output_file_name = strdup(name.c_str());
  quarry_test::kept_alive().push_back(cb->output_file_name);
  testing::internal::CaptureStdout();
  EXPECT_EQ(1, quarry_dump(handle_));
  report = testing::internal::GetCapturedStdout();
  std::string full = kOpenFailed + name + "_0.trc (Not a directory)";
  ASSERT_GT(full.size(), 255u);
  EXPECT_EQ(full.substr(0, 255), report);
}

// Every write of a dump, made to fail in turn: the result code, the report, and whether the
// dump went on.
struct write_failure {
  int write_index;  // 1-based among the dump's writes; 0 stands for the data write (the last)
  int result;
  const char* report;  // followed by the path and, unless empty, the error text
  bool with_error_text;
  bool data_written;
};

void PrintTo(const write_failure& f, std::ostream* os) {
  *os << "failing write " << f.write_index << " (0: the data)";
}

class DumpWriteFailureTest : public DumpTest,
                             public ::testing::WithParamInterface<write_failure> {};

TEST_P(DumpWriteFailureTest, ReportsAndResult) {
  const write_failure& f = GetParam();
  circular_buffer* cb = buffer("fail");
  strcpy(process_name, "p");
  add_handle(cb, "fail/second", "QUARRY_DECODE_REF fail/second \"y.dec\" 2.2.t\n");
  add_thread_line("THREAD main 1\n");
  crash_handled = 1;
  crash_sender_pid = 9;
  crash_signal = 15;
  set_words(cb, 0, counting_words(16, 3));
  cb->word_count = 16;

  // A clean run counts the dump's writes: open block, omega, name, two references, thread,
  // reason, empty line, fill (when needed), data.
  // Both dumps use one time sample so that their files can be compared byte for byte.
  take_time_sample(&time_omega);
  g_fail_at = -1;
  ASSERT_EQ(0, dump_circular_buffer(cb));
  const int total_writes = g_writes.load();
  const std::string clean = read_file(file_of(cb));
  ASSERT_TRUE(total_writes == 9 || total_writes == 10) << total_writes;

  const int index = f.write_index == 0 ? total_writes : f.write_index;
  g_writes = 0;
  g_fail_at = index;
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  EXPECT_EQ(f.result, dump_circular_buffer(cb));
  std::string out = testing::internal::GetCapturedStdout();
  std::string err = testing::internal::GetCapturedStderr();
  const int writes_made = g_writes.load();
  g_fail_at = 0;

  std::string expected = f.report;
  if (*f.report != '\0' && f.report[0] == 'q') {
    expected += file_of(cb);
    if (f.with_error_text) expected += " (Input/output error)";
  }
  if (f.write_index == 8) {
    EXPECT_EQ("", out);
    EXPECT_EQ("QUARRY_HEADER_DUMP: write failed", err);
  } else {
    EXPECT_EQ(expected, out);
    EXPECT_EQ("", err);
  }
  std::string bytes = read_file(file_of(cb));
  if (f.result != 0) {
    // Stopped at the failure: nothing written after it, the file holds what came before.
    EXPECT_EQ(index, writes_made);
    EXPECT_EQ(clean.substr(0, bytes.size()), bytes);
  }
  const std::string data = clean.substr(clean.size() - 16 * 4);
  EXPECT_EQ(f.data_written,
            bytes.size() >= data.size() && bytes.substr(bytes.size() - data.size()) == data);
}

INSTANTIATE_TEST_SUITE_P(
    EveryWrite, DumpWriteFailureTest,
    ::testing::Values(
        write_failure{1, 1, "quarry abort handler: unable to write header to trace file ", true,
                      false},
        write_failure{2, 1, "quarry abort handler: unable to write omega time to trace file ", true,
                      false},
        write_failure{3, 1, "quarry abort handler: unable to write program name to trace file ",
                      true, false},
        write_failure{4, -2, "quarry abort handler: unable to write base offsets to trace file ",
                      true, false},
        write_failure{5, -2, "quarry abort handler: unable to write base offsets to trace file ",
                      true, false},
        write_failure{6, -3, "quarry abort handler: unable to write thread id-to-name mapping",
                      true, false},
        write_failure{7, 0, "quarry abort handler: unable to write termination reason to header",
                      true, true},
        write_failure{8, 0, "", false, true},
        write_failure{0, 1, "quarry abort handler: unable to write data to trace file ", false,
                      false}));

}  // namespace

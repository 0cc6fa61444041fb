// The trace file's text: the open block, the path with its rotation suffix and length rule, and
// the header sections 1 to 7 written for a buffer whose every field is known.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "trace_file.h"
#include "trace_fixture.h"

namespace {

using quarry_test::add_handle;
using quarry_test::add_thread_line;
using quarry_test::make_buffer;
using quarry_test::read_file;

class TraceFileTest : public quarry_test::LibraryStateTest {
 protected:
  void SetUp() override {
    LibraryStateTest::SetUp();
    time_alpha = {0x5f5e100, 0x1e240, 0x3039, 0x3b9ac9ff};
    node_id = 0xbeef;
    process_id = 4242;
    strcpy(argv0, "/usr/bin/trace host");
    ts_idx_mask = 0x1fffff;
    ts_res = 0x3d0900;
  }

  // Sections 1 to 7 of cb as write_trace_header puts them into a file.
  std::string header_of(circular_buffer* cb, int* result = nullptr) {
    std::string path = dir_ + "header.out";
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
    EXPECT_GE(fd, 0);
    int rc = write_trace_header(cb, fd, path.c_str());
    close(fd);
    if (result != nullptr) *result = rc;
    return read_file(path);
  }

  std::string dir_ = quarry_test::make_dir("trace_file");
};

constexpr char kOpenBlock[] =
    "VERSION 1.0\nWALL_TIME_SEC 5f5e100\nWALL_TIME_USEC 1e240\nCLOCK_TIME_SEC 3039\n"
    "CLOCK_TIME_NSEC 3b9ac9ff\nQUARRY_NODE_ID beef\nQUARRY_PROCESS_ID 4242\n"
    "QUARRY_ARGV0 /usr/bin/trace host\nTS_IDX_MSK 1fffff\nTS_RES 3d0900\n";

TEST_F(TraceFileTest, OpenBlockIsFormattedOnceFromCreationState) {
  circular_buffer* cb = make_buffer(dir_);
  build_output_header(cb);
  ASSERT_NE(nullptr, cb->output_header);
  EXPECT_STREQ(kOpenBlock, cb->output_header);

  // Later identity changes do not reach a block that was already built.
  node_id = 0x1;
  EXPECT_STREQ(kOpenBlock, cb->output_header);
}

TEST_F(TraceFileTest, OpenBlockLongerThanFirstAllocationIsComplete) {
  std::string long_argv0(255, 'a');
  long_argv0[10] = ' ';
  strcpy(argv0, long_argv0.c_str());
  process_id = -7;
  time_alpha = {-1, 0, 0, 0};
  circular_buffer* cb = make_buffer(dir_);
  build_output_header(cb);
  ASSERT_NE(nullptr, cb->output_header);
  std::string block = cb->output_header;
  EXPECT_GT(block.size(), 300u);
  EXPECT_NE(std::string::npos, block.find("\nQUARRY_ARGV0 " + long_argv0 + "\nTS_IDX_MSK"));
  EXPECT_NE(std::string::npos, block.find("\nQUARRY_PROCESS_ID -7\n"));
  EXPECT_NE(std::string::npos, block.find("\nWALL_TIME_SEC ffffffffffffffff\n"));
}

// The signal-safe formatter stands in for a block that could not be allocated: it must give
// the very text the allocating formatter gives, for ordinary and extreme values alike.
TEST_F(TraceFileTest, SignalSafeOpenBlockMatchesBuiltOne) {
  struct state {
    time_sample alpha;
    uint32_t node;
    int32_t pid;
    std::string argv0_text;
    uint64_t mask, res;
  };
  const state states[] = {
      {{0x5f5e100, 0x1e240, 0x3039, 0x3b9ac9ff}, 0xbeef, 4242, "/bin/x", 0x1fffff, 0x3d0900},
      {{0, 0, 0, 0}, 0, 0, "", 0, 0},
      {{-1, INT64_MIN, INT64_MAX, 1}, 0xffffffffu, INT32_MIN, std::string(255, 'z'), ~0ull, 1},
      {{1, 2, 3, 4}, 7, -1, "with spaces in it", 1, 1},
  };
  for (const state& s : states) {
    time_alpha = s.alpha;
    node_id = s.node;
    process_id = s.pid;
    strcpy(argv0, s.argv0_text.c_str());
    ts_idx_mask = s.mask;
    ts_res = s.res;
    circular_buffer* cb = make_buffer(dir_);
    build_output_header(cb);
    ASSERT_NE(nullptr, cb->output_header);
    char area[768];
    uint32_t length = format_open_block(area, sizeof area);
    EXPECT_EQ(std::string(cb->output_header), std::string(area, length)) << "pid " << s.pid;
  }
}

TEST_F(TraceFileTest, PathCarriesLoopIndexUnlessRotationIsOff) {
  circular_buffer* cb = make_buffer(dir_);
  char path[256];
  const struct {
    int count, index;
    const char* name;
  } cases[] = {{2, 0, "quarry_0.trc"}, {200, 105, "quarry_105.trc"}, {101, 100, "quarry_100.trc"},
               {0, 5, "quarry.trc"},   {-1, 0, "quarry.trc"},        {1, 0, "quarry_0.trc"}};
  for (const auto& c : cases) {
    cb->file_loop_count = c.count;
    cb->file_loop_index = c.index;
    std::string expected = dir_ + c.name;
    EXPECT_EQ(static_cast<int>(expected.size()), trace_file_path(cb, path));
    EXPECT_EQ(expected, path) << "count " << c.count << " index " << c.index;
  }
}

TEST_F(TraceFileTest, PathKeepsWithin255Characters) {
  circular_buffer* cb = make_buffer(dir_);
  cb->file_loop_index = 7;
  char path[256];
  auto name_of_length = [](size_t n) { return "/" + std::string(n - 1, 'n'); };
  auto set_name = [cb](const std::string& name) {
    cb->output_file_name = strdup(name.c_str());
    quarry_test::kept_alive().push_back(cb->output_file_name);
  };

  // "_7.trc" adds six characters: 249 + 6 = 255 still takes the suffix, 250 does not.
  set_name(name_of_length(249));
  EXPECT_EQ(255, trace_file_path(cb, path));
  EXPECT_EQ(name_of_length(249) + "_7.trc", path);

  set_name(name_of_length(250));
  EXPECT_EQ(254, trace_file_path(cb, path));
  EXPECT_EQ(name_of_length(250) + ".trc", path);

  set_name(name_of_length(251));
  EXPECT_EQ(255, trace_file_path(cb, path));
  EXPECT_EQ(name_of_length(251) + ".trc", path);

  // No room for ".trc": refused, and the path holds the name cut to 255 for the report.
  for (size_t n : {252, 255, 400}) {
    set_name(name_of_length(n));
    EXPECT_EQ(-1, trace_file_path(cb, path)) << n;
    EXPECT_EQ(name_of_length(n).substr(0, 255), path);
  }
}

TEST_F(TraceFileTest, HeaderSectionsInOrderByteForByte) {
  circular_buffer* cb = make_buffer(dir_);
  build_output_header(cb);
  strcpy(process_name, "tracer");
  time_omega = {0x60000000, 0x7, 0x303a, 0};
  cb->creation_time = 0x123456789aull;
  cb->wraparound_time = 0xabc;
  cb->wraparound_count = 3;
  cb->entry_count = 0x10;
  cb->word_count = 0x1005;
  cb->min_wraparound_time = 0x10;
  add_handle(cb, "net", "QUARRY_DECODE_REF net \"net.dec\" 0.9.v1\n");
  add_handle(cb, "net/io", "QUARRY_DECODE_REF net/io \"io.dec\" 10.14.v2\n");
  add_thread_line("THREAD main 1234\n");
  add_thread_line("THREAD -5 -5\n");

  int result = -9;
  std::string header = header_of(cb, &result);
  EXPECT_EQ(0, result);
  const std::string expected = std::string(kOpenBlock) +
                               "WALL_TIME_Z_SEC 60000000\n"
                               "WALL_TIME_Z_USEC 7\n"
                               "CLOCK_TIME_Z_SEC 303a\n"
                               "CLOCK_TIME_Z_NSEC 0\n"
                               "CREATION_TIME 123456789a\n"
                               "WRAPAROUND_TIME abc\n"
                               "WRAPAROUND_COUNT 3\n"
                               "ENTRY_COUNT 10\n"
                               "BUFFER_SIZE 400\n"
                               "WORD_COUNT 1005\n"
                               "MIN_WRAPAROUND_TIME 10\n"
                               "MAX_WRAPAROUND_TIME 0\n"
                               "PROG_NAME tracer\n"
                               "QUARRY_DECODE_REF net \"net.dec\" 0.9.v1\n"
                               "QUARRY_DECODE_REF net/io \"io.dec\" 10.14.v2\n"
                               "THREAD main 1234\n"
                               "THREAD -5 -5\n"
                               "\n";
  ASSERT_GE(header.size(), expected.size());
  EXPECT_EQ(expected, header.substr(0, expected.size()));
  // The fill brings the data to a multiple of 4 with fewer than four spaces.
  EXPECT_EQ(0u, header.size() % 4);
  EXPECT_LT(header.size() - expected.size(), 4u);
  EXPECT_EQ(std::string(header.size() - expected.size(), ' '), header.substr(expected.size()));
}

TEST_F(TraceFileTest, OptionalSectionsFollowProcessAndCrashState) {
  circular_buffer* cb = make_buffer(dir_);
  build_output_header(cb);
  // A fresh buffer: zero counters, all-ones minimum; no process name: no PROG_NAME line; no
  // crash: no termination lines.
  auto fresh = quarry_test::parse_trace(header_of(cb));
  ASSERT_TRUE(fresh.complete);
  EXPECT_EQ("0", fresh.value("WORD_COUNT"));
  EXPECT_EQ("0", fresh.value("ENTRY_COUNT"));
  EXPECT_EQ("0", fresh.value("WRAPAROUND_COUNT"));
  EXPECT_EQ("0", fresh.value("MAX_WRAPAROUND_TIME"));
  EXPECT_EQ("ffffffffffffffff", fresh.value("MIN_WRAPAROUND_TIME"));
  EXPECT_FALSE(fresh.has("PROG_NAME"));
  EXPECT_FALSE(fresh.has("SIGNAL"));
  EXPECT_FALSE(fresh.has("SIGNALING_PID"));

  // A thread line cut at 63 characters lacks its line end, and the next item follows on the
  // same line.
  std::string long_thread = "THREAD " + std::string(70, 't') + " 1\n";
  add_thread_line(long_thread.c_str());
  std::string plain = header_of(cb);
  EXPECT_NE(std::string::npos,
            plain.find("MAX_WRAPAROUND_TIME 0\n" + long_thread.substr(0, 63) + "\n"));

  // After a crash every header carries the sender and the signal, a negative sender as its
  // 64-bit two's-complement image.
  crash_handled = 1;
  crash_sender_pid = -1;
  crash_signal = 15;
  std::string crashed = header_of(cb);
  EXPECT_NE(std::string::npos, crashed.find(long_thread.substr(0, 63) +
                                            "SIGNALING_PID 18446744073709551615\nSIGNAL 15\n\n"));
  crash_sender_pid = 31337;
  crash_signal = 2;
  EXPECT_NE(std::string::npos, header_of(cb).find("tSIGNALING_PID 31337\nSIGNAL 2\n\n"));
}

// Each residue of (header bytes + 1) mod 4 gets its own fill: 0 none, 1 three, 2 two, 3 one.
class FillTest : public TraceFileTest, public ::testing::WithParamInterface<int> {};

TEST_P(FillTest, DataStartsAtMultipleOfFour) {
  const int residue = GetParam();
  circular_buffer* cb = make_buffer(dir_);
  build_output_header(cb);
  // Grow the program name one character at a time until the header has the wanted residue.
  for (int length = 1; length <= 4; ++length) {
    std::string name(static_cast<size_t>(length), 'p');
    strcpy(process_name, name.c_str());
    auto file = quarry_test::parse_trace(header_of(cb));
    ASSERT_TRUE(file.complete);
    if (static_cast<int>(file.header.size() % 4) != residue) continue;
    EXPECT_EQ(static_cast<size_t>((4 - residue) % 4), file.fill.size());
    EXPECT_EQ(std::string(file.fill.size(), ' '), file.fill);
    EXPECT_TRUE(file.data_bytes.empty());
    return;
  }
  FAIL() << "no program name length gave residue " << residue;
}

INSTANTIATE_TEST_SUITE_P(EveryResidue, FillTest, ::testing::Values(0, 1, 2, 3));

TEST_F(TraceFileTest, FailingHeaderWriteReportsOnStandardOutput) {
  circular_buffer* cb = make_buffer(dir_);
  build_output_header(cb);
  // A descriptor open for reading refuses every write with EBADF.
  std::string input = dir_ + "read_only";
  quarry_test::write_file(input, "x");
  int fd = open(input.c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  testing::internal::CaptureStdout();
  int result = write_trace_header(cb, fd, "/some/path.trc");
  std::string report = testing::internal::GetCapturedStdout();
  close(fd);
  EXPECT_EQ(1, result);
  EXPECT_EQ(
      "quarry abort handler: unable to write header to trace file /some/path.trc "
      "(Bad file descriptor)",
      report);
}

TEST(SigsafeStrerror, GivesTheSystemTextOrAFallback) {
  EXPECT_STREQ("No such file or directory", sigsafe_strerror(ENOENT));
  EXPECT_STREQ("File name too long", sigsafe_strerror(ENAMETOOLONG));
  EXPECT_STREQ("Unknown error", sigsafe_strerror(100000));
  EXPECT_STREQ("Unknown error", sigsafe_strerror(-3));
}

}  // namespace

// The trace file's text: the open block, the path with its rotation suffix and length rule, the
// header sections 1 to 7 of a known buffer, and the signal-safe helpers they are built with.
#include <fcntl.h>
#include <unistd.h>

#include "sigsafe_format.h"
#include "trace_file.h"
#include "trace_fixture.h"

namespace {

using namespace quarry_test;

// bounded_copy cuts, terminates and NUL-pads up to n - 1, never beyond; error texts are constant.
TEST(SignalSafeText, BoundedCopyAndErrorText) {
  char area[9];
  memset(area, '#', sizeof area);
  EXPECT_EQ(area, bounded_copy(area, "abc", 3));
  EXPECT_EQ(std::string("ab\0#", 4), std::string(area, 4));
  bounded_copy(area, "ab", 8);
  EXPECT_EQ(std::string("ab\0\0\0\0\0\0#", 9), std::string(area, 9));
  EXPECT_STREQ("No such file or directory", sigsafe_strerror(ENOENT));
  EXPECT_STREQ("Unknown error", sigsafe_strerror(100000));
}

class TraceFileTest : public LibraryStateTest {
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
  }

  // Sections 1 to 7 of cb as write_trace_header puts them into a file.
  std::string header_of(circular_buffer* cb) {
    std::string path = dir_ + "header.out";
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
    EXPECT_EQ(0, write_trace_header(cb, fd, path.c_str()));
    close(fd);
    return read_file(path);
  }

  std::string dir_ = make_dir("trace_file");
};

constexpr char kOpenBlock[] =
    "VERSION 1.0\nWALL_TIME_SEC 5f5e100\nWALL_TIME_USEC 1e240\nCLOCK_TIME_SEC 3039\n"
    "CLOCK_TIME_NSEC 3b9ac9ff\nQUARRY_NODE_ID beef\nQUARRY_PROCESS_ID 4242\n"
    "QUARRY_ARGV0 /usr/bin/trace host\nTS_IDX_MSK 1fffff\nTS_RES 3d0900\n"
    "WALL_TIME_Z_SEC 60000000\nWALL_TIME_Z_USEC 7\nCLOCK_TIME_Z_SEC 303a\nCLOCK_TIME_Z_NSEC 0\n";

// The open block is formatted once, at creation; a fresh buffer has only counters, a full one
// every section in order; spaces pad the text to a multiple of 4.
TEST_F(TraceFileTest, HeaderByteForByte) {
  circular_buffer* cb = make_buffer(dir_);
  build_output_header(cb);
  node_id = 1;
  process_id = 1;
  auto expect_header = [&](const std::string& text) {
    EXPECT_EQ(text + std::string((4 - text.size() % 4) % 4, ' '), header_of(cb));
  };
  expect_header(std::string(kOpenBlock) +
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
  expect_header(std::string(kOpenBlock) +
                "CREATION_TIME 123456789a\nWRAPAROUND_TIME abc\nWRAPAROUND_COUNT 3\n"
                "ENTRY_COUNT 10\nBUFFER_SIZE 400\nWORD_COUNT 1005\nMIN_WRAPAROUND_TIME 10\n"
                "MAX_WRAPAROUND_TIME ffffffffff\nPROG_NAME tracer\n"
                "QUARRY_DECODE_REF net \"net.dec\" 0.9.v1\n"
                "QUARRY_DECODE_REF net/io \"io.dec\" 10.14.v2\nTHREAD main 1234\nTHREAD " +
                std::string(56, 't') + "SIGNALING_PID 18446744073709551615\nSIGNAL 15\n\n");
}

// The signal-safe formatter gives the allocating one's text, for extreme values too; an area
// too small holds the text cut, and nothing beyond it.
TEST_F(TraceFileTest, SignalSafeOpenBlockMatchesBuiltOne) {
  const struct {
    time_sample alpha;
    uint32_t node;
    int32_t pid;
    std::string argv0_text;
    uint64_t mask, res;
  } states[] = {
      {{0, 0, 0, 0}, 0, 0, "", 0, 0},
      {{-1, INT64_MIN, INT64_MAX, 1}, 0xffffffffu, INT32_MIN, std::string(255, 'z'), ~0ull, 1},
      {{1, 2, 3, 4}, 7, -1, "with spaces in it", 1, 1},
  };
  for (const auto& s : states) {
    time_alpha = s.alpha;
    node_id = s.node;
    process_id = s.pid;
    strcpy(argv0, s.argv0_text.c_str());
    ts_idx_mask = s.mask;
    ts_res = s.res;
    circular_buffer* cb = make_buffer(dir_);
    build_output_header(cb);
    const std::string built = cb->output_header;
    char area[768];
    uint32_t length = format_open_block(area, sizeof area);
    EXPECT_EQ(built, std::string(area, length)) << "pid " << s.pid;

    // Room for the first character of the program path only.
    const uint32_t small = static_cast<uint32_t>(built.find("QUARRY_ARGV0 ") + 15);
    memset(area, '#', sizeof area);
    EXPECT_EQ(small - 1, format_open_block(area, small));
    EXPECT_EQ(built.substr(0, small - 1) + '\0' + '#', std::string(area, small + 1));
  }
}

// The loop index is added unless rotation is off (a count of 0 or less) or the path would pass
// 255 characters, then ".trc" alone; a name with no room for ".trc" is refused (null tail), and
// the path holds the name cut to 255 for the report. The result is the path's length.
TEST_F(TraceFileTest, PathSuffixAndLengthRule) {
  circular_buffer* cb = make_buffer(dir_);
  const struct {
    size_t length;  // of the name; 0: the buffer's own name
    int count, index;
    const char* tail;
  } cases[] = {{0, 2, 0, "_0.trc"}, {0, 200, 105, "_105.trc"}, {0, 0, 5, ".trc"},
               {0, -1, 0, ".trc"},  {0, 1, 0, "_0.trc"},       {249, 2, 7, "_7.trc"},
               {250, 2, 7, ".trc"}, {251, 2, 7, ".trc"},       {252, 2, 7, nullptr},
               {400, 2, 7, nullptr}};
  for (const auto& c : cases) {
    std::string name = c.length == 0 ? dir_ + "quarry" : "/" + std::string(c.length - 1, 'n');
    cb->output_file_name = kept_string(name);
    cb->file_loop_count = c.count;
    cb->file_loop_index = c.index;
    const std::string expected = (name + (c.tail ? c.tail : "")).substr(0, 255);
    char path[256];
    EXPECT_EQ(c.tail ? static_cast<int>(expected.size()) : -1, trace_file_path(cb, path))
        << name.size() << " count " << c.count << " index " << c.index;
    EXPECT_EQ(expected, path) << name.size();
  }
}

}  // namespace

// The control file: the text written for a buffer and what reading it back changes; live
// configuration: setting up the file's watch, its failures, and what the event loop does with
// outside writes and with the library's own rewrites.
#include <fcntl.h>
#include <limits.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <string>

#include "ctrl_file.h"
#include "gtest/gtest.h"
#include "kelp/kelp.h"
#include "live_config.h"
#include "live_test_support.h"

// A failing MAX_SIZE needs an allocation that returns null under the sanitizers' allocators.
extern "C" const char* __asan_default_options() {
  return "allocator_may_return_null=1";
}
extern "C" const char* __tsan_default_options() {
  return "allocator_may_return_null=1";
}

namespace {

using namespace quarry_test;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

// Applies `text` as the buffer's control file.
int parse_text(quarry_handle* handle, const std::string& text, int allow_dump) {
  write_file(handle->cb->ctrl_file_name, text);
  return parse_ctrl_file(handle->cb, allow_dump);
}

// Writes the buffer's control file and returns its text.
std::string written(const quarry_handle* handle) {
  EXPECT_EQ(0, write_ctrl_file(handle->cb));
  return read_file(handle->cb->ctrl_file_name);
}

// The handle's two switches as control-file keywords.
std::string switches(const quarry_handle* handle) {
  return std::string(handle->enabled.load() ? "TRACE" : "NOTRACE") +
         (handle->pipe.load() ? " PIPE" : " NOPIPE");
}

void set_mtime(const std::string& path, time_t seconds) {
  write_file(path, "x");
  struct timespec times[2] = {{seconds, 0}, {seconds, 0}};
  ASSERT_EQ(0, utimensat(AT_FDCWD, path.c_str(), times, 0));
}

TEST(WriteCtrlFile, HandlesInTheTableOrder) {
  // One bucket (the first byte 'a'): newest first, whatever the order of opening.
  const std::string head = "MAX_SIZE 4096\nDUMP on\nFILE_LOOP_COUNT 2\n";
  quarry_handle* a = open_handle("a");
  open_handle("x", 4096, a);
  open_handle("y", 4096, a);
  EXPECT_EQ(head + "TRACE a/y\nNOPIPE a/y\nTRACE a/x\nNOPIPE a/x\nTRACE a\nNOPIPE a\n", written(a));
  // Lower bucket first: the owner (bucket 1) before its child (bucket 14), though newer.
  quarry_handle* owner = open_handle("abcdefgh");
  open_handle("x", 4096, owner);
  EXPECT_EQ(head + "TRACE abcdefgh\nNOPIPE abcdefgh\nTRACE abcdefgh/x\nNOPIPE abcdefgh/x\n",
            written(owner));
}

// Texts applied in order to one buffer, "sw" with its child "sw/kid": the switches of both,
// the size and the number of dumps each leaves.
TEST(ParseCtrlFile, TextsApplyInOrder) {
  quarry_handle* owner = open_handle("sw");
  quarry_handle* child = open_handle("kid", 4096, owner);
  quarry_handle* other = open_handle("sw_other");
  dump_counter dumps(buffer_dir(owner));
  const struct {
    std::string text;
    int allow_dump;
    const char* switches;  // the owner's, then the child's
    uint32_t size;
    int dumps;
  } steps[] = {
      // Leading blanks and extra tokens are fine; a handle of another buffer, an unknown name
      // and a lower-case keyword change nothing.
      {"NOTRACE sw\nPIPE sw/kid\n \tNOTRACE\tsw/kid  extra\n"
       "NOTRACE sw_other\nNOTRACE x\ntrace sw\n",
       0, "NOTRACE NOPIPE, NOTRACE PIPE", 4096, 0},
      // A comment, a quoted name (the quotes stay: no such handle), no value, an unterminated
      // quote; later lines win, also a last line without a newline.
      {"#TRACE sw\nTRACE \"sw\"\nTRACE\nTRACE sw/kid\nNOPIPE sw/kid\n"
       "PIPE \"sw/kid\nPIPE sw\nNOPIPE sw",
       0, "NOTRACE NOPIPE, TRACE NOPIPE", 4096, 0},
      // Lines are read in 1023-byte parts: the first part of each line holds "FOO" or a
      // comment and nothing else, and the rest is read as a line of its own.
      {"FOO" + std::string(1020, ' ') + "PIPE sw\n#" + std::string(1022, 'x') + "NOTRACE sw/kid\n",
       0, "NOTRACE PIPE, NOTRACE NOPIPE", 4096, 0},
      // No dump for a value other than "on", a lower-case keyword, or dumps not allowed.
      {"DUMP off\nDUMP 1\ndump on\nDUMP\n", 1, "NOTRACE PIPE, NOTRACE NOPIPE", 4096, 0},
      {"DUMP on\n", 0, "NOTRACE PIPE, NOTRACE NOPIPE", 4096, 0},
      // Any number of requests in any letter case give one dump, also on a last line without
      // a newline.
      {"DUMP On\nTRACE sw/kid\nPIPE sw/kid\nDUMP oN", 1, "NOTRACE PIPE, TRACE PIPE", 4096, 1},
      // The size only grows, also beyond the open's 4 MiB limit.
      {"MAX_SIZE 5000\nMAX_SIZE 4096\nMAX_SIZE -5\nMAX_SIZE junk\n", 0, "NOTRACE PIPE, TRACE PIPE",
       8192, 1},
      {"MAX_SIZE 8388608\nMAX_SIZE 100\n", 0, "NOTRACE PIPE, TRACE PIPE", 8388608, 1},
  };
  for (size_t i = 0; i < sizeof steps / sizeof steps[0]; ++i) {
    EXPECT_EQ(0, parse_text(owner, steps[i].text, steps[i].allow_dump)) << i;
    EXPECT_EQ(steps[i].switches, switches(owner) + ", " + switches(child)) << i;
    EXPECT_EQ(steps[i].size, size_bytes(owner)) << i;
    EXPECT_EQ(steps[i].dumps, dumps.count()) << i;
  }
  EXPECT_TRUE(quarry_is_enabled(other));
  // The file as written shows the real size; read back, it changes nothing and dumps.
  std::string text = written(owner);
  EXPECT_EQ(0u, text.find("MAX_SIZE 8388608\n"));
  EXPECT_EQ(0, parse_ctrl_file(owner->cb, 1));
  EXPECT_EQ(2, dumps.count());
  EXPECT_EQ("NOTRACE PIPE, TRACE PIPE", switches(owner) + ", " + switches(child));
  EXPECT_EQ(text, written(owner));

  // A MAX_SIZE that cannot be had (the address space capped a little above its current use)
  // stops the reading: the lines before it apply, the lines after it and the dump request not.
  std::string status = read_file("/proc/self/status");
  size_t at = status.find("VmSize:");
  ASSERT_NE(std::string::npos, at);
  struct rlimit previous;
  ASSERT_EQ(0, getrlimit(RLIMIT_AS, &previous));
  struct rlimit capped = previous;
  capped.rlim_cur = strtoull(status.c_str() + at + 7, nullptr, 10) * 1024 + (256u << 20);
  ASSERT_EQ(0, setrlimit(RLIMIT_AS, &capped));
  int result = parse_text(owner, "DUMP on\nNOPIPE sw\nMAX_SIZE 1073741824\nNOPIPE sw/kid\n", 1);
  ASSERT_EQ(0, setrlimit(RLIMIT_AS, &previous));
  EXPECT_EQ(1, result);
  EXPECT_EQ("NOTRACE NOPIPE, TRACE PIPE", switches(owner) + ", " + switches(child));
  EXPECT_EQ(8388608u, size_bytes(owner));
  EXPECT_EQ(2, dumps.count());
}

TEST(ParseCtrlFile, FileLoopCountAgainstRotatedFiles) {
  quarry_handle* handle = open_handle("rotation");
  circular_buffer* cb = handle->cb;
  // Each step adds a rotated file (unless the name is empty) and then applies the count.
  const struct {
    const char* file;
    time_t mtime;
    const char* value;
    int count, index;
  } steps[] = {
      {"", 0, "4", 4, 1},  // no rotated file yet: the next index is 1
      {"quarry_3.trc", 2000000000, "4", 4, 0},
      {"quarry_1.trc", 1000000000, "5", 5, 4},  // older: 3 stays the latest
      // Not of the "quarry_" form: ignored, however new.
      {"quarryx_7.trc", 2050000000, "5", 5, 4},
      {"other_9.trc", 2050000000, "5", 5, 4},
      {"", 0, "9\nFILE_LOOP_COUNT many", 2, 0},  // 0 or text that is no number: 2
      // Negative counts give a remainder in [0, |count|) and never trap.
      {"", 0, "-3", -3, 1},
      // The index is the digits up to the first other character; no digits give 0.
      {"quarry_12x.trc", 2060000000, "5", 5, 3},
      {"quarry_abc.trc", 2070000000, "5", 5, 1},
      // A number that exceeds int saturates; that index plus one, against INT_MIN and INT_MAX.
      {"quarry_99999999999.trc", 2100000000, "-2147483648", INT_MIN, 0},
      {"", 0, "2147483647", INT_MAX, 1},
      {"", 0, "-1", -1, 0},
      {"", 0, "5", 5, 3},  // 2147483648 rem 5
  };
  for (const auto& step : steps) {
    if (*step.file != '\0') set_mtime(buffer_dir(handle) + step.file, step.mtime);
    EXPECT_EQ(0, parse_text(handle, std::string("FILE_LOOP_COUNT ") + step.value + "\n", 0));
    EXPECT_EQ(step.count, cb->file_loop_count) << step.file << " " << step.value;
    EXPECT_EQ(step.index, cb->file_loop_index) << step.file << " " << step.value;
  }
}

// Runs loop turns on this thread until the condition holds; false when it never does.
bool run_loop_until(kelp_loop* loop, const std::function<bool()>& condition) {
  for (int i = 0; i < 100 && !condition(); ++i) kelp_run_once(loop, 100);
  return condition();
}

TEST(EnableConfiguration, AppliesTheFileOnDiskOnceForTheWholeBufferAndAttachesAgain) {
  quarry_handle* owner = open_handle("setup");
  quarry_handle* child = open_handle("kid", 4096, owner);
  circular_buffer* cb = owner->cb;
  // Settings left on disk apply first, without the dump they ask for.
  write_file(cb->ctrl_file_name, "NOTRACE setup/kid\nDUMP on\nMAX_SIZE 16384\nNOTRACE gone\n");
  dump_counter dumps(buffer_dir(owner));
  CaptureStderr();
  EXPECT_EQ(6, quarry_enable_configuration(owner, nullptr));  // kelp refuses a null loop
  EXPECT_EQ("quarry_enable_configuration(): kelp_attach_fd() failed.\n", GetCapturedStderr());
  EXPECT_EQ(
      "MAX_SIZE 16384\nDUMP on\nFILE_LOOP_COUNT 2\n"
      "TRACE setup\nNOPIPE setup\nNOTRACE setup/kid\nNOPIPE setup/kid\n",
      read_file(cb->ctrl_file_name));
  EXPECT_EQ(0, dumps.count());
  int fd = cb->ctrl_inotify_fd;
  // Through the other handle nothing is read, written or created again, and the watch kept
  // after the failed attachment is attached now: the change made meanwhile reaches the loop.
  write_file(cb->ctrl_file_name, "NOTRACE setup\n");
  kelp_loop* loop = kelp_create();
  EXPECT_EQ(0, quarry_enable_configuration(child, loop));
  EXPECT_EQ(fd, cb->ctrl_inotify_fd);
  EXPECT_EQ("NOTRACE setup\n", read_file(cb->ctrl_file_name));
  EXPECT_TRUE(quarry_is_enabled(owner));
  EXPECT_TRUE(run_loop_until(loop, [&] { return !quarry_is_enabled(owner); }));
  kelp_destroy(loop);
}

TEST(EnableConfiguration, FailuresReportAndALaterCallRetries) {
  CaptureStderr();
  EXPECT_EQ(-2, quarry_enable_configuration(nullptr, nullptr));
  EXPECT_EQ(
      "quarry_enable_configuration(): hdl is NULL.\n"
      "quarry_enable_configuration2 failed with error 0xfffffffe\n",
      GetCapturedStderr());

  quarry_handle* handle = open_handle("nodir");
  circular_buffer* cb = handle->cb;
  std::string dir = buffer_dir(handle);
  ASSERT_EQ(0, rmdir(dir.c_str()));
  CaptureStderr();
  int next_fd = dup(0);  // the number the watch's descriptor gets
  close(next_fd);
  EXPECT_EQ(5, quarry_enable_configuration(handle, nullptr));
  EXPECT_EQ("quarry_enable_configuration(): inotify_add_watch() failed fd " +
                std::to_string(next_fd) + " ctrl_file_name " + cb->ctrl_file_name +
                ". No such file or directory (2)\n"
                "quarry_enable_configuration2 failed with error 0x5\n",
            GetCapturedStderr());
  // Nothing half set up stays behind: the descriptor is closed and forgotten.
  EXPECT_EQ(-1, cb->ctrl_inotify_fd);
  EXPECT_EQ(-1, fcntl(next_fd, F_GETFD));
  ASSERT_EQ(0, mkdir(dir.c_str(), 0777));
  EXPECT_EQ(0, quarry_enable_configuration2(handle));
  EXPECT_TRUE(file_exists(cb->ctrl_file_name));
}

TEST(ControlFileWatch, QueuedWritesApplyOnceAndOnlyTheWatchIsRead) {
  quarry_handle* handle = open_handle("queued");
  kelp_loop* loop = kelp_create();
  ASSERT_EQ(0, quarry_enable_configuration(handle, loop));
  const char* ctrl = handle->cb->ctrl_file_name;
  dump_counter dumps(buffer_dir(handle));
  // A child's rewrite asks for a dump, as every written file does, but is not read back: it
  // re-arms the watch, now also for attribute changes, and sets the pending flag, which the
  // next wake-up only clears; the turn after finds nothing to read.
  open_handle("first", 4096, handle);
  EXPECT_EQ(1, kelp_run_once(loop, 10000));
  EXPECT_EQ(1, kelp_run_once(loop, 0));
  EXPECT_EQ(0, kelp_run_once(loop, 0));
  // The flag's wake-up leaves the queued events for the turn after, which applies the outside
  // write made meanwhile.
  quarry_handle* child = open_handle("child", 4096, handle);
  write_file(ctrl, "NOTRACE queued/child\n");
  EXPECT_EQ(1, kelp_run_once(loop, 10000));
  EXPECT_TRUE(quarry_is_enabled(child));
  EXPECT_EQ(1, kelp_run_once(loop, 0));
  EXPECT_FALSE(quarry_is_enabled(child));
  quarry_set_enabled(child, true);
  ASSERT_EQ(0, chmod(ctrl, 0640));  // an attribute change alone re-reads the file
  EXPECT_TRUE(run_loop_until(loop, [&] { return !quarry_is_enabled(child); }));
  EXPECT_EQ(0, dumps.count());

  // inotify merges identical events at the tail of its queue, so the writes alternate with
  // attribute changes: six distinct events wait before the loop turns. One reading, one dump.
  for (int i = 0; i < 3; ++i) {
    write_file(ctrl, "MAX_SIZE 65536\nDUMP on\nNOTRACE queued\n");
    ASSERT_EQ(0, chmod(ctrl, i % 2 == 0 ? 0600 : 0644));
  }
  EXPECT_TRUE(run_loop_until(loop, [&] { return dumps.count() > 0; }));
  EXPECT_EQ(0, kelp_run_once(loop, 0));  // the queue was drained by that one call
  EXPECT_EQ(1, dumps.count());
  EXPECT_EQ(65536u, size_bytes(handle));
  kelp_destroy(loop);

  // A loop may call with a number that was attached once and now names one of the host's
  // descriptors: the callback must leave the host's data alone.
  int host[2];
  ASSERT_EQ(0, pipe2(host, O_NONBLOCK));
  ASSERT_EQ(1, write(host[1], "h", 1));
  ctrl_watch_callback(host[0], KELP_EVENT_READ, handle->cb);
  char byte;
  EXPECT_EQ(1, read(host[0], &byte, 1));
  close(host[0]);
  close(host[1]);
}

}  // namespace

// Live configuration: setting up the control-file watch and its failures, and what the event
// loop does with outside writes and with the library's own rewrites.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <string>

#include "ctrl_file.h"
#include "gtest/gtest.h"
#include "kelp/kelp.h"
#include "live_config.h"
#include "live_test_support.h"

namespace {

using namespace quarry_test;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

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
  EXPECT_GE(cb->ctrl_watch, 0);
  EXPECT_TRUE(file_exists(cb->ctrl_file_name));
}

TEST(ControlFileWatch, QueuedOutsideWritesApplyAndDumpOnce) {
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
  EXPECT_FALSE(quarry_is_enabled(handle));
  EXPECT_EQ(65536u, size_bytes(handle));
  kelp_destroy(loop);
}

// A loop may call with a number that was attached once and now names one of the host's
// descriptors: the callback must leave the host's data alone.
TEST(ControlFileWatch, CallbackReadsOnlyTheBuffersOwnWatch) {
  quarry_handle* handle = open_handle("own");
  ASSERT_EQ(0, quarry_enable_configuration2(handle));
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

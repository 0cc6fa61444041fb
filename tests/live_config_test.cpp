// Live configuration: setting up the control-file watch, its failures, and what the event
// loop does with outside writes, with the library's own rewrites, and with growth under load.
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "ctrl_file.h"
#include "gtest/gtest.h"
#include "kelp/kelp.h"
#include "live_config.h"
#include "live_test_support.h"
#include "ring.h"
#include "test_support.h"

namespace {

using namespace quarry_test;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;
// Outside writes use write_file, which does what a shell redirection does: open with
// truncation, write, close.

// Runs loop turns on this thread until the condition holds; false when it never does.
bool run_loop_until(kelp_loop* loop, const std::function<bool()>& condition) {
  for (int i = 0; i < 100 && !condition(); ++i) kelp_run_once(loop, 100);
  return condition();
}

// An event loop running kelp_run on a thread of its own, as a host runs it.
struct loop_thread {
  loop_thread() : loop(kelp_create()), thread([this] { kelp_run(loop); }) {}
  ~loop_thread() {
    kelp_stop(loop);
    thread.join();
    kelp_destroy(loop);
  }
  kelp_loop* loop;
  std::thread thread;
};

TEST(EnableConfiguration, SetsUpOnceForTheWholeBufferAndAttachesAgain) {
  quarry_handle* owner = open_handle("setup");
  quarry_handle* child = open_handle("kid", 4096, owner);
  circular_buffer* cb = owner->cb;
  ASSERT_FALSE(file_exists(cb->ctrl_file_name));
  CaptureStderr();
  EXPECT_EQ(6, quarry_enable_configuration(owner, nullptr));  // kelp refuses a null loop
  EXPECT_EQ("quarry_enable_configuration(): kelp_attach_fd() failed.\n", GetCapturedStderr());
  EXPECT_EQ(
      "MAX_SIZE 4096\nDUMP on\nFILE_LOOP_COUNT 2\n"
      "TRACE setup\nNOPIPE setup\nTRACE setup/kid\nNOPIPE setup/kid\n",
      read_file(cb->ctrl_file_name));
  int fd = cb->ctrl_inotify_fd;
  EXPECT_GE(cb->ctrl_watch, 0);
  EXPECT_NE(0, fcntl(fd, F_GETFL) & O_NONBLOCK);
  // Through the other handle nothing is read, written or created again, and the watch kept
  // after the failed attachment is attached now: the change made meanwhile reaches the loop.
  write_file(cb->ctrl_file_name, "NOTRACE setup\n");
  kelp_loop* loop = kelp_create();
  EXPECT_EQ(0, quarry_enable_configuration(child, loop));
  EXPECT_EQ(fd, cb->ctrl_inotify_fd);
  EXPECT_EQ(loop, cb->event_loop);
  EXPECT_EQ("NOTRACE setup\n", read_file(cb->ctrl_file_name));
  EXPECT_EQ(1, owner->enabled.load());
  EXPECT_TRUE(run_loop_until(loop, [&] { return owner->enabled.load() == 0; }));
  kelp_destroy(loop);
}

TEST(EnableConfiguration, AppliesAFileLeftOnDiskWithoutDumping) {
  quarry_handle* handle = open_handle("leftover");
  circular_buffer* cb = handle->cb;
  write_file(cb->ctrl_file_name, "NOTRACE leftover\nDUMP on\nMAX_SIZE 16384\nNOTRACE gone\n");
  dump_counter dumps(buffer_dir(handle));
  EXPECT_EQ(0, quarry_enable_configuration2(handle));
  EXPECT_EQ(0, handle->enabled.load());
  EXPECT_EQ(16384u, size_bytes(handle));
  EXPECT_EQ(0, dumps.count());
  EXPECT_EQ("MAX_SIZE 16384\nDUMP on\nFILE_LOOP_COUNT 2\nNOTRACE leftover\nNOPIPE leftover\n",
            read_file(cb->ctrl_file_name));
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
  // Without a DUMP line the file is applied and nothing is dumped.
  write_file(ctrl, "MAX_SIZE 8192\n");
  EXPECT_TRUE(run_loop_until(loop, [&] { return size_bytes(handle) == 8192; }));
  EXPECT_EQ(0, kelp_run_once(loop, 0));

  // A child's rewrite re-arms the watch (attribute changes count from now on) and sets the
  // pending flag: the next wake-up only clears it and leaves the queued events for the turn
  // after, which applies the outside write made meanwhile.
  quarry_handle* child = open_handle("child", 4096, handle);
  write_file(ctrl, "NOTRACE queued/child\n");
  EXPECT_EQ(1, kelp_run_once(loop, 10000));
  EXPECT_EQ(0, handle->cb->ctrl_write_pending.load());
  EXPECT_EQ(1, child->enabled.load());
  EXPECT_EQ(1, kelp_run_once(loop, 0));
  EXPECT_EQ(0, child->enabled.load());
  quarry_set_enabled(child, true);
  ASSERT_EQ(0, chmod(ctrl, 0640));  // an attribute change alone re-reads the file
  EXPECT_TRUE(run_loop_until(loop, [&] { return child->enabled.load() == 0; }));
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
  EXPECT_EQ(0, handle->enabled.load());
  EXPECT_EQ(65536u, size_bytes(handle));
  kelp_destroy(loop);
}

TEST(ControlFileWatch, OwnRewriteForANewChildDoesNotDump) {
  loop_thread running;
  quarry_handle* owner = open_handle("rewrite");
  ASSERT_EQ(0, quarry_enable_configuration(owner, running.loop));
  dump_counter dumps(buffer_dir(owner));
  quarry_handle* child = open_handle("late", 4096, owner);
  EXPECT_NE(std::string::npos, read_file(owner->cb->ctrl_file_name).find("TRACE rewrite/late\n"));
  EXPECT_TRUE(wait_until([&] { return owner->cb->ctrl_write_pending.load() == 0; }));
  // The next outside change is seen again. Events are handled in order on the loop's thread,
  // so once its dump is counted, a dump for the rewrite would have been counted before it.
  write_file(owner->cb->ctrl_file_name, "NOTRACE rewrite/late\nDUMP on\n");
  EXPECT_TRUE(wait_until([&] { return dumps.count() > 0; }));
  EXPECT_EQ(0, child->enabled.load());
  EXPECT_EQ(1, owner->enabled.load());
  EXPECT_EQ(1, dumps.count());
}

TEST(ControlFileWatch, GrowthWhileWritersRun) {
  loop_thread running;
  quarry_handle* handle = open_handle("growth");
  ASSERT_EQ(0, quarry_enable_configuration(handle, running.loop));
  std::atomic<bool> stop{false};
  std::atomic<uint32_t> records{0};
  std::vector<std::thread> writers;
  for (int w = 0; w < 3; ++w) {
    writers.emplace_back([&, w] {
      while (!stop.load()) {
        QUARRY_TRACE(handle, 1, "dDs", w, static_cast<uint64_t>(records.load()), "growing");
        records.fetch_add(1);
      }
    });
  }
  // An operator raises MAX_SIZE step by step while the writers keep going.
  for (uint32_t size = 8192; size <= (1u << 20); size *= 2) {
    write_file(handle->cb->ctrl_file_name, "MAX_SIZE " + std::to_string(size) + "\n");
    EXPECT_TRUE(wait_until([&] { return size_bytes(handle) == size; })) << size;
  }
  stop.store(true);
  for (std::thread& writer : writers) writer.join();
  EXPECT_EQ(records.load(), handle->cb->entry_count.load());
  ASSERT_EQ(0, write_ctrl_file(handle->cb));
  EXPECT_EQ(0u, read_file(handle->cb->ctrl_file_name).find("MAX_SIZE 1048576\n"));
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

// Tests of the kelp event loop: dispatch and level-triggering, replacing and forgetting
// attachments (also from callbacks of the same turn), stopping, refused arguments.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "kelp/kelp.h"

namespace {

struct Recorder {
  int calls = 0;
  uint16_t events = 0;
};

void record(int, uint16_t events, void* arg) {
  Recorder* r = static_cast<Recorder*>(arg);
  ++r->calls;
  r->events = events;
}

// A pipe with a byte to read; the test closes an end early by setting it to -1.
struct Pipe {
  int r = -1, w = -1;
  Pipe() {
    int fds[2];
    if (pipe2(fds, O_NONBLOCK | O_CLOEXEC) == 0) r = fds[0], w = fds[1];
    EXPECT_EQ(write(w, "x", 1), 1);
  }
  ~Pipe() {
    close(r);
    close(w);
  }
};

int attach(kelp_loop* loop, int fd, void* arg, kelp_callback callback = record,
           int events = KELP_EVENT_READ) {
  return kelp_attach_fd(loop, fd, 0, callback, events, 0, arg, 0);
}

class KelpTest : public ::testing::Test {
 protected:
  ~KelpTest() override { kelp_destroy(loop); }
  kelp_loop* loop = kelp_create();
};

TEST_F(KelpTest, ReadinessReachesTheLatestAttachmentAtEveryTurnWhileItLasts) {
  Pipe p;
  Recorder rec, writable;
  ASSERT_EQ(attach(loop, p.r, &rec), 0);
  ASSERT_EQ(attach(loop, p.w, &writable), 0);  // a pipe's write end never becomes readable
  for (int turn = 0; turn < 3; ++turn) EXPECT_EQ(kelp_run_once(loop, 10000), 1);
  EXPECT_EQ(rec.calls, 3);
  EXPECT_EQ(rec.events, KELP_EVENT_READ);
  char c;
  ASSERT_EQ(read(p.r, &c, 1), 1);
  EXPECT_EQ(kelp_run_once(loop, 0), 0);
  // Attaching again replaces the attachment; forgetting ends it, once.
  ASSERT_EQ(attach(loop, p.w, &writable, record, KELP_EVENT_WRITE), 0);
  EXPECT_EQ(kelp_run_once(loop, 10000), 1);
  EXPECT_EQ(writable.events, KELP_EVENT_WRITE);
  EXPECT_EQ(kelp_forget_fd(loop, p.w), 0);
  EXPECT_EQ(kelp_run_once(loop, 0), 0);
  EXPECT_EQ(kelp_forget_fd(loop, p.w), -1);
  // The writer going away is a hangup, reported although only READ was asked for.
  close(p.w);
  p.w = -1;
  EXPECT_EQ(kelp_run_once(loop, 10000), 1);
  EXPECT_TRUE(rec.events & KELP_EVENT_HANGUP);
  // Forgetting a descriptor that was closed after attaching still succeeds.
  close(p.r);
  EXPECT_EQ(kelp_forget_fd(loop, p.r), 0);
  p.r = -1;
}

// Both descriptors are ready in the same turn; whichever callback runs first forgets the other
// and attaches it again to `late`: the event collected for the old attachment is dropped.
struct Turn {
  kelp_loop* loop;
  int a, b;
  Recorder late{};
};

TEST_F(KelpTest, CallbackMayForgetOrCloseDescriptorsDuringATurn) {
  Pipe a, b, c;
  Turn turn{loop, a.r, b.r};
  auto forget_other = [](int fd, uint16_t, void* arg) {
    Turn* turn = static_cast<Turn*>(arg);
    int other = fd == turn->a ? turn->b : turn->a;
    EXPECT_EQ(kelp_forget_fd(turn->loop, other), 0);
    EXPECT_EQ(attach(turn->loop, other, &turn->late), 0);
  };
  ASSERT_EQ(attach(loop, a.r, &turn, forget_other), 0);
  ASSERT_EQ(attach(loop, b.r, &turn, forget_other), 0);
  EXPECT_EQ(kelp_run_once(loop, 10000), 1);
  EXPECT_EQ(kelp_forget_fd(loop, a.r), 0);
  EXPECT_EQ(kelp_forget_fd(loop, b.r), 0);
  // Closing its descriptor without forgetting it ends the attachment too.
  auto close_self = [](int fd, uint16_t, void*) { close(fd); };
  ASSERT_EQ(attach(loop, c.r, nullptr, close_self), 0);
  EXPECT_EQ(kelp_run_once(loop, 10000), 1);
  EXPECT_EQ(kelp_forget_fd(loop, c.r), -1);
  c.r = -1;
}

TEST_F(KelpTest, StopEndsRunFromAnyThreadOrCallback) {
  kelp_stop(loop);  // a stop requested before the run ends it before its first turn
  EXPECT_EQ(kelp_run(loop), 0);
  // Attached from this thread while the loop thread waits; called at every turn until stopped.
  Pipe p;
  std::atomic<int> calls{0};
  std::thread runner([&] { EXPECT_EQ(kelp_run(loop), 0); });
  auto count = [](int, uint16_t, void* calls) { ++*static_cast<std::atomic<int>*>(calls); };
  ASSERT_EQ(attach(loop, p.r, &calls, count), 0);
  for (int i = 0; i < 10000 && calls.load() == 0; ++i) usleep(1000);
  kelp_stop(loop);
  runner.join();
  auto stop = [](int, uint16_t, void* loop) { kelp_stop(static_cast<kelp_loop*>(loop)); };
  ASSERT_EQ(attach(loop, p.r, loop, stop), 0);
  EXPECT_EQ(kelp_run(loop), 0);
}

TEST_F(KelpTest, InvalidArgumentsAndNullLoopFail) {
  Pipe p;
  auto fails_with = [&](int result, int error) {
    EXPECT_EQ(result, -1);
    EXPECT_EQ(errno, error);
  };
  fails_with(kelp_attach_fd(nullptr, p.r, 0, record, 2, 0, nullptr, 0), EINVAL);
  fails_with(kelp_attach_fd(loop, p.r, 1, record, 2, 0, nullptr, 0), EINVAL);
  fails_with(kelp_attach_fd(loop, p.r, 0, record, 0x20, 0, nullptr, 0), EINVAL);
  fails_with(kelp_attach_fd(loop, p.r, 0, record, 0x1, 0, nullptr, 0), EINVAL);
  fails_with(kelp_attach_fd(loop, p.r, 0, record, 2, 0, nullptr, 1), EINVAL);
  fails_with(kelp_attach_fd(loop, p.r, 0, nullptr, 2, 0, nullptr, 0), EINVAL);
  fails_with(kelp_attach_fd(loop, -1, 0, record, 2, 0, nullptr, 0), EINVAL);
  int regular = open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
  fails_with(attach(loop, regular, nullptr), EPERM);
  close(regular);
  fails_with(attach(loop, regular, nullptr), EBADF);
  EXPECT_EQ(kelp_forget_fd(loop, regular), -1);  // failed attachments leave no entry
  EXPECT_EQ(kelp_forget_fd(nullptr, p.r), -1);
  EXPECT_EQ(kelp_run_once(nullptr, 0), -1);
  EXPECT_EQ(kelp_run(nullptr), -1);
  kelp_stop(nullptr);
  kelp_destroy(nullptr);
}

}  // namespace

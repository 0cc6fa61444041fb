// Tests of the kelp event loop: dispatch and level-triggering, replacing and forgetting
// attachments (also from callbacks of the same turn), reused descriptor numbers, stopping.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

#include "kelp/kelp.h"
#include "test_support.h"

namespace {

struct Recorder {
  int calls = 0;
  int fd = -1;
  uint16_t events = 0;
};

void record(int fd, uint16_t events, void* arg) {
  Recorder* r = static_cast<Recorder*>(arg);
  ++r->calls;
  r->fd = fd;
  r->events = events;
}

struct Pipe {
  int r = -1, w = -1;
  Pipe() {
    int fds[2];
    if (pipe2(fds, O_NONBLOCK | O_CLOEXEC) == 0) r = fds[0], w = fds[1];
  }
  ~Pipe() {
    if (r >= 0) close(r);
    if (w >= 0) close(w);
  }
  void fill() { EXPECT_EQ(write(w, "x", 1), 1); }
  // Moves a fresh empty pipe's read end onto descriptor number `number`.
  void take_number(int number) {
    if (r == number) return;
    ASSERT_EQ(dup2(r, number), number);
    close(r);
    r = number;
  }
};

int attach(kelp_loop* loop, int fd, void* arg, int events = KELP_EVENT_READ,
           kelp_callback callback = record) {
  return kelp_attach_fd(loop, fd, 0, callback, events, 0, arg, 0);
}

class KelpTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_NE(loop, nullptr); }
  void TearDown() override { kelp_destroy(loop); }
  kelp_loop* loop = kelp_create();
};

TEST_F(KelpTest, ReadableDescriptorIsReportedWithItsArgumentWhileItStaysReadable) {
  Pipe p;
  Recorder rec;
  ASSERT_EQ(attach(loop, p.r, &rec), 0);
  EXPECT_EQ(kelp_run_once(loop, 0), 0);
  p.fill();
  EXPECT_EQ(kelp_run_once(loop, 10000), 1);
  EXPECT_EQ(rec.fd, p.r);
  EXPECT_EQ(rec.events, KELP_EVENT_READ);
  // Not drained: every turn reports it again. Drained: nothing more.
  EXPECT_EQ(kelp_run_once(loop, 10000), 1);
  EXPECT_EQ(kelp_run_once(loop, 10000), 1);
  EXPECT_EQ(rec.calls, 3);
  char c;
  ASSERT_EQ(read(p.r, &c, 1), 1);
  EXPECT_EQ(kelp_run_once(loop, 0), 0);
  // The writer going away is a hangup, reported although only READ was asked for.
  close(p.w);
  p.w = -1;
  EXPECT_EQ(kelp_run_once(loop, 10000), 1);
  EXPECT_TRUE(rec.events & KELP_EVENT_HANGUP);
}

TEST_F(KelpTest, ReattachReplacesTheAttachmentAndForgetEndsIt) {
  Pipe p;
  Recorder first, second;
  ASSERT_EQ(attach(loop, p.w, &first), 0);
  EXPECT_EQ(kelp_run_once(loop, 0), 0);  // a pipe's write end never becomes readable
  ASSERT_EQ(attach(loop, p.w, &second, KELP_EVENT_WRITE), 0);
  EXPECT_EQ(kelp_run_once(loop, 10000), 1);
  EXPECT_EQ(first.calls, 0);
  EXPECT_EQ(second.calls, 1);
  EXPECT_EQ(second.events, KELP_EVENT_WRITE);
  EXPECT_EQ(kelp_forget_fd(loop, p.w), 0);
  EXPECT_EQ(kelp_run_once(loop, 0), 0);
  EXPECT_EQ(second.calls, 1);
  EXPECT_EQ(kelp_forget_fd(loop, p.w), -1);
  EXPECT_EQ(kelp_forget_fd(loop, p.r), -1);
  // Forgetting a descriptor that was closed after attaching still succeeds.
  ASSERT_EQ(attach(loop, p.r, &first), 0);
  close(p.r);
  EXPECT_EQ(kelp_forget_fd(loop, p.r), 0);
  p.r = -1;
}

TEST_F(KelpTest, NumberOfAClosedDescriptorCanBeAttachedAgain) {
  Recorder old_rec, new_rec;
  auto* old_pipe = new Pipe;
  int number = old_pipe->r;
  old_pipe->fill();
  ASSERT_EQ(attach(loop, number, &old_rec), 0);
  // Closed without forgetting, while a duplicate (as a forked child would) keeps the readable
  // file open, so the kernel still watches it under this number.
  int keeper = dup(number);
  delete old_pipe;
  Pipe fresh;
  fresh.take_number(number);
  ASSERT_EQ(attach(loop, number, &new_rec), 0);
  // The old file's readiness reaches neither callback; the new pipe is empty.
  EXPECT_EQ(kelp_run_once(loop, 0), 0);
  EXPECT_EQ(kelp_run_once(loop, 0), 0);
  fresh.fill();
  EXPECT_EQ(kelp_run_once(loop, 10000), 1);
  EXPECT_EQ(new_rec.fd, number);
  EXPECT_EQ(new_rec.calls, 1);
  EXPECT_EQ(old_rec.calls, 0);
  close(keeper);
}

// Both descriptors are ready in the same turn; whichever callback runs first forgets the
// other and puts an empty pipe, attached to `late`, under its number.
struct Pair {
  Pair(kelp_loop* loop, int a, int b) : loop(loop), a(a), b(b) {}
  kelp_loop* loop;
  int a, b;
  int calls = 0;
  Pipe replacement;
  Recorder late;
};

void forget_other(int fd, uint16_t, void* arg) {
  Pair* pair = static_cast<Pair*>(arg);
  if (++pair->calls > 1) return;
  int other = fd == pair->a ? pair->b : pair->a;
  EXPECT_EQ(kelp_forget_fd(pair->loop, other), 0);
  pair->replacement.take_number(other);
  EXPECT_EQ(attach(pair->loop, other, &pair->late), 0);
}

void forget_self(int fd, uint16_t events, void* arg) {
  EXPECT_EQ(kelp_forget_fd(static_cast<Pair*>(arg)->loop, fd), 0);
  close(fd);
  record(fd, events, &static_cast<Pair*>(arg)->late);
}

TEST_F(KelpTest, CallbackMayForgetAnotherDescriptorOrItselfDuringATurn) {
  Pipe a, b, c;
  a.fill();
  b.fill();
  c.fill();
  Pair pair(loop, a.r, b.r);
  ASSERT_EQ(attach(loop, a.r, &pair, KELP_EVENT_READ, forget_other), 0);
  ASSERT_EQ(attach(loop, b.r, &pair, KELP_EVENT_READ, forget_other), 0);
  EXPECT_EQ(kelp_run_once(loop, 10000), 1);
  EXPECT_EQ(pair.calls, 1);
  EXPECT_EQ(pair.late.calls, 0);
  pair.replacement.r = -1;  // now owned by a or b
  EXPECT_EQ(kelp_forget_fd(loop, a.r), 0);
  EXPECT_EQ(kelp_forget_fd(loop, b.r), 0);

  ASSERT_EQ(attach(loop, c.r, &pair, KELP_EVENT_READ, forget_self), 0);
  EXPECT_EQ(kelp_run_once(loop, 10000), 1);
  EXPECT_EQ(kelp_run_once(loop, 0), 0);
  EXPECT_EQ(pair.late.calls, 1);
  c.r = -1;
}

void drain_and_stop(int fd, uint16_t, void* arg) {
  char c;
  while (read(fd, &c, 1) > 0) {
  }
  kelp_stop(static_cast<kelp_loop*>(arg));
}

TEST_F(KelpTest, StopEndsRunFromAnyThreadOrCallback) {
  kelp_stop(loop);  // a stop requested before the run ends it before its first turn
  EXPECT_EQ(kelp_run(loop), 0);

  // Attached from this thread while the loop thread waits with no time limit.
  Pipe p;
  std::atomic<int> calls{0};
  int result = -1;
  std::thread runner([&] { result = kelp_run(loop); });
  auto count = [](int fd, uint16_t, void* arg) {
    char c;
    while (read(fd, &c, 1) > 0) {
    }
    static_cast<std::atomic<int>*>(arg)->fetch_add(1);
  };
  ASSERT_EQ(attach(loop, p.r, &calls, KELP_EVENT_READ, count), 0);
  p.fill();
  for (int i = 0; i < 10000 && calls.load() == 0; ++i) usleep(1000);
  kelp_stop(loop);
  runner.join();
  EXPECT_EQ(result, 0);
  EXPECT_EQ(calls.load(), 1);

  ASSERT_EQ(attach(loop, p.r, loop, KELP_EVENT_READ, drain_and_stop), 0);
  p.fill();
  EXPECT_EQ(kelp_run(loop), 0);
}

TEST_F(KelpTest, InvalidArgumentsAndNullLoopFail) {
  Pipe p;
  Recorder rec;
  auto fails_with = [&](int result, int error) {
    EXPECT_EQ(result, -1);
    EXPECT_EQ(errno, error);
  };
  fails_with(kelp_attach_fd(nullptr, p.r, 0, record, 2, 0, &rec, 0), EINVAL);
  fails_with(kelp_attach_fd(loop, p.r, 1, record, 2, 0, &rec, 0), EINVAL);
  fails_with(kelp_attach_fd(loop, p.r, 0, record, 0x20, 0, &rec, 0), EINVAL);
  fails_with(kelp_attach_fd(loop, p.r, 0, record, 0x1, 0, &rec, 0), EINVAL);
  fails_with(kelp_attach_fd(loop, p.r, 0, record, 2, 0, &rec, 1), EINVAL);
  fails_with(kelp_attach_fd(loop, p.r, 0, nullptr, 2, 0, &rec, 0), EINVAL);
  fails_with(kelp_attach_fd(loop, -1, 0, record, 2, 0, &rec, 0), EINVAL);
  std::string file = quarry_test::make_dir("kelp") + "plain";
  quarry_test::write_file(file, "x");
  int regular = open(file.c_str(), O_RDONLY | O_CLOEXEC);
  fails_with(attach(loop, regular, &rec), EPERM);
  close(regular);
  fails_with(attach(loop, regular, &rec), EBADF);
  EXPECT_EQ(kelp_forget_fd(loop, regular), -1);  // failed attachments leave no entry
  EXPECT_EQ(kelp_forget_fd(nullptr, p.r), -1);
  EXPECT_EQ(kelp_run_once(nullptr, 0), -1);
  EXPECT_EQ(kelp_run(nullptr), -1);
  kelp_stop(nullptr);
  kelp_destroy(nullptr);
  EXPECT_EQ(rec.calls, 0);
}

}  // namespace

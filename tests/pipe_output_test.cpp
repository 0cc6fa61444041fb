// Pipe output: what a reader of "quarry.pipe" receives, how the library's end closes when the
// reader goes away, and the exported handle and buffer switches.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

#include "gtest/gtest.h"
#include "kelp/kelp.h"
#include "live_test_support.h"
#include "pipe_output.h"
#include "ring.h"
#include "test_support.h"
#include "trace_file.h"

namespace {

using namespace quarry_test;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

// A reader as an outside tool is one: it creates the named pipe and opens it for reading.
struct pipe_reader {
  explicit pipe_reader(const quarry_handle* handle) : path(buffer_dir(handle) + "quarry.pipe") {
    EXPECT_TRUE(mkfifo(path.c_str(), 0666) == 0 || errno == EEXIST) << strerror(errno);
    reopen();
  }
  ~pipe_reader() { leave(); }
  void leave() {
    if (fd >= 0) close(fd);
    fd = -1;
  }
  void reopen() {
    leave();
    fd = open(path.c_str(), O_RDONLY | O_NONBLOCK);
    EXPECT_GE(fd, 0);
  }
  // Everything in the pipe now.
  std::string drain() {
    std::string data;
    char chunk[4096];
    for (ssize_t n; (n = read(fd, chunk, sizeof chunk)) > 0;) data.append(chunk, n);
    return data;
  }
  std::string path;
  int fd = -1;
};

// The header the pipe stream starts with, produced the same way into a regular file.
std::string expected_header(circular_buffer* cb) {
  std::string path = base_dir() + "header_copy";
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
  EXPECT_EQ(0, write_trace_header(cb, fd, path.c_str()));
  close(fd);
  return read_file(path);
}

// Writes one record through the handle and returns its words as the buffer holds them, read
// across the end of the ring in order.
template <typename... Args>
std::string trace(quarry_handle* handle, uint32_t point, const char* signature, Args... args) {
  circular_buffer* cb = handle->cb;
  uint32_t start = cb->word_count.load();
  quarry_internal(handle, point, quarry_signature_fixed_words(signature),
                  quarry_signature_flags(signature), signature, 0, args...);
  ring_view ring = load_ring(cb);
  std::string bytes;
  for (uint32_t at = start; at != cb->word_count.load(); ++at) {
    uint32_t word = ring.buffer[at % ring.size_words].load();
    bytes.append(reinterpret_cast<const char*>(&word), 4);
  }
  return bytes;
}

bool sigpipe_in(bool pending) {
  sigset_t set;
  if (pending) {
    sigpending(&set);
  } else {
    pthread_sigmask(SIG_SETMASK, nullptr, &set);
  }
  return sigismember(&set, SIGPIPE) == 1;
}

TEST(PipeOutput, ReaderGetsHeaderThenOnlyPipedRecordsEachContiguous) {
  quarry_handle* piped = open_handle("stream");
  quarry_handle* quiet = open_handle("quiet", 4096, piped);
  piped->pipe.store(1);
  // No pipe file yet: the record stays in the buffer, and nothing is printed.
  CaptureStderr();
  EXPECT_FALSE(trace(piped, 0, "d", 5).empty());
  EXPECT_EQ("", GetCapturedStderr());
  EXPECT_EQ(1u, piped->cb->entry_count.load());
  EXPECT_EQ(-1, piped->cb->pipe_fd.load());

  pipe_reader reader(piped);
  // Without an event loop for the deletion watch the pipe is used anyway.
  CaptureStderr();
  std::string first = trace(piped, 0, "d", 42);
  EXPECT_EQ("QUARRY ERROR: Unable to attach pipe inotify fd to kelp\n", GetCapturedStderr());
  // The header carries the buffer's counters as they were when the pipe opened.
  std::string header = expected_header(piped->cb);
  trace(quiet, 1, "d", 43);
  std::string second = trace(piped, 2, "ds", 7, "up");
  std::string third = trace(piped, 3, "D", static_cast<uint64_t>(0xFFFFFFFF00000001ull));
  EXPECT_EQ(header + first + second + third, reader.drain());

  // A record that crosses the end of the ring arrives contiguous.
  circular_buffer* cb = piped->cb;
  const uint32_t size = load_ring(cb).size_words;
  while (size - cb->word_count.load() % size >= 8) trace(quiet, 0, "d", 1);
  uint32_t start = cb->word_count.load() % size;
  std::string crossing = trace(piped, 0, "sd", "a string long enough to cross the end", 9);
  ASSERT_GT(start + crossing.size() / 4, size);
  EXPECT_EQ(crossing, reader.drain());
}

TEST(PipeOutput, ReaderLeavingNeitherKillsNorLosesRecords) {
  signal(SIGPIPE, SIG_DFL);  // a stray SIGPIPE would end this test process
  quarry_handle* handle = open_handle("leaving");
  circular_buffer* cb = handle->cb;
  handle->pipe.store(1);
  pipe_reader reader(handle);
  trace(handle, 0, "d", 1);
  ASSERT_NE(-1, cb->pipe_fd.load());
  reader.leave();
  // The write fails with EPIPE: the library closes its end, the record stays in the buffer.
  EXPECT_FALSE(trace(handle, 1, "d", 2).empty());
  EXPECT_EQ(-1, cb->pipe_fd.load());
  EXPECT_EQ(2u, cb->entry_count.load());
  EXPECT_FALSE(sigpipe_in(true));
  EXPECT_FALSE(sigpipe_in(false));
  // A new reader gets a fresh header before the next record.
  reader.reopen();
  std::string next = trace(handle, 2, "d", 3);
  EXPECT_EQ(expected_header(cb) + next, reader.drain());

  // A host that keeps SIGPIPE blocked: ours, when none was pending, is not left behind, and
  // the host's own pending SIGPIPE is left alone.
  sigset_t sigpipe_only, previous;
  sigemptyset(&sigpipe_only);
  sigaddset(&sigpipe_only, SIGPIPE);
  ASSERT_EQ(0, pthread_sigmask(SIG_BLOCK, &sigpipe_only, &previous));
  for (bool host_pending : {false, true}) {
    reader.reopen();
    trace(handle, 0, "d", 4);
    reader.leave();
    if (host_pending) {
      ASSERT_EQ(0, pthread_kill(pthread_self(), SIGPIPE));  // the host's own, pending
    }
    trace(handle, 0, "d", 5);
    EXPECT_EQ(-1, cb->pipe_fd.load());
    EXPECT_EQ(host_pending, sigpipe_in(true));
    EXPECT_TRUE(sigpipe_in(false));
  }
  struct timespec no_wait = {0, 0};
  EXPECT_EQ(SIGPIPE, sigtimedwait(&sigpipe_only, nullptr, &no_wait));
  ASSERT_EQ(0, pthread_sigmask(SIG_SETMASK, &previous, nullptr));
  struct sigaction action;
  sigaction(SIGPIPE, nullptr, &action);
  EXPECT_EQ(SIG_DFL, action.sa_handler);  // the process-wide action was never touched
}

TEST(PipeOutput, DeletingThePipeClosesTheLibrarysEnd) {
  kelp_loop* loop = kelp_create();
  quarry_handle* handle = open_handle("deleted");
  circular_buffer* cb = handle->cb;
  ASSERT_EQ(0, quarry_enable_configuration(handle, loop));
  handle->pipe.store(1);
  pipe_reader reader(handle);
  std::string start = trace(handle, 0, "d", 1);
  start = expected_header(cb) + start;
  ASSERT_NE(-1, cb->pipe_fd.load());
  // An attribute change is not a deletion: the pipe stays, and the loop goes quiet again.
  ASSERT_EQ(0, chmod(reader.path.c_str(), 0600));
  for (int i = 0; i < 100 && kelp_run_once(loop, 100) == 0; ++i) {
  }
  EXPECT_NE(-1, cb->pipe_fd.load());
  EXPECT_EQ(0, kelp_run_once(loop, 0));

  // Deleted while a writer keeps piping and the loop runs on its own thread.
  std::atomic<bool> stop{false};
  std::thread loop_thread([&] {
    while (!stop.load()) kelp_run_once(loop, 10);
  });
  ASSERT_EQ(0, unlink(reader.path.c_str()));
  EXPECT_TRUE(wait_until([&] {
    trace(handle, 1, "d", 2);
    return cb->pipe_fd.load() == -1;
  }));
  stop.store(true);
  loop_thread.join();
  // The reader sees the end of the stream: the library's end is closed.
  EXPECT_EQ(0u, reader.drain().find(start));
  char byte;
  EXPECT_EQ(0, read(reader.fd, &byte, 1));
  EXPECT_EQ(-1, cb->pipe_inotify_fd);
  EXPECT_EQ(-1, cb->pipe_watch);
  // With no pipe file the next records stay closed; a new reader starts a new stream.
  trace(handle, 2, "d", 3);
  EXPECT_EQ(-1, cb->pipe_fd.load());
  pipe_reader next_reader(handle);
  std::string next = trace(handle, 3, "d", 4);
  EXPECT_EQ(expected_header(cb) + next, next_reader.drain());
  kelp_destroy(loop);
}

TEST(HandleSwitches, EnabledIsPerHandleAndDumpOnExitPerBuffer) {
  quarry_handle* owner = open_handle("switches");
  quarry_handle* child = open_handle("kid", 4096, owner);
  quarry_set_enabled(owner, false);
  EXPECT_FALSE(quarry_is_enabled(owner));
  EXPECT_TRUE(quarry_is_enabled(child));
  EXPECT_EQ("", trace(owner, 0, "d", 1));
  EXPECT_TRUE(quarry_get_dump_on_exit(owner));
  quarry_set_dump_on_exit(child, false);
  EXPECT_FALSE(quarry_get_dump_on_exit(owner));
  quarry_set_dump_on_exit(owner, true);
  EXPECT_TRUE(quarry_get_dump_on_exit(child));
}

}  // namespace

// Pipe output: what a reader of "quarry.pipe" receives, how the library's end closes when the
// reader goes away, and the exported handle and buffer switches.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "kelp/kelp.h"
#include "pipe_output.h"
#include "ring.h"
#include "live_test_support.h"
#include "test_support.h"
#include "trace_file.h"

namespace {

using namespace quarry_test;

std::string pipe_path(const quarry_handle* handle) {
  std::string ctrl = handle->cb->ctrl_file_name;
  return ctrl.substr(0, ctrl.size() - strlen("ctrl")) + "pipe";
}

// A reader as an outside tool is one: it creates the named pipe and opens it for reading.
struct pipe_reader {
  explicit pipe_reader(const std::string& path) : path(path) {
    if (mkfifo(path.c_str(), 0666) != 0 && errno != EEXIST) ADD_FAILURE() << strerror(errno);
    fd = open(path.c_str(), O_RDONLY | O_NONBLOCK);
    EXPECT_GE(fd, 0);
  }
  ~pipe_reader() { close_end(); }
  void close_end() {
    if (fd >= 0) close(fd);
    fd = -1;
  }
  // Everything in the pipe now.
  std::string drain() {
    std::string data;
    char chunk[4096];
    ssize_t n;
    while ((n = read(fd, chunk, sizeof chunk)) > 0) data.append(chunk, static_cast<size_t>(n));
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

// The words of the record at [first, first + count) of the ring, in order, as bytes.
std::string ring_bytes(circular_buffer* cb, uint32_t first, uint32_t count) {
  ring_view ring = load_ring(cb);
  std::string bytes;
  for (uint32_t i = 0; i < count; ++i) {
    uint32_t word = ring.buffer[(first + i) % ring.size_words].load();
    bytes.append(reinterpret_cast<const char*>(&word), 4);
  }
  return bytes;
}

// Writes one record through the handle and returns its bytes as the buffer holds them.
template <typename... Args>
std::string trace(quarry_handle* handle, uint32_t point, const char* signature, Args... args) {
  uint32_t start = handle->cb->word_count.load();
  quarry_internal(handle, point, quarry_signature_fixed_words(signature),
                  quarry_signature_flags(signature), signature, 0, args...);
  return ring_bytes(handle->cb, start, handle->cb->word_count.load() - start);
}

bool sigpipe_pending() {
  sigset_t pending;
  sigpending(&pending);
  return sigismember(&pending, SIGPIPE) == 1;
}

bool sigpipe_blocked() {
  sigset_t mask;
  pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  return sigismember(&mask, SIGPIPE) == 1;
}

// ---- The stream ------------------------------------------------------------------------------

TEST(PipeOutput, NoPipeFileMeansRecordsStayInTheBufferQuietly) {
  quarry_handle* handle = open_handle("nopipe");
  ASSERT_NE(nullptr, handle);
  handle->pipe.store(1);
  stderr_capture capture;
  std::string record = trace(handle, 0, "d", 5);
  EXPECT_EQ("", capture.text());
  EXPECT_FALSE(record.empty());
  EXPECT_EQ(1u, handle->cb->entry_count.load());
  EXPECT_EQ(-1, handle->cb->pipe_fd.load());
}

TEST(PipeOutput, ReaderGetsHeaderThenOnlyPipedRecords) {
  quarry_handle* piped = open_handle("stream");
  ASSERT_NE(nullptr, piped);
  quarry_handle* quiet = open_handle("quiet", 4096, piped);
  ASSERT_NE(nullptr, quiet);
  piped->pipe.store(1);
  pipe_reader reader(pipe_path(piped));

  std::string first = trace(piped, 0, "d", 42);
  // The header carries the buffer's counters as they were when the pipe opened.
  std::string header = expected_header(piped->cb);
  ASSERT_FALSE(header.empty());
  trace(quiet, 1, "d", 43);
  std::string second = trace(piped, 2, "ds", 7, "up");
  std::string third = trace(piped, 3, "D", static_cast<uint64_t>(0xFFFFFFFF00000001ull));
  EXPECT_EQ(header + first + second + third, reader.drain());
}

TEST(PipeOutput, RecordCrossingTheEndArrivesContiguous) {
  quarry_handle* piped = open_handle("crossing");
  ASSERT_NE(nullptr, piped);
  quarry_handle* quiet = open_handle("filler", 4096, piped);
  ASSERT_NE(nullptr, quiet);
  circular_buffer* cb = piped->cb;
  const uint32_t size = load_ring(cb).size_words;
  // Fill up to a few words before the end, then write a long piped record.
  while (size - cb->word_count.load() % size >= 8) trace(quiet, 0, "d", 1);
  pipe_reader reader(pipe_path(piped));
  piped->pipe.store(1);
  uint32_t start = cb->word_count.load();
  std::string record = trace(piped, 0, "sd", "a string long enough to cross the end", 9);
  uint32_t length = cb->word_count.load() - start;
  ASSERT_GT(start % size + length, size) << "the record must cross the end";
  EXPECT_EQ(expected_header(cb) + record, reader.drain());
}

TEST(PipeOutput, ReaderLeavingNeitherKillsNorLosesRecords) {
  signal(SIGPIPE, SIG_DFL);  // a stray SIGPIPE would end this test process
  quarry_handle* handle = open_handle("leaving");
  ASSERT_NE(nullptr, handle);
  circular_buffer* cb = handle->cb;
  handle->pipe.store(1);
  {
    pipe_reader reader(pipe_path(handle));
    trace(handle, 0, "d", 1);
    ASSERT_NE(-1, cb->pipe_fd.load());
    reader.close_end();
    // The write fails with EPIPE: the library closes its end, the record stays in the buffer.
    uint32_t start = cb->word_count.load();
    std::string record = trace(handle, 1, "d", 2);
    EXPECT_EQ(-1, cb->pipe_fd.load());
    EXPECT_EQ(2u, cb->entry_count.load());
    EXPECT_EQ(ring_bytes(cb, start, cb->word_count.load() - start), record);
    EXPECT_FALSE(sigpipe_pending());
    EXPECT_FALSE(sigpipe_blocked());

    // A new reader gets a fresh header before the next record.
    reader.fd = open(reader.path.c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(reader.fd, 0);
    std::string next = trace(handle, 2, "d", 3);
    EXPECT_EQ(expected_header(cb) + next, reader.drain());
  }

  // A host that keeps SIGPIPE blocked: its own pending SIGPIPE is left alone, and ours, when
  // none was pending, is not left behind.
  sigset_t sigpipe_only, previous;
  sigemptyset(&sigpipe_only);
  sigaddset(&sigpipe_only, SIGPIPE);
  ASSERT_EQ(0, pthread_sigmask(SIG_BLOCK, &sigpipe_only, &previous));
  {
    pipe_reader reader(pipe_path(handle));
    trace(handle, 0, "d", 4);
    reader.close_end();
    trace(handle, 0, "d", 5);
    EXPECT_EQ(-1, cb->pipe_fd.load());
    EXPECT_FALSE(sigpipe_pending());
    EXPECT_TRUE(sigpipe_blocked());

    reader.fd = open(reader.path.c_str(), O_RDONLY | O_NONBLOCK);
    trace(handle, 0, "d", 6);
    reader.close_end();
    ASSERT_EQ(0, pthread_kill(pthread_self(), SIGPIPE));  // the host's own, pending
    trace(handle, 0, "d", 7);
    EXPECT_EQ(-1, cb->pipe_fd.load());
    EXPECT_TRUE(sigpipe_pending());
    struct timespec no_wait = {0, 0};
    EXPECT_EQ(SIGPIPE, sigtimedwait(&sigpipe_only, nullptr, &no_wait));
  }
  ASSERT_EQ(0, pthread_sigmask(SIG_SETMASK, &previous, nullptr));
  struct sigaction action;
  sigaction(SIGPIPE, nullptr, &action);
  EXPECT_EQ(SIG_DFL, action.sa_handler);  // the process-wide action was never touched
}

TEST(PipeOutput, DeletingThePipeClosesTheLibrarysEnd) {
  kelp_loop* loop = kelp_create();
  ASSERT_NE(nullptr, loop);
  quarry_handle* handle = open_handle("deleted");
  ASSERT_NE(nullptr, handle);
  circular_buffer* cb = handle->cb;
  ASSERT_EQ(0, quarry_enable_configuration(handle, loop));
  handle->pipe.store(1);
  pipe_reader reader(pipe_path(handle));
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
  std::string received = reader.drain();
  EXPECT_EQ(0u, received.find(start));
  char byte;
  EXPECT_EQ(0, read(reader.fd, &byte, 1));
  EXPECT_EQ(-1, cb->pipe_inotify_fd);
  EXPECT_EQ(-1, cb->pipe_watch);

  // With no pipe file the next records stay closed; a new reader starts a new stream.
  trace(handle, 2, "d", 3);
  EXPECT_EQ(-1, cb->pipe_fd.load());
  pipe_reader next_reader(pipe_path(handle));
  std::string next = trace(handle, 3, "d", 4);
  EXPECT_EQ(expected_header(cb) + next, next_reader.drain());
  kelp_destroy(loop);
}

TEST(PipeOutput, WithoutAnEventLoopThePipeIsUsedAnyway) {
  quarry_handle* handle = open_handle("noloop");
  ASSERT_NE(nullptr, handle);
  handle->pipe.store(1);
  pipe_reader reader(pipe_path(handle));
  stderr_capture capture;
  std::string record = trace(handle, 0, "d", 1);
  EXPECT_EQ("QUARRY ERROR: Unable to attach pipe inotify fd to kelp\n", capture.text());
  EXPECT_EQ(expected_header(handle->cb) + record, reader.drain());
}

// ---- Switches --------------------------------------------------------------------------------

TEST(HandleSwitches, EnabledAndDumpOnExit) {
  quarry_handle* owner = open_handle("switches");
  ASSERT_NE(nullptr, owner);
  quarry_handle* child = open_handle("kid", 4096, owner);
  ASSERT_NE(nullptr, child);

  EXPECT_TRUE(quarry_is_enabled(owner));
  quarry_set_enabled(owner, false);
  EXPECT_FALSE(quarry_is_enabled(owner));
  EXPECT_TRUE(quarry_is_enabled(child));
  uint32_t words = owner->cb->word_count.load();
  trace(owner, 0, "d", 1);
  EXPECT_EQ(words, owner->cb->word_count.load());
  quarry_set_enabled(owner, true);
  trace(owner, 0, "d", 1);
  EXPECT_LT(words, owner->cb->word_count.load());

  // One flag per buffer, whichever handle sets it.
  EXPECT_TRUE(quarry_get_dump_on_exit(owner));
  quarry_set_dump_on_exit(child, false);
  EXPECT_FALSE(quarry_get_dump_on_exit(owner));
  EXPECT_FALSE(quarry_get_dump_on_exit(child));
  quarry_set_dump_on_exit(owner, true);
  EXPECT_TRUE(quarry_get_dump_on_exit(child));
}

}  // namespace

// Pipe output: what a reader of "quarry.pipe" receives, how the library's end closes when the
// reader goes away or deletes the pipe, and the exported handle and buffer switches.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "gtest/gtest.h"
#include "kelp/kelp.h"
#include "live_test_support.h"
#include "trace_file.h"

namespace {

using namespace quarry_test;

std::string pipe_path(const quarry_handle* handle) {
  return buffer_dir(handle) + "quarry.pipe";
}

// A reader as an outside tool is one: it creates the named pipe and opens it for reading.
int open_reader(const quarry_handle* handle) {
  EXPECT_TRUE(mkfifo(pipe_path(handle).c_str(), 0666) == 0 || errno == EEXIST);
  return open(pipe_path(handle).c_str(), O_RDONLY | O_NONBLOCK);
}

std::string drain(int reader) {
  std::string data;
  char chunk[4096];
  for (ssize_t n; (n = read(reader, chunk, sizeof chunk)) > 0;) data.append(chunk, n);
  return data;
}

// The header the pipe stream starts with, produced the same way into a regular file.
std::string expected_header(circular_buffer* cb) {
  std::string path = base_dir() + "header_copy";
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
  EXPECT_EQ(0, write_trace_header(cb, fd, path.c_str()));
  close(fd);
  return read_file(path);
}

// Writes one record and returns its words as the buffer holds them, across the ring's end.
template <typename... Args>
std::string trace(quarry_handle* handle, uint32_t point, const char* signature, Args... args) {
  uint32_t start = handle->cb->word_count.load();
  quarry_internal(handle, point, quarry_signature_fixed_words(signature),
                  quarry_signature_flags(signature), signature, 0, args...);
  ring_view ring = load_ring(handle->cb);
  std::string bytes;
  for (uint32_t at = start; at != handle->cb->word_count.load(); ++at) {
    uint32_t word = ring.buffer[at % ring.size_words].load();
    bytes.append(reinterpret_cast<const char*>(&word), 4);
  }
  return bytes;
}

// Whether this thread has SIGPIPE pending, or else blocked.
bool sigpipe_in(bool pending) {
  sigset_t set;
  if (pending ? sigpending(&set) : pthread_sigmask(SIG_SETMASK, nullptr, &set)) return false;
  return sigismember(&set, SIGPIPE) == 1;
}

TEST(PipeOutput, ReaderGetsHeaderThenOnlyPipedRecordsEachContiguous) {
  quarry_handle* piped = open_handle("stream");
  quarry_handle* quiet = open_handle("quiet", 4096, piped);
  circular_buffer* cb = piped->cb;
  piped->pipe.store(1);
  // No pipe file yet, or one too full for the header: not used, the record stays in the buffer.
  EXPECT_FALSE(trace(piped, 0, "d", 5).empty());
  int reader = open_reader(piped);
  int filler = open(pipe_path(piped).c_str(), O_WRONLY | O_NONBLOCK);
  const std::string more_than_fits(1 << 20, 'f');
  ASSERT_GT(write(filler, more_than_fits.data(), more_than_fits.size()), 0);
  trace(piped, 0, "d", 6);
  EXPECT_EQ(-1, cb->pipe_fd.load());
  close(filler);
  drain(reader);
  // Without an event loop for the deletion watch the pipe is used anyway. The header carries
  // the buffer's counters as they were when the pipe opened.
  testing::internal::CaptureStderr();
  std::string first = trace(piped, 0, "d", 42);
  EXPECT_EQ("QUARRY ERROR: Unable to attach pipe inotify fd to kelp\n",
            testing::internal::GetCapturedStderr());
  std::string header = expected_header(cb);
  trace(quiet, 1, "d", 43);
  std::string second = trace(piped, 2, "dD", 7, static_cast<uint64_t>(0xFFFFFFFF00000001ull));
  EXPECT_EQ(header + first + second, drain(reader));
  // A record that crosses the end of the ring arrives contiguous.
  const uint32_t size = load_ring(cb).size_words;
  while (size - cb->word_count.load() % size >= 8) trace(quiet, 0, "d", 1);
  uint32_t start = cb->word_count.load() % size;
  std::string crossing = trace(piped, 0, "sd", "a string long enough to cross the end", 9);
  ASSERT_GT(start + crossing.size() / 4, size);
  EXPECT_EQ(crossing, drain(reader));
  close(reader);
  // Switched off, a handle writes nothing and its sibling stays on; dump-on-exit is per buffer.
  quarry_set_enabled(piped, false);
  EXPECT_TRUE(quarry_is_enabled(quiet));
  EXPECT_EQ("", trace(piped, 0, "d", 1));
  quarry_set_dump_on_exit(quiet, false);
  EXPECT_FALSE(quarry_get_dump_on_exit(piped));
}

TEST(PipeOutput, ReaderLeavingOrDeletingThePipeClosesTheLibrarysEnd) {
  signal(SIGPIPE, SIG_DFL);  // a stray SIGPIPE ends this test process
  kelp_loop* loop = kelp_create();
  quarry_handle* handle = open_handle("leaving");
  circular_buffer* cb = handle->cb;
  ASSERT_EQ(0, quarry_enable_configuration(handle, loop));
  handle->pipe.store(1);
  // A reader gets a fresh header. Once the pipe is deleted (an attribute change is not a
  // deletion) the loop closes the library's end, and the reader sees the stream end.
  int reader = open_reader(handle);
  std::string stream = trace(handle, 2, "d", 3);
  stream.insert(0, expected_header(cb));
  ASSERT_EQ(0, chmod(pipe_path(handle).c_str(), 0600));
  EXPECT_EQ(1, kelp_run_once(loop, 10000));
  EXPECT_EQ(0, kelp_run_once(loop, 0));
  ASSERT_EQ(0, unlink(pipe_path(handle).c_str()));
  EXPECT_EQ(1, kelp_run_once(loop, 10000));
  EXPECT_EQ(-1, cb->pipe_inotify_fd);
  EXPECT_EQ(stream, drain(reader));
  char byte;
  EXPECT_EQ(0, read(reader, &byte, 1));
  close(reader);
  // A reader leaving: the write fails with EPIPE, the library closes its end, the record stays
  // in the buffer, and the host's SIGPIPE mask and its own pending SIGPIPE stay as they were.
  sigset_t sigpipe_only;
  sigemptyset(&sigpipe_only);
  sigaddset(&sigpipe_only, SIGPIPE);
  for (int host : {0, 1, 2}) {  // SIGPIPE unblocked, blocked, blocked and pending
    if (host == 1) pthread_sigmask(SIG_BLOCK, &sigpipe_only, nullptr);
    reader = open_reader(handle);
    trace(handle, 0, "d", 4);
    ASSERT_NE(-1, cb->pipe_fd.load());
    close(reader);
    if (host == 2) raise(SIGPIPE);
    EXPECT_FALSE(trace(handle, 1, "d", 5).empty());
    EXPECT_EQ(-1, cb->pipe_fd.load());
    EXPECT_EQ(host == 2, sigpipe_in(true));
    EXPECT_EQ(host != 0, sigpipe_in(false));
  }
  struct timespec no_wait = {0, 0};
  EXPECT_EQ(SIGPIPE, sigtimedwait(&sigpipe_only, nullptr, &no_wait));
  ASSERT_EQ(0, pthread_sigmask(SIG_UNBLOCK, &sigpipe_only, nullptr));
  EXPECT_EQ(SIG_DFL, signal(SIGPIPE, SIG_DFL));  // the process-wide action was never touched
  kelp_destroy(loop);
}

}  // namespace

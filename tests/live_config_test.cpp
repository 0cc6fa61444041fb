// The control file and the pipe: the control text written and read back, its watch and what the
// event loop does with outside writes and own rewrites; what a reader of "quarry.pipe" receives,
// and how the library's end closes when the reader goes away or deletes the pipe.
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <malloc.h>
#include <signal.h>
#include <sys/eventfd.h>
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
#include "trace_file.h"

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

// Applies `text` as the control file; `capped`: a large MAX_SIZE cannot be had meanwhile.
int parse_text(quarry_handle* handle, const std::string& text, int dump, bool capped = false) {
  write_file(handle->cb->ctrl_file_name, text);
  struct rlimit previous;
  EXPECT_EQ(0, getrlimit(RLIMIT_AS, &previous));
  rlim_t in_use = std::stoull(read_file("/proc/self/statm")) * getpagesize();
  struct rlimit limit = {capped ? in_use + (256u << 20) : previous.rlim_cur, previous.rlim_max};
  EXPECT_EQ(0, setrlimit(RLIMIT_AS, &limit));
  int result = parse_ctrl_file(handle->cb, dump);
  EXPECT_EQ(0, setrlimit(RLIMIT_AS, &previous));
  return result;
}

std::string written(const quarry_handle* handle) {
  EXPECT_EQ(0, write_ctrl_file(handle->cb));
  return read_file(handle->cb->ctrl_file_name);
}

// The handle's two switches as control-file keywords.
std::string switches(const quarry_handle* handle) {
  return std::string(handle->enabled.load() ? "TRACE" : "NOTRACE") +
         (handle->pipe.load() ? " PIPE" : " NOPIPE");
}

// Runs loop turns on this thread until the condition holds; false when it never does.
bool run_loop_until(kelp_loop* loop, const std::function<bool()>& condition) {
  for (int i = 0; i < 100 && !condition(); ++i) kelp_run_once(loop, 100);
  return condition();
}

// Texts applied in order to the buffer of "sw" and its child "sw/kid".
TEST(ParseCtrlFile, TextsApplyInOrder) {
  quarry_handle* owner = open_handle("sw");
  quarry_handle* child = open_handle("kid", 4096, owner);
  quarry_handle* other = open_handle("sw_other");
  dump_counter dumps(buffer_dir(owner));
  const struct {
    std::string text;        // empty: the file as the library writes it
    int allow_dump, result;  // result 1: read with the address space capped
    const char* switches;    // the owner's, then the child's
    uint32_t size;
    int dumps;
  } steps[] = {
      // Blanks and extra tokens are fine; other buffers, unknown names, lower case change nothing.
      {"NOTRACE sw\nPIPE sw/kid\n \tNOTRACE\tsw/kid  extra\n"
       "NOTRACE sw_other\nNOTRACE x\ntrace sw\n",
       0, 0, "NOTRACE NOPIPE, NOTRACE PIPE", 4096, 0},
      // A comment, quotes (kept: no such handle), no value; later lines win, also without a '\n'.
      {"#TRACE sw\nTRACE \"sw\"\nTRACE\nTRACE sw/kid\nNOPIPE sw/kid\n"
       "PIPE \"sw/kid\nPIPE sw\nNOPIPE sw",
       0, 0, "NOTRACE NOPIPE, TRACE NOPIPE", 4096, 0},
      // Lines are read in 1023-byte parts: the rest after "FOO" or a comment is a line of its own.
      {"FOO" + std::string(1020, ' ') + "PIPE sw\n#" + std::string(1022, 'x') + "NOTRACE sw/kid\n",
       0, 0, "NOTRACE PIPE, NOTRACE NOPIPE", 4096, 0},
      // No dump for a value other than "on", a lower-case keyword, or dumps not allowed.
      {"DUMP off\nDUMP 1\ndump on\nDUMP\n", 1, 0, "NOTRACE PIPE, NOTRACE NOPIPE", 4096, 0},
      {"DUMP on\n", 0, 0, "NOTRACE PIPE, NOTRACE NOPIPE", 4096, 0},
      // Any number of requests in any letter case give one dump.
      {"DUMP On\nTRACE sw/kid\nPIPE sw/kid\nDUMP oN", 1, 0, "NOTRACE PIPE, TRACE PIPE", 4096, 1},
      // The size only grows, also beyond the open's 4 MiB limit.
      {"MAX_SIZE 5000\nMAX_SIZE 4096\nMAX_SIZE -5\nMAX_SIZE junk\n", 0, 0,
       "NOTRACE PIPE, TRACE PIPE", 8192, 1},
      {"MAX_SIZE 8388608\nMAX_SIZE 100\n", 0, 0, "NOTRACE PIPE, TRACE PIPE", 8388608, 1},
      {"", 1, 0, "NOTRACE PIPE, TRACE PIPE", 8388608, 2},
      // A MAX_SIZE that cannot be had stops the reading, before the later lines and the dump.
      {"DUMP on\nNOPIPE sw\nMAX_SIZE 1073741824\nNOPIPE sw/kid\n", 1, 1,
       "NOTRACE NOPIPE, TRACE PIPE", 8388608, 2},
  };
  for (const auto& step : steps) {
    std::string text = step.text.empty() ? written(owner) : step.text;
    EXPECT_EQ(step.result, parse_text(owner, text, step.allow_dump, step.result != 0)) << text;
    EXPECT_EQ(step.switches, switches(owner) + ", " + switches(child)) << text;
    EXPECT_EQ(step.size, size_bytes(owner)) << text;
    EXPECT_EQ(step.dumps, dumps.count()) << text;
  }
  EXPECT_TRUE(quarry_is_enabled(other));
  EXPECT_EQ(0u, written(owner).find("MAX_SIZE 8388608\n"));  // the real size
}

TEST(ParseCtrlFile, FileLoopCountAgainstRotatedFiles) {
  quarry_handle* handle = open_handle("rotation");
  // Each step adds a rotated file with that mtime (unless the name is empty), then a count.
  const struct {
    const char* file;
    time_t mtime;
    const char* value;
    int count, index;
  } steps[] = {
      {"", 0, "4", 4, 1},  // no rotated file yet: the next index is 1
      {"quarry_3.trc", 2000000000, "4", 4, 0},
      {"quarry_1.trc", 1000000000, "5", 5, 4},   // older: 3 stays the latest
      {"quarryx_7.trc", 2050000000, "5", 5, 4},  // not of the "quarry_" form: ignored
      {"", 0, "9\nFILE_LOOP_COUNT many", 2, 0},  // a count that is no number gives 2
      {"", 0, "-3", -3, 1},  // a negative count: a remainder in [0, |count|), no trap
      {"quarry_12x.trc", 2060000000, "5", 5, 3},  // the index is the leading digits
      {"quarry_abc.trc", 2070000000, "5", 5, 1},  // no digits: 0
      // An index beyond int saturates; that index plus one, against INT_MIN and INT_MAX.
      {"quarry_99999999999.trc", 2100000000, "-2147483648", INT_MIN, 0},
      {"", 0, "2147483647", INT_MAX, 1},
      {"", 0, "-1", -1, 0},
      {"", 0, "5", 5, 3},  // 2147483648 rem 5
  };
  for (const auto& step : steps) {
    if (*step.file != '\0') {
      std::string path = buffer_dir(handle) + step.file;
      write_file(path, "x");
      struct timespec times[2] = {{step.mtime, 0}, {step.mtime, 0}};
      ASSERT_EQ(0, utimensat(AT_FDCWD, path.c_str(), times, 0));
    }
    EXPECT_EQ(0, parse_text(handle, std::string("FILE_LOOP_COUNT ") + step.value + "\n", 0));
    EXPECT_EQ(step.count, handle->cb->file_loop_count) << step.value;
    EXPECT_EQ(step.index, handle->cb->file_loop_index) << step.value;
  }
}

TEST(EnableConfiguration, FailuresLeaveNothingBehindAndOneSetUpServesTheWholeBuffer) {
  CaptureStderr();
  EXPECT_EQ(-2, quarry_enable_configuration(nullptr, nullptr));
  EXPECT_EQ(
      "quarry_enable_configuration(): hdl is NULL.\n"
      "quarry_enable_configuration2 failed with error 0xfffffffe\n",
      GetCapturedStderr());
  mallopt(M_PERTURB, 0x55);  // no allocation starts zeroed: a missing terminator shows
  quarry_handle* owner = open_handle("setup");
  quarry_handle* child = open_handle("kid", 4096, owner);
  circular_buffer* cb = owner->cb;
  // Without the directory the watch fails, and its descriptor is closed.
  std::string dir = buffer_dir(owner);
  ASSERT_EQ(0, rmdir(dir.c_str()));
  CaptureStderr();
  int next_fd = dup(0);  // the number the watch's descriptor gets
  close(next_fd);
  EXPECT_EQ(5, quarry_enable_configuration(owner, nullptr));
  EXPECT_EQ("quarry_enable_configuration(): inotify_add_watch() failed fd " +
                std::to_string(next_fd) + " ctrl_file_name " + cb->ctrl_file_name +
                ". No such file or directory (2)\n"
                "quarry_enable_configuration2 failed with error 0x5\n",
            GetCapturedStderr());
  EXPECT_EQ(-1, fcntl(next_fd, F_GETFD));
  // A retry applies the settings left on disk without their dump; kelp refuses a null loop.
  ASSERT_EQ(0, mkdir(dir.c_str(), 0777));
  write_file(cb->ctrl_file_name, "NOTRACE setup/kid\nDUMP on\nMAX_SIZE 16384\nNOTRACE gone\n");
  dump_counter dumps(dir);
  CaptureStderr();
  EXPECT_EQ(6, quarry_enable_configuration(owner, nullptr));
  EXPECT_EQ("quarry_enable_configuration(): kelp_attach_fd() failed.\n", GetCapturedStderr());
  EXPECT_EQ(
      "MAX_SIZE 16384\nDUMP on\nFILE_LOOP_COUNT 2\n"
      "TRACE setup\nNOPIPE setup\nNOTRACE setup/kid\nNOPIPE setup/kid\n",
      read_file(cb->ctrl_file_name));
  EXPECT_EQ(0, dumps.count());
  // Through the child nothing is read, written or created again; the kept watch is attached.
  write_file(cb->ctrl_file_name, "NOTRACE setup\n");
  kelp_loop* loop = kelp_create();
  EXPECT_EQ(0, quarry_enable_configuration(child, loop));
  EXPECT_EQ("NOTRACE setup\n", read_file(cb->ctrl_file_name));
  EXPECT_TRUE(quarry_is_enabled(owner));
  EXPECT_TRUE(run_loop_until(loop, [&] { return !quarry_is_enabled(owner); }));
  kelp_destroy(loop);
}

TEST(ControlFileWatch, QueuedWritesApplyOnceAndOnlyTheWatchIsRead) {
  quarry_handle* handle = open_handle("queued");
  kelp_loop* loop = kelp_create();
  ASSERT_EQ(0, quarry_enable_configuration(handle, loop));
  const char* ctrl = handle->cb->ctrl_file_name;
  dump_counter dumps(buffer_dir(handle));
  // A child's rewrite is not read back: its wake-up leaves an outside write for the next turn.
  quarry_handle* child = open_handle("child", 4096, handle);
  write_file(ctrl, "NOTRACE queued/child\n");
  EXPECT_EQ(1, kelp_run_once(loop, 10000));
  EXPECT_TRUE(quarry_is_enabled(child));
  EXPECT_EQ(1, kelp_run_once(loop, 0));
  EXPECT_FALSE(quarry_is_enabled(child));
  EXPECT_EQ(0, kelp_run_once(loop, 0));
  quarry_set_enabled(child, true);
  ASSERT_EQ(0, chmod(ctrl, 0640));  // an attribute change alone re-reads the file
  EXPECT_TRUE(run_loop_until(loop, [&] { return !quarry_is_enabled(child); }));
  // Six events (inotify merges identical ones at its tail) wait: one reading gives one dump.
  for (int i = 0; i < 3; ++i) {
    write_file(ctrl, "MAX_SIZE 65536\nDUMP on\nNOTRACE queued\n");
    ASSERT_EQ(0, chmod(ctrl, i % 2 == 0 ? 0600 : 0644));
  }
  EXPECT_TRUE(run_loop_until(loop, [&] { return dumps.count() > 0; }));
  EXPECT_EQ(0, kelp_run_once(loop, 0));  // that one call drained the queue
  EXPECT_EQ(1, dumps.count());
  EXPECT_EQ(65536u, size_bytes(handle));
  kelp_destroy(loop);
  // Called with a host's descriptor (a number attached once), the callback leaves it alone.
  int host = eventfd(1, EFD_NONBLOCK);
  ctrl_watch_callback(host, KELP_EVENT_READ, handle->cb);
  uint64_t value;
  EXPECT_EQ(8, read(host, &value, 8));
  close(host);
}

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
  // Without an event loop to watch for its deletion the pipe is used anyway.
  CaptureStderr();
  std::string first = trace(piped, 0, "d", 42);
  EXPECT_EQ("QUARRY ERROR: Unable to attach pipe inotify fd to kelp\n", GetCapturedStderr());
  std::string header = expected_header(cb);
  trace(quiet, 1, "d", 43);
  std::string second = trace(piped, 2, "dD", 7, static_cast<uint64_t>(0xFFFFFFFF00000001ull));
  EXPECT_EQ(header + first + second, drain(reader));
  // A record that crosses the end of the ring arrives contiguous.
  const uint32_t size = load_ring(cb).size_words;
  while (size - cb->word_count.load() % size >= 8) trace(quiet, 0, "d", 1);
  std::string crossing = trace(piped, 0, "sd", "a string long enough to cross the end", 9);
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
  // Once the pipe is deleted (not on an attribute change) the loop closes the library's end.
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
  // A reader leaving closes the library's end; the host's SIGPIPE mask and pending set stay.
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

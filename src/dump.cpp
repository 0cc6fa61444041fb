// Dumping buffers to trace files: one buffer (dump_circular_buffer, quarry_dump), all buffers
// (quarry_dump_all, also run by the signal handlers) and the exit dump. Thread contract: no
// lock, no allocation, no stdio; only open, fstat, fchmod, write, close and the clocks, so every
// function here may run inside a signal handler and while other threads hold any quarry lock.
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "fork_handlers.h"
#include "ring.h"
#include "safe_files.h"
#include "trace_file.h"

namespace {

constexpr char kOpenFailed[] = "quarry abort handler: unable to open trace file ";
constexpr char kDataFailed[] = "quarry abort handler: unable to write data to trace file ";

// Writes the first `words` words of the ring straight from its memory. Ring cells are plain
// 32-bit words in memory, so the kernel copies them as they lie, while writers may be storing
// into them: a record stored right now may come out half-written, which readers of a trace
// file already allow for at the ring's seam. Kept apart (and out of line) so that race
// detectors can be told about exactly this intended unsynchronised read (tests/tsan.supp).
__attribute__((noinline)) int write_ring_words(int fd, const ring_cell* ring, uint32_t words) {
  const char* data = reinterpret_cast<const char*>(ring);
  const size_t length = static_cast<size_t>(words) * 4;
  size_t offset = 0;
  do {
    ssize_t written = write(fd, data + offset, length - offset);
    if (written < 0) return -1;
    offset += static_cast<size_t>(written);
  } while (offset < length);
  return 0;
}

}  // namespace

int dump_circular_buffer(circular_buffer* cb) {
  char path[256];
  if (trace_file_path(cb, path) < 0) {
    // No ".trc" fits: refused like an open that the kernel turned down for the length.
    report_dump_failure(kOpenFailed, path, ENAMETOOLONG);
    return 1;
  }

  // A forked child's directories appear with its first file there.
  ensure_inherited_buffer_directory(cb, path);

  // Trace files are meant for whoever collects them, whatever the host's umask: mode 0666
  // (0600 in private mode), set exactly on the new file. No link is followed and no file
  // planted by another user is truncated (safe_files.h). O_CLOEXEC keeps the descriptor out of
  // children a host forks and execs meanwhile.
  int fd = open_for_writing(path, trace_file_mode(), true);
  int open_error = errno;
  if (fd < 0) {
    report_dump_failure(kOpenFailed, path, open_error);
    return 1;
  }

  // One load of the ring gives memory and size together: the header announces the size of
  // exactly the array written below. A growth during the dump leaves this (never freed)
  // array consistent with its announced size; records stored after the growth miss the file.
  // While a crash handler holds the buffer, the held ring and count (ring.h).
  const ring_view ring = dump_ring(cb);
  int result = write_trace_header_sized(cb, ring.size_words, fd, path);
  if (result != 0) {
    close(fd);
    return result;
  }

  // Read after the header, so the data may cover more words than WORD_COUNT announced.
  const uint32_t word_count = dump_word_count(cb);
  const uint32_t words = word_count < ring.size_words ? word_count : ring.size_words;
  if (write_ring_words(fd, ring.buffer, words) != 0) {
    report_dump_failure(kDataFailed, path, -1);
    close(fd);
    return 1;
  }

  close(fd);
  return 0;
}

extern "C" QUARRY_EXPORT int quarry_dump(quarry_handle* hdl) {
  // A null handle has no buffer to write; answered like a file that cannot be written rather
  // than with a crash in a daemon.
  if (hdl == nullptr) return 1;
  take_time_sample(&time_omega);
  return dump_circular_buffer(hdl->cb);
}

extern "C" QUARRY_EXPORT int quarry_dump_all(void) {
  take_time_sample(&time_omega);
  int result = 0;
  // The head's acquire load pairs with the release store in register_circular_buffer: every
  // buffer reached is complete, and its `next` was set before it was published.
  for (circular_buffer* cb = circular_buffer_list.load(std::memory_order_acquire); cb != nullptr;
       cb = cb->next.load(std::memory_order_acquire)) {
    if (dump_circular_buffer(cb) != 0) result = -1;
  }
  return result;
}

void dump_at_exit(void) {
  circular_buffer* head = circular_buffer_list.load(std::memory_order_acquire);
  take_time_sample(&time_omega);
  for (circular_buffer* cb = head; cb != nullptr; cb = cb->next.load(std::memory_order_acquire)) {
    if (cb->dump_on_exit.load(std::memory_order_relaxed) != 0) dump_circular_buffer(cb);
  }
}

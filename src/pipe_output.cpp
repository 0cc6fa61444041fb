// Live stream of a buffer's piped records into the named pipe "quarry.pipe" that a reader
// created next to the control file: the trace header once per reader, then the records.
// Thread contract: the pipe state (pipe_fd and the pipe watch) changes only under the buffer's
// mutex: the pipe step on writer threads and the watch callback on the event loop's thread.
// Not for signal handlers (it locks).
#include "pipe_output.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include "live_config.h"
#include "ring.h"
#include "safe_files.h"
#include "trace_file.h"

namespace {

// The pipe path: the control file path with its last four characters ("ctrl") replaced by
// "pipe". False when the path does not fit, which the caller treats like a missing pipe.
bool build_pipe_path(const circular_buffer* cb, char (&path)[PATH_MAX]) {
  size_t length = strlen(cb->ctrl_file_name);
  if (length < 4 || length >= sizeof path) return false;
  memcpy(path, cb->ctrl_file_name, length - 4);
  memcpy(path + length - 4, "pipe", 5);
  return true;
}

// SIGPIPE must never end the process because a reader went away. Changing the process-wide
// action around each write would race with other buffers' writers and with the host's own
// SIGPIPE handling, so the guard is per thread instead: SIGPIPE is blocked in the writing
// thread only, and a SIGPIPE that our own failed write raised (it is directed at the thread
// that wrote) is consumed before the mask is restored. One that was already pending before is
// left alone: it is not ours, and standard signals do not queue, so ours merged into it.
class sigpipe_guard {
 public:
  sigpipe_guard() {
    sigemptyset(&sigpipe_set_);
    sigaddset(&sigpipe_set_, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &sigpipe_set_, &previous_mask_);
    sigset_t pending;
    sigemptyset(&pending);
    sigpending(&pending);
    was_pending_ = sigismember(&pending, SIGPIPE) == 1;
  }
  sigpipe_guard(const sigpipe_guard&) = delete;
  sigpipe_guard& operator=(const sigpipe_guard&) = delete;

  // Call after a write to the pipe failed (with EPIPE, or inside the header writer, which
  // does not say why): whatever SIGPIPE that write raised must not outlive the guard.
  void consume_own_signal() {
    if (was_pending_) return;
    struct timespec no_wait = {0, 0};
    int saved = errno;
    while (sigtimedwait(&sigpipe_set_, nullptr, &no_wait) < 0 && errno == EINTR) {
    }
    errno = saved;
  }

  ~sigpipe_guard() { pthread_sigmask(SIG_SETMASK, &previous_mask_, nullptr); }

 private:
  sigset_t sigpipe_set_;
  sigset_t previous_mask_;
  bool was_pending_ = false;
};

// Opens the reader's pipe and sends the header; false when there is no reader (or no pipe
// file) or the header could not be written. Then sets up the deletion watch as far as it
// goes. Called with the buffer's mutex held and SIGPIPE guarded.
bool open_pipe(circular_buffer* cb, sigpipe_guard& guard) {
  char path[PATH_MAX];
  if (!build_pipe_path(cb, path)) return false;
  // Only a named pipe of this user, never through a link (safe_files.h).
  int fd = open_reader_pipe(path);
  if (fd < 0) return false;
  if (write_trace_header(cb, fd, path) != 0) {
    guard.consume_own_signal();  // the reader may have gone between the open and the header
    close(fd);
    return false;
  }
  cb->pipe_fd.store(fd, std::memory_order_relaxed);

  // inotify_init1 with IN_NONBLOCK is inotify_init followed by setting O_NONBLOCK.
  cb->pipe_inotify_fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (cb->pipe_inotify_fd < 0) {
    cb->pipe_inotify_fd = -1;
    return true;  // no watch: the pipe is then closed only by EPIPE
  }
  // IN_DELETE_SELF alone never fires while the pipe is deleted under us: the kernel reports
  // it only once the last reference to the file is gone, and pipe_fd is one. Unlinking changes
  // the file's link count, which inotify reports as IN_ATTRIB at once; the callback then tells
  // a deletion (no link left) from other attribute changes.
  cb->pipe_watch = inotify_add_watch(cb->pipe_inotify_fd, path, IN_DELETE_SELF | IN_ATTRIB);
  if (cb->pipe_watch < 0) {
    cb->pipe_watch = -1;
    return true;
  }
  // kelp_attach_fd is a weak reference, null when the host has no event-loop library. Called
  // with the mutex held, so the descriptor stays open for the whole call: close_pipe needs the
  // mutex too. Afterwards it may be closed at any time; the loop must cope (see kelp.h).
  if (kelp_attach_fd == nullptr || kelp_attach_fd(cb->event_loop, cb->pipe_inotify_fd, 0,
                                                  pipe_watch_callback, 2, 0, cb, 0) != 0) {
    fprintf(stderr, "QUARRY ERROR: Unable to attach pipe inotify fd to kelp\n");
  }
  return true;
}

}  // namespace

void pipe_record(circular_buffer* cb, uint32_t p, uint32_t n) {
  if (pthread_mutex_lock(&cb->mutex) != 0) return;  // the record stays in the buffer only
  sigpipe_guard guard;
  if (cb->pipe_fd.load(std::memory_order_relaxed) == -1 && !open_pipe(cb, guard)) {
    QUARRY_UNLOCK_CB(cb);
    return;
  }
  int fd = cb->pipe_fd.load(std::memory_order_relaxed);
  // Growth happens under this mutex, so the ring is stable while it is held. A record written
  // just before a growth is read at the same positions in the grown ring, which holds a copy
  // of the words; p and n are bounded by the current size so the read never leaves the ring.
  ring_view ring = load_ring(cb);
  // A buffer held for a crash dump writes into the scratch ring, whose words are anybody's.
  if (ring.size_words == 0 || is_scratch_ring(ring)) {
    QUARRY_UNLOCK_CB(cb);
    return;
  }
  uint32_t first = p & (ring.size_words - 1);
  uint32_t count = n < ring.size_words ? n : ring.size_words;
  uint32_t to_end = ring.size_words - first;
  ssize_t written;
  if (count > to_end) {
    // The record crosses the end of the ring: its two pieces go out in one writev, which the
    // pipe treats as one write, so no copy (as long as the record, up to the whole buffer) is
    // made on the writer's stack.
    struct iovec pieces[2];
    pieces[0].iov_base = ring.buffer + first;
    pieces[0].iov_len = static_cast<size_t>(to_end) * 4;
    pieces[1].iov_base = ring.buffer;
    pieces[1].iov_len = static_cast<size_t>(count - to_end) * 4;
    written = writev(fd, pieces, 2);
  } else {
    written = write(fd, ring.buffer + first, static_cast<size_t>(count) * 4);
  }
  // A short write or EAGAIN (full pipe) loses that record, or its rest, for the reader; it is
  // not retried. EPIPE means the reader has gone: close, and wait for the next one.
  if (written < 0 && errno == EPIPE) {
    guard.consume_own_signal();
    close_pipe(cb);
  }
  QUARRY_UNLOCK_CB(cb);
}

void close_pipe(circular_buffer* cb) {
  // Recursive: the pipe step calls this with the mutex already held.
  if (pthread_mutex_lock(&cb->mutex) != 0) return;  // left for EPIPE to close later
  int fd = cb->pipe_fd.load(std::memory_order_relaxed);
  if (fd != -1) {
    close(fd);
    cb->pipe_fd.store(-1, std::memory_order_relaxed);
  }
  if (cb->pipe_watch != -1) {
    inotify_rm_watch(cb->pipe_inotify_fd, cb->pipe_watch);
    cb->pipe_watch = -1;
  }
  if (cb->pipe_inotify_fd != -1) {
    // The event loop is not told: the library has no detach operation. Removing the watch
    // first queues IN_IGNORED, so a loop that watches a duplicate of the descriptor (the
    // adapters do) sees it readable and finds it closed. kelp needs neither: closing drops the
    // epoll registration, and a later attachment of the number replaces its stale entry.
    close(cb->pipe_inotify_fd);
    cb->pipe_inotify_fd = -1;
  }
  QUARRY_UNLOCK_CB(cb);
}

extern "C" void pipe_watch_callback(int fd, uint16_t events, void* arg) {
  (void)events;
  circular_buffer* cb = static_cast<circular_buffer*>(arg);
  // The mutex serialises this with writers that are using pipe_fd.
  if (pthread_mutex_lock(&cb->mutex) != 0) return;
  // A wake-up for a descriptor that is no longer the buffer's pipe watch (the pipe was closed
  // by EPIPE meanwhile) is stale and must not close a newer reader's pipe.
  if (fd != cb->pipe_inotify_fd) {
    QUARRY_UNLOCK_CB(cb);
    return;
  }
  // Drain the queue, so that a mere attribute change (chmod, touch) does not keep the
  // level-triggered loop calling, and note whether the file itself has gone.
  bool gone = false;
  alignas(struct inotify_event) char queued[4096];
  for (;;) {
    ssize_t length = read(fd, queued, sizeof queued);
    if (length < 0 && errno == EINTR) continue;
    if (length <= 0) break;
    for (size_t offset = 0; offset + sizeof(struct inotify_event) <= static_cast<size_t>(length);) {
      struct inotify_event event;
      memcpy(&event, queued + offset, sizeof event);
      if (event.mask & (IN_DELETE_SELF | IN_IGNORED)) gone = true;
      offset += sizeof event + event.len;
    }
  }
  struct stat st;
  int pipe_fd = cb->pipe_fd.load(std::memory_order_relaxed);
  if (pipe_fd == -1 || fstat(pipe_fd, &st) != 0 || st.st_nlink == 0) gone = true;
  if (gone) close_pipe(cb);
  QUARRY_UNLOCK_CB(cb);
}

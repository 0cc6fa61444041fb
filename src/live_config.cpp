// Live configuration: the inotify watch of a buffer's control file and its attachment to the
// host's event loop. Thread contract: the set-up holds the buffer's mutex while it changes the
// watch fields; ctrl_watch_callback runs on the event loop's thread and re-reads the file under
// the same mutex. Not for signal handlers.
#include "live_config.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/inotify.h>
#include <unistd.h>

#include "buffer.h"
#include "ctrl_file.h"
#include "fork_handlers.h"

namespace {

constexpr size_t kEventBytes = 16384;

// Undoes a set-up that failed after inotify_init, so that ctrl_inotify_fd is -1 again and a
// later call really retries instead of reporting success for a buffer with no working watch.
// Called with the buffer's mutex held.
void abandon_watch(circular_buffer* cb) {
  int saved = errno;
  close(cb->ctrl_inotify_fd);
  cb->ctrl_inotify_fd = -1;
  cb->ctrl_watch = -1;
  errno = saved;
}

}  // namespace

extern "C" QUARRY_EXPORT int quarry_enable_configuration2(quarry_handle* hdl) {
  if (hdl == nullptr) {
    fprintf(stderr, "quarry_enable_configuration(): hdl is NULL.\n");
    return -2;
  }
  circular_buffer* cb = hdl->cb;
  if (pthread_mutex_lock(&cb->mutex) != 0) {
    fprintf(stderr, "quarry_enable_configuration(): Mutex lock failed.\n");
    return -1;
  }
  if (cb->ctrl_inotify_fd != -1) {
    QUARRY_UNLOCK_CB(cb);
    return 0;
  }
  // A forked child watches a control file of its own, never its parent's.
  if (adopt_inherited_ctrl_file(cb) != 0) {
    fprintf(stderr,
            "quarry_enable_configuration(): unable to name the control file of a forked child.\n");
    QUARRY_UNLOCK_CB(cb);
    return 5;
  }
  // Settings left on disk (by an operator or an earlier run) apply first, without the dump
  // that every written file requests; then the file shows the buffer's actual state.
  parse_ctrl_file(cb, 0);
  write_ctrl_file(cb);

  // Close-on-exec, so that the watch does not leak into programs the host executes.
  cb->ctrl_inotify_fd = inotify_init1(IN_CLOEXEC);
  if (cb->ctrl_inotify_fd < 0) {
    int error = errno;
    cb->ctrl_inotify_fd = -1;
    fprintf(stderr, "quarry_enable_configuration(): inotify_init() failed. %s (%d)\n",
            strerror(error), error);
    QUARRY_UNLOCK_CB(cb);
    return 2;
  }
  int fd = cb->ctrl_inotify_fd;
  // Non-blocking: the callback reads until the queue is empty.
  int flags = fcntl(fd, F_GETFL);
  if (flags == -1) {
    int error = errno;
    abandon_watch(cb);
    fprintf(stderr, "quarry_enable_configuration(): fcntl() failed. fd %d cmd F_GETFL %s (%d)\n",
            fd, strerror(error), error);
    QUARRY_UNLOCK_CB(cb);
    return 3;
  }
  if (fcntl(fd, F_SETFL, flags | O_NONBLOCK) == -1) {
    int error = errno;
    abandon_watch(cb);
    fprintf(stderr, "quarry_enable_configuration(): fcntl() failed. fd %d cmd F_SETFL. %s (%d)\n",
            fd, strerror(error), error);
    QUARRY_UNLOCK_CB(cb);
    return 4;
  }
  cb->ctrl_watch = inotify_add_watch(fd, cb->ctrl_file_name, IN_CLOSE_WRITE);
  int error = errno;
  bool watched = cb->ctrl_watch >= 0;
  if (!watched) abandon_watch(cb);
  QUARRY_UNLOCK_CB(cb);
  if (!watched) {
    fprintf(stderr,
            "quarry_enable_configuration(): inotify_add_watch() failed fd %d ctrl_file_name %s. "
            "%s (%d)\n",
            fd, cb->ctrl_file_name, strerror(error), error);
    return 5;
  }
  return 0;
}

extern "C" QUARRY_EXPORT int quarry_enable_configuration(quarry_handle* hdl, void* event_loop) {
  int result = quarry_enable_configuration2(hdl);
  if (result != 0) {
    fprintf(stderr, "quarry_enable_configuration2 failed with error 0x%x\n",
            static_cast<unsigned int>(result));
    return result;
  }
  circular_buffer* cb = hdl->cb;
  // event_loop is stored under the mutex because the pipe step reads it under the mutex on
  // writer threads. The descriptor is stable once set up: nothing closes a working watch.
  bool locked = pthread_mutex_lock(&cb->mutex) == 0;
  cb->event_loop = event_loop;
  int fd = cb->ctrl_inotify_fd;
  if (locked) QUARRY_UNLOCK_CB(cb);
  // kelp_attach_fd is a weak reference: null when the host brings no event-loop library,
  // which is the same outcome for the host as a refused attachment.
  if (kelp_attach_fd == nullptr ||
      kelp_attach_fd(event_loop, fd, 0, ctrl_watch_callback, 2, 0, cb, 0) != 0) {
    fprintf(stderr, "quarry_enable_configuration(): kelp_attach_fd() failed.\n");
    return 6;
  }
  return 0;
}

extern "C" void ctrl_watch_callback(int fd, uint16_t events, void* arg) {
  (void)events;
  circular_buffer* cb = static_cast<circular_buffer*>(arg);
  // Only the buffer's own watch is read. A loop that calls with another number (one attached
  // before and now naming a host descriptor, or, in a forked child that runs the loop it
  // inherited, its parent's watch) must not have us consume data that is not ours. The watch
  // descriptor changes only under the buffer's mutex (a child re-enabling configuration).
  if (pthread_mutex_lock(&cb->mutex) != 0) return;
  bool current = fd == cb->ctrl_inotify_fd;
  QUARRY_UNLOCK_CB(cb);
  if (!current) return;
  // The library's own rewrite (a new child handle) removed the watch first, which queued one
  // IN_IGNORED event; that wake-up only clears the flag. Whatever is queued stays queued: the
  // loop is level-triggered and calls again while the descriptor is readable.
  if (cb->ctrl_write_pending.exchange(0, std::memory_order_relaxed) != 0) return;

  alignas(struct inotify_event) char events_read[kEventBytes];
  memset(events_read, 0, sizeof events_read);
  bool changed = false;
  for (;;) {
    ssize_t length = read(fd, events_read, sizeof events_read);
    if (length < 0 && errno == EINTR) continue;
    if (length <= 0) break;  // EAGAIN: the queue is empty; any other error ends it too
    size_t offset = 0;
    while (!changed && offset + sizeof(struct inotify_event) <= static_cast<size_t>(length)) {
      struct inotify_event event;
      memcpy(&event, events_read + offset, sizeof event);
      if (event.mask & (IN_ATTRIB | IN_CLOSE_WRITE)) changed = true;
      offset += sizeof event + event.len;
    }
  }
  // However many changes were queued, the file is read once, with the dump it asks for.
  if (changed) parse_ctrl_file(cb, 1);
}

/* kelp_attach_fd for hosts that run a loop library, and what every adapter shares: attaching
 * hands the request to the loop's thread through an eventfd, and the loop watches a private
 * duplicate of each descriptor, never the number the library may close and the host reuse.
 * Thread contract: kelp_attach_fd runs on any thread, holding only registry_lock and never for
 * longer than a list append and an eventfd write; everything else runs on the loop's thread. */
#define _GNU_SOURCE
#include "loop_adapter.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/kcmp.h>
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "kelp/kelp.h"

/* One descriptor attached by the library. */
struct attachment {
  struct attachment* next;
  int fd;  /* the library's number, handed back to the callback */
  int dup; /* the adapter's own duplicate of it, the descriptor the loop watches */
  kelp_callback callback;
  void* arg;
  void* watch; /* the loop's watch of dup; null while the attachment is pending */
  struct quarry_adapter* owner;
};

struct quarry_adapter {
  struct quarry_adapter* next; /* in registry, guarded by registry_lock */
  void* loop;
  const struct quarry_adapter_ops* ops;
  int wake_fd; /* eventfd written by kelp_attach_fd, watched by the loop */
  void* wake_watch;
  struct attachment* pending;  /* oldest first; guarded by registry_lock */
  struct attachment* attached; /* the loop's thread only */
};

/* Every live adapter. kelp_attach_fd accepts only addresses found here, so the pointer that
 * the library keeps after quarry_*_stop is refused instead of being followed. */
static pthread_mutex_t registry_lock = PTHREAD_MUTEX_INITIALIZER;
static struct quarry_adapter* registry;

/* Whether fd still names the open file that dup duplicates. The library closes attached
 * descriptors without a word, and their numbers come back at once (often as the library's next
 * inotify instance, which fstat cannot tell apart from the old one), so identity is asked of the
 * kernel. Without kcmp (a kernel built without it, or a seccomp filter), a file status flag
 * flipped through dup must show through fd, in both directions; flags belong to the open file,
 * and O_APPEND means nothing to the inotify instances that the library attaches. */
static int same_open_file(int fd, int dup) {
  pid_t self = getpid();
  long order = syscall(SYS_kcmp, self, self, KCMP_FILE, fd, dup);
  if (order >= 0) return order == 0;
  if (errno == EBADF) return 0;
  int flags = fcntl(dup, F_GETFL);
  if (flags < 0 || fcntl(dup, F_SETFL, flags ^ O_APPEND) != 0) return 0;
  int flipped = fcntl(fd, F_GETFL);
  fcntl(dup, F_SETFL, flags);
  int restored = fcntl(fd, F_GETFL);
  return flipped >= 0 && restored >= 0 && ((flipped ^ flags) & O_APPEND) != 0 &&
         ((restored ^ flags) & O_APPEND) == 0;
}

static void discard(struct attachment* attachment) {
  close(attachment->dup);
  free(attachment);
}

/* Ends the loop's watch of an attachment and frees it. Loop thread. */
static void release(struct attachment* attachment) {
  struct quarry_adapter* adapter = attachment->owner;
  for (struct attachment** link = &adapter->attached; *link != NULL; link = &(*link)->next) {
    if (*link == attachment) {
      *link = attachment->next;
      break;
    }
  }
  adapter->ops->unwatch(adapter->loop, attachment->watch);
  discard(attachment);
}

/* The duplicate is readable: the library's descriptor has events, or the library has closed
 * it (removing its inotify watch first queues an event, which is what wakes us then). */
static void on_ready(void* token) {
  struct attachment* attachment = token;
  if (!same_open_file(attachment->fd, attachment->dup)) {
    release(attachment);
    return;
  }
  attachment->callback(attachment->fd, KELP_EVENT_READ, attachment->arg);
}

/* Takes the attachments handed over since the last wake-up and watches them. Loop thread.
 * One hand-over for every loop, rather than uv_async, event_active or g_main_context_invoke:
 * writing an eventfd asks nothing of the loop library's own thread safety (libevent without
 * evthread locking, sd-event), and each adapter only has to watch descriptors. */
static void on_wake(void* token) {
  struct quarry_adapter* adapter = token;
  uint64_t count;
  while (read(adapter->wake_fd, &count, sizeof count) > 0) {
  }
  pthread_mutex_lock(&registry_lock);
  struct attachment* incoming = adapter->pending;
  adapter->pending = NULL;
  pthread_mutex_unlock(&registry_lock);

  /* Attachments whose descriptor was closed without waking its duplicate go now, so that the
   * duplicates held never outnumber the library's live descriptors by more than one round. */
  for (struct attachment *at = adapter->attached, *next; at != NULL; at = next) {
    next = at->next;
    if (!same_open_file(at->fd, at->dup)) release(at);
  }
  while (incoming != NULL) {
    struct attachment* attachment = incoming;
    incoming = attachment->next;
    /* A new attachment of a number replaces whatever was attached under it: the same
     * descriptor attached again, or a closed one whose number came back. */
    for (struct attachment *at = adapter->attached, *next; at != NULL; at = next) {
      next = at->next;
      if (at->fd == attachment->fd) release(at);
    }
    attachment->watch = adapter->ops->watch(adapter->loop, attachment->dup, on_ready, attachment);
    if (attachment->watch == NULL) {
      fprintf(stderr, "quarry: the event loop refused to watch descriptor %d\n", attachment->fd);
      discard(attachment);
      continue;
    }
    attachment->next = adapter->attached;
    adapter->attached = attachment;
  }
}

int kelp_attach_fd(void* loop, int fd, int options, kelp_callback callback, int events,
                   int priority, void* arg, uint64_t reserved) {
  (void)priority; /* every ready descriptor is served at each turn */
  const int accepted = KELP_EVENT_READ | KELP_EVENT_ERROR | KELP_EVENT_HANGUP;
  if (loop == NULL || fd < 0 || callback == NULL || options != KELP_OPTIONS_LEVEL ||
      (events & ~accepted) != 0 || reserved != 0) {
    errno = EINVAL;
    return -1;
  }
  struct attachment* attachment = calloc(1, sizeof *attachment);
  if (attachment == NULL) return -1;
  attachment->fd = fd;
  attachment->callback = callback;
  attachment->arg = arg;
  /* Made here, while fd is certainly the caller's descriptor: by the time the loop's thread
   * looks, the library may have closed it. */
  attachment->dup = fcntl(fd, F_DUPFD_CLOEXEC, 0);
  if (attachment->dup < 0) {
    free(attachment);
    return -1;
  }
  pthread_mutex_lock(&registry_lock);
  struct quarry_adapter* adapter = registry;
  while (adapter != NULL && (void*)adapter != loop) adapter = adapter->next;
  if (adapter != NULL) {
    attachment->owner = adapter;
    struct attachment** tail = &adapter->pending;
    while (*tail != NULL) tail = &(*tail)->next;
    *tail = attachment;
    /* Under the lock, so that stop cannot close wake_fd meanwhile. Fails only with EAGAIN,
     * when the counter is full and the descriptor therefore readable anyway. */
    uint64_t one = 1;
    ssize_t written = write(adapter->wake_fd, &one, sizeof one);
    (void)written;
  }
  pthread_mutex_unlock(&registry_lock);
  if (adapter == NULL) {
    discard(attachment);
    errno = EINVAL;
    return -1;
  }
  return 0;
}

struct quarry_adapter* quarry_adapter_start(void* loop, const struct quarry_adapter_ops* ops) {
  if (loop == NULL) {
    errno = EINVAL;
    return NULL;
  }
  struct quarry_adapter* adapter = calloc(1, sizeof *adapter);
  if (adapter == NULL) return NULL;
  adapter->loop = loop;
  adapter->ops = ops;
  adapter->wake_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (adapter->wake_fd < 0) {
    free(adapter);
    return NULL;
  }
  adapter->wake_watch = ops->watch(loop, adapter->wake_fd, on_wake, adapter);
  if (adapter->wake_watch == NULL) {
    close(adapter->wake_fd);
    free(adapter);
    errno = EINVAL;
    return NULL;
  }
  pthread_mutex_lock(&registry_lock);
  adapter->next = registry;
  registry = adapter;
  pthread_mutex_unlock(&registry_lock);
  return adapter;
}

void* quarry_adapter_loop(const struct quarry_adapter* adapter) {
  return adapter->loop;
}

void quarry_adapter_stop(struct quarry_adapter* adapter) {
  if (adapter == NULL) return;
  pthread_mutex_lock(&registry_lock);
  for (struct quarry_adapter** link = &registry; *link != NULL; link = &(*link)->next) {
    if (*link == adapter) {
      *link = adapter->next;
      break;
    }
  }
  struct attachment* pending = adapter->pending;
  adapter->pending = NULL;
  pthread_mutex_unlock(&registry_lock);
  /* No attach can reach the adapter any more. */
  while (pending != NULL) {
    struct attachment* next = pending->next;
    discard(pending);
    pending = next;
  }
  while (adapter->attached != NULL) release(adapter->attached);
  adapter->ops->unwatch(adapter->loop, adapter->wake_watch);
  close(adapter->wake_fd);
  free(adapter);
}

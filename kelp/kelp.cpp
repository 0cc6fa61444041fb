// kelp: the whole event loop (descriptor table, epoll set, wake-up eventfd) in one object, so
// that linking any kelp call also brings in kelp_attach_fd for libquarry.so's weak reference.
// Thread contract: the table is guarded by the loop's mutex; callbacks run without it on the
// thread that runs the loop. kelp_stop only stores an atomic and writes the eventfd.
#include "kelp/kelp.h"

#include <errno.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <new>

namespace {

// One attached descriptor. A slot is free while generation is 0.
struct fd_entry {
  kelp_callback callback;
  void* arg;
  int events;
  // Unique per attachment (never 0). The kernel hands it back with each event, so an event
  // collected for an attachment that has since been replaced or forgotten is recognised and
  // dropped instead of reaching whoever now holds the descriptor number.
  uint32_t generation;
};

constexpr int kAcceptedEvents =
    KELP_EVENT_READ | KELP_EVENT_WRITE | KELP_EVENT_ERROR | KELP_EVENT_HANGUP;
constexpr int kMaxEventsPerTurn = 64;
// epoll data of the wake-up eventfd: descriptor field all ones, which no real descriptor has.
constexpr uint64_t kWakeToken = 0xFFFFFFFFu;

uint64_t token_of(int fd, uint32_t generation) {
  return (static_cast<uint64_t>(generation) << 32) | static_cast<uint32_t>(fd);
}

// Every registration is one-shot and re-armed after its callback has run. The loop still
// behaves level-triggered (a descriptor that stays ready is reported again at the next turn),
// but a registration the table no longer knows fires at most once. That happens when a
// descriptor is closed without kelp_forget_fd while another process (a forked child) or a dup
// keeps its file open: epoll keeps watching that file, and the descriptor number can no longer
// name it to remove it. Without one-shot, its readiness would keep every wait returning.
uint32_t epoll_mask_of(int events) {
  uint32_t mask = EPOLLONESHOT;
  if (events & KELP_EVENT_READ) mask |= EPOLLIN;
  if (events & KELP_EVENT_WRITE) mask |= EPOLLOUT;
  return mask;  // EPOLLERR and EPOLLHUP are always reported by the kernel.
}

uint16_t kelp_events_of(uint32_t mask) {
  uint16_t events = 0;
  if (mask & (EPOLLIN | EPOLLPRI)) events |= KELP_EVENT_READ;
  if (mask & EPOLLOUT) events |= KELP_EVENT_WRITE;
  if (mask & EPOLLERR) events |= KELP_EVENT_ERROR;
  if (mask & (EPOLLHUP | EPOLLRDHUP)) events |= KELP_EVENT_HANGUP;
  return events;
}

// Locks that cannot fail in practice on a default mutex; should they, aborting beats running
// with an unguarded table.
void lock(pthread_mutex_t* mutex) {
  if (pthread_mutex_lock(mutex) != 0) abort();
}
void unlock(pthread_mutex_t* mutex) {
  if (pthread_mutex_unlock(mutex) != 0) abort();
}

}  // namespace

struct kelp_loop {
  int epoll_fd = -1;
  int wake_fd = -1;
  std::atomic<bool> stop_requested{false};
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  // Indexed by descriptor number; grows to the largest attached descriptor. Plain malloc'd
  // memory, so that no allocation failure can throw across the C interface.
  fd_entry* entries = nullptr;
  size_t capacity = 0;
  uint32_t next_generation = 1;

  // The live entry of fd, or null. Called with the mutex held.
  fd_entry* find(int fd) {
    if (fd < 0 || static_cast<size_t>(fd) >= capacity) return nullptr;
    fd_entry* entry = &entries[fd];
    return entry->generation != 0 ? entry : nullptr;
  }

  // Makes room for fd; false (errno ENOMEM) if memory runs out. Called with the mutex held.
  bool reserve(int fd) {
    size_t needed = static_cast<size_t>(fd) + 1;
    if (needed <= capacity) return true;
    size_t grown = capacity < 16 ? 16 : capacity * 2;
    if (grown < needed) grown = needed;
    void* memory = realloc(entries, grown * sizeof(fd_entry));
    if (memory == nullptr) {
      errno = ENOMEM;
      return false;
    }
    entries = static_cast<fd_entry*>(memory);
    memset(entries + capacity, 0, (grown - capacity) * sizeof(fd_entry));
    capacity = grown;
    return true;
  }

  // Called with the mutex held.
  uint32_t take_generation() {
    uint32_t generation = next_generation++;
    if (next_generation == 0) next_generation = 1;
    return generation;
  }
};

extern "C" {

KELP_API kelp_loop* kelp_create(void) {
  // malloc and placement new keep kelp free of the C++ runtime library: C hosts link it as is.
  void* memory = malloc(sizeof(kelp_loop));
  if (memory == nullptr) {
    errno = ENOMEM;
    return nullptr;
  }
  kelp_loop* loop = new (memory) kelp_loop;
  loop->epoll_fd = epoll_create1(EPOLL_CLOEXEC);
  loop->wake_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (loop->epoll_fd >= 0 && loop->wake_fd >= 0) {
    // The wake-up descriptor stays level-triggered and armed: the loop drains it when it fires.
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = kWakeToken;
    if (epoll_ctl(loop->epoll_fd, EPOLL_CTL_ADD, loop->wake_fd, &event) == 0) return loop;
  }
  int saved = errno;
  kelp_destroy(loop);
  errno = saved;
  return nullptr;
}

KELP_API void kelp_destroy(kelp_loop* loop) {
  if (loop == nullptr) return;
  if (loop->epoll_fd >= 0) close(loop->epoll_fd);
  if (loop->wake_fd >= 0) close(loop->wake_fd);
  free(loop->entries);
  pthread_mutex_destroy(&loop->mutex);
  loop->~kelp_loop();
  free(loop);
}

KELP_API int kelp_attach_fd(void* loop_arg, int fd, int options, kelp_callback callback, int events,
                            int priority, void* arg, uint64_t reserved) {
  (void)priority;  // Every ready descriptor is served at each turn; there is nothing to order.
  kelp_loop* loop = static_cast<kelp_loop*>(loop_arg);
  if (loop == nullptr || fd < 0 || callback == nullptr || options != KELP_OPTIONS_LEVEL ||
      (events & ~kAcceptedEvents) != 0 || reserved != 0) {
    errno = EINVAL;
    return -1;
  }
  lock(&loop->mutex);
  if (!loop->reserve(fd)) {
    unlock(&loop->mutex);
    return -1;
  }
  uint32_t generation = loop->take_generation();
  epoll_event event{};
  event.events = epoll_mask_of(events);
  event.data.u64 = token_of(fd, generation);
  // ADD fails with EEXIST when this descriptor's file is still registered under this number:
  // an attachment being replaced, or a closed descriptor's file kept open elsewhere and the
  // number now naming it again. MOD then re-arms it with the new token.
  int result = epoll_ctl(loop->epoll_fd, EPOLL_CTL_ADD, fd, &event);
  if (result != 0 && errno == EEXIST) result = epoll_ctl(loop->epoll_fd, EPOLL_CTL_MOD, fd, &event);
  if (result == 0) {
    // Overwrites any entry left by a descriptor that was closed without kelp_forget_fd.
    loop->entries[fd] = fd_entry{callback, arg, events, generation};
  }
  int saved = errno;
  unlock(&loop->mutex);
  errno = saved;
  return result == 0 ? 0 : -1;
}

KELP_API int kelp_forget_fd(kelp_loop* loop, int fd) {
  if (loop == nullptr) return -1;
  lock(&loop->mutex);
  fd_entry* entry = loop->find(fd);
  if (entry != nullptr) {
    // Fails harmlessly with EBADF or ENOENT when the descriptor was closed (closing removed the
    // registration) or its number now names another, unattached file.
    epoll_ctl(loop->epoll_fd, EPOLL_CTL_DEL, fd, nullptr);
    entry->generation = 0;
  }
  unlock(&loop->mutex);
  return entry != nullptr ? 0 : -1;
}

KELP_API int kelp_run_once(kelp_loop* loop, int timeout_ms) {
  if (loop == nullptr) {
    errno = EINVAL;
    return -1;
  }
  epoll_event ready[kMaxEventsPerTurn];
  int count = epoll_wait(loop->epoll_fd, ready, kMaxEventsPerTurn, timeout_ms);
  if (count < 0) return errno == EINTR ? 0 : -1;

  int dispatched = 0;
  for (int i = 0; i < count; ++i) {
    uint64_t token = ready[i].data.u64;
    if (token == kWakeToken) {
      uint64_t value;
      while (read(loop->wake_fd, &value, sizeof value) > 0) {
      }
      continue;
    }
    int fd = static_cast<int>(static_cast<uint32_t>(token));
    uint32_t generation = static_cast<uint32_t>(token >> 32);

    // Looked up afresh for every event: an earlier callback of this turn may have forgotten or
    // replaced this attachment, and then this event is dropped. A replacement re-armed the
    // registration itself, so the descriptor is reported again if it is still ready.
    lock(&loop->mutex);
    fd_entry* entry = loop->find(fd);
    if (entry == nullptr || entry->generation != generation) {
      unlock(&loop->mutex);
      continue;
    }
    kelp_callback callback = entry->callback;
    void* arg = entry->arg;
    unlock(&loop->mutex);

    callback(fd, kelp_events_of(ready[i].events), arg);
    ++dispatched;

    // Re-arm unless the callback (or another thread) forgot or replaced the attachment.
    lock(&loop->mutex);
    entry = loop->find(fd);
    if (entry != nullptr && entry->generation == generation) {
      epoll_event event{};
      event.events = epoll_mask_of(entry->events);
      event.data.u64 = token;
      // Fails when the descriptor has been closed (EBADF) or its number reused by a file not
      // registered here (ENOENT): the registration is gone, and so is the entry.
      if (epoll_ctl(loop->epoll_fd, EPOLL_CTL_MOD, fd, &event) != 0) entry->generation = 0;
    }
    unlock(&loop->mutex);
  }
  return dispatched;
}

KELP_API int kelp_run(kelp_loop* loop) {
  if (loop == nullptr) {
    errno = EINVAL;
    return -1;
  }
  // acq_rel pairs with the release store of kelp_stop, so that what the stopping thread wrote
  // before kelp_stop is visible once kelp_run has returned.
  while (!loop->stop_requested.exchange(false, std::memory_order_acq_rel)) {
    if (kelp_run_once(loop, -1) < 0) return -1;
  }
  return 0;
}

KELP_API void kelp_stop(kelp_loop* loop) {
  if (loop == nullptr) return;
  // The flag is set before the wake-up is written: a loop that has just checked the flag and
  // is about to wait then still finds the eventfd readable.
  loop->stop_requested.store(true, std::memory_order_release);
  int saved = errno;  // kelp_stop may run in a signal handler.
  uint64_t one = 1;
  ssize_t written = write(loop->wake_fd, &one, sizeof one);
  (void)written;  // Only EAGAIN (counter at its maximum) can fail, and then it is readable.
  errno = saved;
}

}  // extern "C"

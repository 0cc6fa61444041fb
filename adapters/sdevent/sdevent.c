/* quarry_sdevent_start/stop: the shared adapter over sd-event I/O sources.
 * Thread contract: everything here runs on the loop's thread; other threads reach the loop
 * through the adapter's eventfd, never through the sd_event object. */
#include "quarry/sdevent.h"

#include <errno.h>
#include <stdlib.h>
#include <sys/epoll.h>

#include "loop_adapter.h"

struct sdevent_watch {
  sd_event_source* source;
  quarry_adapter_ready ready;
  void* token;
};

static int on_io(sd_event_source* source, int fd, uint32_t revents, void* userdata) {
  (void)source;
  (void)fd;
  (void)revents;
  struct sdevent_watch* watch = userdata;
  watch->ready(watch->token);
  return 0; /* a negative result would disable the source */
}

static void* watch_fd(void* event, int fd, quarry_adapter_ready ready, void* token) {
  struct sdevent_watch* watch = calloc(1, sizeof *watch);
  if (watch == NULL) return NULL;
  watch->ready = ready;
  watch->token = token;
  /* Level-triggered: EPOLLIN without EPOLLET. */
  int result = sd_event_add_io(event, &watch->source, fd, EPOLLIN, on_io, watch);
  if (result < 0) {
    free(watch);
    errno = -result;
    return NULL;
  }
  return watch;
}

/* Disabling removes the descriptor from the loop's epoll set at once, as closing it needs. */
static void unwatch_fd(void* event, void* watch) {
  (void)event;
  sd_event_source_disable_unref(((struct sdevent_watch*)watch)->source);
  free(watch);
}

static const struct quarry_adapter_ops sdevent_ops = {watch_fd, unwatch_fd};

void* quarry_sdevent_start(sd_event* event) {
  void* adapter = quarry_adapter_start(event, &sdevent_ops);
  if (adapter != NULL) sd_event_ref(event);
  return adapter;
}

void quarry_sdevent_stop(void* adapter) {
  if (adapter == NULL) return;
  sd_event* event = quarry_adapter_loop(adapter);
  quarry_adapter_stop(adapter);
  sd_event_unref(event);
}

/* quarry_event_start/stop: the shared adapter over persistent libevent read events.
 * Thread contract: everything here runs on the loop's thread; other threads reach the loop
 * through the adapter's eventfd, never through the base. */
#include "quarry/event.h"

#include <stdlib.h>

#include "loop_adapter.h"

struct event_watch {
  struct event* event;
  quarry_adapter_ready ready;
  void* token;
};

static void on_event(evutil_socket_t fd, short what, void* arg) {
  (void)fd;
  (void)what;
  struct event_watch* watch = arg;
  watch->ready(watch->token);
}

static void* watch_fd(void* base, int fd, quarry_adapter_ready ready, void* token) {
  struct event_watch* watch = calloc(1, sizeof *watch);
  if (watch == NULL) return NULL;
  watch->ready = ready;
  watch->token = token;
  /* Level-triggered (no EV_ET): called at every turn while the descriptor stays readable. */
  watch->event = event_new(base, fd, EV_READ | EV_PERSIST, on_event, watch);
  if (watch->event == NULL || event_add(watch->event, NULL) != 0) {
    if (watch->event != NULL) event_free(watch->event);
    free(watch);
    return NULL;
  }
  return watch;
}

/* event_free deletes the event first, also from within its own callback. */
static void unwatch_fd(void* base, void* watch) {
  (void)base;
  event_free(((struct event_watch*)watch)->event);
  free(watch);
}

static const struct quarry_adapter_ops event_ops = {watch_fd, unwatch_fd};

void* quarry_event_start(struct event_base* base) {
  return quarry_adapter_start(base, &event_ops);
}

void quarry_event_stop(void* adapter) {
  quarry_adapter_stop(adapter);
}

/* quarry_uv_start/stop: the shared adapter over libuv poll handles.
 * Thread contract: everything here runs on the loop's thread (libuv handles are not
 * thread-safe); other threads reach the loop through the adapter's eventfd. */
#include "quarry/uv.h"

#include <stdlib.h>

#include "loop_adapter.h"

struct uv_watch {
  uv_poll_t poll;
  quarry_adapter_ready ready;
  void* token;
};

static void on_poll(uv_poll_t* poll, int status, int events) {
  (void)status; /* an error is reported as readiness: the callback's read then sees it */
  (void)events;
  struct uv_watch* watch = poll->data;
  watch->ready(watch->token);
}

static void free_watch(uv_handle_t* handle) {
  free(handle->data);
}

static void* watch_fd(void* loop, int fd, quarry_adapter_ready ready, void* token) {
  struct uv_watch* watch = calloc(1, sizeof *watch);
  if (watch == NULL) return NULL;
  watch->ready = ready;
  watch->token = token;
  watch->poll.data = watch;
  if (uv_poll_init(loop, &watch->poll, fd) != 0) {
    free(watch);
    return NULL;
  }
  if (uv_poll_start(&watch->poll, UV_READABLE, on_poll) != 0) {
    uv_close((uv_handle_t*)&watch->poll, free_watch);
    return NULL;
  }
  uv_unref((uv_handle_t*)&watch->poll);
  return watch;
}

/* uv_close stops polling at once (the descriptor may be closed right after); the memory goes
 * in the close callback, at the loop's next turn. */
static void unwatch_fd(void* loop, void* watch) {
  (void)loop;
  uv_close((uv_handle_t*)&((struct uv_watch*)watch)->poll, free_watch);
}

static const struct quarry_adapter_ops uv_ops = {watch_fd, unwatch_fd};

void* quarry_uv_start(uv_loop_t* loop) {
  return quarry_adapter_start(loop, &uv_ops);
}

void quarry_uv_stop(void* adapter) {
  if (adapter == NULL) return;
  uv_loop_t* loop = quarry_adapter_loop(adapter);
  quarry_adapter_stop(adapter);
  /* The handles just closed keep the loop alive for one turn, which runs their close
   * callbacks; after it the loop holds nothing of the adapter's. */
  uv_run(loop, UV_RUN_NOWAIT);
}

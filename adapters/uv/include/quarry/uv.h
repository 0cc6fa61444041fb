/* quarry over libuv: live configuration and pipe watches served by the host's uv_loop_t.
 * Thread contract: start and stop run on the loop's thread; the library's attachments may come
 * from any thread and are handed to the loop (docs/event-loops.md). */
#ifndef QUARRY_UV_H
#define QUARRY_UV_H

#include <uv.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The event_loop pointer to pass to quarry_enable_configuration, or null (errno set). The
 * adapter's handles are unreferenced: they never keep uv_run going on their own. */
void* quarry_uv_start(uv_loop_t* loop);

/* Closes the adapter's handles and descriptors and frees it. Call on the loop's thread once the
 * loop has stopped running, before closing the host's remaining handles (uv_walk would close
 * the adapter's too). It runs one non-blocking turn of the loop, for the close callbacks, so
 * that uv_loop_close may follow. */
void quarry_uv_stop(void* adapter);

#ifdef __cplusplus
}
#endif

#endif /* QUARRY_UV_H */

/* quarry over libevent: live configuration and pipe watches served by the host's event_base.
 * Thread contract: start and stop run on the loop's thread; the library's attachments may come
 * from any thread and are handed to the loop through the adapter's own eventfd, so the base
 * needs no evthread locking (docs/event-loops.md). */
#ifndef QUARRY_EVENT_H
#define QUARRY_EVENT_H

#include <event2/event.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The event_loop pointer to pass to quarry_enable_configuration, or null (errno set). The
 * adapter's events are persistent: event_base_dispatch no longer returns for lack of events,
 * so the host ends its loop with event_base_loopbreak or event_base_loopexit. */
void* quarry_event_start(struct event_base* base);

/* Frees the adapter's events and closes its descriptors. Call on the loop's thread once the
 * loop has stopped dispatching, before event_base_free. */
void quarry_event_stop(void* adapter);

#ifdef __cplusplus
}
#endif

#endif /* QUARRY_EVENT_H */

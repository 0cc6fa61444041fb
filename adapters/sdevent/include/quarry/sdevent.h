/* quarry over systemd's sd-event: live configuration and pipe watches served by the host's
 * sd_event loop. Thread contract: start and stop run on the loop's thread (sd_event objects
 * belong to one thread); the library's attachments may come from any thread and are handed to
 * the loop through the adapter's eventfd (docs/event-loops.md). */
#ifndef QUARRY_SDEVENT_H
#define QUARRY_SDEVENT_H

#include <systemd/sd-event.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The event_loop pointer to pass to quarry_enable_configuration, or null (errno set). Takes a
 * reference on the loop until quarry_sdevent_stop. */
void* quarry_sdevent_start(sd_event* event);

/* Disables and releases the adapter's event sources, closes its descriptors, drops its
 * reference on the loop and frees it. Call on the loop's thread once the loop has stopped
 * dispatching. */
void quarry_sdevent_stop(void* adapter);

#ifdef __cplusplus
}
#endif

#endif /* QUARRY_SDEVENT_H */

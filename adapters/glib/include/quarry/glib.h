/* quarry over GLib: live configuration and pipe watches served by a GMainContext.
 * Thread contract: start and stop run on the thread that iterates the context; the library's
 * attachments may come from any thread and are handed to it (docs/event-loops.md). */
#ifndef QUARRY_GLIB_H
#define QUARRY_GLIB_H

#include <glib.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The event_loop pointer to pass to quarry_enable_configuration, or null (errno set). A null
 * context means the global default context. Takes a reference on the context until
 * quarry_glib_stop. */
void* quarry_glib_start(GMainContext* context);

/* Destroys the adapter's sources, closes its descriptors, drops its reference on the context
 * and frees it. Call on the context's thread once it is no longer being iterated. */
void quarry_glib_stop(void* adapter);

#ifdef __cplusplus
}
#endif

#endif /* QUARRY_GLIB_H */

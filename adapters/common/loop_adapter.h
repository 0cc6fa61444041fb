/* The part every event-loop adapter shares: kelp_attach_fd, the hand-over of attachments to
 * the loop's thread, and the private duplicates that keep the loop's registrations apart from
 * descriptor numbers that the library may close and the host may reuse.
 * Thread contract: kelp_attach_fd runs on any thread and never waits for the loop; start, stop
 * and the watch callbacks run on the loop's thread. Nothing here is for signal handlers. */
#ifndef QUARRY_ADAPTERS_LOOP_ADAPTER_H
#define QUARRY_ADAPTERS_LOOP_ADAPTER_H

typedef void (*quarry_adapter_ready)(void* token);

/* What an adapter needs from its loop library: watching a descriptor for readability. */
struct quarry_adapter_ops {
  /* Watches fd on loop: ready(token) is then called on the loop's thread whenever fd is
   * readable, and again at every turn while it stays readable (level-triggered). Returns the
   * loop's watch, or null when the loop refuses. */
  void* (*watch)(void* loop, int fd, quarry_adapter_ready ready, void* token);
  /* Ends a watch made by watch; its ready is not called again. May be called from that
   * watch's own ready. The descriptor is closed right after. */
  void (*unwatch)(void* loop, void* watch);
};

struct quarry_adapter;

/* An adapter over loop, or null (errno set). Its address is the event_loop pointer that the
 * host passes to quarry_enable_configuration. */
struct quarry_adapter* quarry_adapter_start(void* loop, const struct quarry_adapter_ops* ops);

/* The loop given to quarry_adapter_start. */
void* quarry_adapter_loop(const struct quarry_adapter* adapter);

/* Ends every watch, closes the adapter's descriptors and frees it. From then on,
 * kelp_attach_fd refuses this adapter's address (EINVAL) instead of touching freed memory. */
void quarry_adapter_stop(struct quarry_adapter* adapter);

#endif /* QUARRY_ADAPTERS_LOOP_ADAPTER_H */

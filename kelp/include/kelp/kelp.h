/* kelp: a small level-triggered epoll event loop for hosts that bring no event-loop library.
 * Thread contract: one thread runs the loop; attach, forget and stop may be called from any
 * thread and from callbacks. Only kelp_stop is async-signal-safe. Plain C99 and C++. */
#ifndef KELP_KELP_H
#define KELP_KELP_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define KELP_API __attribute__((visibility("default")))

/* Event bits, in the events mask of kelp_attach_fd and in the set passed to callbacks. */
#define KELP_EVENT_READ 0x2  /* the descriptor is readable */
#define KELP_EVENT_WRITE 0x4 /* the descriptor is writable */
/* Always reported when they occur, whether asked for or not; asking for them is allowed and
 * changes nothing. A callback that gets them should read (to see end of file or the error) or
 * forget its descriptor, or it is called again at every turn of the loop. */
#define KELP_EVENT_ERROR 0x8
#define KELP_EVENT_HANGUP 0x10

/* The only mode of kelp_attach_fd: level-triggered, so a callback is called again at every
 * turn of the loop for as long as its descriptor stays ready. */
#define KELP_OPTIONS_LEVEL 0

typedef struct kelp_loop kelp_loop;

/* Called on the loop's thread with the descriptor, the events that occurred (KELP_EVENT_*)
 * and the argument given at attach time. kelp holds no lock while it runs. */
typedef void (*kelp_callback)(int fd, uint16_t events, void* arg);

/* A new loop, or null (errno set) when its epoll or eventfd descriptor cannot be made. */
KELP_API kelp_loop* kelp_create(void);

/* Closes the loop's own descriptors and frees it; attached descriptors stay open (they belong
 * to the caller). Must not be called while a thread runs the loop or from a callback. */
KELP_API void kelp_destroy(kelp_loop* loop);

/* Attaches fd to loop (a kelp_loop*, typed void* for callers that see only an opaque
 * context): callback(fd, events, arg) is called on the loop's thread while fd is ready.
 *   options   must be KELP_OPTIONS_LEVEL (0).
 *   events    a mask of KELP_EVENT_READ and KELP_EVENT_WRITE (2 = call when readable);
 *             KELP_EVENT_ERROR and KELP_EVENT_HANGUP may be included and are always reported.
 *   priority  accepted and ignored: callbacks of one turn run in the order the kernel reports
 *             the descriptors, and every ready descriptor is served at each turn.
 *   reserved  must be 0.
 * Attaching a descriptor that is already attached replaces its callback, events and argument;
 * an event already collected for the old attachment is dropped, and the descriptor is reported
 * afresh at the next turn if it is still ready. A descriptor that was closed without
 * kelp_forget_fd needs no clean-up: its number may be attached again when it is reused. Until
 * then its callback may still be called once with the old number (for an event collected
 * before the close, or when a dup or forked child keeps the file open), so callbacks that must
 * never touch a reused number should be forgotten before their descriptor is closed.
 * Returns 0 on success, or -1 with errno set: EINVAL for a null loop or callback, a negative
 * fd or an argument outside the values above, otherwise the error of epoll_ctl (EPERM for
 * descriptors that epoll cannot watch, such as regular files). */
KELP_API int kelp_attach_fd(void* loop, int fd, int options, kelp_callback callback, int events,
                            int priority, void* arg, uint64_t reserved);

/* Detaches fd: its callback is not called again, not even for an event already collected in
 * the current turn. Safe for a descriptor that has been closed meanwhile. Returns 0, or -1 if
 * fd is not attached (or loop is null). */
KELP_API int kelp_forget_fd(kelp_loop* loop, int fd);

/* One turn: waits up to timeout_ms (-1 = no limit, 0 = poll) for ready descriptors and calls
 * their callbacks. Returns the number of callbacks called, 0 when the wait timed out, was
 * interrupted by a signal or was woken by kelp_stop, or -1 on error (errno set). */
KELP_API int kelp_run_once(kelp_loop* loop, int timeout_ms);

/* Runs turns until kelp_stop. Returns 0 when stopped, -1 on error (errno set). */
KELP_API int kelp_run(kelp_loop* loop);

/* Makes kelp_run return after the current turn. Callable from any thread, from a callback and
 * from a signal handler. A stop requested while no kelp_run is active ends the next kelp_run
 * before its first turn; each kelp_run consumes the request that ends it. */
KELP_API void kelp_stop(kelp_loop* loop);

#ifdef __cplusplus
}
#endif

#endif /* KELP_KELP_H */

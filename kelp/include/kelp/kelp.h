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

/* kelp_attach_fd is also the one entry point through which libquarry.so reaches the host's
 * event loop, whoever defines it: kelp below, an event-loop adapter (quarry::uv, quarry::event,
 * quarry::sdevent, quarry::glib) or the host itself; exactly one definition per process, visible
 * to libquarry.so (docs/event-loops.md). What the library passes and needs:
 *   Calls: kelp_attach_fd(event_loop, fd, 0, callback, KELP_EVENT_READ, 0, buffer, 0), where
 *     event_loop is the pointer given to quarry_enable_configuration (null for a pipe opened
 *     before it: then a failure is expected), fd a non-blocking close-on-exec inotify descriptor
 *     and buffer an opaque pointer to hand back. A non-zero result means failure.
 *   Threads: from quarry_enable_configuration on its caller's thread, holding no lock; and when
 *     a reader opens a buffer's pipe, from whichever host thread writes the next piped record,
 *     in the middle of that trace call, holding the buffer's mutex, which both callbacks take.
 *     So the implementation must return promptly: never wait for the loop's thread, never call
 *     into quarry, take no lock that is held while a callback runs. A loop whose API is not
 *     thread-safe must hand the attachment over to its thread.
 *   Callback: callback(fd, events, buffer) on the loop's thread, one call at a time, whenever fd
 *     is readable and again while it stays readable (the control-file callback may leave events
 *     queued on purpose). It drains fd and may re-read the control file, switch handles, grow
 *     the buffer (allocating) and dump it to a trace file; the pipe callback closes the
 *     library's end of a deleted pipe. Both ignore a call for a number that is no longer theirs.
 *   Lifetime: the control-file descriptor stays open for the life of the process. A pipe watch
 *     descriptor is closed when its pipe session ends, from any thread or from its own
 *     callback, with no detach call (its inotify watch is removed first, which makes it
 *     readable). Its number comes back at once: as the library's next pipe watch, attached
 *     again, or as any descriptor the host opens. An implementation must therefore keep no
 *     loop registration under a number the library may close (watch a duplicate, or detect the
 *     close), treat an attachment of a number already attached as a replacement, drop a stale
 *     attachment itself rather than call into it forever, and never abort on EBADF or EEXIST.
 *
 * Attaches fd to loop (a kelp_loop*, typed void* for callers that see only an opaque
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

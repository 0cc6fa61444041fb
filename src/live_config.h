// inotify watch of the control file through the host's event loop.
// Thread contract: set-up takes the buffer's mutex; callbacks run on the event-loop thread.
#pragma once

#include <stdint.h>

// The host's event-loop entry point. Declared weak: libquarry.so loads in hosts without an
// event-loop library, and then live configuration reports the attach failure.
extern "C" int kelp_attach_fd(void* loop, int fd, int options,
                              void (*callback)(int fd, uint16_t events, void* arg), int events,
                              int priority, void* arg, uint64_t reserved) __attribute__((weak));

extern "C" void ctrl_watch_callback(int fd, uint16_t events, void* arg);

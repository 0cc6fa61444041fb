// demo_host's trace points, declared once: the calls in demo_host.cpp are checked against these
// declarations, and the build generates net.dec, io.dec and app.dec from them
// (examples/CMakeLists.txt, quarry_decode_file).
#pragma once

#include <stdint.h>

#include "quarry/quarry.hpp"

// The "net" handle: requests, replies, and a span around the handling of each request.
#define NET_TRACE(POINT, SPAN)                                                      \
  POINT(0, request, "request {id} for {path}", (uint32_t, id), (const char*, path)) \
  POINT(1, reply, "reply {status}, {bytes} bytes sent so far", (int32_t, status),   \
        (uint64_t, bytes))                                                          \
  SPAN(2, handle, "handling request {id}", (uint32_t, id))
QUARRY_PROVIDER(net_trace, "net", "net.dec", NET_TRACE);

// The "net/io" child handle (its IDs follow net's in the same buffer).
#define IO_TRACE(POINT, SPAN)                                                       \
  POINT(0, read, "read {size} bytes from fd {fd}", (int32_t, fd), (uint32_t, size)) \
  POINT(1, write, "wrote {size} bytes to fd {fd}", (int32_t, fd), (uint32_t, size))
QUARRY_PROVIDER(io_trace, "io", "io.dec", IO_TRACE);

// The small "app" buffer, which wraps. No messages: shown as { name = value }.
#define APP_TRACE(POINT, SPAN)          \
  POINT(0, tick, "", (uint32_t, round)) \
  POINT(1, state, "", (const char*, text))
QUARRY_PROVIDER(app_trace, "app", "app.dec", APP_TRACE);

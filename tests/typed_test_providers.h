// Providers declared for the typed front-end's tests; the test build also generates their
// decode files with quarry_decode_file, as a host's build would.
#pragma once

#include <stdint.h>

#include <string>
#include <string_view>

#include "quarry/quarry.hpp"

enum class typed_color : uint8_t { red = 1, blue = 200 };

// Every argument kind, a gap at index 4 (the count is one above the highest index), and a
// record of six numeric words (with its escape word).
#define TYPED_POINTS(POINT, SPAN)                                                                 \
  POINT(0, tick, "")                                                                              \
  POINT(1, request, "request {id} for {path}", (uint32_t, id), (std::string_view, path))          \
  POINT(2, reply, "reply {status} after {elapsed} ns", (int32_t, status), (uint64_t, elapsed))    \
  POINT(3, mixed, "", (int8_t, small), (const char*, text), (int64_t, wide), (std::string, name), \
        (typed_color, color))                                                                     \
  POINT(5, six, "{a} {b} {c} {d} {e} {f}", (uint32_t, a), (uint32_t, b), (uint32_t, c),           \
        (uint32_t, d), (uint32_t, e), (int32_t, f))
QUARRY_PROVIDER(typed_points, "typed", "typed.dec", TYPED_POINTS);

#define TYPED_SPANS(POINT, SPAN)                       \
  SPAN(0, work, "working on {item}", (uint32_t, item)) \
  POINT(2, note, "{}", (const char*, text))
QUARRY_PROVIDER(typed_spans, "spans", "spans.dec", TYPED_SPANS);

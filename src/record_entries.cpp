// The non-variadic record entries (quarry_record0..4, quarry_record_words,
// quarry_record_strings) behind QUARRY_RECORD and the typed C++ front-end.
// Lock-free and allocation-free like quarry_internal, and word for word the same records.
#include <stddef.h>

#include "record_writer.h"
#include "thread_word.h"

// The handle view of the public header must match the library's own handle, field by field, so
// that call sites read `enabled` where the library keeps it.
static_assert(offsetof(quarry_handle_view, enabled) == QUARRY_HANDLE_ENABLED_OFFSET,
              "the public view names the offset of `enabled`");
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof"
static_assert(offsetof(quarry_handle, cb) == offsetof(quarry_handle_view, cb) &&
                  offsetof(quarry_handle, name) == offsetof(quarry_handle_view, name) &&
                  offsetof(quarry_handle, decode_ref) == offsetof(quarry_handle_view, decode_ref) &&
                  offsetof(quarry_handle, first_trace_point_id) ==
                      offsetof(quarry_handle_view, first_trace_point_id) &&
                  offsetof(quarry_handle, trace_point_count) ==
                      offsetof(quarry_handle_view, trace_point_count) &&
                  offsetof(quarry_handle, enabled) == QUARRY_HANDLE_ENABLED_OFFSET &&
                  offsetof(quarry_handle, pipe) == offsetof(quarry_handle_view, pipe),
              "quarry_handle_view must mirror the leading fields of quarry_handle");
#pragma GCC diagnostic pop
static_assert(sizeof(std::atomic<uint8_t>) == 1, "`enabled` is read as one byte");
static_assert(sizeof(record_string) == sizeof(quarry_string) &&
                  offsetof(record_string, length) == offsetof(quarry_string, length) &&
                  offsetof(record_string, words_before) == offsetof(quarry_string, words_before),
              "quarry_string is passed on as record_string");

namespace {

// Null and disabled handles write nothing (relaxed: a switch takes effect from a later record).
inline bool writes(quarry_handle* handle) {
  return handle != nullptr && handle->enabled.load(std::memory_order_relaxed) != 0;
}

__attribute__((always_inline)) inline void write_words(quarry_handle* handle, uint32_t trace_point,
                                                       const uint32_t* words, uint32_t count,
                                                       const record_string* strings,
                                                       uint32_t string_count) {
  write_layout_record(
      handle, trace_point, words, count, strings, string_count, [] { return record_clock_ns(); },
      [] { return record_thread_word(); });
}

}  // namespace

extern "C" QUARRY_EXPORT void quarry_record0(quarry_handle* handle, uint32_t trace_point) {
  if (!writes(handle)) return;
  write_words(handle, trace_point, nullptr, 0, nullptr, 0);
}

extern "C" QUARRY_EXPORT void quarry_record1(quarry_handle* handle, uint32_t trace_point,
                                             uint32_t w0) {
  if (!writes(handle)) return;
  const uint32_t words[] = {w0};
  write_words(handle, trace_point, words, 1, nullptr, 0);
}

extern "C" QUARRY_EXPORT void quarry_record2(quarry_handle* handle, uint32_t trace_point,
                                             uint32_t w0, uint32_t w1) {
  if (!writes(handle)) return;
  const uint32_t words[] = {w0, w1};
  write_words(handle, trace_point, words, 2, nullptr, 0);
}

extern "C" QUARRY_EXPORT void quarry_record3(quarry_handle* handle, uint32_t trace_point,
                                             uint32_t w0, uint32_t w1, uint32_t w2) {
  if (!writes(handle)) return;
  const uint32_t words[] = {w0, w1, w2};
  write_words(handle, trace_point, words, 3, nullptr, 0);
}

extern "C" QUARRY_EXPORT void quarry_record4(quarry_handle* handle, uint32_t trace_point,
                                             uint32_t w0, uint32_t w1, uint32_t w2, uint32_t w3) {
  if (!writes(handle)) return;
  const uint32_t words[] = {w0, w1, w2, w3};
  write_words(handle, trace_point, words, 4, nullptr, 0);
}

extern "C" QUARRY_EXPORT void quarry_record_words(quarry_handle* handle, uint32_t trace_point,
                                                  const uint32_t* words, uint32_t count) {
  if (!writes(handle)) return;
  write_words(handle, trace_point, words, count, nullptr, 0);
}

extern "C" QUARRY_EXPORT void quarry_record_strings(quarry_handle* handle, uint32_t trace_point,
                                                    const uint32_t* words, uint32_t count,
                                                    const quarry_string* strings,
                                                    uint32_t string_count) {
  if (!writes(handle)) return;
  write_words(handle, trace_point, words, count, reinterpret_cast<const record_string*>(strings),
              string_count);
}

// quarry_internal: the exported record writer.
// Lock-free and allocation-free; callable from any thread at any rate, and from a signal
// handler as long as the handle is not piped (the pipe step takes the buffer's mutex).
#include "record_writer.h"

#include "thread_word.h"

extern "C" QUARRY_EXPORT void quarry_internal(quarry_handle* handle, uint32_t trace_point,
                                              uint32_t fixed_words, uint32_t flags,
                                              const char* signature, uint64_t spare, ...) {
  (void)spare;  // accepted for callers' compatibility, never read
  if (handle == nullptr) return;
  // Relaxed: a switch only has to take effect from a later record.
  if (handle->enabled.load(std::memory_order_relaxed) == 0) return;
  // Two walks of the arguments for records with strings: a second va_start costs four stores,
  // where va_copy would read the fresh va_list back (a store-forwarding stall) and keep the
  // writer from being inlined here.
  va_list measure;
  if (flags & QUARRY_FLAG_HAS_STRINGS) va_start(measure, spare);
  va_list args;
  va_start(args, spare);
  // Lambdas, not function pointers, so that the clock and the thread word are inlined.
  write_record(
      handle, trace_point, fixed_words, flags, signature, measure, args,
      [] { return record_clock_ns(); }, [] { return record_thread_word(); });
  va_end(args);
  if (flags & QUARRY_FLAG_HAS_STRINGS) va_end(measure);
}

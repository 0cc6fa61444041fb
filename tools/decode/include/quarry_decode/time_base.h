// Placing records in wall-clock time: the alpha clock pair (taken when the process started
// tracing) ties CLOCK_MONOTONIC nanoseconds to the wall clock; the omega pair (taken at the
// dump) checks that the tie still held. Thread contract: an immutable value.
#pragma once

#include <stdint.h>

#include "quarry_decode/trace_header.h"

namespace quarry_decode {

class TimeBase {
 public:
  TimeBase() = default;
  explicit TimeBase(const TraceHeader& header);

  // Whether the header carries the alpha pair; without it only monotonic time is known.
  bool has_wall() const { return has_wall_; }
  // Nanoseconds since the Unix epoch of a CLOCK_MONOTONIC time (index bits already stripped).
  // Taken modulo 2^64, so that no header value can make it overflow.
  int64_t wall_ns(uint64_t mono_ns) const {
    return static_cast<int64_t>(static_cast<uint64_t>(offset_ns_) + mono_ns);
  }

  // Buffers of one process each sample their own clock pair, a few microseconds apart at the
  // wall clock's microsecond resolution: merged, they take one pair's mapping, so that their
  // wall-clock times keep the order of their shared monotonic clock. True when `other` maps
  // within a second of this one (the same process, not a reused process ID) and was taken.
  bool share_mapping(const TimeBase& other);

  // Whether the omega pair is usable (present and not zero, which a pipe stream opened before
  // any dump carries).
  bool has_omega() const { return has_omega_; }
  // How far the wall clock moved against the monotonic clock between the two pairs: positive
  // when it ran ahead (a clock step, or a suspend that the monotonic clock did not count).
  int64_t drift_ns() const { return drift_ns_; }
  // The dump's CLOCK_MONOTONIC time, when has_omega().
  uint64_t omega_mono_ns() const { return omega_mono_ns_; }

 private:
  bool has_wall_ = false;
  bool has_omega_ = false;
  int64_t offset_ns_ = 0;
  int64_t drift_ns_ = 0;
  uint64_t omega_mono_ns_ = 0;
};

}  // namespace quarry_decode

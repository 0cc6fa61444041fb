// The wall-clock mapping of one trace header. Pure computation on the header's values.
#include "quarry_decode/time_base.h"

namespace quarry_decode {

TimeBase::TimeBase(const TraceHeader& h) {
  // Header values are whatever the file says: every sum and difference is taken modulo 2^64
  // (unsigned), so a crafted header gives odd times but never an overflow.
  has_wall_ = h.has(TraceHeader::kAlphaKeys);
  const uint64_t alpha_wall = h.wall_time_sec * 1000000000ull + h.wall_time_usec * 1000ull;
  const uint64_t alpha_mono = h.clock_time_sec * 1000000000ull + h.clock_time_nsec;
  offset_ns_ = has_wall_ ? static_cast<int64_t>(alpha_wall - alpha_mono) : 0;
  omega_mono_ns_ = h.clock_time_z_sec * 1000000000ull + h.clock_time_z_nsec;
  // A pipe stream opened before any dump carries an omega pair of zeros.
  has_omega_ = h.has(TraceHeader::kOmegaKeys) && omega_mono_ns_ != 0;
  if (has_wall_ && has_omega_) {
    const uint64_t omega_wall = h.wall_time_z_sec * 1000000000ull + h.wall_time_z_usec * 1000ull;
    drift_ns_ =
        static_cast<int64_t>(omega_wall - omega_mono_ns_ - static_cast<uint64_t>(offset_ns_));
  }
}

bool TimeBase::share_mapping(const TimeBase& other) {
  if (!has_wall_ || !other.has_wall_) return false;
  const int64_t difference = static_cast<int64_t>(static_cast<uint64_t>(offset_ns_) -
                                                  static_cast<uint64_t>(other.offset_ns_));
  if (difference > 1000000000 || difference < -1000000000) return false;
  offset_ns_ = other.offset_ns_;
  return true;
}

}  // namespace quarry_decode

// Number-to-text conversion (uint64_2_xstr, uint64_2_dstr) and bounded_copy for the dump path.
// Async-signal-safe and reentrant: no allocation, no lock, no static state; every function
// touches only the caller's buffer (strncpy is on the async-signal-safe list).
#include "sigsafe_format.h"

#include <string.h>

namespace {

// Writes `value` in `base` backwards so that its last digit sits just before `end`; returns the
// first digit. The caller has checked that the digits fit in front of `end`.
char* write_digits_backwards(uint64_t value, unsigned base, char* end) {
  char* p = end;
  do {
    const unsigned digit = static_cast<unsigned>(value % base);
    *--p = static_cast<char>(digit < 10 ? '0' + digit : 'a' + (digit - 10));
    value /= base;
  } while (value != 0);
  return p;
}

uint32_t hex_digit_count(uint64_t value) {
  uint32_t digits = 1;
  while (value >>= 4) ++digits;
  return digits;
}

}  // namespace

// Refuses (null, nothing written) both a size below 3 and a size that cannot hold this value's
// digits plus the NUL: the digits are stored backwards from the end of buf, and a short area
// would otherwise be written in front of buf, corrupting the caller's stack in a signal handler.
extern "C" QUARRY_EXPORT char* uint64_2_xstr(uint64_t value, char* buf, uint32_t size) {
  if (size < 3 || hex_digit_count(value) + 1 > size) return nullptr;
  buf[size - 1] = '\0';
  return write_digits_backwards(value, 16, buf + size - 1);
}

// 22 bytes always hold the 20 digits of the largest value and the NUL, so the size check alone
// keeps every write inside buf.
extern "C" QUARRY_EXPORT char* uint64_2_dstr(uint64_t value, char* buf, int32_t size) {
  if (size <= 21) return nullptr;
  buf[size - 1] = '\0';
  return write_digits_backwards(value, 10, buf + size - 1);
}

char* bounded_copy(char* dst, const char* src, int32_t n) {
  // n below 1 leaves no room even for the terminator; nothing is written rather than dst[-1].
  if (n < 1) return dst;
  strncpy(dst, src, static_cast<size_t>(n - 1));
  dst[n - 1] = '\0';
  return dst;
}

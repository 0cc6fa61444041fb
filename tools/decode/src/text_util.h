// Appending numbers, times and escaped strings to output text without stdio or allocation per
// call (the formatters run once per record). Internal to quarry_decode. Thread contract: the
// clock formatter caches the last second and belongs to one formatter.
#pragma once

#include <stdint.h>
#include <string.h>
#include <time.h>

#include <string>
#include <string_view>

#include "quarry_decode/decode_file.h"

namespace quarry_decode {
namespace text {

inline void append_uint(std::string& out, uint64_t value) {
  char digits[20];
  char* d = digits + 20;
  do {
    *--d = static_cast<char>('0' + value % 10);
    value /= 10;
  } while (value != 0);
  out.append(d, static_cast<size_t>(digits + 20 - d));
}

inline void append_int(std::string& out, int64_t value) {
  if (value < 0) {
    out += '-';
    append_uint(out, 0 - static_cast<uint64_t>(value));
  } else {
    append_uint(out, static_cast<uint64_t>(value));
  }
}

// Lower-case hexadecimal with a "0x" prefix; `width` digits at least.
inline void append_hex(std::string& out, uint64_t value, int width = 1) {
  static const char kDigits[] = "0123456789abcdef";
  char digits[16];
  int n = 0;
  do {
    digits[n++] = kDigits[value & 15];
    value >>= 4;
  } while (value != 0);
  while (n < width && n < 16) digits[n++] = '0';
  char text[18] = {'0', 'x'};
  for (int i = 0; i < n; ++i) text[2 + i] = digits[n - 1 - i];
  out.append(text, static_cast<size_t>(n + 2));
}

// Exactly `width` decimal digits, leading zeros kept.
inline void append_fixed(std::string& out, uint64_t value, int width) {
  char digits[20];
  for (int i = width - 1; i >= 0; --i) {
    digits[i] = static_cast<char>('0' + value % 10);
    value /= 10;
  }
  out.append(digits, static_cast<size_t>(width));
}

// A number argument by its display format: 'd' values are 32-bit, 'D' values 64-bit.
inline void append_number(std::string& out, uint64_t value, char type, ArgFormat format) {
  switch (format) {
    case ArgFormat::kHex:
      append_hex(out, value);
      break;
    case ArgFormat::kUnsigned:
      append_uint(out, value);
      break;
    case ArgFormat::kSigned:
      append_int(out, type == 'd' ? static_cast<int64_t>(static_cast<int32_t>(value))
                                  : static_cast<int64_t>(value));
      break;
  }
}

// Text for a terminal: control characters as C escapes so that a record stays on one line,
// and, when `quoted`, '"' and '\' escaped too. Bytes from 0x80 pass unchanged.
void append_escaped(std::string& out, std::string_view text, bool quoted);
// A JSON string body: valid UTF-8 is copied, control characters and bytes that are not valid
// UTF-8 become \u00XX escapes (the byte's Latin-1 reading), so the output is always valid.
void append_json_escaped(std::string& out, std::string_view text);

// "YYYY-MM-DD HH:MM:SS" for whole seconds since the epoch, remembering the last second (records
// come in time order, so most lines reuse it).
class SecondsFormatter {
 public:
  explicit SecondsFormatter(bool utc, char separator = ' ') : utc_(utc), separator_(separator) {}
  const std::string& format(int64_t seconds);

 private:
  bool utc_;
  char separator_;
  bool valid_ = false;
  int64_t seconds_ = 0;
  std::string text_;
};

// Splits nanoseconds since the epoch into whole seconds (floor) and the nanoseconds after them.
inline void split_ns(int64_t ns, int64_t* seconds, uint64_t* nanos) {
  int64_t s = ns / 1000000000;
  int64_t rest = ns % 1000000000;
  if (rest < 0) {
    rest += 1000000000;
    --s;
  }
  *seconds = s;
  *nanos = static_cast<uint64_t>(rest);
}

// Builds one record's text in a stack buffer and appends it to the output once: the
// formatters' hot path, which avoids a capacity check and a terminator store per character.
// Text longer than the buffer goes straight to the output, in order.
class Line {
 public:
  explicit Line(std::string& out) : out_(out), p_(buf_) {}
  Line(const Line&) = delete;
  Line& operator=(const Line&) = delete;
  ~Line() { end(); }

  void put(char c) {
    if (p_ == buf_ + kSize) spill();
    *p_++ = c;
  }
  void put(const char* text, size_t n) {
    if (static_cast<size_t>(buf_ + kSize - p_) < n) {
      spill();
      if (n > kSize) {
        out_.append(text, n);
        return;
      }
    }
    memcpy(p_, text, n);
    p_ += n;
  }
  void put(std::string_view text) { put(text.data(), text.size()); }
  template <size_t N>
  void lit(const char (&text)[N]) {
    put(text, N - 1);
  }
  void uint(uint64_t value) {
    char digits[20];
    char* d = digits + 20;
    while (value >= 100) {
      d -= 2;
      memcpy(d, kPairs + 2 * (value % 100), 2);
      value /= 100;
    }
    if (value >= 10) {
      d -= 2;
      memcpy(d, kPairs + 2 * value, 2);
    } else {
      *--d = static_cast<char>('0' + value);
    }
    put(d, static_cast<size_t>(digits + 20 - d));
  }
  void sint(int64_t value) {
    if (value < 0) {
      put('-');
      uint(0 - static_cast<uint64_t>(value));
    } else {
      uint(static_cast<uint64_t>(value));
    }
  }
  // Exactly `width` digits (at most 20), leading zeros kept.
  void fixed(uint64_t value, int width) {
    char digits[20];
    int i = width;
    while (i >= 2) {
      i -= 2;
      memcpy(digits + i, kPairs + 2 * (value % 100), 2);
      value /= 100;
    }
    if (i == 1) digits[0] = static_cast<char>('0' + value % 10);
    put(digits, static_cast<size_t>(width));
  }
  // "<seconds>.<9 digits>" of a nanosecond count.
  void seconds(uint64_t ns) {
    uint(ns / 1000000000);
    put('.');
    fixed(ns % 1000000000, 9);
  }
  // Writes what the buffer holds to the output (the destructor does it too).
  void end() {
    out_.append(buf_, static_cast<size_t>(p_ - buf_));
    p_ = buf_;
  }

 private:
  void spill() { end(); }
  static constexpr size_t kSize = 1024;
  static constexpr char kPairs[] =
      "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
      "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
      "8081828384858687888990919293949596979899";
  std::string& out_;
  char* p_;
  char buf_[kSize];
};

}  // namespace text
}  // namespace quarry_decode

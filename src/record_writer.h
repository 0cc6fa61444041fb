// The record path: quarry_internal and the word-level encoding it is built from.
// Lock-free and allocation-free: one fetch-and-add reserves a record, words are stored with
// relaxed atomic stores, the header word last with release. Safe to run concurrently with
// dumps and signal handlers, which may read a record before it is complete (they see its
// previous header or none, never a header before its record).
#pragma once

#include <stdarg.h>
#include <stdint.h>
#include <string.h>
#include <time.h>

#include "pipe_output.h"
#include "ring.h"

// A record in the ring (32-bit words, host order):
//
//   word 0     0xFF | escape flags 0..7 | trace point id (16 bits)     written last (release)
//   word 1     timestamp bits 63..32                      escape flag 0
//   word 2     timestamp bits 31..0                       escape flag 1
//   word 3     thread word (low 32 bits of pthread_self)  escape flag 2
//   word 4...  'd': 1 word, 'D': 2 words (high first)     escape flags 3, 4, ...
//              's': the bytes and the NUL, zero-padded to whole words, no flag
//   last       escape word with all flags, only when fixed_words >= 10 (six or more numeric
//              words; callers pass 11 or more then)
//
// Any escapable word whose value is 0xFF000000 or above is stored with bit 31 inverted and its
// flag set, so only header words carry 0xFF in the top byte (string bytes aside).
constexpr uint32_t kHeaderMarker = 0xFF000000u;
constexpr uint32_t kEscapeThreshold = 0xFEFFFFFFu;
constexpr uint32_t kEscapeBit = 0x80000000u;
constexpr uint32_t kFixedWordsWithoutArgs = 4;

// Limits the writer enforces, so that no call can write outside the ring or its own tables:
// - Only the first kMaxSignatureChars characters of a signature are read (the string-length
//   table has that many slots); the rest is ignored by both argument walks alike.
// - Escape flags exist for kMaxFlagBits escapable words; words beyond them are still escaped
//   but carry no flag (callers keep to 29 numeric words).
// - A record never exceeds the ring: a string that would make it longer is cut, still
//   terminated by a NUL in its last byte.
// - The trace point id is masked to 16 bits, so an index out of range can never turn the
//   header into something that is not a header.
// Every word store wraps its position, so even a caller's wrong fixed_words cannot make the
// writer leave the ring.
constexpr uint32_t kMaxSignatureChars = 32;
constexpr uint32_t kMaxFlagBits = 32;
static_assert(3 + 2 * kMaxSignatureChars > kMaxFlagBits, "flag bits are checked, not assumed");

// The timestamp of real records: CLOCK_MONOTONIC nanoseconds (through the vDSO).
inline uint64_t record_clock_ns() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000000ull + static_cast<uint64_t>(ts.tv_nsec);
}

// Stores one word by the escape rule at *position (wrapped to 0 first when it is at or past
// size_words) and advances the position. Returns the word's escape flag.
inline bool store_word(ring_cell* words, uint32_t size_words, uint32_t value, uint32_t* position) {
  if (*position >= size_words) *position = 0;
  bool escaped = value > kEscapeThreshold;
  if (escaped) value ^= kEscapeBit;
  words[*position].store(value, std::memory_order_relaxed);
  ++*position;
  return escaped;
}

// Copies `bytes` bytes of a string (its characters and the terminating NUL; the NUL is written
// from here, not read) word by word from *position, wrapping at the end of the ring exactly
// where the words leave it. The last word is zero-padded.
// With Wraps false the caller knows the string does not reach the end of the ring.
template <bool Wraps = true>
inline void copy_string(ring_cell* words, uint32_t size_words, const char* text, uint32_t bytes,
                        uint32_t* position) {
  if (bytes == 0) return;
  uint32_t q = *position;
  uint32_t chars = bytes - 1;  // bytes before the NUL
  uint32_t offset = 0;
  while (offset + 4 <= chars) {
    uint32_t w;
    memcpy(&w, text + offset, 4);
    if (Wraps && q >= size_words) q = 0;
    words[q++].store(w, std::memory_order_relaxed);
    offset += 4;
  }
  // The last 0 to 3 characters byte by byte: a memcpy of a variable length would be a call.
  unsigned char tail[4] = {0, 0, 0, 0};
  for (uint32_t i = 0; offset + i < chars; ++i)
    tail[i] = static_cast<unsigned char>(text[offset + i]);
  uint32_t w;
  memcpy(&w, tail, 4);
  if (Wraps && q >= size_words) q = 0;
  words[q++].store(w, std::memory_order_relaxed);
  *position = q;
}

// Where a record goes, in which ring, and when it was taken.
struct reservation {
  ring_view ring;      // the ring loaded after the reservation: the record is written here
  uint32_t first;      // position of the header word
  uint64_t timestamp;  // with its ts_index bits
};

// Updates the wraparound statistics for a record that crosses the end of the ring. Out of line
// and cold: once per pass over the ring, and the record path saves registers without it.
__attribute__((noinline, cold)) inline void note_crossing(circular_buffer* cb, uint64_t timestamp) {
  // Only the writer whose record crosses the end updates these (one per pass over the ring).
  cb->wraparound_count.store(cb->wraparound_count.load(std::memory_order_relaxed) + 1,
                             std::memory_order_relaxed);
  cb->wraparound_time.store(timestamp, std::memory_order_relaxed);
  uint64_t elapsed = timestamp - cb->creation_time;
  if (cb->min_wraparound_time.load(std::memory_order_relaxed) > elapsed) {
    cb->min_wraparound_time.store(elapsed, std::memory_order_relaxed);
  } else if (cb->max_wraparound_time.load(std::memory_order_relaxed) < elapsed) {
    cb->max_wraparound_time.store(elapsed, std::memory_order_relaxed);
  }
}

// Reserves `length` words, loads the ring to write them into, takes the timestamp, counts the
// record and, when the record crosses the end of the ring, updates the wraparound statistics.
template <class Clock>
__attribute__((always_inline)) inline reservation reserve_record(circular_buffer* cb,
                                                                 uint32_t length, Clock&& clock) {
  // The only point of agreement between writers: disjoint ranges of positions; the
  // read-modify-write alone guarantees that no two records share a position. Acquire (the same
  // locked instruction as relaxed on x86-64) keeps the ring load below after the reservation.
  const uint32_t reserved = cb->word_count.fetch_add(length, std::memory_order_acquire);
  // The ring is loaded once per record, after the reservation: memory and size together, which
  // a concurrent growth keeps valid (ring.h). After, not before: a crash dump holds the ring
  // (hold_ring) at a word count read before it swaps in the scratch ring, so a writer reserving
  // after that read either still sees the real ring (and lands at the seam) or the scratch one,
  // and never reserves first and then writes at a position far past the held count.
  const ring_view ring = load_ring(cb);
  const uint32_t first = reserved & (ring.size_words - 1);

  uint64_t timestamp = clock();
  const uint64_t index_mask = ts_idx_mask.load(std::memory_order_relaxed);
  if (index_mask != 0) {
    uint64_t index = ts_index.fetch_add(1, std::memory_order_relaxed);
    timestamp = (timestamp & ~index_mask) | (index & index_mask);
  }
  cb->entry_count.fetch_add(1, std::memory_order_relaxed);

  if (first + length > ring.size_words) note_crossing(cb, timestamp);

  return reservation{ring, first, timestamp};
}

// Stores the header word of a record whose other words are in place, then pipes the record when
// the handle asks for it.
__attribute__((always_inline)) inline void finish_record(quarry_handle* handle, ring_cell* words,
                                                         uint32_t first, uint32_t length,
                                                         uint32_t trace_point, uint32_t escapes) {
  // The header last, with release: a reader that sees it (another thread, or a dump in a
  // signal handler on this thread) sees every word of the record before it.
  const uint32_t header = kHeaderMarker | ((escapes & 0xFFu) << 16) |
                          ((trace_point + handle->first_trace_point_id) & 0xFFFFu);
  words[first].store(header, std::memory_order_release);

  if (handle->pipe.load(std::memory_order_relaxed)) pipe_record(handle->cb, first, length);
}

// Writes one record through `handle` (enabled, not null). `args` walks the variable arguments
// for the words; `measure`, a second va_start of the same arguments, walks them once before
// for the string lengths and is only touched when `flags` declares strings (the caller starts it
// only then). Clock and ThreadWord are callables returning the CLOCK_MONOTONIC nanoseconds and
// the thread word: quarry_internal passes the real ones, tests pass fixed values. Everything
// here is inlined into the caller (no va_copy here: it would forbid inlining).
template <class Clock, class ThreadWord>
__attribute__((always_inline)) inline void write_record(quarry_handle* handle, uint32_t trace_point,
                                                        uint32_t fixed_words, uint32_t flags,
                                                        const char* signature, va_list measure,
                                                        va_list args, Clock&& clock,
                                                        ThreadWord&& thread_word) {
  circular_buffer* cb = handle->cb;
  uint32_t length = fixed_words;
  uint32_t string_bytes[kMaxSignatureChars];

  if (flags & QUARRY_FLAG_HAS_STRINGS) {
    // First walk: measure the strings, so the reservation covers them. The counts measured here
    // are the ones copied later, even if another thread changes a string in between. They are
    // cut to fit the ring loaded here; the record is written into the one loaded after the
    // reservation, whose size may differ (growth, or the scratch ring of a crash dump), which
    // is safe because every store wraps its position.
    const ring_view sizing = load_ring(cb);
    for (uint32_t i = 0; i < kMaxSignatureChars && signature[i] != '\0'; ++i) {
      switch (signature[i]) {
        case 'd':
          (void)va_arg(measure, unsigned int);
          break;
        case 'D':
          (void)va_arg(measure, unsigned long long);
          break;
        case 's': {
          const char* text = va_arg(measure, const char*);
          if (text == nullptr) text = "(null)";
          uint32_t bytes = static_cast<uint32_t>(strnlen(text, 4ull * sizing.size_words)) + 1;
          uint32_t room_words = sizing.size_words > length ? sizing.size_words - length : 0;
          if ((bytes + 3) / 4 > room_words) bytes = room_words * 4;  // cut to fit the ring
          string_bytes[i] = bytes;
          length += (bytes + 3) / 4;
          break;
        }
        default:
          break;
      }
    }
  }

  const reservation r = reserve_record(cb, length, clock);
  const ring_view ring = r.ring;
  const uint32_t first = r.first;

  ring_cell* const words = ring.buffer;
  const uint32_t size = ring.size_words;
  uint32_t position = first + 1;
  uint32_t escapes = 0;
  escapes |= static_cast<uint32_t>(
      store_word(words, size, static_cast<uint32_t>(r.timestamp >> 32), &position));
  escapes |=
      static_cast<uint32_t>(store_word(words, size, static_cast<uint32_t>(r.timestamp), &position))
      << 1;
  escapes |= static_cast<uint32_t>(store_word(words, size, thread_word(), &position)) << 2;

  uint32_t bit = 3;
  for (uint32_t i = 0; i < kMaxSignatureChars && signature[i] != '\0'; ++i) {
    switch (signature[i]) {
      case 'd': {
        uint32_t value = va_arg(args, unsigned int);
        if (store_word(words, size, value, &position) && bit < kMaxFlagBits) escapes |= 1u << bit;
        ++bit;
        break;
      }
      case 'D': {
        uint64_t value = va_arg(args, unsigned long long);
        if (store_word(words, size, static_cast<uint32_t>(value >> 32), &position) &&
            bit < kMaxFlagBits) {
          escapes |= 1u << bit;
        }
        ++bit;
        if (store_word(words, size, static_cast<uint32_t>(value), &position) &&
            bit < kMaxFlagBits) {
          escapes |= 1u << bit;
        }
        ++bit;
        break;
      }
      case 's': {
        const char* text = va_arg(args, const char*);
        if (text == nullptr) text = "(null)";
        // Strings were measured only when the caller declared them; an undeclared string has
        // no reserved words and is left out rather than written over the next record.
        if (flags & QUARRY_FLAG_HAS_STRINGS) {
          copy_string(words, size, text, string_bytes[i], &position);
        }
        break;
      }
      default:
        break;
    }
  }

  // The escape word follows everything else. The test is on the caller's fixed word count
  // (unsigned, so a count below 1 cannot sneak past it).
  if (fixed_words - 1 > 8) store_word(words, size, escapes, &position);

  finish_record(handle, words, first, length, trace_point, escapes);
}

// ---- Records of a known layout: the non-variadic entries -------------------------------------

// A string of a record without a signature walk: its text (null stands for "(null)"), its length
// in bytes without the NUL (the caller knows it once, so nothing measures it again) and the
// number of numeric words of the record that precede it. Same layout as the public
// quarry_string.
struct record_string {
  const char* text;
  uint32_t length;
  uint32_t words_before;
};

// The most words and strings a layout may have: what a 32-character signature of quarry_internal
// can produce (32 'D' arguments, 32 strings). Larger counts are cut to these.
constexpr uint32_t kMaxLayoutWords = 2 * kMaxSignatureChars;
constexpr uint32_t kMaxLayoutStrings = kMaxSignatureChars;

// Stores the words of a record from position `position` on: the timestamp, the thread word, the
// numeric words with the strings between them where they belong, and the escape word from six
// numeric words on; returns the escape flags. With Wraps false the caller has checked that the
// record does not cross the end of the ring, so no store tests its position (one check per
// record instead of one per word); with Wraps true every store wraps as store_word does. With
// Escapes false every word is stored as it is and the result is the largest word stored: when
// that is above kEscapeThreshold, the caller stores the record again with Escapes true (nothing
// reads the words before the header is written).
template <bool Wraps, bool Escapes>
__attribute__((always_inline)) inline uint32_t store_layout(
    ring_cell* words, uint32_t size, uint32_t position, uint64_t timestamp, uint32_t thread,
    const uint32_t* values, uint32_t count, const record_string* strings,
    const uint32_t* string_bytes, uint32_t string_count) {
  uint32_t escapes = 0;
  uint32_t top = 0;
  uint32_t bit = 0;
  auto put = [&](uint32_t value) {
    if (Wraps && position >= size) position = 0;
    if (!Escapes) {
      words[position++].store(value, std::memory_order_relaxed);
      top = top > value ? top : value;
      return;
    }
    const uint32_t escaped = value > kEscapeThreshold ? 1u : 0u;
    words[position++].store(value ^ (escaped << 31), std::memory_order_relaxed);
    if (bit < kMaxFlagBits) escapes |= escaped << bit;
    ++bit;
  };
  put(static_cast<uint32_t>(timestamp >> 32));
  put(static_cast<uint32_t>(timestamp));
  put(thread);
  // Each string after the numeric words that come before it (strings given out of order, or
  // after more words than there are, still take exactly their reserved words).
  uint32_t next = 0;
  for (uint32_t s = 0; s < string_count; ++s) {
    for (; next < strings[s].words_before && next < count; ++next) put(values[next]);
    const char* text = strings[s].text;
    copy_string<Wraps>(words, size, text != nullptr ? text : "(null)", string_bytes[s], &position);
  }
  for (; next < count; ++next) put(values[next]);
  // The escape word, with no flag of its own: the same rule as quarry_internal's fixed word
  // count of 11 or more.
  if (count >= 6) {
    if (Wraps && position >= size) position = 0;
    const uint32_t escaped = escapes > kEscapeThreshold ? kEscapeBit : 0u;
    words[position].store(escapes ^ escaped, std::memory_order_relaxed);
  }
  return Escapes ? escapes : top;
}

// Writes one record through `handle` (enabled, not null) from numeric words in signature order
// ('D' values already split, high word first) and strings placed among them. The words are
// byte for byte those quarry_internal writes for the matching signature and values. Inlined
// into each entry, where constant counts fold the loops away.
template <class Clock, class ThreadWord>
__attribute__((always_inline)) inline void write_layout_record(
    quarry_handle* handle, uint32_t trace_point, const uint32_t* values, uint32_t count,
    const record_string* strings, uint32_t string_count, Clock&& clock, ThreadWord&& thread_word) {
  // The clock and the thread word first: across their calls only the arguments stay live, not
  // the buffer's state, so the entry saves fewer registers. A record's timestamp is then taken
  // just before its reservation instead of just after; between threads the two orders allow the
  // same small disorder of timestamps against positions, and one thread's records stay in order.
  const uint64_t now = clock();
  const uint32_t thread = thread_word();
  if (count > kMaxLayoutWords) count = kMaxLayoutWords;
  if (string_count > kMaxLayoutStrings) string_count = kMaxLayoutStrings;
  circular_buffer* cb = handle->cb;
  uint32_t length = kFixedWordsWithoutArgs + count + (count >= 6 ? 1 : 0);
  uint32_t string_bytes[kMaxLayoutStrings];
  // Strings are cut to fit the ring loaded here; the record goes into the one loaded after the
  // reservation (reserve_record), which every wrapping store keeps safe whatever its size.
  const ring_view sizing = string_count != 0 ? load_ring(cb) : ring_view{};
  for (uint32_t s = 0; s < string_count; ++s) {
    // The length the caller knows, with the same cut as quarry_internal's measure (no string
    // beyond four bytes per ring word is read, and none makes the record exceed the ring).
    uint64_t chars = strings[s].text != nullptr ? strings[s].length : 6;
    if (chars > 4ull * sizing.size_words) chars = 4ull * sizing.size_words;
    uint32_t bytes = static_cast<uint32_t>(chars) + 1;
    uint32_t room_words = sizing.size_words > length ? sizing.size_words - length : 0;
    if ((bytes + 3) / 4 > room_words) bytes = room_words * 4;
    string_bytes[s] = bytes;
    length += (bytes + 3) / 4;
  }

  const reservation r = reserve_record(cb, length, [now] { return now; });
  const ring_view ring = r.ring;
  uint32_t escapes;
  if (r.first + length <= ring.size_words) {
    // The common record: within the ring and without a word to escape (negative numbers and
    // some thread words are the exceptions), stored without a per-word test.
    const uint32_t top =
        store_layout<false, false>(ring.buffer, ring.size_words, r.first + 1, r.timestamp, thread,
                                   values, count, strings, string_bytes, string_count);
    escapes = 0;
    if (__builtin_expect(top > kEscapeThreshold, 0)) {
      escapes =
          store_layout<false, true>(ring.buffer, ring.size_words, r.first + 1, r.timestamp, thread,
                                    values, count, strings, string_bytes, string_count);
    }
  } else {
    escapes = store_layout<true, true>(ring.buffer, ring.size_words, r.first + 1, r.timestamp,
                                       thread, values, count, strings, string_bytes, string_count);
  }
  finish_record(handle, ring.buffer, r.first, length, trace_point, escapes);
}

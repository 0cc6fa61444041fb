// A decoded trace record and the counters of one decoding run. Thread contract: plain values.
// A Record borrows its arguments and strings from the decoder and the words it decoded; they
// stay valid only until the decoder is called again (copy them to keep them).
#pragma once

#include <stdint.h>

#include <string_view>

namespace quarry_decode {

struct PointInfo;
struct SourceInfo;

// One argument. 'd' and 'D' hold the restored value; 's' a string (without its NUL); 'w' a
// word of a record whose signature is unknown, as stored.
struct ArgValue {
  char type = 'd';
  uint64_t number = 0;
  std::string_view text;
};

struct Record {
  const SourceInfo* source = nullptr;
  const PointInfo* info = nullptr;  // null when no handle's range holds the ID
  uint32_t id = 0;
  uint64_t timestamp = 0;  // as written, sequence bits included
  uint64_t mono_ns = 0;    // CLOCK_MONOTONIC nanoseconds: timestamp without the TS_IDX_MSK bits
  uint64_t sequence = 0;   // the TS_IDX_MSK bits of the timestamp
  uint32_t thread = 0;     // low 32 bits of the writer's pthread_self
  bool raw = false;        // no signature known: args are the stored words after the thread word
  const ArgValue* args = nullptr;
  uint32_t arg_count = 0;
  uint64_t offset = 0;  // word offset of the header word in the walked data
  uint32_t length = 0;  // words
  // Span matching (a span's end record whose begin was seen): when the span began, and the
  // number the matcher gave its begin record (begin records carry their own number).
  bool span_matched = false;
  uint64_t span_begin_ns = 0;
  uint64_t span_id = 0;
};

// What one walk over a trace file's data or a stream found.
struct DecodeStats {
  uint64_t records = 0;        // records decoded (shown)
  uint64_t raw_records = 0;    // of those, shown raw (no signature)
  uint64_t rejected = 0;       // header words whose record did not fit its signature
  uint64_t skipped_words = 0;  // words that belong to no decoded record
  uint64_t seam_words = 0;     // of those, the partly overwritten record at the oldest end
  uint64_t record_words = 0;   // words of the decoded records
  uint64_t first_mono_ns = 0;  // time span of the decoded records
  uint64_t last_mono_ns = 0;
  // Time range around the damaged data: from the last good record before the first damage
  // to the first good record after the last damage; open ends are marked.
  bool damage = false;
  bool damage_from_start = false;
  bool damage_to_end = false;
  uint64_t damage_from_ns = 0;
  uint64_t damage_to_ns = 0;
  // Span halves without their partner: ends whose begin was overwritten or lies before the
  // data, begins still open at the end (in flight at the dump or crash).
  uint64_t span_ends_unmatched = 0;
  uint64_t spans_open = 0;
};

}  // namespace quarry_decode

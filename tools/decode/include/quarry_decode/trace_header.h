// The text header of a trace file or pipe stream: scanning for its end (which THREAD lines cut
// at 63 characters make irregular) and parsing every item. Thread contract: plain values and
// pure functions; no shared state.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace quarry_decode {

// One QUARRY_DECODE_REF line: the handle's full name, its decode file as written, the ID range
// (empty when last_id < first_id) and the tag.
struct DecodeRef {
  std::string handle;
  std::string decode_file;
  int64_t first_id = 0;
  int64_t last_id = -1;
  std::string tag;
};

// One THREAD line. A line cut at 63 characters has no line end and may have lost the end of
// its thread ID (or all of it): `cut` is set and `id_text` holds the digits that survived.
struct ThreadLine {
  std::string name;
  std::string id_text;
  int32_t id = 0;
  bool id_valid = false;
  bool cut = false;
};

// Every item of the header. Numbers are as printed (hex keys already converted); `present`
// tells which single keys were seen.
struct TraceHeader {
  enum Key : uint32_t {
    kVersion = 1u << 0,
    kWallTimeSec = 1u << 1,
    kWallTimeUsec = 1u << 2,
    kClockTimeSec = 1u << 3,
    kClockTimeNsec = 1u << 4,
    kNodeId = 1u << 5,
    kProcessId = 1u << 6,
    kArgv0 = 1u << 7,
    kTsIdxMsk = 1u << 8,
    kTsRes = 1u << 9,
    kWallTimeZSec = 1u << 10,
    kWallTimeZUsec = 1u << 11,
    kClockTimeZSec = 1u << 12,
    kClockTimeZNsec = 1u << 13,
    kCreationTime = 1u << 14,
    kWraparoundTime = 1u << 15,
    kWraparoundCount = 1u << 16,
    kEntryCount = 1u << 17,
    kBufferSize = 1u << 18,
    kWordCount = 1u << 19,
    kMinWraparoundTime = 1u << 20,
    kMaxWraparoundTime = 1u << 21,
    kProgName = 1u << 22,
    kSignalingPid = 1u << 23,
    kSignal = 1u << 24,
  };
  static constexpr uint32_t kAlphaKeys =
      kWallTimeSec | kWallTimeUsec | kClockTimeSec | kClockTimeNsec;
  static constexpr uint32_t kOmegaKeys =
      kWallTimeZSec | kWallTimeZUsec | kClockTimeZSec | kClockTimeZNsec;

  uint32_t present = 0;
  std::string version;
  uint64_t wall_time_sec = 0, wall_time_usec = 0, clock_time_sec = 0, clock_time_nsec = 0;
  uint32_t node_id = 0;
  int32_t process_id = 0;
  std::string argv0;
  uint64_t ts_idx_mask = 0, ts_res = 0;
  uint64_t wall_time_z_sec = 0, wall_time_z_usec = 0, clock_time_z_sec = 0, clock_time_z_nsec = 0;
  uint64_t creation_time = 0, wraparound_time = 0;
  uint32_t wraparound_count = 0, entry_count = 0, buffer_size = 0, word_count = 0;
  uint64_t min_wraparound_time = ~0ull, max_wraparound_time = 0;
  std::string prog_name;
  std::vector<DecodeRef> decode_refs;
  std::vector<ThreadLine> threads;
  // Termination reason: the values were printed as unsigned 64-bit of sign-extended 32-bit
  // numbers; they are narrowed back here.
  int32_t signaling_pid = 0, signal = 0;
  // PARENT_PID of a forked child's files, as written ("" when absent).
  std::string parent_pid;
  // Keys this decoder does not know, in file order (kept for --summary).
  std::vector<std::pair<std::string, std::string>> unknown_items;
  // Things that are odd but do not stop decoding (a repeated key, a minor version, ...).
  std::vector<std::string> warnings;

  bool has(uint32_t keys) const { return (present & keys) == keys; }
};

// Finds where the header ends. Items are lines, except that a THREAD item without a line end
// within its first 63 characters is exactly 63 characters long and the next item follows on
// the same line. The header ends with an empty line; the data begins at the next multiple of 4
// (counted from `bytes`' first byte) after it.
struct HeaderExtent {
  bool complete = false;   // the empty line was found
  size_t text_end = 0;     // offset just after the empty line
  size_t data_offset = 0;  // text_end rounded up to a multiple of 4
};

class HeaderScanner {
 public:
  // Scans `bytes` (the whole prefix received so far, always from the first header byte) from
  // where the last call stopped. Throws DecodeError as soon as the bytes cannot be a header
  // (a key with characters other than A-Z, 0-9 and '_', a line without a space, a header
  // longer than kMaxHeaderBytes).
  HeaderExtent scan(std::string_view bytes);

  static constexpr size_t kMaxHeaderBytes = 64u << 20;
  static constexpr size_t kThreadItemMax = 63;

 private:
  size_t next_item_ = 0;
  size_t line_ = 1;
};

// Parses a complete header (bytes up to HeaderExtent::text_end). Throws DecodeError with the
// line number for a malformed item, a format VERSION other than 1.x, or a bad number.
TraceHeader parse_trace_header(std::string_view text);

}  // namespace quarry_decode

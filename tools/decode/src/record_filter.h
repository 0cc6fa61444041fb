// Choosing which records are shown: --handle, --point, --thread, --begin, --end and --last.
// Internal to quarry_decode. Thread contract: a filter belongs to one output, on one thread.
#pragma once

#include <stdint.h>

#include <string>
#include <unordered_map>
#include <vector>

#include "quarry_decode/record.h"

namespace quarry_decode {

// A point in time as a user writes it (docs/decode-output.md, "Choosing records").
struct TimeSpec {
  enum class Kind { kNone, kWall, kMonotonic, kAfterStart, kBeforeDump };
  Kind kind = Kind::kNone;
  int64_t ns = 0;  // wall: since the epoch; monotonic: CLOCK_MONOTONIC; relative: a duration
};

// Parsing; each returns "" or what is wrong. Wall-clock times are local unless `utc` (or a
// trailing Z).
std::string parse_duration(const std::string& text, int64_t* ns);
std::string parse_time(const std::string& text, bool utc, TimeSpec* out);

struct FilterOptions {
  std::vector<std::string> handles;  // glob patterns on the handle name
  std::vector<std::string> points;   // glob patterns on the trace point name or handle:name
  std::vector<std::string> threads;  // a thread name or its ID in decimal
  TimeSpec begin, end;

  bool any() const {
    return !handles.empty() || !points.empty() || !threads.empty() ||
           begin.kind != TimeSpec::Kind::kNone || end.kind != TimeSpec::Kind::kNone;
  }
};

class RecordFilter {
 public:
  explicit RecordFilter(FilterOptions options) : options_(std::move(options)) {}
  bool accept(const Record& record);
  // Inputs for which a time bound could not be applied (no wall clock, no dump time), each
  // once: "<input>: <why>".
  std::vector<std::string> take_notes();

 private:
  struct Bounds {
    bool has_begin = false, has_end = false;
    int64_t begin = 0, end = 0;  // in the source's time key (wall where known)
  };
  const Bounds& bounds_for(const Record& record);
  bool time_bound(const Record& record, const TimeSpec& spec, int64_t* out);

  FilterOptions options_;
  bool have_start_ = false;
  int64_t start_key_ = 0;  // time key of the first record seen
  std::unordered_map<const SourceInfo*, Bounds> bounds_;
  std::vector<std::string> notes_;
};

// The time by which records of different inputs compare: wall-clock nanoseconds where the
// input knows the wall clock, else CLOCK_MONOTONIC nanoseconds.
int64_t time_key(const Record& record);

}  // namespace quarry_decode

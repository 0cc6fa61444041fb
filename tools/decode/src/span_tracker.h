// Matching the begin and end records of spans (decode-file markers @begin:<span> and
// @end:<span>): per process and thread a stack of open spans; an end closes the innermost
// open span of its name. Internal to quarry_decode. Thread contract: one tracker per output,
// on one thread.
#pragma once

#include <stdint.h>

#include <string>
#include <unordered_map>
#include <vector>

#include "quarry_decode/record.h"

namespace quarry_decode {

class SpanTracker {
 public:
  // Numbers a begin record, or matches an end record with its begin (setting span_matched,
  // span_begin_ns and span_id). Records without a span marker pass unchanged.
  void on_record(Record& record);

  // Adds the unmatched halves to each source's stats: ends counted as they came, begins still
  // open now. Called once, after the last record.
  void finish();

 private:
  struct Open {
    const std::string* name;
    const SourceInfo* source;
    uint64_t begin_ns;
    uint64_t id;
  };
  std::unordered_map<uint64_t, std::vector<Open>> open_;  // process id << 32 | thread word
  std::unordered_map<const SourceInfo*, uint64_t> unmatched_ends_;
  uint64_t next_id_ = 1;
};

}  // namespace quarry_decode

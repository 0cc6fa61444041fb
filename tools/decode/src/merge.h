// Merging the records of several trace files into one time order. Records of one process
// (same process ID and clock pair) compare by their CLOCK_MONOTONIC timestamps, records of
// different processes by wall-clock time; ties go by the timestamp's index bits, then by input
// and position. Internal to quarry_decode. Thread contract: one merger per run, one thread.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

#include "quarry_decode/record_decoder.h"

namespace quarry_decode {

class Merger {
 public:
  // The sink that collects the records of input number `input` (inputs in order, each once).
  RecordSink& input(uint32_t input);
  // Passes every collected record to `sink` in time order.
  void replay(RecordSink& sink);

 private:
  class Collector;
  // A record as kept until replay, without what can be derived again (the times from the
  // timestamp, the arguments' views): about a third of a Record.
  struct Stored {
    const SourceInfo* source;
    const PointInfo* info;
    uint64_t timestamp;
    uint64_t offset;
    uint64_t first_arg;
    uint32_t thread;
    uint32_t length;
    uint32_t arg_count;
    uint16_t id;
    bool raw;
  };
  struct Arg {
    uint64_t number;  // 's': the text's offset in strings_
    uint32_t length;
    char type;
  };
  struct Key {
    int64_t time;
    uint64_t sequence;
    uint32_t input;
    uint32_t index;  // in `records_`, which follows each input's own order
  };
  void add(uint32_t input, const Record& record);

  std::vector<Stored> records_;
  std::vector<Key> keys_;
  std::vector<Arg> args_;
  std::string strings_;  // string arguments (records of a file borrow a chunk buffer)
  std::vector<std::unique_ptr<RecordSink>> collectors_;
};

}  // namespace quarry_decode

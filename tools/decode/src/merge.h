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
  struct Stored {
    Record record;
    size_t first_arg;
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
  std::vector<ArgValue> args_;
  // String arguments are copied here (records of a file borrow a chunk buffer); args_ hold
  // offsets into it until replay() points them at their text.
  std::string strings_;
  std::vector<std::unique_ptr<RecordSink>> collectors_;
};

}  // namespace quarry_decode

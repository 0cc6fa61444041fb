// Everything known about one input (a trace file or a pipe stream): its header, the meaning of
// its IDs, its thread names, its clock and the counters of its decoding. Thread contract: used
// by one decoding thread.
#pragma once

#include <string>

#include "quarry_decode/catalog.h"
#include "quarry_decode/record.h"
#include "quarry_decode/thread_names.h"
#include "quarry_decode/time_base.h"
#include "quarry_decode/trace_header.h"

namespace quarry_decode {

struct SourceInfo {
  std::string name;  // the path given, or "-" for standard input
  bool is_stream = false;
  TraceHeader header;
  Catalog catalog;
  ThreadNames threads;
  TimeBase time;
  DecodeStats stats;
  // Trace files only: the data words the header announces and those the file holds.
  uint64_t expected_words = 0;
  uint64_t file_words = 0;
  bool wrapped = false;

  SourceInfo() = default;
  // Builds the catalog (loading decode files through `cache`), thread names and clock.
  SourceInfo(std::string source_name, TraceHeader parsed, DecodeFileCache& cache)
      : name(std::move(source_name)),
        header(std::move(parsed)),
        catalog(header, cache),
        threads(header.threads),
        time(header) {}
};

}  // namespace quarry_decode

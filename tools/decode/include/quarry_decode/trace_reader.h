// Reading a trace file: its header, and its data words put in time order (a wrapped buffer
// begins at the write position). Thread contract: plain values; the functions share nothing.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "quarry_decode/decode_file.h"
#include "quarry_decode/record_decoder.h"
#include "quarry_decode/source.h"

namespace quarry_decode {

struct TraceData {
  // Heap-held: records point to it, so it must not move.
  std::unique_ptr<SourceInfo> source;
  // The valid words, oldest first. A complete file gives one piece; a truncated wrapped file
  // may give two, with a gap between them.
  std::vector<uint32_t> words;
  std::vector<size_t> piece_starts;  // offsets in `words` where a piece begins at a seam
  bool starts_at_seam = false;
  uint64_t upper_bound_ns = 0;  // latest plausible record time (0: none)
  // What is wrong with the file (truncated, stray bytes): shown, and the exit status fails.
  std::vector<std::string> problems;
  // Oddities that do not make the input bad (header warnings, words past WORD_COUNT).
  std::vector<std::string> notes;
};

// Parses the bytes of a whole trace file. Throws DecodeError when the header cannot be read
// or announces no data layout. Decode files are loaded through `cache`.
TraceData read_trace_bytes(std::string_view bytes, const std::string& name, DecodeFileCache& cache);
// The same for a file on disk; throws DecodeError when it cannot be read.
TraceData read_trace_file(const std::string& path, DecodeFileCache& cache);

// Decodes every record of `data` in order into `sink`, counting into data.source->stats.
void decode_trace(TraceData& data, RecordSink& sink);

// Slack allowed for records written while the dump ran, after the dump's time sample.
constexpr uint64_t kDumpSlackNs = 60ull * 1000000000ull;

}  // namespace quarry_decode

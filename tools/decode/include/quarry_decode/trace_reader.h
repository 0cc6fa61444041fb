// Reading a trace file: its header, and where its data words lie in time order (a wrapped
// buffer begins at the write position). A file on disk is read in bounded chunks while it is
// decoded, so memory stays small whatever its size. Thread contract: plain values; the
// functions share nothing.
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

// A run of data words, in words from the start of the data section. A piece that follows a
// gap (a truncated wrapped file) may begin inside a record.
struct DataPiece {
  uint64_t first = 0;
  uint64_t count = 0;
  bool after_gap = false;
};

// An open trace file whose data is read on demand (closed with the TraceData).
class DataFile {
 public:
  DataFile(int fd, uint64_t data_offset) : fd_(fd), data_offset_(data_offset) {}
  ~DataFile();
  DataFile(const DataFile&) = delete;
  DataFile& operator=(const DataFile&) = delete;
  // Reads `count` words starting at word `first` of the data into `out`; false when the file
  // ended early (it shrank after it was opened) or cannot be read.
  bool read(uint64_t first, uint64_t count, uint32_t* out) const;

 private:
  int fd_;
  uint64_t data_offset_;
};

struct TraceData {
  // Heap-held: records point to it, so it must not move.
  std::unique_ptr<SourceInfo> source;
  // Bytes given in memory (read_trace_bytes): the valid words, oldest first. A complete file
  // gives one piece; a truncated wrapped file may give two, with a gap between them.
  std::vector<uint32_t> words;
  std::vector<size_t> piece_starts;  // offsets in `words` where a piece begins at a seam
  // A file on disk (read_trace_file): `words` stays empty; `pieces` say what to read, oldest
  // first.
  std::unique_ptr<DataFile> file;
  std::vector<DataPiece> pieces;
  bool starts_at_seam = false;
  uint64_t upper_bound_ns = 0;  // latest plausible record time (0: none)
  // What is wrong with the file (truncated, stray bytes): shown, and the exit status fails.
  // decode_trace adds to it when the file changes while it is read.
  std::vector<std::string> problems;
  // Oddities that do not make the input bad (header warnings, words past WORD_COUNT).
  std::vector<std::string> notes;
};

// Parses the bytes of a whole trace file. Throws DecodeError when the header cannot be read
// or announces no data layout. Decode files are loaded through `cache`.
TraceData read_trace_bytes(std::string_view bytes, const std::string& name, DecodeFileCache& cache);
// The same for a file on disk, which must be a regular file; only its header is read here.
// Throws DecodeError when it cannot be opened or read.
TraceData read_trace_file(const std::string& path, DecodeFileCache& cache);

// Decodes every record of `data` in order into `sink`, counting into data.source->stats.
// Records of a file on disk borrow a chunk buffer: copy what must outlive on_record.
void decode_trace(TraceData& data, RecordSink& sink);

// Slack allowed for records written while the dump ran, after the dump's time sample.
constexpr uint64_t kDumpSlackNs = 60ull * 1000000000ull;

}  // namespace quarry_decode

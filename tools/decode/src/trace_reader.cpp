// Reading whole trace files: header, data layout, time order of the ring, truncation. Runs on
// the decoding thread; shares no state.
#include "quarry_decode/trace_reader.h"

#include <errno.h>
#include <string.h>

#include <fstream>
#include <sstream>

#include "quarry_decode/error.h"

namespace quarry_decode {
namespace {

std::string plural(uint64_t n, const char* word) {
  return std::to_string(n) + " " + word + (n == 1 ? "" : "s");
}

void append_words(std::vector<uint32_t>& out, std::string_view data, size_t from, size_t to) {
  if (to <= from) return;
  size_t old = out.size();
  out.resize(old + (to - from));
  memcpy(out.data() + old, data.data() + from * 4, (to - from) * 4);
}

}  // namespace

TraceData read_trace_bytes(std::string_view bytes, const std::string& name,
                           DecodeFileCache& cache) {
  HeaderScanner scanner;
  HeaderExtent extent = scanner.scan(bytes);
  if (!extent.complete) {
    throw DecodeError(bytes.empty() ? std::string("the file is empty")
                                    : "the header ends before its empty line (truncated file)");
  }
  TraceHeader header = parse_trace_header(bytes.substr(0, extent.text_end));
  if (!header.has(TraceHeader::kBufferSize | TraceHeader::kWordCount)) {
    throw DecodeError(
        "the header has no BUFFER_SIZE or WORD_COUNT, so its data cannot be laid out (a saved "
        "pipe stream? use --stream)");
  }

  TraceData data;
  data.notes = header.warnings;
  const uint64_t size = header.buffer_size;
  const uint64_t count = header.word_count;
  if (size != 0 && (size & (size - 1)) != 0) {
    data.notes.push_back("BUFFER_SIZE " + std::to_string(size) + " is not a power of two");
  }
  std::string_view payload;
  if (extent.data_offset <= bytes.size()) {
    std::string_view fill = bytes.substr(extent.text_end, extent.data_offset - extent.text_end);
    if (fill.find_first_not_of(' ') != std::string_view::npos) {
      data.notes.push_back("the fill after the header is not spaces");
    }
    payload = bytes.substr(extent.data_offset);
  }
  const uint64_t file_words = payload.size() / 4;
  const bool wrapped = size != 0 && count >= size;
  const uint64_t expected = wrapped ? size : count;
  if (size == 0 && count != 0) {
    data.problems.push_back("BUFFER_SIZE is 0 but WORD_COUNT is " + std::to_string(count));
  }
  if (file_words < expected) {
    data.problems.push_back("truncated: the header announces " + plural(expected, "data word") +
                            ", the file holds " + std::to_string(file_words));
  } else if (payload.size() > expected * 4) {
    // A dump reads its counters before it writes the data; writers that went on meanwhile
    // leave words past WORD_COUNT. They are outside the announced data and not decoded.
    data.notes.push_back(plural(payload.size() - expected * 4, "byte") +
                         " past the announced data (written during the dump?) were not decoded");
  }
  const uint64_t have = file_words < expected ? file_words : expected;

  if (wrapped) {
    // The oldest word is at the write position; the data runs from there to the end of the
    // buffer and on from position 0 up to the write position.
    const uint64_t start = count % size;
    if (start < have) {
      append_words(data.words, payload, start, have);
      if (have < size) data.piece_starts.push_back(data.words.size());  // gap: the lost end
      append_words(data.words, payload, 0, start);
    } else {
      append_words(data.words, payload, 0, have);  // the oldest part is missing
    }
    data.starts_at_seam = true;
  } else {
    append_words(data.words, payload, 0, have);
    // WORD_COUNT restarted below BUFFER_SIZE after passing 2^32 (or the buffer grew): position
    // 0 may hold the tail of a record that crossed the end.
    data.starts_at_seam = header.wraparound_count != 0;
  }

  data.source = std::make_unique<SourceInfo>(name, std::move(header), cache);
  SourceInfo& source = *data.source;
  source.expected_words = expected;
  source.file_words = file_words;
  source.wrapped = wrapped;
  if (source.time.has_omega()) data.upper_bound_ns = source.time.omega_mono_ns() + kDumpSlackNs;
  return data;
}

TraceData read_trace_file(const std::string& path, DecodeFileCache& cache) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw DecodeError(std::string("cannot open: ") + strerror(errno));
  std::ostringstream text;
  text << in.rdbuf();
  if (in.bad()) throw DecodeError(std::string("cannot read: ") + strerror(errno));
  return read_trace_bytes(text.str(), path, cache);
}

void decode_trace(TraceData& data, RecordSink& sink) {
  RecordDecoder::Checks checks;
  checks.upper_bound_ns = data.upper_bound_ns;
  checks.successor_is_header = true;
  RecordWalker walker(*data.source, checks, data.starts_at_seam);
  size_t from = 0;
  for (size_t piece = 0; piece <= data.piece_starts.size(); ++piece) {
    size_t to = piece < data.piece_starts.size() ? data.piece_starts[piece] : data.words.size();
    if (piece > 0) walker.restart_at_seam();
    walker.walk(data.words.data() + from, to - from, true, sink);
    from = to;
  }
  walker.finish();
}

}  // namespace quarry_decode

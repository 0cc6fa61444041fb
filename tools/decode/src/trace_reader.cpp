// Reading trace files: header, data layout, time order of the ring, truncation, and the
// bounded-chunk reading of the data while it is decoded. Runs on the decoding thread; shares
// no state.
#include "quarry_decode/trace_reader.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "quarry_decode/error.h"

namespace quarry_decode {
namespace {

std::string plural(uint64_t n, const char* word) {
  return std::to_string(n) + " " + word + (n == 1 ? "" : "s");
}

// Words read per chunk from a file: large enough that the per-chunk cost vanishes, small
// enough that memory stays flat.
constexpr size_t kChunkWords = 256 * 1024;

// Parses the header at the start of `head` and lays out the data, whose size in bytes is
// `payload_bytes` (it follows the header at extent.data_offset).
TraceData lay_out(std::string_view head, const HeaderExtent& extent, uint64_t payload_bytes,
                  const std::string& name, DecodeFileCache& cache) {
  TraceHeader header = parse_trace_header(head.substr(0, extent.text_end));
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
  const size_t fill_end = extent.data_offset < head.size() ? extent.data_offset : head.size();
  if (head.substr(extent.text_end, fill_end - extent.text_end).find_first_not_of(' ') !=
      std::string_view::npos) {
    data.notes.push_back("the fill after the header is not spaces");
  }
  const uint64_t file_words = payload_bytes / 4;
  const bool wrapped = size != 0 && count >= size;
  const uint64_t expected = wrapped ? size : count;
  if (size == 0 && count != 0) {
    data.problems.push_back("BUFFER_SIZE is 0 but WORD_COUNT is " + std::to_string(count));
  }
  if (file_words < expected) {
    data.problems.push_back("truncated: the header announces " + plural(expected, "data word") +
                            ", the file holds " + std::to_string(file_words));
  } else if (payload_bytes > expected * 4) {
    // A dump reads its counters before it writes the data; writers that went on meanwhile
    // leave words past WORD_COUNT. They are outside the announced data and not decoded.
    data.notes.push_back(plural(payload_bytes - expected * 4, "byte") +
                         " past the announced data (written during the dump?) were not decoded");
  }
  const uint64_t have = file_words < expected ? file_words : expected;
  if (wrapped) {
    // The oldest word is at the write position; the data runs from there to the end of the
    // buffer and on from position 0 up to the write position.
    const uint64_t start = count % size;
    if (start < have) {
      data.pieces.push_back(DataPiece{start, have - start, false});
      data.pieces.push_back(DataPiece{0, start, have < size});  // a gap: the lost end
    } else {
      data.pieces.push_back(DataPiece{0, have, false});  // the oldest part is missing
    }
    data.starts_at_seam = true;
  } else {
    data.pieces.push_back(DataPiece{0, have, false});
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

class Fd {
 public:
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd() {
    if (fd_ >= 0) close(fd_);
  }
  int get() const { return fd_; }
  int release() {
    int fd = fd_;
    fd_ = -1;
    return fd;
  }

 private:
  int fd_;
};

// Reads up to `size` bytes at `offset`; fewer only at the end of the file.
ssize_t read_at(int fd, void* out, size_t size, uint64_t offset) {
  size_t done = 0;
  while (done < size) {
    ssize_t got =
        pread(fd, static_cast<char*>(out) + done, size - done, static_cast<off_t>(offset + done));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return -1;
    if (got == 0) break;
    done += static_cast<size_t>(got);
  }
  return static_cast<ssize_t>(done);
}

}  // namespace

DataFile::~DataFile() {
  close(fd_);
}

bool DataFile::read(uint64_t first, uint64_t count, uint32_t* out) const {
  const size_t bytes = static_cast<size_t>(count * 4);
  return read_at(fd_, out, bytes, data_offset_ + first * 4) == static_cast<ssize_t>(bytes);
}

TraceData read_trace_bytes(std::string_view bytes, const std::string& name,
                           DecodeFileCache& cache) {
  HeaderScanner scanner;
  HeaderExtent extent = scanner.scan(bytes);
  if (!extent.complete) {
    throw DecodeError(bytes.empty() ? std::string("the file is empty")
                                    : "the header ends before its empty line (truncated file)");
  }
  const uint64_t payload =
      bytes.size() > extent.data_offset ? bytes.size() - extent.data_offset : 0;
  TraceData data = lay_out(bytes, extent, payload, name, cache);
  for (const DataPiece& piece : data.pieces) {
    if (piece.after_gap) data.piece_starts.push_back(data.words.size());
    const size_t old = data.words.size();
    data.words.resize(old + piece.count);
    memcpy(data.words.data() + old, bytes.data() + extent.data_offset + piece.first * 4,
           piece.count * 4);
  }
  data.pieces.clear();
  return data;
}

// The file is opened without blocking (a FIFO put in its place must not hang the decoder)
// and must be a regular file; only the header is read now.
TraceData read_trace_file(const std::string& path, DecodeFileCache& cache) {
  Fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (fd.get() < 0) throw DecodeError(std::string("cannot open: ") + strerror(errno));
  struct stat st;
  if (fstat(fd.get(), &st) != 0) throw DecodeError(std::string("cannot read: ") + strerror(errno));
  if (!S_ISREG(st.st_mode)) throw DecodeError("not a regular file");
  const uint64_t file_size = static_cast<uint64_t>(st.st_size);
  std::string head;
  HeaderScanner scanner;
  HeaderExtent extent;
  for (size_t want = 64 * 1024;; want *= 2) {
    const size_t old = head.size();
    head.resize(want);
    ssize_t got = read_at(fd.get(), &head[old], want - old, old);
    if (got < 0) throw DecodeError(std::string("cannot read: ") + strerror(errno));
    head.resize(old + static_cast<size_t>(got));
    extent = scanner.scan(head);  // throws for what cannot be a header, also when too long
    if (extent.complete || head.size() < want) break;
  }
  if (!extent.complete) {
    throw DecodeError(head.empty() ? std::string("the file is empty")
                                   : "the header ends before its empty line (truncated file)");
  }
  const uint64_t payload = file_size > extent.data_offset ? file_size - extent.data_offset : 0;
  TraceData data = lay_out(head, extent, payload, path, cache);
  data.file = std::make_unique<DataFile>(fd.release(), extent.data_offset);
  return data;
}

namespace {

// Walks the pieces of a file on disk through a chunk buffer. Words of a piece that continues
// the previous one (the ring's end and its start) are walked as one run, so a record that
// crossed the end of the buffer is whole; after a gap the walk restarts at a seam.
void decode_file_pieces(TraceData& data, RecordWalker& walker, RecordSink& sink) {
  std::vector<uint32_t> buffer;
  buffer.reserve(kChunkWords * 2);
  size_t next = 0;  // first word of `buffer` not consumed
  for (size_t p = 0; p < data.pieces.size(); ++p) {
    const DataPiece& piece = data.pieces[p];
    if (piece.after_gap) {
      walker.walk(buffer.data() + next, buffer.size() - next, true, sink);
      walker.restart_at_seam();
      buffer.clear();
      next = 0;
    }
    for (uint64_t at = 0; at < piece.count;) {
      const size_t n =
          static_cast<size_t>(piece.count - at < kChunkWords ? piece.count - at : kChunkWords);
      // Keep only the words not consumed yet (at most the record in progress).
      if (next > 0) {
        buffer.erase(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(next));
        next = 0;
      }
      const size_t old = buffer.size();
      buffer.resize(old + n);
      if (!data.file->read(piece.first + at, n, buffer.data() + old)) {
        buffer.resize(old);
        data.problems.push_back("the file changed while it was read (it is shorter now)");
        walker.walk(buffer.data() + next, buffer.size() - next, true, sink);
        return;
      }
      at += n;
      next += walker.walk(buffer.data() + next, buffer.size() - next, false, sink);
    }
  }
  walker.walk(buffer.data() + next, buffer.size() - next, true, sink);
}

}  // namespace

void decode_trace(TraceData& data, RecordSink& sink) {
  RecordDecoder::Checks checks;
  checks.upper_bound_ns = data.upper_bound_ns;
  checks.successor_is_header = true;
  RecordWalker walker(*data.source, checks, data.starts_at_seam);
  if (data.file) {
    decode_file_pieces(data, walker, sink);
  } else {
    size_t from = 0;
    for (size_t piece = 0; piece <= data.piece_starts.size(); ++piece) {
      size_t to = piece < data.piece_starts.size() ? data.piece_starts[piece] : data.words.size();
      if (piece > 0) walker.restart_at_seam();
      walker.walk(data.words.data() + from, to - from, true, sink);
      from = to;
    }
  }
  walker.finish();
}

}  // namespace quarry_decode

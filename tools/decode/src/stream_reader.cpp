// Incremental decoding of pipe streams. One instance per stream on one thread.
#include "quarry_decode/stream_reader.h"

#include <string.h>

#include "quarry_decode/error.h"

namespace quarry_decode {

StreamDecoder::StreamDecoder(std::string name, DecodeFileCache& cache, RecordSink& sink,
                             std::function<void(SourceInfo&)> on_header)
    : name_(std::move(name)), cache_(cache), sink_(sink), on_header_(std::move(on_header)) {}

void StreamDecoder::feed(const char* data, size_t size) {
  if (source_) {
    add_data(data, size);
    return;
  }
  header_bytes_.append(data, size);
  HeaderExtent extent = scanner_.scan(header_bytes_);
  if (!extent.complete) return;

  TraceHeader header =
      parse_trace_header(std::string_view(header_bytes_).substr(0, extent.text_end));
  source_ = std::make_unique<SourceInfo>(name_, std::move(header), cache_);
  source_->is_stream = true;
  // Records arrive after the pipe's header was written, so the dump time in it bounds
  // nothing; only the buffer's creation time does.
  RecordDecoder::Checks checks;
  checks.upper_bound_ns = 0;
  checks.successor_is_header = false;
  walker_ = std::make_unique<RecordWalker>(*source_, checks, false);
  walker_->stop_at_text_header(true);
  if (on_header_) on_header_(*source_);

  // What arrived beyond the header: the fill up to the 4-byte boundary, then data.
  const size_t total = header_bytes_.size();
  std::string rest;
  if (total > extent.data_offset) rest = header_bytes_.substr(extent.data_offset);
  fill_left_ = extent.data_offset > total ? extent.data_offset - total : 0;
  header_bytes_.clear();
  header_bytes_.shrink_to_fit();
  if (!rest.empty()) add_data(rest.data(), rest.size());
}

void StreamDecoder::add_data(const char* data, size_t size) {
  if (fill_left_ > 0) {
    size_t skip = size < fill_left_ ? size : fill_left_;
    fill_left_ -= skip;
    data += skip;
    size -= skip;
  }
  if (size == 0) return;
  // Complete the word begun by the previous chunk, then take whole words.
  if (partial_size_ > 0) {
    while (partial_size_ < 4 && size > 0) {
      partial_[partial_size_++] = static_cast<unsigned char>(*data++);
      --size;
    }
    if (partial_size_ < 4) return;
    uint32_t word;
    memcpy(&word, partial_, 4);
    words_.push_back(word);
    partial_size_ = 0;
  }
  const size_t whole = size / 4;
  if (whole > 0) {
    const size_t old = words_.size();
    words_.resize(old + whole);
    memcpy(words_.data() + old, data, whole * 4);
  }
  partial_size_ = size % 4;
  memcpy(partial_, data + whole * 4, partial_size_);

  walk(false);
  // Drop consumed words once they are the larger part, so the buffer stays near the size of
  // the longest record in flight.
  if (next_ > 4096 && next_ * 2 > words_.size()) {
    words_.erase(words_.begin(), words_.begin() + static_cast<std::ptrdiff_t>(next_));
    next_ = 0;
  }
}

// Walks what arrived; at a new stream's header, ends this stream and starts the next with the
// bytes from there on.
void StreamDecoder::walk(bool final) {
  next_ += walker_->walk(words_.data() + next_, words_.size() - next_, final, sink_);
  if (!RecordWalker::is_text_header(words_.data() + next_, words_.size() - next_, true)) return;
  walker_->finish();
  std::string rest(reinterpret_cast<const char*>(words_.data() + next_),
                   (words_.size() - next_) * 4);
  rest.append(reinterpret_cast<const char*>(partial_), partial_size_);
  done_.push_back(std::move(source_));
  walker_.reset();
  words_.clear();
  next_ = 0;
  partial_size_ = 0;
  fill_left_ = 0;
  scanner_ = HeaderScanner();
  feed(rest.data(), rest.size());
}

std::vector<std::unique_ptr<SourceInfo>> StreamDecoder::take_sources() {
  std::vector<std::unique_ptr<SourceInfo>> all = std::move(done_);
  if (source_) all.push_back(std::move(source_));
  done_.clear();
  return all;
}

void StreamDecoder::finish() {
  for (;;) {
    if (!source_) {
      if (header_bytes_.empty()) throw DecodeError("the stream is empty");
      // Give the scanner the chance to reject garbage with its own message first.
      throw DecodeError("the stream ended inside its header");
    }
    // A walk that meets a new stream's header starts that stream; walk it to its end too.
    const SourceInfo* before = source_.get();
    walk(true);
    if (source_.get() == before) break;
  }
  walker_->finish();
  if (partial_size_ > 0) {
    problems_.push_back("the stream ended inside a word (" + std::to_string(partial_size_) +
                        " stray byte" + (partial_size_ == 1 ? "" : "s") + ")");
    partial_size_ = 0;
  }
}

}  // namespace quarry_decode

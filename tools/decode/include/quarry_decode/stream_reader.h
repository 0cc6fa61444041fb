// Decoding a pipe stream incrementally: the text header, then records as their words arrive
// (each record's words are contiguous in the stream, also when it crossed the end of the
// buffer). Thread contract: one instance per stream, fed from one thread.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "quarry_decode/decode_file.h"
#include "quarry_decode/record_decoder.h"
#include "quarry_decode/source.h"
#include "quarry_decode/trace_header.h"

namespace quarry_decode {

class StreamDecoder {
 public:
  // `on_header` runs once, when the header is complete and before the first record.
  StreamDecoder(std::string name, DecodeFileCache& cache, RecordSink& sink,
                std::function<void(SourceInfo&)> on_header = {});

  // Takes the next bytes of the stream, in any size, and decodes every record that is
  // complete. A record is passed on as soon as its last word is there. Throws DecodeError
  // when the header turns out not to be a trace header.
  void feed(const char* data, size_t size);
  // The stream has ended: decodes what is left (a record cut short counts as rejected). Throws
  // DecodeError when the stream ended inside its header.
  void finish();

  // Null until the header is complete. A stream that holds several streams one after the
  // other (a new header where a record would begin) gives one source per stream: this is the
  // current one.
  SourceInfo* source() { return source_.get(); }
  // Every source of the stream, in order, for reports after the end (records point to them,
  // so they must outlive the output).
  std::vector<std::unique_ptr<SourceInfo>> take_sources();
  // Problems of the stream as a whole (it ended inside a word), for the caller to report.
  const std::vector<std::string>& problems() const { return problems_; }

 private:
  void add_data(const char* data, size_t size);
  void walk(bool final);

  std::string name_;
  DecodeFileCache& cache_;
  RecordSink& sink_;
  std::function<void(SourceInfo&)> on_header_;
  HeaderScanner scanner_;
  std::string header_bytes_;
  std::unique_ptr<SourceInfo> source_;
  std::vector<std::unique_ptr<SourceInfo>> done_;  // earlier streams of a concatenation
  std::unique_ptr<RecordWalker> walker_;
  size_t fill_left_ = 0;  // fill bytes after the header not received yet
  std::vector<uint32_t> words_;
  size_t next_ = 0;  // first word not consumed
  unsigned char partial_[4] = {};
  size_t partial_size_ = 0;
  std::vector<std::string> problems_;
};

}  // namespace quarry_decode

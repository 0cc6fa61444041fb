// Fuzzes the incremental pipe-stream reader: the input is fed in pieces whose sizes the first
// bytes choose, so that headers, fill and records are cut at every place.
#include <string>

#include "quarry_decode/error.h"
#include "quarry_decode/stream_reader.h"

namespace {
struct NullSink : quarry_decode::RecordSink {
  void on_record(const quarry_decode::Record&) override {}
};
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const size_t piece = 1 + data[0] % 61;  // an odd choice of sizes cuts words too
  data += 1, size -= 1;
  static quarry_decode::DecodeFileCache cache({QUARRY_FUZZ_DECODE_DIR});
  NullSink sink;
  try {
    quarry_decode::StreamDecoder stream("fuzz", cache, sink);
    for (size_t at = 0; at < size; at += piece) {
      stream.feed(reinterpret_cast<const char*>(data) + at, size - at < piece ? size - at : piece);
    }
    stream.finish();
  } catch (const quarry_decode::DecodeError&) {
    // not a trace stream: the expected outcome for most inputs
  }
  return 0;
}

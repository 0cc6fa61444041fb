// Writing decoded records: readable text (one line per record, like babeltrace2's pretty
// output), JSON lines, Chrome Trace Event JSON, and the summary of an input. Thread contract:
// one formatter and one output buffer per output, on one thread.
#pragma once

#include <stdint.h>
#include <stdio.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "quarry_decode/record_decoder.h"
#include "quarry_decode/source.h"

namespace quarry_decode {

enum class OutputFormat { kText, kJson, kChrome };

struct OutputOptions {
  OutputFormat format = OutputFormat::kText;
  bool monotonic = false;     // text: CLOCK_MONOTONIC seconds instead of wall-clock time
  bool delta = true;          // text: the time since the previous record
  bool utc = false;           // wall-clock times in UTC instead of local time
  bool show_process = false;  // text: prefix threads with the program name (merged processes)
};

// Collects output and writes it to a stream in large blocks; without a stream it keeps
// everything (tests, benchmarks).
class OutputBuffer {
 public:
  explicit OutputBuffer(FILE* out = nullptr) : out_(out) { text_.reserve(kBlock * 2); }
  ~OutputBuffer() { flush(); }
  OutputBuffer(const OutputBuffer&) = delete;
  OutputBuffer& operator=(const OutputBuffer&) = delete;

  std::string& text() { return text_; }
  // Writes a full block out (called after each record).
  void maybe_flush() {
    if (out_ != nullptr && text_.size() >= kBlock) flush();
  }
  // Writes everything out and flushes the stream (for live pipe output).
  void flush();
  // A write to the stream failed (a closed pipe, a full disk); nothing more is written then.
  bool failed() const { return failed_; }
  // The errno of the failed write.
  int error() const { return error_; }

  static constexpr size_t kBlock = 256 * 1024;

 private:
  FILE* out_;
  std::string text_;
  bool failed_ = false;
  int error_ = 0;
};

class Formatter : public RecordSink {
 public:
  // Called once per input before its records (a stream: when its header is complete).
  virtual void begin_source(const SourceInfo& source) = 0;
  // Called once after the last record of all inputs.
  virtual void end() = 0;
};

std::unique_ptr<Formatter> make_formatter(const OutputOptions& options, OutputBuffer& out);

// The header items and decoding counters of one input, for people.
void write_summary(const SourceInfo& source, const OutputOptions& options, OutputBuffer& out);

// What was lost or could not be decoded in one input, one sentence each with counts and the
// time range (empty when nothing was lost): for standard error.
std::vector<std::string> describe_losses(const SourceInfo& source, const OutputOptions& options);

// "2024-05-01 13:34:56.123456789" (local time unless `utc`).
std::string format_wall_time(int64_t wall_ns, bool utc);

}  // namespace quarry_decode

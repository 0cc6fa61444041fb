// quarry-decode's command line: option parsing, the decoding of each input, merging several
// trace files by time, and the reports on standard error. Runs on the calling thread.
#include "quarry_decode/cli.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "quarry_decode/decode_file.h"
#include "quarry_decode/error.h"
#include "quarry_decode/inputs.h"
#include "quarry_decode/output.h"
#include "quarry_decode/recover.h"
#include "quarry_decode/stream_reader.h"
#include "quarry_decode/trace_reader.h"
#include "merge.h"
#include "record_filter.h"
#include "span_tracker.h"

namespace quarry_decode {
namespace {

const char kUsage[] =
    "Usage: quarry-decode [OPTION]... INPUT...\n"
    "Turns quarry trace files and pipe streams into readable traces.\n"
    "\n"
    "INPUT is a trace file (.trc); a buffer directory (its newest trace file); a process\n"
    "directory (the newest trace file of each buffer, merged by time); or a pipe stream: a\n"
    "named pipe such as <buffer directory>/quarry.pipe, or - for standard input, followed\n"
    "until it ends. Several trace files are merged by time.\n"
    "\n"
    "Options:\n"
    "  -f, --format=FORMAT   text (default): one line per record, like babeltrace2;\n"
    "                        json: one JSON object per line;\n"
    "                        chrome: Chrome Trace Event JSON for Perfetto or chrome://tracing\n"
    "      --summary         show the header and the decoding counters instead of records\n"
    "  -d, --decode-dir=DIR  look for decode files in DIR first (repeatable); then in the\n"
    "                        decode directory (QUARRY_DEC_PATH, else the setup file's, else\n"
    "                        /usr/local/etc/quarry/)\n"
    "      --monotonic       show CLOCK_MONOTONIC seconds instead of wall-clock time\n"
    "      --no-delta        leave out the time since the previous record\n"
    "      --utc             show wall-clock time in UTC instead of local time\n"
    "      --stream          read regular files as saved pipe streams\n"
    "      --recover         turn the persistent rings (QUARRY_PERSIST) of dead processes\n"
    "                        below each INPUT directory into quarry.recovered.*.trc files\n"
    "  -o, --output=FILE     write to FILE instead of standard output\n"
    "\n"
    "Choosing records (each option repeatable where it takes a name; a record must pass all):\n"
    "      --handle=PATTERN  records of handles whose name matches PATTERN (glob: net/*)\n"
    "      --point=NAME      records of trace points called NAME, or handle:NAME (glob)\n"
    "      --thread=NAME|ID  records written by the thread of that name or ID\n"
    "      --begin=TIME      records at or after TIME: YYYY-MM-DD HH:MM:SS[.frac] (local\n"
    "                        time; UTC with --utc or a final Z), monotonic seconds as\n"
    "                        --monotonic shows them, +DURATION after the first record, or\n"
    "                        -DURATION before the dump\n"
    "      --end=TIME        records at or before TIME\n"
    "      --last=DURATION   the final DURATION before the dump (2.5s, 300ms, 10us, 5m, 1h)\n"
    "\n"
    "  -h, --help            show this help and exit\n"
    "      --version         show the version and exit\n"
    "\n"
    "Lost and undecodable records are reported once per input on standard error. Exit\n"
    "status: 0 when every input was decoded, or lost only what a ring loses (records\n"
    "overwritten when it wrapped, the record cut at its oldest end, records in flight at a\n"
    "crash); 1 when an input or a decode file was malformed or most of an input could not\n"
    "be decoded (what could be decoded is still shown); 2 for a usage error. Output fields:\n"
    "docs/decode-output.md; decode files: docs/decode-files.md.\n";

struct Options {
  OutputOptions output;
  FilterOptions filter;
  bool summary = false;
  bool help = false;
  bool version = false;
  bool as_stream = false;
  bool recover = false;
  std::string output_file;
  std::vector<std::string> decode_dirs;
  std::vector<std::string> inputs;
};

class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

Options parse_options(int argc, const char* const* argv) {
  Options options;
  std::string begin_text, end_text;
  bool only_inputs = false;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (only_inputs || arg == "-" || arg.empty() || arg[0] != '-') {
      options.inputs.push_back(arg);
      continue;
    }
    if (arg == "--") {
      only_inputs = true;
      continue;
    }
    // The value of an option: "--name=value", "--name value", "-xvalue" or "-x value".
    std::string name = arg, value;
    bool has_value = false;
    if (arg.compare(0, 2, "--") == 0) {
      size_t equals = arg.find('=');
      if (equals != std::string::npos) {
        name = arg.substr(0, equals);
        value = arg.substr(equals + 1);
        has_value = true;
      }
    } else if (arg.size() > 2) {
      name = arg.substr(0, 2);
      value = arg.substr(2);
      has_value = true;
    }
    auto take_value = [&]() -> std::string {
      if (has_value) return value;
      if (i + 1 >= argc) throw UsageError("option " + name + " needs a value");
      return argv[++i];
    };
    auto no_value = [&] {
      if (has_value) throw UsageError("option " + name + " takes no value");
    };
    if (name == "-f" || name == "--format") {
      std::string format = take_value();
      if (format == "text") {
        options.output.format = OutputFormat::kText;
      } else if (format == "json") {
        options.output.format = OutputFormat::kJson;
      } else if (format == "chrome") {
        options.output.format = OutputFormat::kChrome;
      } else {
        throw UsageError("unknown format '" + format + "' (text, json or chrome)");
      }
    } else if (name == "-d" || name == "--decode-dir") {
      options.decode_dirs.push_back(take_value());
    } else if (name == "-o" || name == "--output") {
      options.output_file = take_value();
    } else if (name == "--summary") {
      no_value();
      options.summary = true;
    } else if (name == "--monotonic") {
      no_value();
      options.output.monotonic = true;
    } else if (name == "--no-delta") {
      no_value();
      options.output.delta = false;
    } else if (name == "--utc") {
      no_value();
      options.output.utc = true;
    } else if (name == "--stream") {
      no_value();
      options.as_stream = true;
    } else if (name == "--recover") {
      no_value();
      options.recover = true;
    } else if (name == "-h" || name == "--help") {
      no_value();
      options.help = true;
    } else if (name == "--version") {
      no_value();
      options.version = true;
    } else if (name == "--handle") {
      options.filter.handles.push_back(take_value());
    } else if (name == "--point") {
      options.filter.points.push_back(take_value());
    } else if (name == "--thread") {
      options.filter.threads.push_back(take_value());
    } else if (name == "--begin" || name == "--end") {
      // Parsed once all options are known (--utc may follow).
      (name == "--begin" ? begin_text : end_text) = take_value();
    } else if (name == "--last") {
      std::string error = parse_duration(take_value(), &options.filter.begin.ns);
      if (!error.empty()) throw UsageError("--last: " + error);
      options.filter.begin.kind = TimeSpec::Kind::kBeforeDump;
    } else {
      throw UsageError("unknown option " + name);
    }
  }
  for (auto bound : {std::make_pair(&begin_text, &options.filter.begin),
                     std::make_pair(&end_text, &options.filter.end)}) {
    if (bound.first->empty()) continue;
    std::string error = parse_time(*bound.first, options.output.utc, bound.second);
    if (!error.empty()) throw UsageError(error);
  }
  return options;
}

class NullSink : public RecordSink {
 public:
  void on_record(const Record&) override {}
};

// More words than this at the oldest end of a wrapped buffer, without a single record after
// them, are not the one record cut at the seam but data that cannot be decoded.
constexpr uint64_t kSeamWordsExpected = 64;

// The output stopped taking data (a reader that closed its end, a full disk): decoding stops.
struct OutputStopped {};

// Between the decoding and the formatter: span matching, then the filters, in time order.
class Pipeline : public RecordSink {
 public:
  Pipeline(RecordSink* formatter, RecordFilter* filter, OutputBuffer* buffer)
      : formatter_(formatter), filter_(filter), buffer_(buffer) {}
  void on_record(const Record& in) override {
    const TracePoint* point = in.info != nullptr && !in.raw ? in.info->point : nullptr;
    if (point != nullptr && point->span_role != TracePoint::SpanRole::kNone) {
      Record record = in;  // marked with its span
      spans.on_record(record);
      show(record);
    } else {
      show(in);
    }
  }
  SpanTracker spans;

 private:
  void show(const Record& record) {
    if (formatter_ == nullptr || (filter_ != nullptr && !filter_->accept(record))) return;
    formatter_->on_record(record);
    if (buffer_->failed()) throw OutputStopped{};
  }
  RecordSink* formatter_;
  RecordFilter* filter_;
  OutputBuffer* buffer_;
};

class Run {
 public:
  Run(const Options& options, FILE* out, FILE* err)
      : options_(options),
        err_(err),
        buffer_(out),
        cache_(decode_search_path(options.decode_dirs)) {
    if (options.filter.any()) filter_ = std::make_unique<RecordFilter>(options.filter);
  }

  int run() {
    std::vector<InputSpec> inputs;
    for (const std::string& arg : options_.inputs) {
      try {
        for (InputSpec& input : expand_input(arg, options_.as_stream)) inputs.push_back(input);
      } catch (const DecodeError& e) {
        report(arg, e.what());
        status_ = kExitBadInput;
      }
    }
    bool has_stream = false;
    for (const InputSpec& input : inputs) has_stream |= input.stream;
    if (has_stream && inputs.size() > 1) {
      fprintf(err_, "quarry-decode: a pipe stream cannot be merged with other inputs\n");
      return kExitUsage;
    }
    if (!options_.summary) formatter_ = make_formatter(options_.output, buffer_);
    try {
      if (has_stream) {
        decode_stream(inputs[0]);
      } else if (!inputs.empty()) {
        decode_files(inputs);
      }
      if (formatter_) formatter_->end();
      buffer_.flush();
    } catch (const OutputStopped&) {
      stopped_ = true;
    }
    finish_sources();
    // A reader that stopped reading (`| head`) is not a failure: decoding just ends early.
    if (buffer_.failed() && buffer_.error() != EPIPE) {
      fprintf(err_, "quarry-decode: writing the output failed: %s\n", strerror(buffer_.error()));
      status_ = kExitBadInput;
    }
    if (cache_.had_errors()) status_ = kExitBadInput;
    return status_;
  }

 private:
  void report(const std::string& name, const std::string& what) {
    fprintf(err_, "quarry-decode: %s: %s\n", name.c_str(), what.c_str());
  }

  // Decode file messages appear once, when the first input that names the file is read.
  void report_decode_files() {
    const std::vector<std::string>& all = cache_.diagnostics();
    for (; reported_diagnostics_ < all.size(); ++reported_diagnostics_) {
      fprintf(err_, "quarry-decode: %s\n", all[reported_diagnostics_].c_str());
    }
  }

  void report_source(const SourceInfo& source, const std::vector<std::string>& notes) {
    report_decode_files();
    for (const std::string& note : notes) report(source.name, note);
    const int64_t drift = source.time.drift_ns();
    static constexpr int64_t kDriftNs = 1000000000;
    if (!source.is_stream && source.time.has_wall() && source.time.has_omega() &&
        (drift > kDriftNs || drift < -kDriftNs)) {
      report(source.name,
             "the wall clock moved " + std::to_string(drift / 1000000) +
                 " ms against the monotonic clock between the start of tracing and "
                 "the dump (clock step or suspend); times follow the clock at the start");
    }
  }

  // After the last record: span halves left over, then per input its problems, its losses
  // (on standard error, or in the summary: never both) and whether it was mostly undecodable.
  void finish_sources() {
    pipeline_.spans.finish();
    if (filter_) {
      for (const std::string& note : filter_->take_notes())
        fprintf(err_, "quarry-decode: %s\n", note.c_str());
    }
    // Decoding that stopped early has counted only part of each input: nothing to report.
    if (stopped_) return;
    for (Finished& finished : finished_) {
      SourceInfo& source = *finished.source;
      for (const std::string& problem : finished.problems) report(source.name, problem);
      if (!finished.problems.empty()) status_ = kExitBadInput;
      const DecodeStats& s = source.stats;
      // Expected losses (the seam, records in flight at a crash) are a few records; an input
      // where more words could not be decoded than were decoded is bad.
      const uint64_t damaged = s.skipped_words - s.seam_words;
      if ((damaged > 0 && damaged >= s.record_words) ||
          (s.records == 0 && s.skipped_words > kSeamWordsExpected)) {
        report(source.name, "most of the data could not be decoded");
        status_ = kExitBadInput;
      }
      if (options_.summary) {
        write_summary(source, options_.output, buffer_);
      } else {
        for (const std::string& loss : describe_losses(source, options_.output))
          report(source.name, loss);
      }
    }
    buffer_.flush();
  }

  // Inputs whose records were all decoded (or that were cut short), for finish_sources.
  struct Finished {
    SourceInfo* source;
    std::vector<std::string> problems;
  };

  void decode_files(const std::vector<InputSpec>& inputs) {
    std::vector<TraceData> loaded;
    for (const InputSpec& input : inputs) {
      try {
        TraceData data = read_trace_file(input.path, cache_);
        report_source(*data.source, data.notes);
        loaded.push_back(std::move(data));
      } catch (const DecodeError& e) {
        report_decode_files();
        report(input.path, e.what());
        status_ = kExitBadInput;
      }
    }
    if (loaded.empty()) return;
    std::set<int32_t> pids;
    for (size_t i = 0; i < loaded.size(); ++i) {
      SourceInfo& source = *loaded[i].source;
      pids.insert(source.header.process_id);
      // The first input of each process lends its clock mapping to the others of the process.
      for (size_t k = 0; k < i; ++k) {
        const SourceInfo& earlier = *loaded[k].source;
        if (earlier.header.process_id == source.header.process_id &&
            source.time.share_mapping(earlier.time)) {
          break;
        }
      }
    }
    OutputOptions output = options_.output;
    output.show_process = pids.size() > 1;
    if (output.show_process && formatter_) formatter_ = make_formatter(output, buffer_);
    pipeline_ = Pipeline(formatter_.get(), filter_.get(), &buffer_);

    for (TraceData& data : loaded) {
      if (formatter_) formatter_->begin_source(*data.source);
    }
    // The sources outlive the decoding (the summary and reports read them after it).
    auto finish = [this](TraceData& data) {
      finished_.push_back(Finished{data.source.get(), data.problems});
      kept_.push_back(std::move(data.source));
    };
    if (loaded.size() == 1) {
      try {
        decode_trace(loaded[0], pipeline_);
      } catch (const OutputStopped&) {
        finish(loaded[0]);
        throw;
      }
      finish(loaded[0]);
      return;
    }
    Merger merger;
    for (uint32_t i = 0; i < loaded.size(); ++i) {
      decode_trace(loaded[i], merger.input(i));
      finish(loaded[i]);
    }
    merger.replay(pipeline_);
  }

  void decode_stream(const InputSpec& input) {
    const bool stdin_input = input.path == "-";
    const std::string name = stdin_input ? "standard input" : input.path;
    int fd = stdin_input ? 0 : open(input.path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
      report(name, std::string("cannot open: ") + strerror(errno));
      status_ = kExitBadInput;
      return;
    }
    pipeline_ = Pipeline(formatter_.get(), filter_.get(), &buffer_);
    StreamDecoder decoder(name, cache_, pipeline_, [this](SourceInfo& source) {
      report_source(source, source.header.warnings);
      if (formatter_) formatter_->begin_source(source);
    });
    std::vector<char> chunk(64 * 1024);
    bool stopped = false;
    try {
      for (;;) {
        ssize_t got = read(fd, chunk.data(), chunk.size());
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) {
          report(name, std::string("read failed: ") + strerror(errno));
          status_ = kExitBadInput;
          break;
        }
        if (got == 0) break;
        decoder.feed(chunk.data(), static_cast<size_t>(got));
        // Live: what arrived is shown at once.
        buffer_.flush();
        if (buffer_.failed()) throw OutputStopped{};
      }
      decoder.finish();
    } catch (const DecodeError& e) {
      report_decode_files();
      report(name, e.what());
      status_ = kExitBadInput;
    } catch (const OutputStopped&) {
      stopped = true;
    }
    if (!stdin_input) close(fd);
    for (std::unique_ptr<SourceInfo>& source : decoder.take_sources()) {
      finished_.push_back(Finished{source.get(), {}});
      kept_.push_back(std::move(source));
    }
    if (!finished_.empty()) finished_.back().problems = decoder.problems();
    if (stopped) throw OutputStopped{};
  }

  const Options& options_;
  FILE* err_;
  OutputBuffer buffer_;
  DecodeFileCache cache_;
  std::unique_ptr<Formatter> formatter_;
  std::unique_ptr<RecordFilter> filter_;
  Pipeline pipeline_{nullptr, nullptr, &buffer_};
  std::vector<Finished> finished_;
  std::vector<std::unique_ptr<SourceInfo>> kept_;
  size_t reported_diagnostics_ = 0;
  int status_ = kExitOk;
  bool stopped_ = false;
};

}  // namespace

int run_cli(int argc, const char* const* argv, FILE* out, FILE* err) {
  Options options;
  try {
    options = parse_options(argc, argv);
  } catch (const UsageError& e) {
    fprintf(err, "quarry-decode: %s\nTry 'quarry-decode --help'.\n", e.what());
    return kExitUsage;
  }
  if (options.help) {
    fputs(kUsage, out);
    return kExitOk;
  }
  if (options.version) {
    fputs("quarry-decode " QUARRY_DECODE_VERSION "\n", out);
    return kExitOk;
  }
  if (options.inputs.empty()) {
    fprintf(err, "quarry-decode: no input given\nTry 'quarry-decode --help'.\n");
    return kExitUsage;
  }
  if (options.recover) return run_recover(options.inputs, options.decode_dirs, out, err);
  FILE* target = out;
  FILE* opened = nullptr;
  if (!options.output_file.empty()) {
    opened = fopen(options.output_file.c_str(), "w");
    if (opened == nullptr) {
      fprintf(err, "quarry-decode: %s: cannot create: %s\n", options.output_file.c_str(),
              strerror(errno));
      return kExitUsage;
    }
    target = opened;
  }
  int status;
  {
    Run run(options, target, err);
    status = run.run();
  }
  if (opened != nullptr && fclose(opened) != 0) {
    fprintf(err, "quarry-decode: %s: %s\n", options.output_file.c_str(), strerror(errno));
    status = kExitBadInput;
  }
  return status;
}

}  // namespace quarry_decode

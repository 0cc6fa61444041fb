// quarry-decode's command line: option parsing, the decoding of each input, merging several
// trace files by time, and the reports on standard error. Runs on the calling thread.
#include "quarry_decode/cli.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <queue>
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
    "  -h, --help            show this help and exit\n"
    "\n"
    "Lost and undecodable records are reported once per input on standard error. Exit\n"
    "status: 0 when every input was decoded, 1 when an input or a decode file was bad (what\n"
    "could be decoded is still shown), 2 for a usage error. Decode files: docs/decode-files.md.\n";

struct Options {
  OutputOptions output;
  bool summary = false;
  bool help = false;
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
    } else {
      throw UsageError("unknown option " + name);
    }
  }
  return options;
}

// Copies of records, for merging several inputs: arguments live in one pool per input and
// strings stay in the input's words, which live as long as its TraceData.
struct StoredRecord {
  Record record;
  size_t first_arg = 0;
};

class CollectSink : public RecordSink {
 public:
  void on_record(const Record& record) override {
    StoredRecord stored{record, args.size()};
    args.insert(args.end(), record.args, record.args + record.arg_count);
    records.push_back(stored);
  }
  // Points every record at its arguments once the pool no longer moves.
  void settle() {
    for (StoredRecord& stored : records) stored.record.args = args.data() + stored.first_arg;
  }
  std::vector<StoredRecord> records;
  std::vector<ArgValue> args;
};

class NullSink : public RecordSink {
 public:
  void on_record(const Record&) override {}
};

// The time by which inputs are merged: wall-clock time where known (different processes
// share it), else monotonic time (shared by the processes of one boot).
int64_t merge_key(const Record& record) {
  const SourceInfo& source = *record.source;
  return source.time.has_wall() ? source.time.wall_ns(record.mono_ns)
                                : static_cast<int64_t>(record.mono_ns);
}

class Run {
 public:
  Run(const Options& options, FILE* out, FILE* err)
      : options_(options),
        err_(err),
        buffer_(out),
        cache_(decode_search_path(options.decode_dirs)) {}

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
    if (has_stream) {
      decode_stream(inputs[0]);
    } else if (!inputs.empty()) {
      decode_files(inputs);
    }
    if (formatter_) formatter_->end();
    buffer_.flush();
    if (buffer_.failed()) {
      fprintf(err_, "quarry-decode: writing the output failed: %s\n", strerror(errno));
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

  void report_end(const SourceInfo& source) {
    for (const std::string& loss : describe_losses(source, options_.output))
      report(source.name, loss);
    if (options_.summary) write_summary(source, options_.output, buffer_);
  }

  void decode_files(const std::vector<InputSpec>& inputs) {
    std::vector<TraceData> loaded;
    for (const InputSpec& input : inputs) {
      try {
        TraceData data = read_trace_file(input.path, cache_);
        report_source(*data.source, data.notes);
        for (const std::string& problem : data.problems) report(input.path, problem);
        if (!data.problems.empty()) status_ = kExitBadInput;
        loaded.push_back(std::move(data));
      } catch (const DecodeError& e) {
        report_decode_files();
        report(input.path, e.what());
        status_ = kExitBadInput;
      }
    }
    if (loaded.empty()) return;
    std::set<int32_t> pids;
    for (const TraceData& data : loaded) pids.insert(data.source->header.process_id);
    OutputOptions output = options_.output;
    output.show_process = pids.size() > 1;
    if (output.show_process && formatter_) formatter_ = make_formatter(output, buffer_);

    if (!formatter_) {
      NullSink sink;
      for (TraceData& data : loaded) decode_trace(data, sink);
    } else if (loaded.size() == 1) {
      formatter_->begin_source(*loaded[0].source);
      decode_trace(loaded[0], *formatter_);
    } else {
      merge(loaded);
    }
    for (const TraceData& data : loaded) report_end(*data.source);
  }

  void merge(std::vector<TraceData>& loaded) {
    std::vector<CollectSink> collected(loaded.size());
    for (size_t i = 0; i < loaded.size(); ++i) {
      decode_trace(loaded[i], collected[i]);
      collected[i].settle();
      formatter_->begin_source(*loaded[i].source);
    }
    // k-way merge: each input keeps its own order (records of different threads may lie
    // slightly out of time order in a buffer); ties go to the earlier input.
    using Head = std::pair<int64_t, size_t>;  // key, input
    std::priority_queue<Head, std::vector<Head>, std::greater<Head>> heads;
    std::vector<size_t> next(loaded.size(), 0);
    for (size_t i = 0; i < loaded.size(); ++i) {
      if (!collected[i].records.empty())
        heads.emplace(merge_key(collected[i].records[0].record), i);
    }
    while (!heads.empty()) {
      size_t i = heads.top().second;
      heads.pop();
      formatter_->on_record(collected[i].records[next[i]].record);
      if (++next[i] < collected[i].records.size()) {
        heads.emplace(merge_key(collected[i].records[next[i]].record), i);
      }
    }
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
    NullSink null_sink;
    RecordSink& sink = formatter_ ? static_cast<RecordSink&>(*formatter_) : null_sink;
    StreamDecoder decoder(name, cache_, sink, [this](SourceInfo& source) {
      report_source(source, source.header.warnings);
      if (formatter_) formatter_->begin_source(source);
    });
    std::vector<char> chunk(64 * 1024);
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
      }
      decoder.finish();
      for (const std::string& problem : decoder.problems()) report(name, problem);
      if (!decoder.problems().empty()) status_ = kExitBadInput;
    } catch (const DecodeError& e) {
      report_decode_files();
      report(name, e.what());
      status_ = kExitBadInput;
    }
    if (!stdin_input) close(fd);
    if (decoder.source() != nullptr) report_end(*decoder.source());
  }

  const Options& options_;
  FILE* err_;
  OutputBuffer buffer_;
  DecodeFileCache cache_;
  std::unique_ptr<Formatter> formatter_;
  size_t reported_diagnostics_ = 0;
  int status_ = kExitOk;
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

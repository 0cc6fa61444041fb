// The record formatters: readable text, JSON lines and Chrome Trace Event JSON. Each appends
// to its OutputBuffer without per-record allocation in the common case. One formatter per
// output, on one thread.
#include <errno.h>
#include <string.h>

#include <unordered_set>

#include "quarry_decode/output.h"
#include "text_util.h"

namespace quarry_decode {
namespace {

using text::append_escaped;
using text::append_fixed;
using text::append_hex;
using text::append_int;
using text::append_json_escaped;
using text::append_number;
using text::append_uint;

const ArgSpec* arg_spec(const Record& record, uint32_t i) {
  const TracePoint* point = record.info != nullptr ? record.info->point : nullptr;
  return point != nullptr && !record.raw && i < point->args.size() ? &point->args[i] : nullptr;
}

// The message of a record whose trace point has one. Strings go in as they are; for text
// output (`one_line`) control characters are escaped so that the record stays one line.
void append_message(std::string& out, const Record& record, bool one_line) {
  for (const MessagePart& part : record.info->point->message) {
    if (part.arg < 0) {
      out += part.literal;
      continue;
    }
    const ArgValue& arg = record.args[part.arg];
    if (arg.type == 's') {
      if (one_line) {
        append_escaped(out, arg.text, false);
      } else {
        out += arg.text;
      }
    } else {
      append_number(out, arg.number, arg.type, part.format);
    }
  }
}

bool has_message(const Record& record) {
  return !record.raw && record.info != nullptr && record.info->point != nullptr &&
         record.info->point->has_message;
}

class TextFormatter : public Formatter {
 public:
  TextFormatter(const OutputOptions& options, OutputBuffer& out)
      : options_(options), out_(out), seconds_(options.utc) {}

  void begin_source(const SourceInfo&) override {}
  void end() override { out_.flush(); }

  void on_record(const Record& record) override {
    std::string& o = out_.text();
    const SourceInfo& source = *record.source;
    int64_t t;
    o += '[';
    if (!options_.monotonic && source.time.has_wall()) {
      t = source.time.wall_ns(record.mono_ns);
      int64_t seconds;
      uint64_t nanos;
      text::split_ns(t, &seconds, &nanos);
      o += seconds_.format(seconds);
      o += '.';
      append_fixed(o, nanos, 9);
    } else {
      t = static_cast<int64_t>(record.mono_ns);
      append_uint(o, record.mono_ns / 1000000000);
      o += '.';
      append_fixed(o, record.mono_ns % 1000000000, 9);
    }
    o += ']';
    if (options_.delta) {
      if (!have_previous_) {
        o += " (+?.\?\?\?\?\?\?\?\?\?)";  // babeltrace2's mark for no previous record
      } else {
        int64_t delta = t - previous_;
        o += delta < 0 ? " (-" : " (+";
        uint64_t magnitude =
            delta < 0 ? 0 - static_cast<uint64_t>(delta) : static_cast<uint64_t>(delta);
        append_uint(o, magnitude / 1000000000);
        o += '.';
        append_fixed(o, magnitude % 1000000000, 9);
        o += ')';
      }
      previous_ = t;
      have_previous_ = true;
    }
    o += ' ';
    if (options_.show_process) {
      o += source.header.prog_name.empty() ? std::to_string(source.header.process_id)
                                           : source.header.prog_name;
      o += '/';
    }
    if (const std::string* name = source.threads.find(record.thread)) {
      o += *name;
    } else {
      append_int(o, static_cast<int32_t>(record.thread));
    }
    o += ' ';
    if (record.info != nullptr) {
      o += record.info->display;
    } else {
      o += '#';
      append_uint(o, record.id);
    }
    if (record.raw) {
      o += ": { words = [";
      for (uint32_t i = 0; i < record.arg_count; ++i) {
        o += i == 0 ? " " : ", ";
        append_hex(o, record.args[i].number, 8);
      }
      o += " ] }";
    } else if (has_message(record)) {
      o += ": ";
      append_message(o, record, true);
    } else if (record.arg_count > 0) {
      o += ": {";
      for (uint32_t i = 0; i < record.arg_count; ++i) {
        const ArgSpec* spec = arg_spec(record, i);
        const ArgValue& arg = record.args[i];
        o += i == 0 ? " " : ", ";
        o += spec->name;
        o += " = ";
        if (arg.type == 's') {
          o += '"';
          append_escaped(o, arg.text, true);
          o += '"';
        } else {
          append_number(o, arg.number, arg.type, spec->format);
        }
      }
      o += " }";
    }
    o += '\n';
    out_.maybe_flush();
  }

 private:
  OutputOptions options_;
  OutputBuffer& out_;
  text::SecondsFormatter seconds_;
  bool have_previous_ = false;
  int64_t previous_ = 0;
};

// JSON numbers for arguments: signed display gives a signed number, the others unsigned.
void append_json_number(std::string& o, const ArgValue& arg, ArgFormat format) {
  if (format == ArgFormat::kSigned) {
    append_int(o, arg.type == 'd' ? static_cast<int64_t>(static_cast<int32_t>(arg.number))
                                  : static_cast<int64_t>(arg.number));
  } else {
    append_uint(o, arg.number);
  }
}

// The "args" object members (without braces) shared by the JSON and Chrome formats.
void append_json_args(std::string& o, const Record& record, bool leading_comma) {
  if (record.raw) {
    if (leading_comma) o += ',';
    o += "\"words\":[";
    for (uint32_t i = 0; i < record.arg_count; ++i) {
      if (i != 0) o += ',';
      append_uint(o, record.args[i].number);
    }
    o += ']';
    return;
  }
  for (uint32_t i = 0; i < record.arg_count; ++i) {
    const ArgSpec* spec = arg_spec(record, i);
    const ArgValue& arg = record.args[i];
    if (leading_comma || i != 0) o += ',';
    o += '"';
    append_json_escaped(o, spec->name);
    o += "\":";
    if (arg.type == 's') {
      o += '"';
      append_json_escaped(o, arg.text);
      o += '"';
    } else {
      append_json_number(o, arg, spec->format);
    }
  }
}

void append_json_message(std::string& o, const Record& record) {
  std::string message;
  append_message(message, record, false);
  o += '"';
  append_json_escaped(o, message);
  o += '"';
}

class JsonFormatter : public Formatter {
 public:
  JsonFormatter(const OutputOptions&, OutputBuffer& out) : out_(out), seconds_(true, 'T') {}

  void begin_source(const SourceInfo&) override {}
  void end() override { out_.flush(); }

  void on_record(const Record& record) override {
    std::string& o = out_.text();
    const SourceInfo& source = *record.source;
    o += '{';
    if (source.time.has_wall()) {
      int64_t t = source.time.wall_ns(record.mono_ns);
      int64_t seconds;
      uint64_t nanos;
      text::split_ns(t, &seconds, &nanos);
      o += "\"time\":\"";
      o += seconds_.format(seconds);
      o += '.';
      append_fixed(o, nanos, 9);
      o += "Z\",\"time_ns\":";
      append_int(o, t);
      o += ',';
    }
    o += "\"mono_ns\":";
    append_uint(o, record.mono_ns);
    if (source.header.ts_idx_mask != 0) {
      o += ",\"seq\":";
      append_uint(o, record.sequence);
    }
    o += ",\"pid\":";
    append_int(o, source.header.process_id);
    o += ",\"tid\":";
    append_int(o, static_cast<int32_t>(record.thread));
    o += ",\"thread\":";
    if (const std::string* name = source.threads.find(record.thread)) {
      o += '"';
      append_json_escaped(o, *name);
      o += '"';
    } else {
      o += "null";
    }
    o += ",\"handle\":";
    if (record.info != nullptr) {
      o += '"';
      append_json_escaped(o, record.info->handle->ref.handle);
      o += "\",\"index\":";
      append_uint(o, record.info->index);
    } else {
      o += "null";
    }
    o += ",\"point\":";
    if (record.info != nullptr && record.info->point != nullptr) {
      o += '"';
      append_json_escaped(o, record.info->point->name);
      o += '"';
    } else {
      o += "null";
    }
    o += ",\"id\":";
    append_uint(o, record.id);
    if (has_message(record)) {
      o += ",\"message\":";
      append_json_message(o, record);
    }
    if (record.raw) {
      append_json_args(o, record, true);
    } else {
      o += ",\"args\":{";
      append_json_args(o, record, false);
      o += '}';
    }
    o += "}\n";
    out_.maybe_flush();
  }

 private:
  OutputBuffer& out_;
  text::SecondsFormatter seconds_;
};

// Chrome Trace Event format, array form: a viewer accepts the array without its closing
// bracket, so a stream cut short still loads. Times are CLOCK_MONOTONIC microseconds, the
// clock other Linux tracers use, so the events line up with theirs in the same viewer.
class ChromeFormatter : public Formatter {
 public:
  ChromeFormatter(const OutputOptions&, OutputBuffer& out) : out_(out) {}

  void begin_source(const SourceInfo& source) override {
    open();
    const std::string& name =
        source.header.prog_name.empty() ? source.header.argv0 : source.header.prog_name;
    if (name.empty() || !processes_seen_.insert(source.header.process_id).second) return;
    metadata_event("process_name", source.header.process_id, 0, name);
    out_.maybe_flush();
  }

  void end() override {
    open();
    out_.text() += "\n]\n";
    out_.flush();
  }

  void on_record(const Record& record) override {
    open();
    std::string& o = out_.text();
    const SourceInfo& source = *record.source;
    const int32_t tid = static_cast<int32_t>(record.thread);
    const uint64_t key = static_cast<uint64_t>(static_cast<uint32_t>(source.header.process_id))
                             << 32 |
                         record.thread;
    if (threads_seen_.insert(key).second) {
      if (const std::string* name = source.threads.find(record.thread)) {
        metadata_event("thread_name", source.header.process_id, tid, *name);
      }
    }
    separator();
    o += "{\"name\":\"";
    if (record.info != nullptr) {
      append_json_escaped(o, record.info->display);
      o += "\",\"cat\":\"";
      append_json_escaped(o, record.info->handle->ref.handle);
    } else {
      o += '#';
      append_uint(o, record.id);
      o += "\",\"cat\":\"quarry";
    }
    o += "\",\"ph\":\"i\",\"s\":\"t\",\"ts\":";
    append_uint(o, record.mono_ns / 1000);
    o += '.';
    append_fixed(o, record.mono_ns % 1000, 3);
    o += ",\"pid\":";
    append_int(o, source.header.process_id);
    o += ",\"tid\":";
    append_int(o, tid);
    o += ",\"args\":{";
    bool any = false;
    if (has_message(record)) {
      o += "\"message\":";
      append_json_message(o, record);
      any = true;
    }
    append_json_args(o, record, any);
    o += "}}";
    out_.maybe_flush();
  }

 private:
  void open() {
    if (opened_) return;
    opened_ = true;
    out_.text() += '[';
  }
  // A "ph":"M" event that names a process (tid 0) or a thread.
  void metadata_event(const char* kind, int64_t pid, int64_t tid, const std::string& name) {
    std::string& o = out_.text();
    separator();
    o += "{\"name\":\"";
    o += kind;
    o += "\",\"ph\":\"M\",\"pid\":";
    append_int(o, pid);
    o += ",\"tid\":";
    append_int(o, tid);
    o += ",\"args\":{\"name\":\"";
    append_json_escaped(o, name);
    o += "\"}}";
  }

  void separator() {
    out_.text() += first_ ? "\n" : ",\n";
    first_ = false;
  }

  OutputBuffer& out_;
  bool opened_ = false;
  bool first_ = true;
  std::unordered_set<uint64_t> threads_seen_;
  std::unordered_set<int32_t> processes_seen_;
};

}  // namespace

void OutputBuffer::flush() {
  if (out_ == nullptr) return;
  if (failed_) {
    text_.clear();
    return;
  }
  if (!text_.empty() && fwrite(text_.data(), 1, text_.size(), out_) != text_.size()) {
    failed_ = true;
    error_ = errno;
  }
  text_.clear();
  if (!failed_ && fflush(out_) != 0) {
    failed_ = true;
    error_ = errno;
  }
}

std::unique_ptr<Formatter> make_formatter(const OutputOptions& options, OutputBuffer& out) {
  switch (options.format) {
    case OutputFormat::kJson:
      return std::make_unique<JsonFormatter>(options, out);
    case OutputFormat::kChrome:
      return std::make_unique<ChromeFormatter>(options, out);
    case OutputFormat::kText:
      break;
  }
  return std::make_unique<TextFormatter>(options, out);
}

}  // namespace quarry_decode

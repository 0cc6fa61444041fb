// The record formatters: readable text, JSON lines and Chrome Trace Event JSON. The parts of a
// line that depend only on the trace point or the thread are built once and cached; each
// record is assembled in a stack buffer and appended to its OutputBuffer in one piece. One
// formatter per output, on one thread.
#include <errno.h>
#include <string.h>

#include <memory>
#include <unordered_map>
#include <unordered_set>

#include "quarry_decode/output.h"
#include "text_util.h"

namespace quarry_decode {
namespace {

using text::append_escaped;
using text::append_json_escaped;
using text::Line;

const ArgSpec* arg_spec(const Record& record, uint32_t i) {
  const TracePoint* point = record.info != nullptr ? record.info->point : nullptr;
  return point != nullptr && !record.raw && i < point->args.size() ? &point->args[i] : nullptr;
}

// The trace point of a record decoded by its signature, or null (raw records, unknown IDs).
const TracePoint* signed_point(const Record& record) {
  return !record.raw && record.info != nullptr ? record.info->point : nullptr;
}

void put_hex(Line& line, uint64_t value, int width = 1) {
  static const char kDigits[] = "0123456789abcdef";
  char digits[18];
  int n = 0;
  do {
    digits[17 - n++] = kDigits[value & 15];
    value >>= 4;
  } while (value != 0);
  while (n < width && n < 16) digits[17 - n++] = '0';
  digits[17 - n++] = 'x';
  digits[17 - n++] = '0';
  line.put(digits + 18 - n, static_cast<size_t>(n));
}

// A number argument by its display format: 'd' values are 32-bit, 'D' values 64-bit.
void put_number(Line& line, uint64_t value, char type, ArgFormat format) {
  switch (format) {
    case ArgFormat::kHex:
      put_hex(line, value);
      break;
    case ArgFormat::kUnsigned:
      line.uint(value);
      break;
    case ArgFormat::kSigned:
      line.sint(type == 'd' ? static_cast<int64_t>(static_cast<int32_t>(value))
                            : static_cast<int64_t>(value));
      break;
  }
}

// JSON numbers: signed display gives a signed number, the others unsigned.
void put_json_number(Line& line, const ArgValue& arg, ArgFormat format) {
  if (format == ArgFormat::kSigned) {
    line.sint(arg.type == 'd' ? static_cast<int64_t>(static_cast<int32_t>(arg.number))
                              : static_cast<int64_t>(arg.number));
  } else {
    line.uint(arg.number);
  }
}

// The message of a record whose trace point has one. Strings go in as they are; for text
// output (`one_line`) control characters are escaped so that the record stays one line.
void render_message(std::string& out, const Record& record, bool one_line) {
  out.clear();
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
      std::string& o = out;
      text::append_number(o, arg.number, arg.type, part.format);
    }
  }
}

std::string json_string(std::string_view text) {
  std::string out = "\"";
  append_json_escaped(out, text);
  return out + '"';
}

// Per-trace-point fragments, built once per PointInfo on first use. A direct-mapped table in
// front of the map makes the common lookup one compare.
template <typename Frag>
class PointCache {
 public:
  template <typename Build>
  const Frag& get(const PointInfo* info, Build build) {
    Slot& slot = slots_[(reinterpret_cast<uintptr_t>(info) / sizeof(PointInfo)) & (kSlots - 1)];
    if (slot.key == info) return *slot.frag;
    std::unique_ptr<Frag>& frag = all_[info];
    if (!frag) frag = std::make_unique<Frag>(build(*info));
    slot.key = info;
    slot.frag = frag.get();
    return *frag;
  }

 private:
  static constexpr size_t kSlots = 1024;
  struct Slot {
    const PointInfo* key = nullptr;
    const Frag* frag = nullptr;
  };
  Slot slots_[kSlots];
  std::unordered_map<const PointInfo*, std::unique_ptr<Frag>> all_;
};

// Per-thread fragments, keyed by input and thread word, with the last one remembered.
class ThreadCache {
 public:
  template <typename Build>
  const std::string& get(const Record& record, Build build) {
    if (last_ != nullptr && record.source == last_source_ && record.thread == last_thread_) {
      return *last_;
    }
    std::unordered_map<uint32_t, std::string>& of_source = all_[record.source];
    auto found = of_source.find(record.thread);
    if (found == of_source.end()) found = of_source.emplace(record.thread, build(record)).first;
    last_source_ = record.source;
    last_thread_ = record.thread;
    last_ = &found->second;
    return *last_;
  }

 private:
  std::unordered_map<const SourceInfo*, std::unordered_map<uint32_t, std::string>> all_;
  const SourceInfo* last_source_ = nullptr;
  uint32_t last_thread_ = 0;
  const std::string* last_ = nullptr;
};

const std::string* thread_name(const Record& record) {
  return record.source->threads.find(record.thread);
}

class TextFormatter : public Formatter {
 public:
  TextFormatter(const OutputOptions& options, OutputBuffer& out)
      : options_(options), out_(out), seconds_(options.utc) {}

  void begin_source(const SourceInfo&) override {}
  void end() override { out_.flush(); }

  void on_record(const Record& record) override {
    Line line(out_.text());
    const SourceInfo& source = *record.source;
    int64_t t;
    line.put('[');
    if (!options_.monotonic && source.time.has_wall()) {
      t = source.time.wall_ns(record.mono_ns);
      int64_t seconds;
      uint64_t nanos;
      text::split_ns(t, &seconds, &nanos);
      line.put(seconds_.format(seconds));
      line.put('.');
      line.fixed(nanos, 9);
    } else {
      t = static_cast<int64_t>(record.mono_ns);
      line.seconds(record.mono_ns);
    }
    line.put(']');
    if (options_.delta) {
      if (!have_previous_) {
        line.lit(" (+?.\?\?\?\?\?\?\?\?\?)");  // babeltrace2's mark for no previous record
      } else {
        // The difference modulo 2^64: no overflow whatever a crafted file holds, and right
        // whenever the records lie less than 292 years apart.
        const int64_t delta =
            static_cast<int64_t>(static_cast<uint64_t>(t) - static_cast<uint64_t>(previous_));
        const bool back = delta < 0;
        const uint64_t magnitude =
            back ? 0 - static_cast<uint64_t>(delta) : static_cast<uint64_t>(delta);
        line.lit(back ? " (-" : " (+");
        line.seconds(magnitude);
        line.put(')');
      }
      previous_ = t;
      have_previous_ = true;
    }
    line.put(threads_.get(record, [this](const Record& r) {
      std::string text = " ";
      if (options_.show_process) {
        const TraceHeader& h = r.source->header;
        text += h.prog_name.empty() ? std::to_string(h.process_id) : h.prog_name;
        text += '/';
      }
      const std::string* name = thread_name(r);
      text += name != nullptr ? *name : std::to_string(static_cast<int32_t>(r.thread));
      return text + ' ';
    }));
    if (const TracePoint* point = signed_point(record)) {
      const Frag& frag = points_.get(record.info, build);
      line.put(frag.display);
      if (point->has_message) {
        line.lit(": ");
        render_message(scratch_, record, true);
        line.put(scratch_);
      } else if (record.arg_count > 0) {
        for (uint32_t i = 0; i < record.arg_count; ++i) {
          const ArgValue& arg = record.args[i];
          line.put(frag.labels[i]);
          if (arg.type == 's') {
            line.put('"');
            scratch_.clear();
            append_escaped(scratch_, arg.text, true);
            line.put(scratch_);
            line.put('"');
          } else {
            put_number(line, arg.number, arg.type, point->args[i].format);
          }
        }
        line.lit(" }");
      }
      if (record.span_matched) {
        line.lit(" [span ");
        line.put(point->span);
        line.put(' ');
        line.seconds(record.mono_ns >= record.span_begin_ns ? record.mono_ns - record.span_begin_ns
                                                            : 0);
        line.lit(" s]");
      }
    } else {
      if (record.info != nullptr) {
        line.put(record.info->display);
      } else {
        line.put('#');
        line.uint(record.id);
      }
      if (record.raw) {
        line.lit(": { words = [");
        for (uint32_t i = 0; i < record.arg_count; ++i) {
          line.put(i == 0 ? ' ' : ',');
          if (i != 0) line.put(' ');
          put_hex(line, record.args[i].number, 8);
        }
        line.lit(" ] }");
      }
    }
    line.put('\n');
    line.end();
    out_.maybe_flush();
  }

 private:
  struct Frag {
    std::string display;
    std::vector<std::string> labels;  // ": { name = " for the first argument, ", name = " after
  };
  static Frag build(const PointInfo& info) {
    Frag frag;
    frag.display = info.display;
    for (size_t i = 0; i < info.point->args.size(); ++i)
      frag.labels.push_back((i == 0 ? ": { " : ", ") + info.point->args[i].name + " = ");
    return frag;
  }

  OutputOptions options_;
  OutputBuffer& out_;
  text::SecondsFormatter seconds_;
  PointCache<Frag> points_;
  ThreadCache threads_;
  std::string scratch_;
  bool have_previous_ = false;
  int64_t previous_ = 0;
};

// JSON argument keys ("name":) of a trace point, the first without a leading comma.
std::vector<std::string> json_keys(const TracePoint& point) {
  std::vector<std::string> keys;
  for (size_t i = 0; i < point.args.size(); ++i)
    keys.push_back((i == 0 ? "" : ",") + json_string(point.args[i].name) + ":");
  return keys;
}

// The members of an "args" object (without braces) shared by the JSON and Chrome formats.
void put_json_args(Line& line, const Record& record, const std::vector<std::string>* keys,
                   bool leading_comma, std::string& scratch) {
  if (record.raw) {
    if (leading_comma) line.put(',');
    line.lit("\"words\":[");
    for (uint32_t i = 0; i < record.arg_count; ++i) {
      if (i != 0) line.put(',');
      line.uint(record.args[i].number);
    }
    line.put(']');
    return;
  }
  for (uint32_t i = 0; i < record.arg_count; ++i) {
    const ArgValue& arg = record.args[i];
    if (leading_comma && i == 0) line.put(',');
    line.put((*keys)[i]);
    if (arg.type == 's') {
      scratch.assign(1, '"');
      append_json_escaped(scratch, arg.text);
      scratch += '"';
      line.put(scratch);
    } else {
      put_json_number(line, arg, arg_spec(record, i)->format);
    }
  }
}

void put_json_message(Line& line, const Record& record, std::string& scratch,
                      std::string& message) {
  render_message(message, record, false);
  scratch.assign(1, '"');
  append_json_escaped(scratch, message);
  scratch += '"';
  line.put(scratch);
}

class JsonFormatter : public Formatter {
 public:
  JsonFormatter(const OutputOptions&, OutputBuffer& out) : out_(out), seconds_(true, 'T') {}

  void begin_source(const SourceInfo&) override {}
  void end() override { out_.flush(); }

  void on_record(const Record& record) override {
    Line line(out_.text());
    const SourceInfo& source = *record.source;
    line.put('{');
    if (source.time.has_wall()) {
      const int64_t t = source.time.wall_ns(record.mono_ns);
      int64_t seconds;
      uint64_t nanos;
      text::split_ns(t, &seconds, &nanos);
      line.lit("\"time\":\"");
      line.put(seconds_.format(seconds));
      line.put('.');
      line.fixed(nanos, 9);
      line.lit("Z\",\"time_ns\":");
      line.sint(t);
      line.put(',');
    }
    line.lit("\"mono_ns\":");
    line.uint(record.mono_ns);
    if (source.header.ts_idx_mask != 0) {
      line.lit(",\"seq\":");
      line.uint(record.sequence);
    }
    line.put(threads_.get(record, [](const Record& r) {
      std::string text = ",\"pid\":" + std::to_string(r.source->header.process_id) +
                         ",\"tid\":" + std::to_string(static_cast<int32_t>(r.thread)) +
                         ",\"thread\":";
      const std::string* name = thread_name(r);
      return text + (name != nullptr ? json_string(*name) : std::string("null"));
    }));
    const TracePoint* point = signed_point(record);
    if (record.info != nullptr) {
      const Frag& frag = points_.get(record.info, build);
      line.put(frag.point);
      if (point != nullptr) {
        if (point->has_message) {
          line.lit(",\"message\":");
          put_json_message(line, record, scratch_, message_);
        }
        line.lit(",\"args\":{");
        put_json_args(line, record, &frag.keys, false, scratch_);
        line.put('}');
        if (point->span_role == TracePoint::SpanRole::kBegin) {
          line.lit(",\"span_begin\":");
          line.put(frag.span);
        } else if (point->span_role == TracePoint::SpanRole::kEnd) {
          line.lit(",\"span_end\":");
          line.put(frag.span);
          if (record.span_matched) {
            line.lit(",\"duration_ns\":");
            line.uint(record.mono_ns >= record.span_begin_ns ? record.mono_ns - record.span_begin_ns
                                                             : 0);
          }
        }
      } else {
        put_json_args(line, record, nullptr, true, scratch_);
      }
    } else {
      line.lit(",\"handle\":null,\"point\":null,\"id\":");
      line.uint(record.id);
      put_json_args(line, record, nullptr, true, scratch_);
    }
    line.lit("}\n");
    line.end();
    out_.maybe_flush();
  }

 private:
  struct Frag {
    std::string point;  // ,"handle":...,"index":...,"point":...,"id":...
    std::vector<std::string> keys;
    std::string span;  // the span name as a JSON string
  };
  static Frag build(const PointInfo& info) {
    Frag frag;
    frag.point = ",\"handle\":" + json_string(info.handle->ref.handle) +
                 ",\"index\":" + std::to_string(info.index) + ",\"point\":" +
                 (info.point != nullptr ? json_string(info.point->name) : std::string("null")) +
                 ",\"id\":" + std::to_string(info.id);
    if (info.point != nullptr) {
      frag.keys = json_keys(*info.point);
      frag.span = json_string(info.point->span);
    }
    return frag;
  }

  OutputBuffer& out_;
  text::SecondsFormatter seconds_;
  PointCache<Frag> points_;
  ThreadCache threads_;
  std::string scratch_, message_;
};

// Chrome Trace Event format, array form: a viewer accepts the array without its closing
// bracket, so a stream cut short still loads. Times are CLOCK_MONOTONIC microseconds, the
// clock other Linux tracers use, so the events line up with theirs in the same viewer. A span
// whose begin and end were both seen becomes one complete event ("ph":"X") at the end record;
// the begin waits for it, and a begin whose end never came is shown as an instant event at the
// end of the output (as is an end without its begin, where it occurs): halves are never
// completed by guesswork.
class ChromeFormatter : public Formatter {
 public:
  ChromeFormatter(const OutputOptions&, OutputBuffer& out) : out_(out) {}

  void begin_source(const SourceInfo& source) override {
    open();
    const std::string& name =
        source.header.prog_name.empty() ? source.header.argv0 : source.header.prog_name;
    if (name.empty() || !processes_seen_.insert(source.header.process_id).second) return;
    Line line(out_.text());
    metadata_event(line, "process_name", source.header.process_id, 0, name);
    line.end();
    out_.maybe_flush();
  }

  void end() override {
    open();
    for (auto& pending : pending_) {
      separator();
      out_.text() += pending.second.instant;
      out_.maybe_flush();
    }
    pending_.clear();
    out_.text() += "\n]\n";
    out_.flush();
  }

  void on_record(const Record& record) override {
    open();
    Line line(out_.text());
    const TracePoint* point = signed_point(record);
    const std::string& thread = threads_.get(record, [this](const Record& r) {
      // The first record of a thread names it with a metadata event.
      const int32_t pid = r.source->header.process_id;
      const uint64_t key = static_cast<uint64_t>(static_cast<uint32_t>(pid)) << 32 | r.thread;
      const std::string* name = thread_name(r);
      if (name != nullptr && threads_named_.insert(key).second) {
        Line meta(out_.text());
        metadata_event(meta, "thread_name", pid, static_cast<int32_t>(r.thread), *name);
      }
      return ",\"pid\":" + std::to_string(pid) +
             ",\"tid\":" + std::to_string(static_cast<int32_t>(r.thread)) + ",\"args\":{";
    });
    const Frag* frag = record.info != nullptr ? &points_.get(record.info, build) : nullptr;
    if (point != nullptr && point->span_role == TracePoint::SpanRole::kBegin &&
        record.span_id != 0) {
      // Held until its end comes: the instant event if it never does, and its arguments.
      Pending& pending = pending_[record.span_id];
      std::string& o = pending.instant;
      Line held(o);
      instant_event(held, record, frag, thread);
      held.end();
      pending.args = o.substr(o.find(",\"args\":{") + 8);
      pending.args.pop_back();  // the event's closing brace
      return;
    }
    separator_into(line);
    if (point != nullptr && record.span_matched) {
      line.lit("{\"name\":");
      line.put(frag->span);
      line.lit(",\"cat\":");
      line.put(frag->category);
      line.lit(",\"ph\":\"X\",\"ts\":");
      put_microseconds(line, record.span_begin_ns);
      line.lit(",\"dur\":");
      put_microseconds(
          line, record.mono_ns >= record.span_begin_ns ? record.mono_ns - record.span_begin_ns : 0);
      line.put(thread);
      auto begin = pending_.find(record.span_id);
      if (begin != pending_.end()) {
        line.lit("\"begin\":");
        line.put(begin->second.args);
        line.put(',');
        pending_.erase(begin);
      }
      line.lit("\"end\":{");
      put_args(line, record, frag, point);
      line.lit("}}}");
    } else {
      instant_event(line, record, frag, thread);
    }
    line.end();
    out_.maybe_flush();
  }

 private:
  struct Frag {
    std::string head;      // {"name":"handle:point","cat":"handle","ph":"i","s":"t","ts":
    std::string span;      // the span name as a JSON string
    std::string category;  // the handle as a JSON string
    std::vector<std::string> keys;
  };
  static Frag build(const PointInfo& info) {
    Frag frag;
    frag.category = json_string(info.handle->ref.handle);
    frag.head = "{\"name\":" + json_string(info.display) + ",\"cat\":" + frag.category +
                ",\"ph\":\"i\",\"s\":\"t\",\"ts\":";
    if (info.point != nullptr) {
      frag.keys = json_keys(*info.point);
      frag.span = json_string(info.point->span);
    }
    return frag;
  }
  struct Pending {
    std::string instant;  // the begin record as an instant event
    std::string args;     // its "args" object
  };

  static void put_microseconds(Line& line, uint64_t ns) {
    line.uint(ns / 1000);
    line.put('.');
    line.fixed(ns % 1000, 3);
  }

  // The members of a record's "args" object: its message, then its arguments.
  void put_args(Line& line, const Record& record, const Frag* frag, const TracePoint* point) {
    bool any = false;
    if (point != nullptr && point->has_message) {
      line.lit("\"message\":");
      put_json_message(line, record, scratch_, message_);
      any = true;
    }
    put_json_args(line, record, frag != nullptr ? &frag->keys : nullptr, any, scratch_);
  }

  void instant_event(Line& line, const Record& record, const Frag* frag,
                     const std::string& thread) {
    if (frag != nullptr) {
      line.put(frag->head);
    } else {
      line.lit("{\"name\":\"#");
      line.uint(record.id);
      line.lit("\",\"cat\":\"quarry\",\"ph\":\"i\",\"s\":\"t\",\"ts\":");
    }
    put_microseconds(line, record.mono_ns);
    line.put(thread);
    put_args(line, record, frag, signed_point(record));
    line.lit("}}");
  }

  void open() {
    if (opened_) return;
    opened_ = true;
    out_.text() += '[';
  }
  // A "ph":"M" event that names a process (tid 0) or a thread.
  void metadata_event(Line& line, const char* kind, int64_t pid, int64_t tid,
                      const std::string& name) {
    separator_into(line);
    line.lit("{\"name\":\"");
    line.put(kind, strlen(kind));
    line.lit("\",\"ph\":\"M\",\"pid\":");
    line.sint(pid);
    line.lit(",\"tid\":");
    line.sint(tid);
    line.lit(",\"args\":{\"name\":");
    line.put(json_string(name));
    line.lit("}}");
  }

  void separator_into(Line& line) {
    if (first_) {
      line.put('\n');
    } else {
      line.lit(",\n");
    }
    first_ = false;
  }
  void separator() {
    out_.text() += first_ ? "\n" : ",\n";
    first_ = false;
  }

  OutputBuffer& out_;
  bool opened_ = false;
  bool first_ = true;
  PointCache<Frag> points_;
  ThreadCache threads_;
  std::unordered_map<uint64_t, Pending> pending_;
  std::unordered_set<int32_t> processes_seen_;
  std::unordered_set<uint64_t> threads_named_;
  std::string scratch_, message_;
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

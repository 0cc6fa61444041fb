// The summary of one input (--summary) and the sentences that report lost and undecodable
// data. Runs once per input on the decoding thread.
#include <signal.h>

#include <string>
#include <utility>

#include "quarry_decode/output.h"
#include "text_util.h"

namespace quarry_decode {
namespace {

using text::append_fixed;
using text::append_hex;
using text::append_uint;

std::string seconds_text(uint64_t ns) {
  std::string out;
  append_uint(out, ns / 1000000000);
  out += '.';
  append_fixed(out, ns % 1000000000, 9);
  return out;
}

std::string signed_seconds_text(int64_t ns) {
  return (ns < 0 ? "-" : "+") +
         seconds_text(ns < 0 ? 0 - static_cast<uint64_t>(ns) : static_cast<uint64_t>(ns));
}

std::string hex_text(uint64_t value) {
  std::string out;
  append_hex(out, value);
  return out;
}

// A CLOCK_MONOTONIC time as wall-clock time when the source knows it.
std::string time_text(const SourceInfo& source, uint64_t mono_ns, const OutputOptions& options) {
  if (source.time.has_wall() && !options.monotonic) {
    return format_wall_time(source.time.wall_ns(mono_ns), options.utc);
  }
  return seconds_text(mono_ns) + " (monotonic)";
}

std::string plural(uint64_t n, const char* one, const char* many) {
  return std::to_string(n) + " " + (n == 1 ? one : many);
}

class Lines {
 public:
  explicit Lines(std::string& out) : out_(out) {}
  void add(const std::string& key, const std::string& value) {
    out_ += "  ";
    out_ += key;
    out_ += ": ";
    out_ += value;
    out_ += '\n';
  }

 private:
  std::string& out_;
};

// For a fault signal the library's SIGNALING_PID holds the low 32 bits of the fault address
// (si_addr shares its place with si_pid); for the others, the sender's process ID.
std::string termination_text(int32_t signal, int32_t signaling_pid) {
  static const struct {
    int number;
    const char* name;
    bool fault;
  } kSignals[] = {{SIGINT, "SIGINT", false},   {SIGQUIT, "SIGQUIT", false},
                  {SIGILL, "SIGILL", true},    {SIGABRT, "SIGABRT", false},
                  {SIGBUS, "SIGBUS", true},    {SIGFPE, "SIGFPE", true},
                  {SIGSEGV, "SIGSEGV", true},  {SIGTERM, "SIGTERM", false},
                  {SIGKILL, "SIGKILL", false}, {SIGHUP, "SIGHUP", false}};
  std::string text = "signal " + std::to_string(signal);
  for (const auto& known : kSignals) {
    if (known.number != signal) continue;
    text += std::string(" (") + known.name + ")";
    if (known.fault) {
      std::string address;
      append_hex(address, static_cast<uint32_t>(signaling_pid), 8);
      return text + ", fault address " + address + " (its low 32 bits)";
    }
  }
  return text + " from pid " + std::to_string(signaling_pid);
}

}  // namespace

std::string format_wall_time(int64_t wall_ns, bool utc) {
  int64_t seconds;
  uint64_t nanos;
  text::split_ns(wall_ns, &seconds, &nanos);
  text::SecondsFormatter formatter(utc);
  std::string out = formatter.format(seconds);
  out += '.';
  append_fixed(out, nanos, 9);
  return out;
}

std::vector<std::string> describe_losses(const SourceInfo& source, const OutputOptions& options) {
  std::vector<std::string> out;
  const TraceHeader& h = source.header;
  const DecodeStats& s = source.stats;
  if (!source.is_stream && (source.wrapped || h.wraparound_count != 0)) {
    // WRAPAROUND_COUNT counts the records that crossed the end of the buffer; a record that
    // ended exactly there was not counted, so a wrapped buffer may report 0. The count is
    // left to --summary; this sentence says what was lost.
    std::string text = "the buffer wrapped";
    // ENTRY_COUNT counts every record ever written; what survived is what was decoded or
    // rejected, plus the record cut at the seam.
    int64_t lost = static_cast<int64_t>(h.entry_count) - static_cast<int64_t>(s.records) -
                   static_cast<int64_t>(s.rejected) - (s.seam_words > 0 ? 1 : 0);
    if (lost > 0) {
      text += ": " + plural(static_cast<uint64_t>(lost), "older record was", "older records were") +
              " overwritten";
    } else {
      text += ": older records were overwritten";
    }
    if (s.records > 0) {
      text += h.creation_time != 0
                  ? " (written between " + time_text(source, h.creation_time, options) + " and "
                  : std::string(" (written before ");
      text += time_text(source, s.first_mono_ns, options) + ")";
    }
    out.push_back(text);
  }
  const uint64_t damaged_words = s.skipped_words - s.seam_words;
  if (s.rejected > 0 || damaged_words > 0) {
    std::string text = plural(s.rejected, "record", "records") + " could not be decoded (" +
                       plural(damaged_words, "word", "words") + " skipped)";
    // Records of different threads may lie slightly out of time order around the damage.
    uint64_t from_ns = s.damage_from_ns, to_ns = s.damage_to_ns;
    if (!s.damage_from_start && !s.damage_to_end && to_ns < from_ns) std::swap(from_ns, to_ns);
    const std::string from = s.damage_from_start ? std::string("the start of the data")
                                                 : time_text(source, from_ns, options);
    const std::string to =
        s.damage_to_end ? std::string("the end of the data") : time_text(source, to_ns, options);
    text += " between " + from + " and " + to;
    out.push_back(text);
  }
  if (s.span_ends_unmatched > 0 || s.spans_open > 0) {
    std::string text;
    if (s.span_ends_unmatched > 0) {
      text = plural(s.span_ends_unmatched, "span end", "span ends") +
             " without their begin (overwritten or before the data)";
    }
    if (s.spans_open > 0) {
      if (!text.empty()) text += "; ";
      text += plural(s.spans_open, "span", "spans") + " begun and not ended (in flight)";
    }
    out.push_back(text);
  }
  return out;
}

void write_summary(const SourceInfo& source, const OutputOptions& options, OutputBuffer& out) {
  const TraceHeader& h = source.header;
  const DecodeStats& s = source.stats;
  std::string& o = out.text();
  o += source.is_stream ? "stream " : "trace file ";
  o += source.name;
  o += '\n';
  Lines lines(o);
  lines.add("format", h.version.empty() ? "(no VERSION)" : "VERSION " + h.version);
  std::string program = h.prog_name.empty() ? "(no PROG_NAME)" : h.prog_name;
  program += ", pid " + std::to_string(h.process_id) + ", node " + hex_text(h.node_id);
  lines.add("process", program);
  lines.add("argv0", h.argv0);
  if (source.time.has_wall()) {
    lines.add(
        "tracing started",
        format_wall_time(source.time.wall_ns(h.clock_time_sec * 1000000000ull + h.clock_time_nsec),
                         options.utc));
  }
  if (h.creation_time != 0)
    lines.add("buffer created", time_text(source, h.creation_time, options));
  if (source.time.has_omega()) {
    lines.add("dumped", time_text(source, source.time.omega_mono_ns(), options));
    if (source.time.has_wall()) {
      lines.add("wall clock against monotonic clock",
                signed_seconds_text(source.time.drift_ns()) + " s between start and dump");
    }
  }
  lines.add("clock resolution",
            "TS_RES " + std::to_string(h.ts_res) + " ns, TS_IDX_MSK " + hex_text(h.ts_idx_mask));
  if (!source.is_stream) {
    lines.add("buffer", std::to_string(h.buffer_size) + " words (" +
                            std::to_string(static_cast<uint64_t>(h.buffer_size) * 4) + " bytes)");
    std::string position = "WORD_COUNT " + std::to_string(h.word_count);
    if (source.wrapped) {
      position += ", wrapped, oldest word at " +
                  std::to_string(h.buffer_size ? h.word_count % h.buffer_size : 0);
    }
    lines.add("words written", position);
    lines.add("data words", std::to_string(source.file_words) + " in the file, " +
                                std::to_string(source.expected_words) + " announced");
    lines.add("records written", "ENTRY_COUNT " + std::to_string(h.entry_count));
    std::string wraps = std::to_string(h.wraparound_count);
    if (h.wraparound_count != 0) {
      wraps += ", the last at " + time_text(source, h.wraparound_time, options);
      if (h.min_wraparound_time != ~0ull) {
        wraps += "; first wrap " + seconds_text(h.min_wraparound_time) + " s after creation";
      }
      if (h.max_wraparound_time != 0)
        wraps += ", latest " + seconds_text(h.max_wraparound_time) + " s";
    }
    lines.add("wraparounds", wraps);
  }
  if (h.has(TraceHeader::kSignal)) {
    lines.add("terminated by", termination_text(h.signal, h.signaling_pid));
  }
  if (!h.parent_pid.empty()) lines.add("parent process", "pid " + h.parent_pid);
  for (const HandleInfo& handle : source.catalog.handles()) {
    std::string text = handle.ref.handle + " ids " + std::to_string(handle.ref.first_id) + ".." +
                       std::to_string(handle.ref.last_id) + ", tag " + handle.ref.tag +
                       ", decode file \"" + handle.ref.decode_file + "\"";
    if (handle.file) {
      text += " (" + handle.file->path + ", " +
              plural(handle.file->points.size(), "trace point", "trace points") + ")";
    } else {
      text += " (not found)";
    }
    lines.add("handle", text);
  }
  for (const ThreadLine& thread : h.threads) {
    lines.add("thread", thread.name + " " + (thread.id_text.empty() ? "?" : thread.id_text) +
                            (thread.cut ? " (line cut at 63 characters)" : ""));
  }
  for (const auto& item : h.unknown_items)
    lines.add("other header item", item.first + " " + item.second);
  lines.add("records decoded",
            std::to_string(s.records) + (s.raw_records ? " (" + std::to_string(s.raw_records) +
                                                             " raw, without decode information)"
                                                       : ""));
  lines.add("records skipped", std::to_string(s.rejected) + " could not be decoded");
  lines.add("words skipped", std::to_string(s.skipped_words) + " (" + std::to_string(s.seam_words) +
                                 " of a record cut at the oldest end)");
  if (s.records > 0) {
    lines.add("time span", time_text(source, s.first_mono_ns, options) + " to " +
                               time_text(source, s.last_mono_ns, options) + " (" +
                               seconds_text(s.last_mono_ns - s.first_mono_ns) + " s)");
  }
  for (const std::string& loss : describe_losses(source, options)) lines.add("lost", loss);
  out.maybe_flush();
}

}  // namespace quarry_decode

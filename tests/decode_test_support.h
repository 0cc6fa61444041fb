// Helpers for the decoder tests: trace files and streams built byte by byte, independently of
// the library's writer; decoding into copies of the records; quarry-decode run in this process.
#pragma once

#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include <ostream>
#include <string>
#include <vector>

#include "quarry_decode/cli.h"
#include "quarry_decode/trace_reader.h"
#include "test_support.h"

namespace decode_test {

// Monotonic 1000.5 s, between the default header's creation and dump: 2024-01-02 03:04:05.5 UTC.
constexpr uint64_t kT0 = 1000500000000ull;

// An argument as written or decoded: 'd', 'D' and 'w' (a raw word) use `number`, 's' `text`.
struct Arg {
  char type;
  uint64_t number;
  std::string text;
  bool operator==(const Arg& o) const {
    return type == o.type && number == o.number && text == o.text;
  }
};
inline void PrintTo(const Arg& a, std::ostream* os) {
  *os << a.type << ':' << (a.type == 's' ? '"' + a.text + '"' : std::to_string(a.number));
}
const auto d = [](uint32_t v) { return Arg{'d', v, ""}; };
const auto D = [](uint64_t v) { return Arg{'D', v, ""}; };
const auto s = [](const std::string& v) { return Arg{'s', 0, v}; };

// One record's words: escape flags in the header (and the escape word), strings NUL-padded.
inline std::vector<uint32_t> encode(uint32_t id, uint64_t timestamp, uint32_t thread,
                                    const std::vector<Arg>& args) {
  std::vector<uint32_t> words(1, 0);
  uint32_t flags = 0, bit = 0, numeric = 0;
  auto escaped = [&](uint32_t value) {
    if (value > 0xFEFFFFFFu) flags |= 1u << bit;
    ++bit;
    words.push_back(value > 0xFEFFFFFFu ? value ^ 0x80000000u : value);
  };
  escaped(static_cast<uint32_t>(timestamp >> 32));
  escaped(static_cast<uint32_t>(timestamp));
  escaped(thread);
  for (const Arg& arg : args) {
    if (arg.type == 'D') escaped(static_cast<uint32_t>(arg.number >> 32));
    if (arg.type != 's') {
      escaped(static_cast<uint32_t>(arg.number));
      numeric += arg.type == 'D' ? 2 : 1;
      continue;
    }
    std::string bytes = arg.text;
    bytes.resize(bytes.size() / 4 * 4 + 4, '\0');  // the NUL and the fill to a whole word
    words.resize(words.size() + bytes.size() / 4);
    memcpy(&words[words.size() - bytes.size() / 4], bytes.data(), bytes.size());
  }
  if (numeric >= 6) words.push_back(flags > 0xFEFFFFFFu ? flags ^ 0x80000000u : flags);
  words[0] = 0xFF000000u | (flags & 0xFFu) << 16 | (id & 0xFFFFu);
  return words;
}

// The header items of a trace file: created at monotonic 1000 s, 2024-01-02 03:04:05 UTC.
struct HeaderItems {
  std::vector<std::string> refs = {"QUARRY_DECODE_REF app \"t.dec\" 0.9.1"};
  std::vector<std::string> threads;
  uint32_t buffer_size = 1024, word_count = 0, wraparound_count = 0, entry_count = 0;
  uint32_t dump_sec = 2000;  // monotonic time of the dump (0: none yet)
  std::string version = "1.0";
  std::string extra;  // more header text, placed after the thread lines
};

// The header text including the empty line and the fill to a multiple of 4.
inline std::string header_text(const HeaderItems& f) {
  std::vector<char> buf(1024 + f.version.size());
  snprintf(buf.data(), buf.size(),
           "VERSION %s\nWALL_TIME_SEC 65937d25\nWALL_TIME_USEC 0\nCLOCK_TIME_SEC 3e8\n"
           "CLOCK_TIME_NSEC 0\nQUARRY_NODE_ID 7\nQUARRY_PROCESS_ID 4242\n"
           "QUARRY_ARGV0 /usr/bin/test host\nTS_IDX_MSK 0\nTS_RES 1\nWALL_TIME_Z_SEC %x\n"
           "WALL_TIME_Z_USEC 0\nCLOCK_TIME_Z_SEC %x\nCLOCK_TIME_Z_NSEC 0\n"
           "CREATION_TIME e8d4a51000\nWRAPAROUND_TIME 0\nWRAPAROUND_COUNT %x\nENTRY_COUNT %x\n"
           "BUFFER_SIZE %x\nWORD_COUNT %x\nMIN_WRAPAROUND_TIME ffffffffffffffff\n"
           "MAX_WRAPAROUND_TIME 0\nPROG_NAME tester\n",
           f.version.c_str(), 1704164645u + f.dump_sec - 1000, f.dump_sec, f.wraparound_count,
           f.entry_count, f.buffer_size, f.word_count);
  std::string h = buf.data();
  for (const std::string& ref : f.refs) h += ref + "\n";
  for (const std::string& thread : f.threads) h += thread;
  h += f.extra + "\n";
  h.resize((h.size() + 3) / 4 * 4, ' ');
  return h;
}

inline std::string word_bytes(const std::vector<uint32_t>& words) {
  return std::string(reinterpret_cast<const char*>(words.data()), words.size() * 4);
}

// Records laid into a ring as the writer lays them; file() gives the trace file.
struct Ring {
  explicit Ring(uint32_t size) : words(size, 0) {}
  void add(const std::vector<uint32_t>& record) {
    for (uint32_t w : record) words[position++ % words.size()] = w;
    ++entries;
  }
  std::string file(HeaderItems f) const {
    f.buffer_size = static_cast<uint32_t>(words.size());
    f.word_count = static_cast<uint32_t>(position);
    f.entry_count = entries;
    f.wraparound_count = static_cast<uint32_t>(position / words.size());
    return header_text(f) +
           word_bytes(words).substr(0, std::min<uint64_t>(position, words.size()) * 4);
  }
  std::vector<uint32_t> words;
  uint64_t position = 0;
  uint32_t entries = 0;
};

// A decoded record, copied out of the decoder's borrowed storage.
struct Seen {
  uint32_t id = 0;
  uint64_t timestamp = 0;
  uint32_t thread = 0;
  bool raw = false;
  std::string display;
  std::vector<Arg> args;
};

class Collector : public quarry_decode::RecordSink {
 public:
  void on_record(const quarry_decode::Record& r) override {
    const std::string display = r.info ? r.info->display : "#" + std::to_string(r.id);
    Seen seen{r.id, r.timestamp, r.thread, r.raw, display, {}};
    for (uint32_t i = 0; i < r.arg_count; ++i)
      seen.args.push_back(Arg{r.args[i].type, r.args[i].number, std::string(r.args[i].text)});
    records.push_back(std::move(seen));
  }
  std::vector<Seen> records;
};

struct Decoded {
  quarry_decode::TraceData data;
  std::vector<Seen> records;
};

inline Decoded decode_all(quarry_decode::TraceData data) {
  Collector collector;
  quarry_decode::decode_trace(data, collector);
  return Decoded{std::move(data), std::move(collector.records)};
}

// Writes a file below the test's directory and gives its path.
inline std::string put(const std::string& name, const std::string& bytes) {
  const std::string path = quarry_test::base_dir() + name;
  quarry_test::write_file(path, bytes);
  return path;
}

// quarry-decode run in this process, its output and diagnostics captured.
struct CliResult {
  int status;
  std::string out, err;
};

inline CliResult run(std::vector<std::string> args) {
  args.insert(args.begin(), "quarry-decode");
  std::vector<const char*> argv;
  for (const std::string& a : args) argv.push_back(a.c_str());
  const std::string out = quarry_test::base_dir() + "cli.out", err = out + ".err";
  FILE* out_file = fopen(out.c_str(), "w");
  FILE* err_file = fopen(err.c_str(), "w");
  const int status =
      quarry_decode::run_cli(static_cast<int>(argv.size()), argv.data(), out_file, err_file);
  fclose(out_file);
  fclose(err_file);
  return CliResult{status, quarry_test::read_file(out), quarry_test::read_file(err)};
}

inline size_t count(const std::string& text, const std::string& what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

inline std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  for (size_t start = 0, end; start < text.size(); start = end + 1) {
    end = std::min(text.find('\n', start), text.size());
    lines.push_back(text.substr(start, end - start));
  }
  return lines;
}

}  // namespace decode_test

// Helpers for the decoder tests: trace files and streams built byte by byte (independently of
// the library's writer, so that damaged and edge-case data can be made on purpose), and a sink
// that keeps copies of decoded records.
#pragma once

#include <stdint.h>
#include <string.h>

#include <string>
#include <vector>

#include <stdio.h>

#include "quarry_decode/cli.h"
#include "quarry_decode/record_decoder.h"
#include "test_support.h"

namespace decode_test {

struct Arg {
  char type;  // 'd', 'D' or 's'
  uint64_t number;
  std::string text;
};
inline Arg d(uint32_t v) {
  return Arg{'d', v, ""};
}
inline Arg D(uint64_t v) {
  return Arg{'D', v, ""};
}
inline Arg s(const std::string& v) {
  return Arg{'s', 0, v};
}

// One record's words as the format lays them out: escapes with flags in the header (and in
// the escape word with six or more numeric words), strings packed and NUL-padded.
inline std::vector<uint32_t> encode(uint32_t id, uint64_t timestamp, uint32_t thread,
                                    const std::vector<Arg>& args) {
  std::vector<uint32_t> words(1, 0);
  uint32_t flags = 0, bit = 0, numeric = 0;
  auto escaped = [&](uint32_t value) {
    if (value > 0xFEFFFFFFu) {
      value ^= 0x80000000u;
      flags |= 1u << bit;
    }
    ++bit;
    words.push_back(value);
  };
  escaped(static_cast<uint32_t>(timestamp >> 32));
  escaped(static_cast<uint32_t>(timestamp));
  escaped(thread);
  for (const Arg& arg : args) {
    if (arg.type == 'd') {
      escaped(static_cast<uint32_t>(arg.number));
      numeric += 1;
    } else if (arg.type == 'D') {
      escaped(static_cast<uint32_t>(arg.number >> 32));
      escaped(static_cast<uint32_t>(arg.number));
      numeric += 2;
    } else {
      std::string bytes = arg.text;
      bytes.push_back('\0');
      while (bytes.size() % 4 != 0) bytes.push_back('\0');
      for (size_t i = 0; i < bytes.size(); i += 4) {
        uint32_t w;
        memcpy(&w, bytes.data() + i, 4);
        words.push_back(w);
      }
    }
  }
  if (numeric >= 6) words.push_back(flags > 0xFEFFFFFFu ? flags ^ 0x80000000u : flags);
  words[0] = 0xFF000000u | (flags & 0xFFu) << 16 | (id & 0xFFFFu);
  return words;
}

// The header items of a trace file, with defaults that place records at a monotonic time of
// about 1000 s and wall-clock time 2024-01-02 03:04:05 UTC at monotonic 1000 s.
struct FileSpec {
  std::vector<std::string> refs = {"QUARRY_DECODE_REF app \"t.dec\" 0.9.1"};
  std::vector<std::string> threads;
  uint32_t buffer_size = 1024;
  uint32_t word_count = 0;
  uint32_t wraparound_count = 0;
  uint32_t entry_count = 0;
  uint64_t creation_time = 1000000000000ull;
  uint64_t dump_time = 2000000000000ull;
  std::string version = "1.0";
  std::string extra;  // more header text, placed after the thread lines
};

inline std::string hex(uint64_t v) {
  char buf[32];
  snprintf(buf, sizeof buf, "%llx", static_cast<unsigned long long>(v));
  return buf;
}

// The header text including the empty line and the fill to a multiple of 4.
inline std::string header_text(const FileSpec& f) {
  const uint64_t wall = 1704164645ull;  // 2024-01-02 03:04:05 UTC
  std::string h = "VERSION " + f.version + "\nWALL_TIME_SEC " + hex(wall) +
                  "\nWALL_TIME_USEC 0\nCLOCK_TIME_SEC 3e8\nCLOCK_TIME_NSEC 0\n"
                  "QUARRY_NODE_ID 7\nQUARRY_PROCESS_ID 4242\nQUARRY_ARGV0 /usr/bin/test host\n"
                  "TS_IDX_MSK 0\nTS_RES 1\n";
  h += "WALL_TIME_Z_SEC " + hex(wall + f.dump_time / 1000000000 - 1000) +
       "\nWALL_TIME_Z_USEC 0\nCLOCK_TIME_Z_SEC " + hex(f.dump_time / 1000000000) +
       "\nCLOCK_TIME_Z_NSEC 0\nCREATION_TIME " + hex(f.creation_time) + "\nWRAPAROUND_TIME 0\n";
  h += "WRAPAROUND_COUNT " + hex(f.wraparound_count) + "\nENTRY_COUNT " + hex(f.entry_count) +
       "\nBUFFER_SIZE " + hex(f.buffer_size) + "\nWORD_COUNT " + hex(f.word_count) +
       "\nMIN_WRAPAROUND_TIME ffffffffffffffff\nMAX_WRAPAROUND_TIME 0\nPROG_NAME tester\n";
  for (const std::string& ref : f.refs) h += ref + "\n";
  for (const std::string& thread : f.threads) h += thread;
  h += f.extra;
  h += "\n";
  while (h.size() % 4 != 0) h += ' ';
  return h;
}

inline std::string word_bytes(const std::vector<uint32_t>& words) {
  return std::string(reinterpret_cast<const char*>(words.data()), words.size() * 4);
}

// A ring of `size` words into which records are laid as the writer lays them, wrapping at
// the end; word_count and entry_count follow.
struct Ring {
  explicit Ring(uint32_t size) : words(size, 0) {}
  void add(const std::vector<uint32_t>& record) {
    for (uint32_t w : record) words[position++ % words.size()] = w;
    ++entries;
  }
  std::vector<uint32_t> words;
  uint64_t position = 0;
  uint32_t entries = 0;

  std::string file(FileSpec f) const {
    f.buffer_size = static_cast<uint32_t>(words.size());
    f.word_count = static_cast<uint32_t>(position);
    f.entry_count = entries;
    f.wraparound_count = static_cast<uint32_t>(position / words.size());
    size_t n = position < words.size() ? position : words.size();
    return header_text(f) + word_bytes(std::vector<uint32_t>(words.begin(), words.begin() + n));
  }
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
    Seen seen;
    seen.id = r.id;
    seen.timestamp = r.timestamp;
    seen.thread = r.thread;
    seen.raw = r.raw;
    seen.display = r.info ? r.info->display : "#" + std::to_string(r.id);
    for (uint32_t i = 0; i < r.arg_count; ++i) {
      const quarry_decode::ArgValue& a = r.args[i];
      seen.args.push_back(Arg{a.type, a.number, std::string(a.text)});
    }
    records.push_back(std::move(seen));
  }
  std::vector<Seen> records;
};

// quarry-decode run in this process, its output and diagnostics captured.
struct CliResult {
  int status;
  std::string out;
  std::string err;
};

inline std::string read_back(FILE* f) {
  std::string text;
  rewind(f);
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, f)) > 0) text.append(buf, n);
  fclose(f);
  return text;
}

inline CliResult run(std::vector<std::string> args) {
  args.insert(args.begin(), "quarry-decode");
  std::vector<const char*> argv;
  for (const std::string& a : args) argv.push_back(a.c_str());
  FILE* out = tmpfile();
  FILE* err = tmpfile();
  int status = quarry_decode::run_cli(static_cast<int>(argv.size()), argv.data(), out, err);
  return CliResult{status, read_back(out), read_back(err)};
}

inline size_t count(const std::string& text, const std::string& what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

inline std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  for (size_t start = 0, end; start < text.size(); start = end + 1) {
    end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    lines.push_back(text.substr(start, end - start));
  }
  return lines;
}

}  // namespace decode_test

// Scanning and parsing the text header of trace files and pipe streams. Pure functions of
// their input; no shared state, safe from any thread.
#include "quarry_decode/trace_header.h"

#include <string.h>

#include "quarry_decode/error.h"

namespace quarry_decode {
namespace {

enum class ItemKind { kItem, kEnd, kNeedMore };

struct Item {
  ItemKind kind;
  size_t begin = 0, end = 0;  // the item's text, without its line end
  size_t next = 0;            // where the next item begins
};

bool starts_with(std::string_view text, std::string_view prefix) {
  return text.size() >= prefix.size() && text.compare(0, prefix.size(), prefix) == 0;
}

// One item starting at `pos`. A THREAD entry is stored by the library cut to 63 characters; a
// cut entry has no line end and is followed directly by the next item, so such an item is
// recognised by its length, not by a line end.
Item next_item(std::string_view bytes, size_t pos) {
  Item item{ItemKind::kNeedMore};
  if (pos >= bytes.size()) return item;
  if (bytes[pos] == '\n') {
    item.kind = ItemKind::kEnd;
    item.begin = item.end = pos;
    item.next = pos + 1;
    return item;
  }
  std::string_view rest = bytes.substr(pos);
  static constexpr std::string_view kThread = "THREAD ";
  bool maybe_thread =
      rest.size() < kThread.size() ? starts_with(kThread, rest) : starts_with(rest, kThread);
  if (maybe_thread && rest.size() < kThread.size()) return item;  // cannot tell yet
  size_t limit = maybe_thread ? HeaderScanner::kThreadItemMax : rest.size();
  size_t newline = rest.substr(0, limit).find('\n');
  if (newline != std::string_view::npos) {
    item.kind = ItemKind::kItem;
    item.begin = pos;
    item.end = pos + newline;
    item.next = pos + newline + 1;
  } else if (maybe_thread && rest.size() >= HeaderScanner::kThreadItemMax) {
    item.kind = ItemKind::kItem;
    item.begin = pos;
    item.end = item.next = pos + HeaderScanner::kThreadItemMax;
  }
  return item;
}

bool is_key_char(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

// Checks the key of a (possibly incomplete) item: upper-case letters, digits and '_' up to a
// space. `complete` says whether the item's text is all there.
void check_key(std::string_view text, bool complete, size_t line) {
  size_t i = 0;
  while (i < text.size() && is_key_char(text[i])) ++i;
  static constexpr size_t kMaxKey = 64;
  if (i > kMaxKey) {
    throw DecodeError("header line " + std::to_string(line) +
                      ": not a trace header (key too long)");
  }
  if (i == text.size() && !complete) return;
  if (i == 0 || i == text.size() || text[i] != ' ') {
    throw DecodeError("header line " + std::to_string(line) +
                      ": not a trace header item (expected KEY VALUE)");
  }
}

std::string quote(std::string_view text) {
  std::string out = "\"";
  for (char c : text.substr(0, 80)) {
    unsigned char u = static_cast<unsigned char>(c);
    if (u < 0x20 || u >= 0x7f) {
      static const char kHex[] = "0123456789abcdef";
      out += "\\x";
      out += kHex[u >> 4];
      out += kHex[u & 15];
    } else {
      out += c;
    }
  }
  if (text.size() > 80) out += "...";
  return out + "\"";
}

class ItemParser {
 public:
  explicit ItemParser(TraceHeader& header) : h_(header) {}

  void parse(std::string_view text, size_t line) {
    line_ = line;
    size_t space = text.find(' ');
    std::string_view key = text.substr(0, space);
    std::string_view value = space == std::string_view::npos ? "" : text.substr(space + 1);
    key_ = key;
    if (key == "VERSION") {
      once(TraceHeader::kVersion);
      h_.version = std::string(value);
    } else if (key == "WALL_TIME_SEC") {
      h_.wall_time_sec = hex(value, TraceHeader::kWallTimeSec, 64);
    } else if (key == "WALL_TIME_USEC") {
      h_.wall_time_usec = hex(value, TraceHeader::kWallTimeUsec, 64);
    } else if (key == "CLOCK_TIME_SEC") {
      h_.clock_time_sec = hex(value, TraceHeader::kClockTimeSec, 64);
    } else if (key == "CLOCK_TIME_NSEC") {
      h_.clock_time_nsec = hex(value, TraceHeader::kClockTimeNsec, 64);
    } else if (key == "QUARRY_NODE_ID") {
      h_.node_id = static_cast<uint32_t>(hex(value, TraceHeader::kNodeId, 32));
    } else if (key == "QUARRY_PROCESS_ID") {
      once(TraceHeader::kProcessId);
      h_.process_id = static_cast<int32_t>(decimal(value, true, 32));
    } else if (key == "QUARRY_ARGV0") {
      once(TraceHeader::kArgv0);
      h_.argv0 = std::string(value);
    } else if (key == "TS_IDX_MSK") {
      h_.ts_idx_mask = hex(value, TraceHeader::kTsIdxMsk, 64);
    } else if (key == "TS_RES") {
      h_.ts_res = hex(value, TraceHeader::kTsRes, 64);
    } else if (key == "WALL_TIME_Z_SEC") {
      h_.wall_time_z_sec = hex(value, TraceHeader::kWallTimeZSec, 64);
    } else if (key == "WALL_TIME_Z_USEC") {
      h_.wall_time_z_usec = hex(value, TraceHeader::kWallTimeZUsec, 64);
    } else if (key == "CLOCK_TIME_Z_SEC") {
      h_.clock_time_z_sec = hex(value, TraceHeader::kClockTimeZSec, 64);
    } else if (key == "CLOCK_TIME_Z_NSEC") {
      h_.clock_time_z_nsec = hex(value, TraceHeader::kClockTimeZNsec, 64);
    } else if (key == "CREATION_TIME") {
      h_.creation_time = hex(value, TraceHeader::kCreationTime, 64);
    } else if (key == "WRAPAROUND_TIME") {
      h_.wraparound_time = hex(value, TraceHeader::kWraparoundTime, 64);
    } else if (key == "WRAPAROUND_COUNT") {
      h_.wraparound_count = static_cast<uint32_t>(hex(value, TraceHeader::kWraparoundCount, 32));
    } else if (key == "ENTRY_COUNT") {
      h_.entry_count = static_cast<uint32_t>(hex(value, TraceHeader::kEntryCount, 32));
    } else if (key == "BUFFER_SIZE") {
      h_.buffer_size = static_cast<uint32_t>(hex(value, TraceHeader::kBufferSize, 32));
    } else if (key == "WORD_COUNT") {
      h_.word_count = static_cast<uint32_t>(hex(value, TraceHeader::kWordCount, 32));
    } else if (key == "MIN_WRAPAROUND_TIME") {
      h_.min_wraparound_time = hex(value, TraceHeader::kMinWraparoundTime, 64);
    } else if (key == "MAX_WRAPAROUND_TIME") {
      h_.max_wraparound_time = hex(value, TraceHeader::kMaxWraparoundTime, 64);
    } else if (key == "PROG_NAME") {
      once(TraceHeader::kProgName);
      h_.prog_name = std::string(value);
    } else if (key == "QUARRY_DECODE_REF") {
      h_.decode_refs.push_back(decode_ref(value));
    } else if (key == "THREAD") {
      // The scanner marked cut entries by their length; a complete entry ends with '\n'.
      h_.threads.push_back(thread_line(value, cut_));
    } else if (key == "SIGNALING_PID") {
      once(TraceHeader::kSignalingPid);
      h_.signaling_pid = static_cast<int32_t>(decimal(value, false, 64));
    } else if (key == "SIGNAL") {
      once(TraceHeader::kSignal);
      h_.signal = static_cast<int32_t>(decimal(value, false, 64));
    } else if (key == "PARENT_PID") {
      h_.parent_pid = std::string(value);
    } else {
      h_.unknown_items.emplace_back(std::string(key), std::string(value));
    }
  }

  bool cut_ = false;

 private:
  [[noreturn]] void fail(const std::string& what) const {
    throw DecodeError("header line " + std::to_string(line_) + ": " + std::string(key_) + ": " +
                      what);
  }

  void once(uint32_t key) {
    if (h_.present & key) {
      h_.warnings.push_back("header line " + std::to_string(line_) + ": " + std::string(key_) +
                            " appears again; the last value is used");
    }
    h_.present |= key;
  }

  uint64_t hex(std::string_view value, uint32_t key, int bits) {
    once(key);
    if (value.empty()) fail("empty value");
    if (value.size() > static_cast<size_t>(bits / 4)) fail("value " + quote(value) + " too long");
    uint64_t out = 0;
    for (char c : value) {
      int digit;
      if (c >= '0' && c <= '9') {
        digit = c - '0';
      } else if (c >= 'a' && c <= 'f') {
        digit = c - 'a' + 10;
      } else if (c >= 'A' && c <= 'F') {
        digit = c - 'A' + 10;
      } else {
        fail("value " + quote(value) + " is not hexadecimal");
      }
      out = out << 4 | static_cast<uint64_t>(digit);
    }
    return out;
  }

  // A decimal number: signed 32-bit when `is_signed`, else unsigned up to `bits` wide.
  uint64_t decimal(std::string_view value, bool is_signed, int bits) {
    std::string_view digits = value;
    bool negative = is_signed && !digits.empty() && digits[0] == '-';
    if (negative) digits.remove_prefix(1);
    if (digits.empty() || digits.size() > 20) fail("value " + quote(value) + " is not a number");
    uint64_t out = 0;
    for (char c : digits) {
      if (c < '0' || c > '9') fail("value " + quote(value) + " is not a number");
      uint64_t next = out * 10 + static_cast<uint64_t>(c - '0');
      if (next / 10 != out) fail("value " + quote(value) + " is out of range");
      out = next;
    }
    if (is_signed) {
      if (out > (negative ? 0x80000000ull : 0x7FFFFFFFull)) fail("value out of range");
      return negative ? static_cast<uint64_t>(-static_cast<int64_t>(out)) : out;
    }
    if (bits < 64 && out >> bits) fail("value out of range");
    return out;
  }

  // "<full name> \"<decode file>\" <first>.<last>.<tag>". Names hold no whitespace; the
  // decode file may hold anything, so the closing quote is the one followed by a space and a
  // well-formed range.
  DecodeRef decode_ref(std::string_view value) {
    DecodeRef ref;
    size_t space = value.find(' ');
    if (space == 0 || space == std::string_view::npos) fail("expected a handle name");
    ref.handle = std::string(value.substr(0, space));
    std::string_view rest = value.substr(space + 1);
    if (rest.empty() || rest[0] != '"') fail("expected the decode file in double quotes");
    for (size_t close = rest.find("\" ", 1); close != std::string_view::npos;
         close = rest.find("\" ", close + 1)) {
      std::string_view range = rest.substr(close + 2);
      int64_t first = 0, last = 0;
      size_t used = 0;
      if (!signed_part(range, &first, &used) || used >= range.size() || range[used] != '.') {
        continue;
      }
      range.remove_prefix(used + 1);
      if (!signed_part(range, &last, &used) || used >= range.size() || range[used] != '.') {
        continue;
      }
      ref.decode_file = std::string(rest.substr(1, close - 1));
      ref.first_id = first;
      ref.last_id = last;
      ref.tag = std::string(range.substr(used + 1));
      return ref;
    }
    fail("expected \"<decode file>\" <first>.<last>.<tag> after the handle name");
  }

  static bool signed_part(std::string_view text, int64_t* out, size_t* used) {
    size_t i = 0;
    bool negative = i < text.size() && text[i] == '-';
    if (negative) ++i;
    size_t start = i;
    int64_t value = 0;
    while (i < text.size() && text[i] >= '0' && text[i] <= '9' && i - start < 11) {
      value = value * 10 + (text[i] - '0');
      ++i;
    }
    if (i == start) return false;
    *out = negative ? -value : value;
    *used = i;
    return true;
  }

  ThreadLine thread_line(std::string_view value, bool cut) {
    ThreadLine t;
    t.cut = cut;
    size_t space = value.rfind(' ');
    std::string_view id = space == std::string_view::npos ? value : value.substr(space + 1);
    std::string_view name = space == std::string_view::npos ? "" : value.substr(0, space);
    bool numeric = !id.empty();
    for (size_t i = 0; i < id.size(); ++i) {
      if (!((id[i] >= '0' && id[i] <= '9') || (i == 0 && id[i] == '-' && id.size() > 1))) {
        numeric = false;
      }
    }
    if (!numeric) {
      // Only a cut entry may have lost its ID entirely; the whole value is then name. Anywhere
      // else the line is odd, but it names no record's thread, so decoding goes on.
      if (!cut) {
        h_.warnings.push_back("header line " + std::to_string(line_) +
                              ": THREAD line without a thread ID: " + quote(value));
      }
      t.name = std::string(value);
      return t;
    }
    t.name = std::string(name);
    t.id_text = std::string(id);
    if (!cut) {
      t.id = static_cast<int32_t>(decimal(id, true, 32));
      t.id_valid = true;
    }
    return t;
  }

  TraceHeader& h_;
  size_t line_ = 0;
  std::string_view key_;
};

}  // namespace

HeaderExtent HeaderScanner::scan(std::string_view bytes) {
  HeaderExtent extent;
  for (;;) {
    Item item = next_item(bytes, next_item_);
    if (item.kind == ItemKind::kNeedMore) {
      if (next_item_ < bytes.size()) {
        check_key(bytes.substr(next_item_), false, line_);
      }
      if (bytes.size() > kMaxHeaderBytes) {
        throw DecodeError("not a trace header (no end of header in the first " +
                          std::to_string(kMaxHeaderBytes >> 20) + " MiB)");
      }
      return extent;
    }
    if (item.kind == ItemKind::kEnd) {
      extent.complete = true;
      extent.text_end = item.next;
      extent.data_offset = (item.next + 3) & ~size_t{3};
      return extent;
    }
    check_key(bytes.substr(item.begin, item.end - item.begin), true, line_);
    next_item_ = item.next;
    ++line_;
  }
}

TraceHeader parse_trace_header(std::string_view text) {
  TraceHeader header;
  ItemParser parser(header);
  size_t pos = 0;
  size_t line = 1;
  for (;;) {
    Item item = next_item(text, pos);
    if (item.kind == ItemKind::kEnd) break;
    if (item.kind == ItemKind::kNeedMore) {
      throw DecodeError("the header ends before its empty line");
    }
    std::string_view item_text = text.substr(item.begin, item.end - item.begin);
    check_key(item_text, true, line);
    parser.cut_ = item.next == item.end;  // no line end consumed: a cut THREAD entry
    parser.parse(item_text, line);
    pos = item.next;
    ++line;
  }
  if (header.has(TraceHeader::kVersion)) {
    const std::string& v = header.version;
    if (v == "1.0") {
      // the format this decoder was written for
    } else if (starts_with(v, "1.")) {
      header.warnings.push_back("format VERSION " + v + " is newer than 1.0; decoding as 1.0");
    } else {
      throw DecodeError("unknown format VERSION " + quote(v) + " (this decoder reads 1.0)");
    }
  } else {
    header.warnings.push_back(
        "the header has no VERSION line (no open block): wall-clock times are not known");
  }
  return header;
}

}  // namespace quarry_decode

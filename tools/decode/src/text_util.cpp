// Escaping and calendar formatting for the output formatters. No shared state.
#include "text_util.h"

namespace quarry_decode {
namespace text {
namespace {

const char kHex[] = "0123456789abcdef";

// Length of the valid UTF-8 sequence starting at text[i], or 0 when it is not valid
// (overlong forms, surrogates and code points above U+10FFFF included).
size_t utf8_sequence(std::string_view text, size_t i) {
  const unsigned char c = static_cast<unsigned char>(text[i]);
  size_t length;
  uint32_t min;
  uint32_t code;
  if (c >= 0xC2 && c <= 0xDF) {
    length = 2, min = 0x80, code = c & 0x1Fu;
  } else if (c >= 0xE0 && c <= 0xEF) {
    length = 3, min = 0x800, code = c & 0x0Fu;
  } else if (c >= 0xF0 && c <= 0xF4) {
    length = 4, min = 0x10000, code = c & 0x07u;
  } else {
    return 0;
  }
  if (i + length > text.size()) return 0;
  for (size_t k = 1; k < length; ++k) {
    const unsigned char next = static_cast<unsigned char>(text[i + k]);
    if ((next & 0xC0) != 0x80) return 0;
    code = code << 6 | (next & 0x3Fu);
  }
  if (code < min || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return 0;
  return length;
}

}  // namespace

void append_escaped(std::string& out, std::string_view text, bool quoted) {
  for (char ch : text) {
    const unsigned char c = static_cast<unsigned char>(ch);
    if (c >= 0x20 && c != 0x7F && !(quoted && (c == '"' || c == '\\'))) {
      out += ch;
      continue;
    }
    out += '\\';
    switch (c) {
      case '\n':
        out += 'n';
        break;
      case '\t':
        out += 't';
        break;
      case '\r':
        out += 'r';
        break;
      case '"':
      case '\\':
        out += ch;
        break;
      default:
        out += 'x';
        out += kHex[c >> 4];
        out += kHex[c & 15];
    }
  }
}

void append_json_escaped(std::string& out, std::string_view text) {
  for (size_t i = 0; i < text.size();) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (c >= 0x20 && c < 0x80) {
      if (c == '"' || c == '\\') out += '\\';
      out += static_cast<char>(c);
      ++i;
      continue;
    }
    if (c >= 0x80) {
      size_t length = utf8_sequence(text, i);
      if (length != 0) {
        out.append(text.data() + i, length);
        i += length;
        continue;
      }
    }
    switch (c) {
      case '\n':
        out += "\\n";
        break;
      case '\t':
        out += "\\t";
        break;
      case '\r':
        out += "\\r";
        break;
      default:
        out += "\\u00";
        out += kHex[c >> 4];
        out += kHex[c & 15];
    }
    ++i;
  }
}

const std::string& SecondsFormatter::format(int64_t seconds) {
  if (valid_ && seconds == seconds_) return text_;
  valid_ = true;
  seconds_ = seconds;
  time_t t = static_cast<time_t>(seconds);
  struct tm parts {};
  if ((utc_ ? gmtime_r(&t, &parts) : localtime_r(&t, &parts)) == nullptr) {
    text_ = "\?\?\?\?-\?\?-\?\?" + std::string(1, separator_) + "\?\?:\?\?:\?\?";
    return text_;
  }
  text_.clear();
  append_fixed(text_, static_cast<uint64_t>(parts.tm_year + 1900), 4);
  text_ += '-';
  append_fixed(text_, static_cast<uint64_t>(parts.tm_mon + 1), 2);
  text_ += '-';
  append_fixed(text_, static_cast<uint64_t>(parts.tm_mday), 2);
  text_ += separator_;
  append_fixed(text_, static_cast<uint64_t>(parts.tm_hour), 2);
  text_ += ':';
  append_fixed(text_, static_cast<uint64_t>(parts.tm_min), 2);
  text_ += ':';
  append_fixed(text_, static_cast<uint64_t>(parts.tm_sec), 2);
  return text_;
}

}  // namespace text
}  // namespace quarry_decode

// Parsing decode files, the decode directory search path and the per-run cache of loaded
// files. Parsing is pure; the cache is owned by one decoding run (not thread-safe).
#include "quarry_decode/decode_file.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "quarry/quarry.h"

namespace quarry_decode {
namespace {

bool is_blank(char c) {
  return c == ' ' || c == '\t';
}
bool is_digit(char c) {
  return c >= '0' && c <= '9';
}
bool is_alpha(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}

std::string_view trim(std::string_view text) {
  while (!text.empty() && is_blank(text.front())) text.remove_prefix(1);
  while (!text.empty() && is_blank(text.back())) text.remove_suffix(1);
  return text;
}

std::vector<std::string_view> split_fields(std::string_view text) {
  std::vector<std::string_view> fields;
  size_t i = 0;
  while (i < text.size()) {
    while (i < text.size() && is_blank(text[i])) ++i;
    size_t start = i;
    while (i < text.size() && !is_blank(text[i])) ++i;
    if (i > start) fields.push_back(text.substr(start, i - start));
  }
  return fields;
}

bool is_identifier(std::string_view text) {
  if (text.empty() || !is_alpha(text[0])) return false;
  for (char c : text) {
    if (!is_alpha(c) && !is_digit(c)) return false;
  }
  return true;
}

bool parse_format(std::string_view text, ArgFormat* out) {
  if (text == "d") {
    *out = ArgFormat::kSigned;
  } else if (text == "u") {
    *out = ArgFormat::kUnsigned;
  } else if (text == "x") {
    *out = ArgFormat::kHex;
  } else {
    return false;
  }
  return true;
}

std::string quoted(std::string_view text) {
  return "\"" + std::string(text) + "\"";
}

// One line's parse; `error` is set on the first problem.
class LineParser {
 public:
  bool parse(std::string_view line, TracePoint* point) {
    size_t equals = line.find('=');
    std::string_view fields_text = line.substr(0, equals);
    std::vector<std::string_view> fields = split_fields(fields_text);
    if (!fields.empty() && fields.back()[0] == '@') {
      if (!span_marker(fields.back(), point)) return false;
      fields.pop_back();
    }
    if (fields.size() < 3) {
      return fail("expected <index> <name> <signature> [<argument> ...] [= <message>]");
    }
    if (!index(fields[0], &point->index)) return false;
    if (!name(fields[1], &point->name)) return false;
    if (!signature(fields[2], point)) return false;
    if (!arguments(fields, point)) return false;
    if (equals != std::string_view::npos) {
      std::string_view message = trim(line.substr(equals + 1));
      if (message.empty()) return fail("nothing follows '=' (leave out '=' for no message)");
      point->has_message = true;
      if (!parse_message(message, point)) return false;
    }
    return true;
  }

  std::string error;

 private:
  bool fail(std::string what) {
    error = std::move(what);
    return false;
  }

  // "@begin:<span>" or "@end:<span>", the span name made of letters, digits, '_', '.', '-'.
  bool span_marker(std::string_view text, TracePoint* point) {
    std::string_view name;
    if (text.compare(0, 7, "@begin:") == 0) {
      point->span_role = TracePoint::SpanRole::kBegin;
      name = text.substr(7);
    } else if (text.compare(0, 5, "@end:") == 0) {
      point->span_role = TracePoint::SpanRole::kEnd;
      name = text.substr(5);
    } else {
      return fail("marker " + quoted(text) + " is not @begin:<span> or @end:<span>");
    }
    bool ok = !name.empty();
    for (char c : name) ok = ok && (is_alpha(c) || is_digit(c) || c == '.' || c == '-');
    if (!ok) {
      return fail("span name " + quoted(name) +
                  ": use letters, digits, '_', '.' and '-' (at least one)");
    }
    point->span = std::string(name);
    return true;
  }

  bool index(std::string_view text, uint32_t* out) {
    uint32_t value = 0;
    bool ok = !text.empty() && text.size() <= 5;
    for (char c : text) {
      if (!is_digit(c)) ok = false;
      value = value * 10 + static_cast<uint32_t>(c - '0');
    }
    if (!ok || value > kMaxTracePointIndex) {
      return fail("index " + quoted(text) + " is not a number from 0 to 65535");
    }
    *out = value;
    return true;
  }

  bool name(std::string_view text, std::string* out) {
    for (char c : text) {
      if (!is_alpha(c) && !is_digit(c) && c != '.' && c != '-') {
        return fail("name " + quoted(text) +
                    ": only letters, digits, '_', '.' and '-' are allowed");
      }
    }
    *out = std::string(text);
    return true;
  }

  bool signature(std::string_view text, TracePoint* point) {
    if (text == "-") return true;
    if (text.size() > kMaxSignatureLength) {
      return fail("signature " + quoted(text) + " is longer than " +
                  std::to_string(kMaxSignatureLength) + " characters");
    }
    for (char c : text) {
      if (c != 'd' && c != 'D' && c != 's') {
        return fail("signature " + quoted(text) + ": '" + std::string(1, c) +
                    "' is not d, D or s (use - for no arguments)");
      }
      point->numeric_words += c == 'd' ? 1 : c == 'D' ? 2 : 0;
    }
    if (point->numeric_words > kMaxNumericWords) {
      return fail("signature " + quoted(text) + " has " + std::to_string(point->numeric_words) +
                  " numeric words; a record holds at most " + std::to_string(kMaxNumericWords));
    }
    point->signature = std::string(text);
    return true;
  }

  bool arguments(const std::vector<std::string_view>& fields, TracePoint* point) {
    size_t named = fields.size() - 3;
    const std::string& sig = point->signature;
    if (named != 0 && named != sig.size()) {
      return fail("the signature has " + std::to_string(sig.size()) + " argument" +
                  (sig.size() == 1 ? "" : "s") + " but " + std::to_string(named) +
                  (named == 1 ? " name is" : " names are") + " given (name all or none)");
    }
    for (size_t i = 0; i < sig.size(); ++i) {
      ArgSpec arg;
      arg.type = sig[i];
      if (named == 0) {
        arg.name = "arg" + std::to_string(i);
      } else {
        std::string_view text = fields[3 + i];
        size_t colon = text.find(':');
        std::string_view name = text.substr(0, colon);
        if (!is_identifier(name)) {
          return fail("argument name " + quoted(name) +
                      ": use letters, digits and '_', not starting with a digit");
        }
        if (colon != std::string_view::npos) {
          std::string_view format = text.substr(colon + 1);
          if (!parse_format(format, &arg.format)) {
            return fail("argument " + quoted(text) + ": format " + quoted(format) +
                        " is not d, u or x");
          }
          if (arg.type == 's')
            return fail("argument " + quoted(text) + " is a string; it takes no format");
        }
        for (const ArgSpec& earlier : point->args) {
          if (earlier.name == name) return fail("argument name " + quoted(name) + " is used twice");
        }
        arg.name = std::string(name);
      }
      point->args.push_back(std::move(arg));
    }
    return true;
  }

  bool parse_message(std::string_view text, TracePoint* point) {
    std::string literal;
    size_t next_arg = 0;
    auto flush = [&] {
      if (!literal.empty()) {
        MessagePart part;
        part.literal = std::move(literal);
        point->message.push_back(std::move(part));
        literal.clear();
      }
    };
    for (size_t i = 0; i < text.size(); ++i) {
      char c = text[i];
      if (c == '}') {
        if (i + 1 < text.size() && text[i + 1] == '}') {
          literal += '}';
          ++i;
          continue;
        }
        return fail("message: a lone '}' (write }} for a brace)");
      }
      if (c != '{') {
        literal += c;
        continue;
      }
      if (i + 1 < text.size() && text[i + 1] == '{') {
        literal += '{';
        ++i;
        continue;
      }
      size_t close = text.find('}', i);
      if (close == std::string_view::npos) return fail("message: '{' without '}'");
      std::string_view inside = text.substr(i + 1, close - i - 1);
      std::string_view placeholder = text.substr(i, close - i + 1);
      size_t colon = inside.find(':');
      std::string_view name = inside.substr(0, colon);
      MessagePart part;
      if (name.empty()) {
        if (next_arg >= point->args.size()) {
          return fail("message placeholder " + std::string(placeholder) + ": there are only " +
                      std::to_string(point->args.size()) + " arguments");
        }
        part.arg = static_cast<int>(next_arg++);
      } else {
        for (size_t a = 0; a < point->args.size(); ++a) {
          if (point->args[a].name == name) part.arg = static_cast<int>(a);
        }
        if (part.arg < 0) {
          return fail("message placeholder " + std::string(placeholder) +
                      ": no argument is called " + std::string(name));
        }
      }
      const ArgSpec& arg = point->args[static_cast<size_t>(part.arg)];
      part.format = arg.format;
      if (colon != std::string_view::npos) {
        std::string_view format = inside.substr(colon + 1);
        if (!parse_format(format, &part.format)) {
          return fail("message placeholder " + std::string(placeholder) + ": format " +
                      quoted(format) + " is not d, u or x");
        }
        if (arg.type == 's') {
          return fail("message placeholder " + std::string(placeholder) +
                      ": a string takes no format");
        }
      }
      flush();
      point->message.push_back(std::move(part));
      i = close;
    }
    flush();
    return true;
  }
};

bool file_exists(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && !S_ISDIR(st.st_mode);
}

// Reads a decode file whose name came from a trace header, that is from anyone: it is opened
// without blocking (a FIFO must not hang the decoder), must be a regular file after the open
// (no device, no FIFO, whatever the name pointed to when it was looked up) and is read only up
// to the size cap. Returns "" on success, else what is wrong.
std::string read_bounded(const std::string& path, std::string* text) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (fd < 0) return std::string("cannot be opened: ") + strerror(errno);
  struct stat st;
  std::string error;
  if (fstat(fd, &st) != 0) {
    error = std::string("cannot be read: ") + strerror(errno);
  } else if (!S_ISREG(st.st_mode)) {
    error = "is not a regular file";
  } else if (static_cast<uint64_t>(st.st_size) > kMaxDecodeFileBytes) {
    error = "is larger than " + std::to_string(kMaxDecodeFileBytes >> 20) + " MiB";
  } else {
    // Read to the end, growing past the size fstat gave if the file grew meanwhile, but never
    // beyond one byte more than the cap.
    text->resize(static_cast<size_t>(st.st_size) + 1);
    size_t done = 0;
    for (;;) {
      if (done == text->size()) {
        if (done > kMaxDecodeFileBytes) break;
        text->resize(std::min(done * 2, kMaxDecodeFileBytes + 1));
      }
      ssize_t got = read(fd, &(*text)[done], text->size() - done);
      if (got < 0 && errno == EINTR) continue;
      if (got < 0) {
        error = std::string("cannot be read: ") + strerror(errno);
        break;
      }
      if (got == 0) break;
      done += static_cast<size_t>(got);
    }
    text->resize(done);
    if (error.empty() && done > kMaxDecodeFileBytes) {
      error = "is larger than " + std::to_string(kMaxDecodeFileBytes >> 20) + " MiB";
    }
    text->shrink_to_fit();
  }
  close(fd);
  return error;
}

}  // namespace

DecodeFile parse_decode_file(std::string_view text, const std::string& path) {
  DecodeFile file;
  file.path = path;
  size_t line_no = 0;
  size_t pos = 0;
  while (pos < text.size()) {
    size_t end = text.find('\n', pos);
    if (end == std::string_view::npos) end = text.size();
    std::string_view line = text.substr(pos, end - pos);
    pos = end + 1;
    ++line_no;
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    std::string_view content = trim(line);
    if (content.empty() || content[0] == '#') continue;

    LineParser parser;
    TracePoint point;
    point.line = line_no;
    if (!parser.parse(content, &point)) {
      file.errors.push_back(path + ":" + std::to_string(line_no) + ": " + parser.error);
      continue;
    }
    if (const TracePoint* earlier = file.find(point.index)) {
      file.errors.push_back(path + ":" + std::to_string(line_no) + ": index " +
                            std::to_string(point.index) + " is already described on line " +
                            std::to_string(earlier->line));
      continue;
    }
    if (file.by_index_.size() <= point.index) file.by_index_.resize(point.index + 1, -1);
    file.by_index_[point.index] = static_cast<int32_t>(file.points.size());
    file.points.push_back(std::move(point));
  }
  return file;
}

std::vector<std::string> decode_search_path(const std::vector<std::string>& extra) {
  std::vector<std::string> path;
  for (const std::string& dir : extra) {
    if (dir.empty()) continue;
    path.push_back(dir.back() == '/' ? dir : dir + "/");
  }
  // The library's own reading of the environment and the setup file, so that the decoder
  // agrees with the traced process. A malformed setup file makes it report and return null;
  // the built-in default is used then.
  quarry_env* env = quarry_get_env();
  const char* dec = env != nullptr ? quarry_env_get_quarry_dec_path(env) : nullptr;
  path.push_back(dec != nullptr ? dec : "/usr/local/etc/quarry/");
  quarry_free_env(env);
  return path;
}

std::shared_ptr<const DecodeFile> DecodeFileCache::get(const std::string& name) {
  auto found = by_name_.find(name);
  if (found != by_name_.end()) return found->second;

  std::string path;
  if (!name.empty() && name[0] == '/') {
    if (file_exists(name)) path = name;
  } else if (!name.empty()) {
    for (const std::string& dir : search_path_) {
      if (file_exists(dir + name)) {
        path = dir + name;
        break;
      }
    }
  }
  std::shared_ptr<const DecodeFile> result;
  if (path.empty()) {
    std::string where;
    if (name.empty() || name[0] != '/') {
      for (const std::string& dir : search_path_) where += (where.empty() ? "" : ", ") + dir;
      where = " in " + where;
    }
    diagnostics_.push_back("decode file \"" + name + "\" not found" + where +
                           "; its records are shown raw");
  } else {
    std::string text;
    const std::string error = read_bounded(path, &text);
    if (!error.empty()) {
      diagnostics_.push_back("decode file " + path + " " + error + "; its records are shown raw");
      had_errors_ = true;
    } else {
      auto file = std::make_shared<DecodeFile>(parse_decode_file(text, path));
      for (const std::string& error : file->errors) diagnostics_.push_back(error);
      if (!file->errors.empty()) had_errors_ = true;
      result = std::move(file);
    }
  }
  by_name_.emplace(name, result);
  return result;
}

}  // namespace quarry_decode

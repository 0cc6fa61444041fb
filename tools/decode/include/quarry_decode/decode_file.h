// Decode files: the text that names a handle's trace points and gives their signatures,
// argument names and messages (format: docs/decode-files.md), and finding them by name.
// Thread contract: parsed files are immutable values; the cache is not thread-safe.
#pragma once

#include <stdint.h>

#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace quarry_decode {

enum class ArgFormat : uint8_t { kSigned, kUnsigned, kHex };

struct ArgSpec {
  std::string name;
  char type = 'd';  // 'd', 'D' or 's'
  ArgFormat format = ArgFormat::kSigned;
};

// A message is literal text and argument references in order.
struct MessagePart {
  std::string literal;  // used when arg < 0
  int arg = -1;
  ArgFormat format = ArgFormat::kSigned;
};

struct TracePoint {
  uint32_t index = 0;
  std::string name;
  std::string signature;  // only d, D and s; empty for a trace point without arguments
  std::vector<ArgSpec> args;
  bool has_message = false;
  std::vector<MessagePart> message;
  uint32_t numeric_words = 0;  // 'd' counts 1, 'D' 2
  size_t line = 0;
  // A `@begin:<span>` or `@end:<span>` marker: the record opens or closes a span of that name
  // on its thread.
  enum class SpanRole : uint8_t { kNone, kBegin, kEnd };
  SpanRole span_role = SpanRole::kNone;
  std::string span;
};

// Decode files larger than this are refused (a generated file for 65536 trace points stays
// far below it).
constexpr size_t kMaxDecodeFileBytes = 16u << 20;

// The writer's limits, which a decode file must respect.
constexpr size_t kMaxSignatureLength = 32;
constexpr uint32_t kMaxNumericWords = 29;
constexpr uint32_t kMaxTracePointIndex = 0xFFFF;

class DecodeFile {
 public:
  std::string path;
  std::vector<TracePoint> points;   // in file order, only lines without errors
  std::vector<std::string> errors;  // "<path>:<line>: <what is wrong>"

  // The trace point with this index, or null.
  const TracePoint* find(uint32_t index) const {
    return index < by_index_.size() && by_index_[index] >= 0 ? &points[by_index_[index]] : nullptr;
  }

 private:
  friend DecodeFile parse_decode_file(std::string_view text, const std::string& path);
  std::vector<int32_t> by_index_;
};

// Parses the text of a decode file. Never throws for malformed lines: each becomes an entry of
// `errors` and the other lines are kept.
DecodeFile parse_decode_file(std::string_view text, const std::string& path);

// The directories searched for decode files by name: `extra` in order (each given a trailing
// '/'), then the decode directory of the library's environment (QUARRY_DEC_PATH, else the
// setup file's, else the built-in default).
std::vector<std::string> decode_search_path(const std::vector<std::string>& extra);

// Loads decode files by the name a trace header gives, each once. A name starting with '/' is
// used as it is; other names are looked up in the search path, first hit wins.
class DecodeFileCache {
 public:
  explicit DecodeFileCache(std::vector<std::string> search_path)
      : search_path_(std::move(search_path)) {}

  // The parsed file, or null when no file of that name exists or it cannot be used (not a
  // regular file, larger than kMaxDecodeFileBytes, unreadable). The first lookup of a name adds
  // what went wrong to diagnostics().
  std::shared_ptr<const DecodeFile> get(const std::string& name);

  const std::vector<std::string>& search_path() const { return search_path_; }
  // Messages for missing or unreadable files and every error line, each once, in the order met.
  const std::vector<std::string>& diagnostics() const { return diagnostics_; }
  // A decode file had errors or could not be read (a missing file is not counted here).
  bool had_errors() const { return had_errors_; }

 private:
  std::vector<std::string> search_path_;
  std::map<std::string, std::shared_ptr<const DecodeFile>> by_name_;
  std::vector<std::string> diagnostics_;
  bool had_errors_ = false;
};

}  // namespace quarry_decode

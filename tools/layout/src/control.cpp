// Reading a control file with the library's grammar and writing the full state back.
// Thread contract: pure functions over text; any thread.
#include "quarry_layout/control.h"

#include <ctype.h>
#include <stdlib.h>
#include <strings.h>

namespace quarry_layout {
namespace {

// The library reads lines with a 1024-byte buffer: a longer line goes on as the next line.
constexpr size_t kLineChars = 1023;

bool is_space(char c) {
  return isspace(static_cast<unsigned char>(c)) != 0;
}

// The next token from `pos`: a bare word, or a quoted run that keeps its quotes and ends at the
// next quote no backslash precedes. Returns false at the end of the line or for an unclosed
// quote (`*unclosed` set); the library skips such a line.
bool next_token(const std::string& line, size_t* pos, std::string* token, bool* unclosed) {
  size_t i = *pos;
  while (i < line.size() && is_space(line[i])) ++i;
  if (i >= line.size()) return false;
  size_t end = i;
  if (line[i] == '"') {
    ++end;
    while (end < line.size() && !(line[end] == '"' && line[end - 1] != '\\')) ++end;
    if (end >= line.size()) {
      *unclosed = true;
      return false;
    }
    ++end;
  } else {
    while (end < line.size() && !is_space(line[end])) ++end;
  }
  *token = line.substr(i, end - i);
  *pos = end;
  return true;
}

// Splits the text into the lines the library's reader sees: newline-terminated, and cut into
// chunks of at most kLineChars characters (a chunk's own newline stays with it).
std::vector<std::string> library_lines(const std::string& text) {
  std::vector<std::string> lines;
  size_t start = 0;
  while (start < text.size()) {
    size_t newline = text.find('\n', start);
    size_t end = newline == std::string::npos ? text.size() : newline + 1;
    if (end - start > kLineChars) end = start + kLineChars;
    std::string line = text.substr(start, end - start);
    if (!line.empty() && line.back() == '\n') line.pop_back();
    lines.push_back(line);
    start = end;
  }
  return lines;
}

}  // namespace

int32_t library_atoi(const std::string& text) {
  long long value = strtoll(text.c_str(), nullptr, 10);
  return static_cast<int32_t>(static_cast<uint32_t>(static_cast<unsigned long long>(value)));
}

ControlHandle* ControlState::find(const std::string& name) {
  for (ControlHandle& handle : handles) {
    if (handle.name == name) return &handle;
  }
  return nullptr;
}

const ControlHandle* ControlState::find(const std::string& name) const {
  return const_cast<ControlState*>(this)->find(name);
}

ControlState parse_control(const std::string& text) {
  ControlState state;
  std::vector<std::string> lines = library_lines(text);
  for (size_t n = 0; n < lines.size(); ++n) {
    const std::string& line = lines[n];
    if (!line.empty() && line[0] == '#') continue;
    size_t pos = 0;
    bool unclosed = false;
    std::string keyword, value;
    bool ok =
        next_token(line, &pos, &keyword, &unclosed) && next_token(line, &pos, &value, &unclosed);
    auto ignore = [&] { state.ignored.push_back("line " + std::to_string(n + 1) + ": " + line); };
    if (!ok) {
      bool blank = true;
      for (char c : line) blank = blank && is_space(c);
      if (!blank) ignore();
      continue;
    }
    bool trace_kind = keyword == "TRACE" || keyword == "NOTRACE";
    bool pipe_kind = keyword == "PIPE" || keyword == "NOPIPE";
    if (trace_kind || pipe_kind) {
      ControlHandle* handle = state.find(value);
      if (handle == nullptr) {
        state.handles.push_back(ControlHandle{value});
        handle = &state.handles.back();
      }
      if (trace_kind) {
        handle->trace = keyword == "TRACE";
        handle->seen_trace = true;
      } else {
        handle->pipe = keyword == "PIPE";
        handle->seen_pipe = true;
      }
    } else if (keyword == "MAX_SIZE") {
      state.has_max_size = true;
      state.max_size = static_cast<uint32_t>(library_atoi(value));
    } else if (keyword == "DUMP") {
      if (strcasecmp(value.c_str(), "on") == 0) state.dump = true;
    } else if (keyword == "FILE_LOOP_COUNT") {
      state.has_loop_count = true;
      state.loop_count = library_atoi(value);
      if (state.loop_count == 0) state.loop_count = 2;
    } else {
      ignore();
    }
  }
  return state;
}

std::string format_control(const ControlState& state) {
  std::string text;
  if (state.has_max_size) text += "MAX_SIZE " + std::to_string(state.max_size) + "\n";
  text += state.dump ? "DUMP on\n" : "DUMP off\n";
  if (state.has_loop_count) text += "FILE_LOOP_COUNT " + std::to_string(state.loop_count) + "\n";
  for (const ControlHandle& handle : state.handles) {
    text += (handle.trace ? "TRACE " : "NOTRACE ") + handle.name + "\n";
    text += (handle.pipe ? "PIPE " : "NOPIPE ") + handle.name + "\n";
  }
  return text;
}

}  // namespace quarry_layout

// A buffer's control file "quarry.ctrl": reading it the way the library does, and writing the
// full state back. Thread contract: plain values and pure functions.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

namespace quarry_layout {

struct ControlHandle {
  std::string name;  // the handle's full name
  bool trace = true;
  bool pipe = false;
  // Seen in both a TRACE/NOTRACE and a PIPE/NOPIPE line: the library writes both for every
  // handle it has, while an operator's line for a name it does not know comes alone.
  bool seen_trace = false, seen_pipe = false;
};

struct ControlState {
  std::vector<ControlHandle> handles;  // in order of first appearance
  bool has_max_size = false;
  uint32_t max_size = 0;  // bytes, as the library reads it (atoi, low 32 bits)
  bool has_loop_count = false;
  int32_t loop_count = 0;  // as the library applies it: 0 reads as 2
  bool dump = false;       // a DUMP line with the value "on" in any case
  // Lines the library reads and ignores (unknown keyword, missing value, unclosed quote),
  // as "line N: text".
  std::vector<std::string> ignored;

  ControlHandle* find(const std::string& name);
  const ControlHandle* find(const std::string& name) const;
};

// Parses the text by the library's grammar: comments only in the first column, keyword and
// value tokens (a token beginning with '"' runs to the next unescaped '"' and keeps its
// quotes), 1023-character line chunks, later lines override earlier ones.
ControlState parse_control(const std::string& text);

// The file for `state`: MAX_SIZE, DUMP, FILE_LOOP_COUNT, then TRACE/NOTRACE and PIPE/NOPIPE for
// each handle, in the library's own layout. DUMP says "on" only when state.dump is set: the
// library dumps on every change it reads from a file that says so.
std::string format_control(const ControlState& state);

// The library's number reading: optional sign and leading digits, else 0; out-of-range values
// keep their low 32 bits.
int32_t library_atoi(const std::string& text);

}  // namespace quarry_layout

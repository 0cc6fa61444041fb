// Turning what a user names into inputs: a trace file, a pipe stream (a FIFO or "-" for
// standard input), a buffer directory (its newest trace file) or a process directory (the
// newest trace file of each of its buffer directories). Thread contract: reads the file
// system only; no shared state.
#pragma once

#include <string>
#include <vector>

namespace quarry_decode {

struct InputSpec {
  std::string path;  // "-" for standard input
  bool stream = false;
};

// Expands one command-line input. `as_stream` reads regular files as saved pipe streams.
// Throws DecodeError when the path cannot be accessed or a directory holds no trace file.
std::vector<InputSpec> expand_input(const std::string& arg, bool as_stream);

// The most recently modified "quarry.trc" or "quarry_<n>.trc" in `dir`, or "" when none.
std::string newest_trace_file(const std::string& dir);

}  // namespace quarry_decode

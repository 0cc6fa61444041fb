// The quarry-decode command: options, inputs (trace files, buffer and process directories,
// pipe streams), decoding, output and reports. Thread contract: runs on the calling thread;
// it reads standard input only for the input "-".
#pragma once

#include <stdio.h>

namespace quarry_decode {

// Exit statuses.
constexpr int kExitOk = 0;
constexpr int kExitBadInput = 1;  // some input was bad: what could be decoded was still shown
constexpr int kExitUsage = 2;

// Runs quarry-decode with argv[1..argc-1]; records go to `out` (unless -o names a file),
// diagnostics to `err`. Throws nothing that it can catch itself.
int run_cli(int argc, const char* const* argv, FILE* out, FILE* err);

}  // namespace quarry_decode

// The quarry-decode command: options, inputs (trace files, buffer and process directories,
// pipe streams), decoding, output and reports. Thread contract: runs on the calling thread;
// it reads standard input only for the input "-".
#pragma once

#include <stdio.h>

namespace quarry_decode {

// Exit statuses.
constexpr int kExitOk = 0;
// An input or decode file was malformed, or most of an input could not be decoded: what could
// be decoded was still shown. Expected losses (a wrapped ring, the record cut at its oldest
// end, records in flight at a crash) and an output closed by its reader leave kExitOk.
constexpr int kExitBadInput = 1;
constexpr int kExitUsage = 2;

// Runs quarry-decode with argv[1..argc-1]; records go to `out` (unless -o names a file),
// diagnostics to `err`. Throws nothing that it can catch itself.
int run_cli(int argc, const char* const* argv, FILE* out, FILE* err);

}  // namespace quarry_decode

// quarry-decode: turns trace files and pipe streams into readable traces. Everything happens
// in the decoding library; this only guarantees that no exception leaves main and that a
// reader that closes the output early (`| head`) ends the run quietly instead of killing it.
#include <signal.h>
#include <stdio.h>

#include <exception>

#include "quarry_decode/cli.h"

int main(int argc, char** argv) {
  // A closed output then fails the write with EPIPE, and run_cli stops decoding quietly.
  signal(SIGPIPE, SIG_IGN);
  try {
    return quarry_decode::run_cli(argc, argv, stdout, stderr);
  } catch (const std::exception& e) {
    fprintf(stderr, "quarry-decode: %s\n", e.what());
  } catch (...) {
    fprintf(stderr, "quarry-decode: unexpected failure\n");
  }
  return quarry_decode::kExitBadInput;
}

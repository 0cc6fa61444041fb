// Fuzzes quarry-decode on a trace file: header, data layout, records, and every output format
// (the first input byte picks one), through the command's own entry point.
#include <stdio.h>

#include <string>

#include "fuzz_support.h"
#include "quarry_decode/cli.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string path = quarry_fuzz::work_dir() + "input.trc";
  static FILE* sink = fopen("/dev/null", "w");
  if (size < 1) return 0;
  static const char* const formats[] = {"--format=text", "--format=json", "--format=chrome",
                                        "--summary"};
  const char* format = formats[data[0] % 4];
  quarry_fuzz::write_input(path, data + 1, size - 1);
  // Decode files are looked up in the seed corpus's directory only (and by absolute name).
  const char* argv[] = {"quarry-decode", format, "-d", QUARRY_FUZZ_DECODE_DIR, path.c_str()};
  try {
    quarry_decode::run_cli(5, argv, sink, sink);
  } catch (const std::exception&) {
    // run_cli promises nothing it can catch itself escapes; the command's main catches the rest
  }
  return 0;
}

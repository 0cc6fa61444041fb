// Shared by the fuzz harnesses: a private directory for the files a harness needs, and writing
// an input into a file there. Thread contract: libFuzzer calls each harness on one thread.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <string>

namespace quarry_fuzz {

// A directory below TMPDIR made once per process, with a trailing '/'. Also the trace base
// directory (QUARRY_PATH) of a harness that opens buffers.
inline const std::string& work_dir() {
  static const std::string dir = [] {
    const char* tmp = getenv("TMPDIR");
    std::string pattern =
        std::string(tmp != nullptr && *tmp ? tmp : "/tmp") + "/quarry-fuzz-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) abort();
    setenv("QUARRY_PATH", pattern.c_str(), 1);
    return pattern + "/";
  }();
  return dir;
}

inline void write_input(const std::string& path, const uint8_t* data, size_t size) {
  FILE* file = fopen(path.c_str(), "wb");
  if (file == nullptr) abort();
  if (size > 0 && fwrite(data, 1, size, file) != size) abort();
  fclose(file);
}

}  // namespace quarry_fuzz

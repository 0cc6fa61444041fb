// Fuzzes the control-file reader on a real buffer: tokenizer, keywords, numbers, rotation scan
// and the dump a DUMP line asks for.
#include <stdlib.h>
#include <string.h>

#include "buffer.h"
#include "ctrl_file.h"
#include "fuzz_support.h"

namespace {

// MAX_SIZE grows the buffer for real (up to 2 GiB) and never shrinks it: inputs asking for more
// than 1 MiB are left out, so that memory stays within the fuzzer's limits.
bool asks_for_a_huge_buffer(const char* text) {
  for (const char* at = strstr(text, "MAX_SIZE"); at != nullptr; at = strstr(at + 1, "MAX_SIZE")) {
    const char* value = at + 8;
    while (*value == ' ' || *value == '\t' || *value == '\v' || *value == '\f' || *value == '\r') {
      ++value;
    }
    uint32_t bytes = static_cast<uint32_t>(strtoll(value, nullptr, 10));
    if (bytes > (1u << 20)) return true;
  }
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static quarry_handle* handle = [] {
    quarry_fuzz::work_dir();
    quarry_set_process_name("ctrl_fuzz");
    quarry_handle* h = nullptr;
    quarry_open_internal(&h, "main", 4096, 4, "main.dec", "1", nullptr);
    quarry_handle* child = nullptr;
    quarry_open_internal(&child, "io", 0, 2, "io.dec", "1", h);
    return h;
  }();
  if (handle == nullptr) abort();
  std::string text(reinterpret_cast<const char*>(data), size);
  if (asks_for_a_huge_buffer(text.c_str())) return 0;
  quarry_fuzz::write_input(handle->cb->ctrl_file_name, data, size);
  parse_ctrl_file(handle->cb, 1);
  return 0;
}

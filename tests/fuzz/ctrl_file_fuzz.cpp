// Fuzzes the control-file reader on a real buffer: tokenizer, keywords, numbers, rotation scan
// and the dump a DUMP line asks for.
#include <stdlib.h>
#include <string.h>

#include <string>

#include "buffer.h"
#include "ctrl_file.h"
#include "fuzz_support.h"

namespace {

// MAX_SIZE grows the buffer for real (up to 2 GiB) and never shrinks it: inputs that may ask for
// more than 1 MiB are left out, so that memory stays within the fuzzer's limits. The whole input
// is searched (NUL bytes included: the reader goes on past them), and any sign or a number of
// more than seven digits counts as huge, whatever the reader would make of it.
bool asks_for_a_huge_buffer(const std::string& text) {
  for (size_t at = text.find("MAX_SIZE"); at != std::string::npos;
       at = text.find("MAX_SIZE", at + 1)) {
    size_t i = at + 8;
    while (i < text.size() && strchr(" \t\v\f\r", text[i]) != nullptr && text[i] != '\0') ++i;
    if (i < text.size() && (text[i] == '-' || text[i] == '+')) return true;
    uint64_t bytes = 0;
    size_t digits = 0;
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9' && digits <= 7; ++i, ++digits) {
      bytes = bytes * 10 + static_cast<uint64_t>(text[i] - '0');
    }
    if (digits > 7 || bytes > (1u << 20)) return true;
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
  if (asks_for_a_huge_buffer(text)) return 0;
  quarry_fuzz::write_input(handle->cb->ctrl_file_name, data, size);
  parse_ctrl_file(handle->cb, 1);
  return 0;
}

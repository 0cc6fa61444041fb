// Fuzzes the setup-file reader: names, values, comments, over-long lines and tokens.
#include <stdio.h>

#include "env.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string path = quarry_fuzz::work_dir() + "quarry.setup";
  static const char* const candidates[] = {path.c_str(), nullptr};
  static bool ready = (set_setup_file_candidates(candidates), true);
  (void)ready;
  quarry_fuzz::write_input(path, data, size);
  quarry_env* env = quarry_get_env();
  if (env != nullptr) {
    // Both paths end in '/' whatever the file said.
    for (const char* p : {quarry_env_get_quarry_path(env), quarry_env_get_quarry_dec_path(env)}) {
      if (p != nullptr && (p[0] == '\0' || p[std::string(p).size() - 1] != '/')) abort();
    }
  }
  quarry_free_env(env);
  return 0;
}

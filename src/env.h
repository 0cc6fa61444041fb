// Setup file and environment: where the library keeps its files.
// Thread contract: quarry_get_env runs once per process under circular_buffer_list_mutex; a
// finished record is immutable and may be read from any thread.
#pragma once

#include "quarry/quarry.h"

struct quarry_env {
  char* quarry_path;      // trace base directory, ends in '/'
  char* quarry_dec_path;  // decode directory, ends in '/'
  // QUARRY_PERSIST: 1 keeps buffers in file mappings that outlive the process (see
  // persistent_ring.h); 0 (the default) keeps them in process memory.
  int persist;
  // QUARRY_FILE_MODE: 0 shared (the default), 1 private (directories 0700, files 0600).
  int private_files;
};

// Heap copy of path that ends in '/'; null when memory runs out.
char* dup_dir_path(const char* path);

// The setup file candidates, tried in order (null-terminated). Tests replace the list; the
// default is "/etc/quarry.setup", then "/pkg/etc/quarry.setup".
void set_setup_file_candidates(const char* const* candidates);
extern const char* const* setup_file_in_use;

// A record from the built-in defaults and the environment alone (no setup file); null only
// when memory runs out. The initialisation uses it when the setup file is malformed.
quarry_env* quarry_env_from_defaults();

// The per-buffer control file: write, tokenize, parse, rotation index.
// Thread contract: both operations take the buffer's (recursive) mutex; lock order is
// circular_buffer_list_mutex before the buffer's mutex.
#pragma once

#include "buffer.h"

// Results: 0 written; 1 cannot open; -1 mutex lock failed (file holds only three lines).
int write_ctrl_file(circular_buffer* cb);
// Results: 0 read to the end; 1 cannot open; -1 mutex lock failed; else the non-zero result of
// set_circular_buffer_size for a MAX_SIZE line (reading stops there).
int parse_ctrl_file(circular_buffer* cb, int allow_dump);
// Finds the next token of line in place (see ctrl_file.cpp). Returns its length, -1 when only
// whitespace is left, -2 when a quoted token lacks its closing quote.
int next_ctrl_token(char* line, int* position, char* saved);
// Loop index of the newest "quarry_<n>..." file in the directory of path; -1 without a '/'.
int latest_file_loop_index(const char* path);

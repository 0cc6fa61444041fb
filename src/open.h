// Opening handles: new buffers, children, twins, decode references.
// Thread contract: every helper here runs under circular_buffer_list_mutex.
#pragma once

#include "buffer.h"

quarry_handle* find_handle_by_name(const char* full_name);
void append_handle_node(circular_buffer* cb, handle_node* node);
// 0 when path is (or was made) a directory; 1, with a message, when it exists as another file.
int ensure_directory(const char* path);
void make_directory_tree(const char* path);

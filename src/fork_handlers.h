// Forked children: a process forked after the library's initialisation is its own traced
// process, with its own id, name, directory, info file and trace files beside its parent's.
// Thread contract: the fork handlers run inside fork(); everything else here is async-signal-
// safe (no lock, no allocation, no stdio) except adopt_inherited_ctrl_file, which runs under the
// buffer's mutex in ordinary context.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "buffer.h"

// The traced parent's process id in a process forked from it after the initialisation, else 0.
// Trace files and pipe headers of such a child carry it as "PARENT_PID", after "PROG_NAME".
extern int32_t parent_process_id;

// Values of circular_buffer::inherited.
enum : uint8_t {
  kOwnBuffer = 0,               // created by this process
  kInheritedNoDirectory = 1,    // inherited across fork; the child's directory not made yet
  kInheritedWithDirectory = 2,  // inherited across fork; the child's directory exists
};

// Registers the fork handlers, once per process. Called by the initialisation before it takes
// circular_buffer_list_mutex: fork() may hold the C library's handler lock while prepare_fork
// waits for that mutex, so registering under it could deadlock against a concurrent fork.
void register_fork_handlers();

// The base path (buffer directory + "quarry") of the buffer's trace files as this process
// writes them: output_file_name for a buffer this process created; for one inherited across
// fork, the same buffer directory below this process's own directory, composed into `area`
// (cut to capacity - 1 characters). *length receives the uncut length. Async-signal-safe.
const char* own_file_base(const circular_buffer* cb, char* area, size_t capacity, size_t* length);

// In a forked child, creates its process directory and writes its info file the first time it
// is called; nothing otherwise. Async-signal-safe.
void ensure_own_process_directory();

// Before the first file of a buffer inherited across fork: creates the child's process
// directory (with its info file) and the directory of `file_path`, one of the buffer's own
// paths. Nothing for other buffers, or once done. Async-signal-safe.
void ensure_inherited_buffer_directory(circular_buffer* cb, const char* file_path);

// Points the control file of a buffer inherited across fork at the child's own buffer
// directory (a child never acts on its parent's control file). Caller holds cb->mutex.
// 0 when done or nothing to do; 1 when memory ran out (the name is left as it was).
int adopt_inherited_ctrl_file(circular_buffer* cb);

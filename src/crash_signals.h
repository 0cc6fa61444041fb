// Crash and dump signal handlers, chaining to the actions the process had before.
// Thread contract: register_circular_buffer runs under circular_buffer_list_mutex; the
// handlers take no lock, allocate nothing and call only async-signal-safe functions.
#pragma once

#include <signal.h>

#include "buffer.h"

// Links cb at the head of circular_buffer_list (release), then installs the seven crash
// actions and the dump action once per process. Results: 0; 1 a sigaction call failed
// (reported with perror; the next buffer creation tries again).
int register_circular_buffer(circular_buffer* cb);

extern "C" void quarry_abort_handler(int signo, siginfo_t* info, void* context);
extern "C" void dump_signal_handler(int signo, siginfo_t* info, void* context);

// What the crash handler noted about the signal it handled; kept in process memory (and so in
// a core image), never written to a trace file.
extern siginfo_t crash_siginfo;
// The first bytes of /proc/<sender>/cmdline (or .../comm when that gave nothing); byte 255 NUL.
extern char crash_sender_cmdline[256];

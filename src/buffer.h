// Handle and buffer records, the registry of all buffers, and the process-wide state.
// Thread contract: records are complete before they are linked where lock-free readers (the
// record writer, the dump paths, signal handlers) can reach them; see each field.
#pragma once

#include <pthread.h>
#include <signal.h>
#include <stdint.h>

#include <atomic>

#include "hashtable.h"
#include "quarry/quarry.h"

struct circular_buffer;
struct retired_ring;
struct persistent_ring;

// One opened handle name. Allocated as one block: the fixed fields, then the inline
// NUL-terminated `decode_file` string.
struct quarry_handle {
  circular_buffer* cb;  // the buffer written into; shared by all handles of the buffer
  char* name;           // full name, owned; the key of this handle in cb->handles
  char* decode_ref;     // "QUARRY_DECODE_REF ..." line, owned
  uint32_t first_trace_point_id;
  uint32_t trace_point_count;
  // The switches are read by the record writer without a lock and written by the host or the
  // control-file reader. Relaxed suffices: a change only has to show up in a later record.
  std::atomic<uint8_t> enabled;
  std::atomic<uint8_t> pipe;
  char decode_file[];  // inline copy of the decode_file given at open
};

// Lists that lock-free readers walk (handles of a buffer, thread names) are appended at the
// tail: the new node is complete before the release store of the link that makes it reachable,
// and readers follow links with acquire loads. Nodes that were ever reachable are never freed.
struct handle_node {
  quarry_handle* handle;
  std::atomic<handle_node*> next;
};

// The record memory and its size, packed into one 64-bit word so that a writer loads both
// with a single atomic load and can never pair old memory with a new size. See ring.h.
using ring_word = std::atomic<uint64_t>;

struct circular_buffer {
  char* output_header;          // open block of the trace file header; null when it was not built
  ring_word ring;               // `buffer` and `size_words`, published together (ring.h)
  retired_ring* retired_rings;  // arrays replaced by growth, kept for late writers (ring.h)
  std::atomic<uint32_t> word_count;  // words reserved since creation; wraps at 2^32
  char* output_file_name;            // buffer directory + "quarry"
  char* ctrl_file_name;              // buffer directory + "quarry.ctrl"
  pthread_mutex_t mutex;             // recursive; settings, control file, pipe, growth
  int ctrl_inotify_fd;
  int ctrl_watch;
  int pipe_inotify_fd;
  int pipe_watch;
  uint32_t next_trace_point_id;
  std::atomic<circular_buffer*> next;  // registry link; set before the buffer is published
  std::atomic<uint8_t> dump_on_exit;
  void* event_loop;
  // Written under `mutex` by the pipe step and close_pipe; atomic because a dump taken in a
  // signal handler may look at it.
  std::atomic<int> pipe_fd;
  int file_loop_count;
  int file_loop_index;
  std::atomic<uint8_t> ctrl_write_pending;
  // Changed only by the open, which holds circular_buffer_list_mutex and, around each change,
  // this buffer's `mutex` too, so control-file code may read it under `mutex` alone.
  quarry_hashtable* handles;
  std::atomic<handle_node*> handle_list;  // appended under circular_buffer_list_mutex
  // Incremented (release) after the node is linked; lock-free readers load it (acquire) and
  // walk at most that many nodes, so they only meet complete nodes.
  std::atomic<uint32_t> handle_count;
  std::atomic<uint32_t> entry_count;
  uint64_t creation_time;
  // Wraparound statistics: plain values written by the one writer whose record crosses the
  // end. Relaxed atomics so that concurrent dumps read them without a data race.
  std::atomic<uint64_t> wraparound_time;
  std::atomic<uint32_t> wraparound_count;
  std::atomic<uint64_t> min_wraparound_time;
  std::atomic<uint64_t> max_wraparound_time;
  // Set in a forked child for every buffer it inherited (values in fork_handlers.h): its files
  // then go below the child's own directory. Written by the child's fork handler and once by
  // the first file the child writes; read by dumps, so atomic.
  std::atomic<uint8_t> inherited;
  // Set before the buffer is published when its memory is a file mapping (QUARRY_PERSIST,
  // persistent_ring.h); null for process memory. The record path never looks at it.
  persistent_ring* persistent;
  // While a fatal signal is handled: the ring word and word count that the crash dump writes,
  // while `ring` points at the scratch ring (ring.h, hold_ring). 0 otherwise.
  std::atomic<uint64_t> held_ring;
  std::atomic<uint32_t> held_word_count;
};

// Wall-clock time (gettimeofday) and CLOCK_MONOTONIC time, read together.
struct time_sample {
  int64_t wall_sec;
  int64_t wall_usec;
  int64_t mono_sec;
  int64_t mono_nsec;
};

// 1 when the monotonic clock could not be read, else 0.
int take_time_sample(time_sample* t);

// One "THREAD <name> <id>\n" line, cut to 63 characters; complete before it is linked.
struct thread_name_entry {
  char text[64];
  std::atomic<thread_name_entry*> next;
};

// ---- The registry ----------------------------------------------------------------------------

// Head of the registry, newest first. Published with release after the buffer is complete;
// lock-free readers (dumps, signal handlers) load it with acquire. Exported with C linkage under
// the name the public header declares as a plain pointer: same size and representation.
extern "C" QUARRY_EXPORT std::atomic<circular_buffer*> circular_buffer_list;
static_assert(sizeof(std::atomic<circular_buffer*>) == sizeof(circular_buffer*),
              "circular_buffer_list must look like a plain pointer to C callers");
static_assert(std::atomic<circular_buffer*>::is_always_lock_free,
              "signal handlers read the registry");

// Serialises opens, the one-time initialisation, the registry and the thread-name list.
extern pthread_mutex_t circular_buffer_list_mutex;

// ---- Process-wide state ----------------------------------------------------------------------

extern char process_name[256];
extern char argv0[256];
extern uint32_t node_id;
extern int32_t process_id;
extern int32_t init_done;
extern int32_t dump_signal;
// Set by the clock calibration (which may run again while records are written, when an earlier
// initialisation did not complete); writers load them relaxed, which is a plain load on x86-64.
extern std::atomic<uint64_t> ts_res;
extern std::atomic<uint64_t> ts_idx_mask;
extern std::atomic<uint32_t> ts_index;
extern time_sample time_alpha;
extern time_sample time_omega;
extern struct sigaction sigpipe_ignore_action;
// Appended under circular_buffer_list_mutex; each entry complete before the release store
// that links it, so signal handlers walk it without the lock.
extern std::atomic<thread_name_entry*> thread_name_list;
extern quarry_env* process_env;
// Crash state: set once by the first crash handler run, read by every later dump.
extern volatile sig_atomic_t crash_handled;
extern volatile int32_t crash_signal;
extern volatile int32_t crash_sender_pid;

// ---- Locks -----------------------------------------------------------------------------------

// Prints the assertion text with the source file name and the operation, then aborts.
[[noreturn]] void quarry_fatal_unlock(const char* expression, const char* function);

// Unlocks a mutex; a failure is a fatal assertion naming the expression and the operation.
#define QUARRY_UNLOCK_LIST()                                                                   \
  do {                                                                                         \
    if (pthread_mutex_unlock(&circular_buffer_list_mutex) != 0)                                \
      quarry_fatal_unlock("pthread_mutex_unlock(&circular_buffer_list_mutex) == 0", __func__); \
  } while (0)

#define QUARRY_UNLOCK_CB(cb)                                                  \
  do {                                                                        \
    if (pthread_mutex_unlock(&(cb)->mutex) != 0)                              \
      quarry_fatal_unlock("pthread_mutex_unlock(&cb->mutex) == 0", __func__); \
  } while (0)

// Monotonic nanoseconds: seconds * 1e9 + nanoseconds.
uint64_t monotonic_ns();

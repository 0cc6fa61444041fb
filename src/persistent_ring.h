// Persistent rings: a buffer's record memory as a shared file mapping that outlives the process,
// with the text header a decoder needs kept beside it. Thread contract: everything runs outside
// the record path, under the caller's locks (the open's registry lock, a buffer's mutex) plus a
// lock of its own for header files; persistent_rings_after_fork alone is async-signal-safe.
#pragma once

#include <signal.h>
#include <stdint.h>
#include <sys/types.h>

#include "buffer.h"

// The files of one run of a process, in its buffer directory:
//
//   quarry.ring.<pid>/            the run directory (moved aside to quarry.ring.<pid>.<n> when a
//     header                      dead run of the same pid is found at the next start)
//     words.<generation>          the ring's words, exactly BUFFER_SIZE * 4 bytes; generation
//                                 0 at creation, one more per growth
//
// `header` is a trace header without counters (open block, CREATION_TIME, the RING_* identity
// keys below, PROG_NAME, decode references, thread lines, an empty line), replaced whole with
// rename(2) whenever it changes, so a reader never sees half of one. Keys of its own:
//   RING_GENERATION  the generation whose words file the writers use
//   RING_PID         the process id of the run
//   RING_START_TIME  field 22 of /proc/<pid>/stat: tells a reused pid from the same process
//   RING_BOOT_ID     /proc/sys/kernel/random/boot_id: a run of an earlier boot is never live
struct persistent_ring {
  char* run_dir;  // ".../quarry.ring.<pid>/", owned
  uint32_t generation;
  pid_t owner;
  // Set in a forked child, whose ring became private memory: from then on nothing of this
  // buffer touches files (they belong to the parent).
  volatile sig_atomic_t detached;
};

// At most this many runs of dead processes are kept per buffer directory: a new buffer keeps the
// newest kKeptPreviousRuns - 1 of them and removes older ones (recovered or not), so that its
// own run, should it die too, is the last. Runs of live processes are neither counted nor
// removed.
constexpr int kKeptPreviousRuns = 3;

// Whether new buffers get persistent rings: QUARRY_PERSIST from the environment record, unless
// a test or benchmark overrode it (-1 follows the record, 0 off, 1 on).
bool persistent_mode_enabled();
void set_persistent_mode_override(int mode);

// Moves a new, not yet published buffer (its handle already listed) into a run directory of
// its buffer directory. On failure the buffer keeps its process memory and one line on standard
// error says why: tracing never fails for want of persistence. Caller holds the registry lock.
void persistent_ring_attach(circular_buffer* cb);

// True when growth of this buffer must allocate through persistent_ring_allocate: it has a run
// and this process is the one that created it (not a forked child).
bool persistent_ring_active(const circular_buffer* cb);
// Growth, under the buffer's mutex: the words file of the next generation, mapped and zeroed;
// null when it cannot be had (the growth then fails, the buffer keeps its ring).
void* persistent_ring_allocate(circular_buffer* cb, uint32_t bytes);
// After the new ring is published: the header names the new generation, then the old words
// file is removed (its mapping stays valid for writers that loaded the old ring).
void persistent_ring_published(circular_buffer* cb);

// Rewrites the header of one buffer (a handle was added) or of all (a thread was named).
void persistent_ring_update_header(circular_buffer* cb);
void persistent_rings_update_headers();

// In a forked child, before its first record: each persistent ring is replaced in place (same
// address, so the ring word stays valid) by a private anonymous copy, so the child never writes
// into its parent's files. Async-signal-safe: registry walk, mmap, memcpy, mremap; no lock, no
// allocation. Meant for the child side of a pthread_atfork handler.
extern "C" void persistent_rings_after_fork(void);

// The exit handler (registered with atexit by the first attach, so it runs before the library's
// exit dump): each persistent buffer marked dump_on_exit is dumped here, and the runs whose
// records are safe (dumped, or not wanted at exit) are removed.
void persistent_rings_at_exit();

// Field 22 of /proc/<pid>/stat (start time in clock ticks since boot), or 0 when unreadable.
unsigned long long process_start_time(pid_t pid);

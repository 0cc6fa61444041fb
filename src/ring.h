// Buffer memory and growth: what a record writer may load without a lock.
// Thread contract: load_ring is lock-free and async-signal-safe; set_circular_buffer_size
// takes the buffer's mutex and never frees memory a writer may still be filling.
#pragma once

#include <stdint.h>

#include <atomic>

#include "buffer.h"

// A buffer's record memory is an array of 32-bit words, each stored and loaded atomically
// (relaxed: plain moves on x86-64) so that dumps, growth and the pipe may read words while
// writers store them without a data race in the language's sense.
using ring_cell = std::atomic<uint32_t>;
static_assert(sizeof(ring_cell) == 4 && ring_cell::is_always_lock_free,
              "a ring word must be a plain 32-bit word in memory");

// The ring word of a circular_buffer:
//
//   63                                                      6 5        0
//  +---------------------------------------------------------+----------+
//  |  address of the word array (64-byte aligned)            | log2(n)  |
//  +---------------------------------------------------------+----------+
//
// n = size_words, a power of two from 2^10 (4 KiB) to 2^29 (2 GiB). The whole word is 0 while
// the buffer has no memory. A writer loads it once per record (acquire, which pairs with the
// release store of the grower so the zeroed and copied words happen-before the writer's
// stores), so memory and size always belong together. Old arrays are never freed: a writer
// that loaded the previous ring just before a growth finishes its record in the old array,
// which stays valid until the process ends; that record is then missing from later dumps.
constexpr uint64_t kRingShiftBits = 0x3f;
constexpr uint32_t kRingAlignment = 64;
constexpr uint32_t kMinBufferBytes = 4096;
static_assert((kMinBufferBytes & (kMinBufferBytes - 1)) == 0, "ring sizes are powers of two");
static_assert(kMinBufferBytes % kRingAlignment == 0, "ring sizes are whole alignment units");

// An array replaced by growth. Kept on the buffer's list, never freed: a writer that loaded the
// old ring may still be storing into it. The list also keeps it reachable for leak checkers.
struct retired_ring {
  void* memory;
  retired_ring* next;
};

struct ring_view {
  ring_cell* buffer;
  uint32_t size_words;  // a power of two, or 0 when the buffer has no memory yet
};

inline ring_view unpack_ring(uint64_t word) {
  uint32_t shift = static_cast<uint32_t>(word & kRingShiftBits);
  return ring_view{reinterpret_cast<ring_cell*>(word & ~kRingShiftBits),
                   word == 0 ? 0u : (1u << shift)};
}

inline ring_view load_ring(const circular_buffer* cb) {
  return unpack_ring(cb->ring.load(std::memory_order_acquire));
}

// Smallest power of two not below x; 1 when x is above 2^31 (no 32-bit answer exists).
uint32_t next_pow2(uint32_t x);

// Gives the buffer max(4096, next_pow2(size)) bytes unless it already has as much; never
// shrinks. Results: 0 done (or nothing to do); 1 no memory (buffer unchanged); -1 the buffer's
// mutex could not be locked.
int set_circular_buffer_size(circular_buffer* cb, unsigned int size);

// ---- Holding a ring for a crash dump -----------------------------------------------------------
//
// While the crash handler copies a buffer, other threads keep writing records; without care they
// lap the words being copied and the file holds torn records. hold_ring points the buffer's ring
// word at a small scratch ring shared by all buffers, so that every record begun afterwards
// lands there (and is lost), and keeps the real ring and its word count for the dump. A writer
// loads the ring word once per record already, so the record path pays nothing for this.
//
// Invariants (relied on by hold_ring and the dump):
// - A writer reserves its words (fetch_add on word_count, acquire) and only then loads the ring
//   word (acquire); the acquire on the reservation keeps the load after it. hold_ring reads the
//   word count (seq_cst) and then exchanges the ring word (seq_cst), so for every writer:
//   reserved before the read and the real ring loaded: its words lie below the held count
//   (written, or being written during the copy: the record in flight);
//   reserved before the read, the scratch ring loaded: its words below the held count stay
//   stale (a hole where the record in flight belongs);
//   reserved after the read, the real ring loaded: its words lie just past the held count, over
//   the oldest words at the seam (the record in flight);
//   reserved after the read, the scratch ring loaded: nothing of it reaches the real ring.
//   The two middle cases need the writer between its reservation and its load at the moment of
//   the hold; its next record loads the scratch ring. So a crash dump can show at most one
//   damaged record per writer thread and buffer, and no record reserved after the hold.
// - Nothing ever reads the scratch ring; its words are relaxed atomics, so concurrent writers of
//   different buffers storing into it are no data race.
// All of it is async-signal-safe: atomic loads, stores and exchanges only.

// Async-signal-safe. Does nothing for a buffer without memory or one already held.
void hold_ring(circular_buffer* cb);
// Puts the real ring back (unless a growth replaced the scratch ring meanwhile) and clears the
// words reserved while it was held, which were written to the scratch ring only and would
// otherwise read as stale records. Async-signal-safe.
void release_ring(circular_buffer* cb);
// True when the view is the scratch ring (the buffer is held): nothing of it may be read.
bool is_scratch_ring(const ring_view& ring);

// What a dump writes: the held ring and word count while the buffer is held, else the live ones.
inline ring_view dump_ring(const circular_buffer* cb) {
  uint64_t held = cb->held_ring.load(std::memory_order_acquire);
  return held != 0 ? unpack_ring(held) : load_ring(cb);
}
inline uint32_t dump_word_count(const circular_buffer* cb) {
  // held_ring is stored (release) after held_word_count, so a held ring seen with acquire comes
  // with its count.
  return cb->held_ring.load(std::memory_order_acquire) != 0
             ? cb->held_word_count.load(std::memory_order_relaxed)
             : cb->word_count.load(std::memory_order_relaxed);
}

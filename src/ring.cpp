// Buffer memory and growth. Thread contract: set_circular_buffer_size runs under the buffer's
// recursive mutex; it publishes a new ring with one release store and never frees an old one,
// so record writers (which take no lock) never touch released memory.
#include "ring.h"

#include <stdlib.h>
#include <string.h>

#include "persistent_ring.h"

uint32_t next_pow2(uint32_t x) {
  for (uint32_t bit = 0x80000000u; bit != 0; bit >>= 1) {
    if ((x & bit) == 0) continue;
    if ((x & (bit - 1)) == 0) return bit;
    // Some lower bit is set too: the answer is the next power up, which does not exist in 32
    // bits above 2^31.
    return bit == 0x80000000u ? 1u : bit << 1;
  }
  return 1;  // x == 0: the smallest power of two
}

static uint32_t log2_of_pow2(uint32_t x) {
  return static_cast<uint32_t>(__builtin_ctz(x));
}

namespace {

// The scratch ring of held buffers: the smallest ring size, in static memory so that holding
// allocates nothing. Shared by every buffer; written, never read.
constexpr uint32_t kScratchWords = kMinBufferBytes / 4;
alignas(kRingAlignment) ring_cell scratch_ring[kScratchWords];

uint64_t scratch_ring_word() {
  return reinterpret_cast<uint64_t>(&scratch_ring[0]) |
         static_cast<uint64_t>(__builtin_ctz(kScratchWords));
}

}  // namespace

bool is_scratch_ring(const ring_view& ring) {
  return ring.buffer == &scratch_ring[0];
}

void hold_ring(circular_buffer* cb) {
  const uint64_t scratch = scratch_ring_word();
  if (cb->held_ring.load(std::memory_order_acquire) != 0) return;  // held by another handler
  uint64_t live = cb->ring.load(std::memory_order_acquire);
  if (live == 0 || live == scratch) return;
  // The count first, then the exchange: see the invariants in ring.h.
  const uint32_t count = cb->word_count.load(std::memory_order_seq_cst);
  uint64_t previous = cb->ring.exchange(scratch, std::memory_order_seq_cst);
  if (previous == scratch) return;
  cb->held_word_count.store(count, std::memory_order_relaxed);
  cb->held_ring.store(previous, std::memory_order_release);
}

void release_ring(circular_buffer* cb) {
  const uint64_t held = cb->held_ring.load(std::memory_order_acquire);
  if (held == 0) return;
  uint64_t expected = scratch_ring_word();
  // A growth that ran during the hold published a new ring over the scratch ring; that one
  // stays (the growth kept no record of the real words, as it copied the scratch ring).
  if (cb->ring.compare_exchange_strong(expected, held, std::memory_order_seq_cst)) {
    // Positions reserved while held hold words of an earlier pass over the ring: cleared, so
    // that later dumps show a gap there rather than stale records. Bounded by the ring size.
    const ring_view ring = unpack_ring(held);
    const uint32_t from = cb->held_word_count.load(std::memory_order_relaxed);
    const uint32_t to = cb->word_count.load(std::memory_order_relaxed);
    uint32_t words = to - from < ring.size_words ? to - from : ring.size_words;
    for (uint32_t i = 0; i < words; ++i) {
      ring.buffer[(from + i) & (ring.size_words - 1)].store(0, std::memory_order_relaxed);
    }
  }
  cb->held_ring.store(0, std::memory_order_release);
}

int set_circular_buffer_size(circular_buffer* cb, unsigned int size) {
  if (pthread_mutex_lock(&cb->mutex) != 0) return -1;
  uint32_t target = size <= kMinBufferBytes - 1 ? kMinBufferBytes : next_pow2(size);
  ring_view current = load_ring(cb);
  if (is_scratch_ring(current)) {
    // Held for a crash dump: growing now would copy the scratch ring and lose the real one.
    QUARRY_UNLOCK_CB(cb);
    return 0;
  }
  uint64_t current_bytes = static_cast<uint64_t>(current.size_words) * 4;
  // Requests above 2^31 bytes yield a target of 1 byte, which is below any current size.
  if (target <= current_bytes || target < kMinBufferBytes) {
    QUARRY_UNLOCK_CB(cb);
    return 0;
  }
  uint32_t words = target / 4;
  retired_ring* retired = nullptr;
  if (current.buffer != nullptr) {
    retired = static_cast<retired_ring*>(malloc(sizeof(retired_ring)));
    if (retired == nullptr) {
      QUARRY_UNLOCK_CB(cb);
      return 1;
    }
  }
  // 64-byte alignment leaves the low six bits of the address free for log2(size_words). A
  // persistent buffer grows into the zeroed mapping of its next words file (page-aligned).
  const bool file_backed = persistent_ring_active(cb);
  void* memory =
      file_backed ? persistent_ring_allocate(cb, target) : aligned_alloc(kRingAlignment, target);
  if (memory == nullptr) {
    free(retired);
    QUARRY_UNLOCK_CB(cb);
    return 1;
  }
  if (!file_backed) memset(memory, 0, target);
  ring_cell* fresh = static_cast<ring_cell*>(memory);
  // Keep the words already written. Writers may still be storing into the old array, so each
  // word is read atomically; a record in flight may be copied half-written, which a reader
  // treats like any record cut by the ring's seam.
  for (uint32_t i = 0; i < current.size_words; ++i) {
    fresh[i].store(current.buffer[i].load(std::memory_order_relaxed), std::memory_order_relaxed);
  }
  uint64_t packed = reinterpret_cast<uint64_t>(memory) | log2_of_pow2(words);
  // Release: the zeroed and copied words happen-before any store by a writer that loads this
  // ring (acquire in load_ring). The old array stays allocated (see ring.h).
  cb->ring.store(packed, std::memory_order_release);
  if (retired != nullptr) {
    retired->memory = current.buffer;
    retired->next = cb->retired_rings;
    cb->retired_rings = retired;
  }
  if (file_backed) persistent_ring_published(cb);
  QUARRY_UNLOCK_CB(cb);
  return 0;
}

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

int set_circular_buffer_size(circular_buffer* cb, unsigned int size) {
  if (pthread_mutex_lock(&cb->mutex) != 0) return -1;
  uint32_t target = size <= kMinBufferBytes - 1 ? kMinBufferBytes : next_pow2(size);
  ring_view current = load_ring(cb);
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

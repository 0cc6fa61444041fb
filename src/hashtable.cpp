// The string-keyed hash table of a buffer's handles and its iterator (the _quarry_hashtable_
// family). Thread contract: no lock of its own, callers serialise every call on one table.
// Not for signal handlers: put and create allocate, destroy and remove free.
#include "hashtable.h"

#include <stdlib.h>
#include <string.h>

namespace {

// The bucket array's size in bytes has to fit a signed 32-bit int, which caps the count at
// INT32_MAX / sizeof(entry pointer). Larger counts are refused rather than sized in 64 bits:
// no caller needs more, and a refusal is easier to notice than a multi-gigabyte block.
constexpr int kMaxBucketCount = 268435455;
static_assert(static_cast<uint64_t>(kMaxBucketCount) * sizeof(quarry_hashtable_entry*) <=
                  static_cast<uint64_t>(INT32_MAX),
              "the bucket array must stay addressable with a signed 32-bit size");

// Eight key bytes as a little-endian number; the key may sit at any address.
uint64_t load_le64(const char* bytes) {
  uint64_t block;
  memcpy(&block, bytes, sizeof block);
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
  block = __builtin_bswap64(block);
#endif
  return block;
}

}  // namespace

uint32_t hashtable_hash(const quarry_hashtable* table, const char* key) {
  const size_t length = strlen(key);
  const size_t blocks = length / 8;
  uint64_t h = 0;
  for (size_t k = 0; k < blocks; ++k) h ^= load_le64(key + 8 * k);
  // Tail bytes count as signed: a byte of 0x80 or above sets every bit above its own, so the
  // bucket of a key with non-ASCII characters is the same on every build of the library.
  for (size_t j = 0; j < length - 8 * blocks; ++j) {
    const int8_t byte = static_cast<int8_t>(key[8 * blocks + j]);
    h ^= static_cast<uint64_t>(static_cast<int64_t>(byte)) << (8 * j);
  }
  // Only the low 32 bits are mixed; the product wraps modulo 2^32 by unsigned arithmetic.
  const uint32_t mixed = static_cast<uint32_t>(h) * 16161u;
  return static_cast<uint32_t>(mixed % table->bucket_count);
}

quarry_hashtable_entry* hashtable_find(const quarry_hashtable* table, uint32_t index,
                                       const char* key, quarry_hashtable_entry** predecessor) {
  quarry_hashtable_entry* before = nullptr;
  quarry_hashtable_entry* entry = table->buckets[index];
  while (entry != nullptr && strcmp(entry->key, key) != 0) {
    before = entry;
    entry = entry->next;
  }
  if (predecessor != nullptr) *predecessor = entry != nullptr ? before : nullptr;
  return entry;
}

extern "C" QUARRY_EXPORT quarry_hashtable* _quarry_hashtable_create(int bucket_count) {
  if (bucket_count < 1 || bucket_count > kMaxBucketCount) return nullptr;
  const size_t count = static_cast<size_t>(bucket_count);
  // One block: the fields, then the chain heads, all null from calloc.
  void* block = calloc(1, sizeof(quarry_hashtable) + count * sizeof(quarry_hashtable_entry*));
  if (block == nullptr) return nullptr;
  quarry_hashtable* table = static_cast<quarry_hashtable*>(block);
  table->bucket_count = count;
  table->buckets = reinterpret_cast<quarry_hashtable_entry**>(table + 1);
  table->size = 0;
  return table;
}

extern "C" QUARRY_EXPORT void _quarry_hashtable_destroy(quarry_hashtable* table) {
  if (table == nullptr) return;
  for (uint64_t b = 0; b < table->bucket_count; ++b) {
    quarry_hashtable_entry* entry = table->buckets[b];
    while (entry != nullptr) {
      quarry_hashtable_entry* next = entry->next;
      free(entry);  // the key and the value belong to the caller
      entry = next;
    }
  }
  free(table);
}

extern "C" QUARRY_EXPORT void* _quarry_hashtable_get(quarry_hashtable* table, const char* key) {
  if (table == nullptr) return nullptr;
  quarry_hashtable_entry* entry = hashtable_find(table, hashtable_hash(table, key), key, nullptr);
  return entry != nullptr ? entry->value : nullptr;
}

extern "C" QUARRY_EXPORT int _quarry_hashtable_put(quarry_hashtable* table, const char* key,
                                                   void* value, void** previous) {
  if (previous != nullptr) *previous = nullptr;
  // A null value would make a look-up's null ambiguous, so it is never stored.
  if (table == nullptr || value == nullptr) return -1;
  const uint32_t index = hashtable_hash(table, key);
  quarry_hashtable_entry* entry = hashtable_find(table, index, key, nullptr);
  if (entry != nullptr) {
    // Replacing keeps the entry, its place in the chain and the key pointer it came with.
    if (previous != nullptr) *previous = entry->value;
    entry->value = value;
    return 0;
  }
  entry = static_cast<quarry_hashtable_entry*>(malloc(sizeof(quarry_hashtable_entry)));
  if (entry == nullptr) return -1;
  entry->value = value;
  entry->key = key;
  entry->next = table->buckets[index];
  table->buckets[index] = entry;
  ++table->size;
  return 0;
}

extern "C" QUARRY_EXPORT void* _quarry_hashtable_remove(quarry_hashtable* table, const char* key) {
  if (table == nullptr) return nullptr;
  const uint32_t index = hashtable_hash(table, key);
  quarry_hashtable_entry* before = nullptr;
  quarry_hashtable_entry* entry = hashtable_find(table, index, key, &before);
  if (entry == nullptr) return nullptr;
  if (before != nullptr) {
    before->next = entry->next;
  } else {
    table->buckets[index] = entry->next;
  }
  void* value = entry->value;
  free(entry);
  --table->size;
  return value;
}

extern "C" QUARRY_EXPORT uint64_t _quarry_hashtable_get_size(quarry_hashtable* table) {
  return table != nullptr ? table->size : 0;
}

extern "C" QUARRY_EXPORT quarry_hashtable_iterator* _quarry_hashtable_iterator_create(
    quarry_hashtable* table) {
  quarry_hashtable_iterator* iterator =
      static_cast<quarry_hashtable_iterator*>(malloc(sizeof(quarry_hashtable_iterator)));
  if (iterator == nullptr) return nullptr;
  _quarry_hashtable_iterator_init(table, iterator);
  return iterator;
}

extern "C" QUARRY_EXPORT int _quarry_hashtable_iterator_init(quarry_hashtable* table,
                                                             quarry_hashtable_iterator* iterator) {
  if (iterator == nullptr) return -1;
  iterator->table = table;
  iterator->bucket_index = 0;
  iterator->returned_count = 0;
  iterator->last_entry = nullptr;
  iterator->next_entry = nullptr;
  return 0;
}

extern "C" QUARRY_EXPORT void _quarry_hashtable_iterator_destroy(
    quarry_hashtable_iterator* iterator) {
  free(iterator);
}

// The walk holds `next_entry`, taken before the caller sees the current entry, so removing the
// current entry through _quarry_hashtable_iterator_remove is safe; removing any other entry of
// the table during a walk is not.
//
// There is deliberately no "returned_count above size means the end" check: after removals
// during a walk that check would end the walk early and silently skip live entries. A walk
// ends only when every bucket has been visited; returned_count is still kept for callers.
extern "C" QUARRY_EXPORT int _quarry_hashtable_iterator_next(quarry_hashtable_iterator* iterator,
                                                             const char** key, void** value) {
  if (iterator == nullptr || iterator->table == nullptr) return 0;
  const quarry_hashtable* table = iterator->table;
  if (iterator->next_entry == nullptr) {
    while (iterator->bucket_index < table->bucket_count &&
           table->buckets[iterator->bucket_index] == nullptr) {
      ++iterator->bucket_index;
    }
    if (iterator->bucket_index >= table->bucket_count) return 0;
    iterator->next_entry = table->buckets[iterator->bucket_index];
  }
  quarry_hashtable_entry* entry = iterator->next_entry;
  if (key != nullptr) *key = entry->key;
  if (value != nullptr) *value = entry->value;
  iterator->last_entry = entry;
  iterator->next_entry = entry->next;
  if (iterator->next_entry == nullptr) ++iterator->bucket_index;
  ++iterator->returned_count;
  return 1;
}

extern "C" QUARRY_EXPORT int _quarry_hashtable_iterator_remove(
    quarry_hashtable_iterator* iterator) {
  if (iterator == nullptr || iterator->last_entry == nullptr) return 0;
  _quarry_hashtable_remove(iterator->table, iterator->last_entry->key);
  iterator->last_entry = nullptr;
  return 1;
}

// String-keyed hash table with a fixed bucket count: keys are kept (not copied), values are
// not owned. Thread contract: no lock of its own; callers serialise. Get and remove allocate
// nothing; put allocates exactly one entry for a new key.
#pragma once

#include <stdint.h>

#include "quarry/quarry.h"

struct quarry_hashtable_entry {
  quarry_hashtable_entry* next;
  const char* key;
  void* value;
};

// One block: these fields, then the bucket array that `buckets` points to.
struct quarry_hashtable {
  uint64_t bucket_count;
  quarry_hashtable_entry** buckets;
  uint64_t size;
};

// Bucket index of `key`: XOR of the key's little-endian 8-byte blocks and sign-extended tail
// bytes, low 32 bits times 16161, modulo the bucket count.
uint32_t hashtable_hash(const quarry_hashtable* table, const char* key);

// The entry of `key` in chain `index`, or null; `predecessor` (optional) receives the entry
// before it, null when it heads the chain.
quarry_hashtable_entry* hashtable_find(const quarry_hashtable* table, uint32_t index,
                                       const char* key, quarry_hashtable_entry** predecessor);

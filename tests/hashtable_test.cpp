// Hash table: bucket placement, put/get/remove semantics on chains, iteration order and
// removal during a walk.
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include "hashtable.h"

namespace {

using Keys = std::vector<std::string>;
int v1, v2, v3, v5;

uint32_t bucket_of(uint64_t bucket_count, const char* key) {
  quarry_hashtable table{bucket_count, nullptr, 0};
  return hashtable_hash(&table, key);
}

// The keys of a fresh walk, in the order produced. With `drop`, the entries at the positions
// it selects are removed with the iterator as soon as they are produced.
Keys walk(quarry_hashtable* table, bool (*drop)(size_t) = nullptr) {
  quarry_hashtable_iterator it;
  EXPECT_EQ(_quarry_hashtable_iterator_init(table, &it), 0);
  EXPECT_EQ(_quarry_hashtable_iterator_remove(&it), 0);  // nothing produced yet
  Keys keys;
  const char* key;
  while (_quarry_hashtable_iterator_next(&it, &key, nullptr) == 1) {
    if (drop != nullptr && drop(keys.size())) {
      EXPECT_EQ(_quarry_hashtable_iterator_remove(&it), 1);
      EXPECT_EQ(_quarry_hashtable_iterator_remove(&it), 0);  // only the entry produced last
    }
    keys.push_back(key);
  }
  return keys;
}

TEST(HashtableHash, PlacesKeysByTheirLowBlockBytes) {
  EXPECT_EQ(bucket_of(32, ""), 0u);
  EXPECT_EQ(bucket_of(32, "a"), 1u);
  EXPECT_EQ(bucket_of(32, "abcdefghi"), 8u);
  EXPECT_EQ(bucket_of(7, "\xE9"), 1u);  // 3 if the byte were taken as unsigned
  for (const char* key : {"", "a", "abcdefghi", "\xE9", "quarry/net.handle"}) {
    EXPECT_EQ(bucket_of(1, key), 0u) << key;
  }
  // Known answers with a large count: reading blocks big-endian, or letting the product run
  // past 32 bits, gives other buckets.
  EXPECT_EQ(bucket_of(1000003, "abcdefghijklmnopq"), 354557u);
  EXPECT_EQ(bucket_of(1000003, "quarry/net.handle"), 579863u);
  // Bytes 4 to 7 of a block never reach the bucket.
  for (uint64_t count : {7u, 32u, 1000003u}) {
    EXPECT_EQ(bucket_of(count, "abcdWXYZ"), bucket_of(count, "abcd1234")) << count;
  }
  // Keys need not be aligned (UBSan reports a misaligned block load).
  alignas(8) char shifted[32] = "xquarry/net.handle";
  EXPECT_EQ(bucket_of(1000003, shifted + 1), 579863u);
}

TEST(HashtableCreate, RefusesCountsOutsideOneTo268435455) {
  for (int count : {0, -1, INT_MIN, 268435456, INT_MAX}) {
    EXPECT_EQ(_quarry_hashtable_create(count), nullptr) << count;
  }
  quarry_hashtable* table = _quarry_hashtable_create(1);
  ASSERT_EQ(_quarry_hashtable_put(table, "a", &v1, nullptr), 0);
  ASSERT_EQ(_quarry_hashtable_put(table, "\xE9", &v2, nullptr), 0);
  EXPECT_EQ(walk(table), (Keys{"\xE9", "a"}));
  _quarry_hashtable_destroy(table);
}

TEST(HashtablePut, AddsReplacesAndRefusesNullAndDestroyLeavesKeysAndValues) {
  // Under ASan a key or value freed by destroy fails at the end, and a lost entry leaks.
  char* original = strdup("net");
  int* value = new int(7);
  quarry_hashtable* table = _quarry_hashtable_create(32);
  void* previous = &v5;
  EXPECT_EQ(_quarry_hashtable_put(table, "c", &v1, &previous), 0);
  EXPECT_EQ(previous, nullptr);
  ASSERT_EQ(_quarry_hashtable_put(table, original, &v2, nullptr), 0);
  ASSERT_EQ(_quarry_hashtable_put(table, "#", &v3, nullptr), 0);  // same bucket as "c"
  // Replacing through an equal key at another address swaps the value and keeps the key
  // pointer, the chain place and the size.
  EXPECT_EQ(_quarry_hashtable_put(table, "net", value, &previous), 0);
  EXPECT_EQ(previous, &v2);
  EXPECT_EQ(_quarry_hashtable_put(table, "c", &v5, &previous), 0);
  EXPECT_EQ(previous, &v1);
  EXPECT_EQ(_quarry_hashtable_get_size(table), 3u);
  EXPECT_EQ(walk(table), (Keys{"#", "c", "net"}));
  EXPECT_EQ(hashtable_find(table, hashtable_hash(table, "net"), "net", nullptr)->key, original);
  EXPECT_EQ(_quarry_hashtable_get(table, "net"), value);

  // A null value or table stores nothing and reports no previous value.
  for (quarry_hashtable* target : {table, static_cast<quarry_hashtable*>(nullptr)}) {
    previous = &v5;
    EXPECT_EQ(_quarry_hashtable_put(target, "net", target ? nullptr : &v1, &previous), -1);
    EXPECT_EQ(previous, nullptr);
  }
  EXPECT_EQ(_quarry_hashtable_get(table, "net"), value);
  EXPECT_EQ(_quarry_hashtable_get_size(table), 3u);
  EXPECT_EQ(_quarry_hashtable_get(nullptr, "net"), nullptr);
  EXPECT_EQ(_quarry_hashtable_remove(nullptr, "net"), nullptr);
  _quarry_hashtable_destroy(table);
  EXPECT_STREQ(original, "net");
  EXPECT_EQ(*value, 7);
  free(original);
  delete value;
}

TEST(HashtableRemove, UnlinksFromAnyChainPosition) {
  // "a", "A" and "!" (0x61, 0x41, 0x21) share bucket 1: one chain "!", "A", "a".
  const char* names[] = {"!", "A", "a"};
  void* values[] = {&v3, &v2, &v1};
  for (int victim = 0; victim < 3; ++victim) {
    quarry_hashtable* table = _quarry_hashtable_create(32);
    for (int i = 2; i >= 0; --i) {
      ASSERT_EQ(_quarry_hashtable_put(table, names[i], values[i], nullptr), 0);
    }
    const char* name = names[victim];
    EXPECT_EQ(_quarry_hashtable_remove(table, name), values[victim]) << name;
    EXPECT_EQ(_quarry_hashtable_get(table, name), nullptr);
    EXPECT_EQ(_quarry_hashtable_remove(table, name), nullptr);
    EXPECT_EQ(_quarry_hashtable_remove(table, "absent"), nullptr);
    EXPECT_EQ(_quarry_hashtable_get_size(table), 2u);
    Keys rest;
    for (int i = 0; i < 3; ++i) {
      if (i == victim) continue;
      rest.push_back(names[i]);
      EXPECT_EQ(_quarry_hashtable_get(table, names[i]), values[i]) << name;
    }
    EXPECT_EQ(walk(table), rest) << name;
    _quarry_hashtable_destroy(table);
  }
}

TEST(HashtableIterator, WalksBucketsUpwardNewestFirstAndRemovesWhatItProduced) {
  quarry_hashtable* table = _quarry_hashtable_create(32);
  const char* key = "untouched";
  void* value = &v5;
  quarry_hashtable_iterator* it = _quarry_hashtable_iterator_create(table);
  ASSERT_NE(it, nullptr);
  EXPECT_EQ(_quarry_hashtable_iterator_next(it, &key, &value), 0);
  EXPECT_STREQ(key, "untouched");
  EXPECT_EQ(value, &v5);
  // "q" and "Q" land in bucket 17, "c", "C" and "#" in bucket 3, "zz" in bucket 26.
  for (const char* k : {"q", "c", "Q", "C", "#", "zz"}) {
    ASSERT_EQ(_quarry_hashtable_put(table, k, &v1, nullptr), 0);
  }
  EXPECT_EQ(walk(table), (Keys{"#", "C", "c", "Q", "q", "zz"}));
  // An exhausted iterator stays at the end until it is initialised again.
  EXPECT_EQ(_quarry_hashtable_iterator_next(it, &key, &value), 0);
  EXPECT_EQ(_quarry_hashtable_iterator_init(table, it), 0);
  EXPECT_EQ(_quarry_hashtable_iterator_next(it, &key, &value), 1);
  EXPECT_STREQ(key, "#");
  EXPECT_EQ(_quarry_hashtable_iterator_init(table, nullptr), -1);
  _quarry_hashtable_iterator_destroy(it);

  // Removing every other entry during a walk still reaches every entry; removing all the
  // rest in one walk empties the table.
  EXPECT_EQ(walk(table, [](size_t i) { return i % 2 == 0; }),
            (Keys{"#", "C", "c", "Q", "q", "zz"}));
  EXPECT_EQ(walk(table, [](size_t) { return true; }), (Keys{"C", "Q", "zz"}));
  EXPECT_EQ(_quarry_hashtable_get_size(table), 0u);
  EXPECT_EQ(walk(table), Keys{});
  _quarry_hashtable_destroy(table);
}

}  // namespace

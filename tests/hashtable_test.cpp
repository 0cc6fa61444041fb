// Hash table: bucket placement by known answers, and put/get/remove/iteration against a map
// model over random operations on tables whose chains hold many keys.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "hashtable.h"

namespace {

uint32_t bucket_of(uint64_t bucket_count, const char* key) {
  quarry_hashtable table{bucket_count, nullptr, 0};
  return hashtable_hash(&table, key);
}

TEST(HashtableHash, PlacesKeysByTheirLowBlockBytes) {
  EXPECT_EQ(bucket_of(32, ""), 0u);
  EXPECT_EQ(bucket_of(32, "a"), 1u);
  EXPECT_EQ(bucket_of(32, "abcdefghi"), 8u);
  EXPECT_EQ(bucket_of(7, "\xE9"), 1u);  // 3 if the byte were taken as unsigned
  EXPECT_EQ(bucket_of(1, "quarry/net.handle"), 0u);
  // Reading blocks big-endian, or letting the product run past 32 bits, gives other buckets.
  EXPECT_EQ(bucket_of(1000003, "abcdefghijklmnopq"), 354557u);
  EXPECT_EQ(bucket_of(1000003, "quarry/net.handle"), 579863u);
  // Bytes 4 to 7 of a block never reach the bucket.
  EXPECT_EQ(bucket_of(1000003, "abcdWXYZ"), bucket_of(1000003, "abcd1234"));
  // Keys need not be aligned (UBSan reports a misaligned block load).
  alignas(8) char shifted[32] = "xquarry/net.handle";
  EXPECT_EQ(bucket_of(1000003, shifted + 1), 579863u);
}

TEST(HashtableCreate, RefusesCountsOutsideOneTo268435455) {
  for (int count : {0, -1, INT_MIN, 268435456, INT_MAX}) {
    EXPECT_EQ(_quarry_hashtable_create(count), nullptr) << count;
  }
}

struct model_entry {
  const char* key;  // the pointer the table keeps
  void* value;
  uint64_t age;  // insertion number: a chain lists its newest entry first
};
using model = std::map<std::string, model_entry>;

// A walk that removes about a third of the entries it produces: every entry comes once, by
// bucket upwards and newest first within one, with the key pointer the model holds.
void walk_and_drop(quarry_hashtable* table, quarry_hashtable_iterator* it, model* m,
                   std::mt19937& rng) {
  std::vector<std::pair<uint32_t, uint64_t>> order;
  for (const auto& e : *m) order.push_back({hashtable_hash(table, e.second.key), ~e.second.age});
  std::sort(order.begin(), order.end());
  ASSERT_EQ(_quarry_hashtable_iterator_init(table, it), 0);
  EXPECT_EQ(_quarry_hashtable_iterator_remove(it), 0);  // nothing produced yet
  const char* key;
  void* value;
  size_t produced = 0;
  for (; _quarry_hashtable_iterator_next(it, &key, &value) == 1; ++produced) {
    const model_entry& e = m->at(key);
    EXPECT_EQ(std::make_pair(key, value), std::make_pair(e.key, e.value));
    ASSERT_LT(produced, order.size());
    EXPECT_EQ(order[produced], std::make_pair(hashtable_hash(table, key), ~e.age));
    if (rng() % 3 == 0) {
      EXPECT_EQ(_quarry_hashtable_iterator_remove(it), 1);
      EXPECT_EQ(_quarry_hashtable_iterator_remove(it), 0);  // only the entry produced last
      m->erase(key);
    }
  }
  EXPECT_EQ(produced, order.size());
  EXPECT_EQ(_quarry_hashtable_iterator_next(it, &key, &value), 0);  // stays at the end
}

TEST(Hashtable, RandomOperationsMatchAMapModel) {
  // Short keys crowd few buckets ("a", "A" and "!" share bucket 1 of 32); long ones have tails.
  std::vector<std::string> keys;
  for (const char* a : {"a", "A", "!", "#", "c", "\xE9", "quarry/net.handle", "abcdefghi"}) {
    for (const char* b : {"", "a", "Q", "\xE9"}) keys.push_back(std::string(a) + b);
  }
  int values[8];
  std::mt19937 rng(17);
  for (int bucket_count : {1, 3, 32}) {
    quarry_hashtable* table = _quarry_hashtable_create(bucket_count);
    quarry_hashtable_iterator* it = _quarry_hashtable_iterator_create(table);
    model m;
    for (uint64_t step = 0; step < 3000 && !HasFailure(); ++step) {
      const std::string& key = keys[rng() % keys.size()];
      const auto found = m.find(key);
      void* const old = found != m.end() ? found->second.value : nullptr;
      void* const value = &values[rng() % 8];
      void* previous = value;
      if (rng() % 3 == 0) {
        // An equal key at another address replaces the value and keeps the entry as it is.
        const std::string copy = key;
        EXPECT_EQ(_quarry_hashtable_put(table, old ? copy.c_str() : key.c_str(), value, &previous),
                  0);
        EXPECT_EQ(previous, old);
        m.emplace(key, model_entry{key.c_str(), nullptr, step}).first->second.value = value;
      } else if (rng() % 2 == 0) {
        EXPECT_EQ(_quarry_hashtable_remove(table, key.c_str()), old) << key;
        m.erase(key);
      } else {
        EXPECT_EQ(_quarry_hashtable_get(table, key.c_str()), old) << key;
      }
      EXPECT_EQ(_quarry_hashtable_get_size(table), m.size());
      if (step % 100 == 99) walk_and_drop(table, it, &m, rng);
    }
    // A null value or table stores nothing and reports no previous value.
    for (quarry_hashtable* target : {table, static_cast<quarry_hashtable*>(nullptr)}) {
      void* previous = &values[0];
      EXPECT_EQ(
          _quarry_hashtable_put(target, keys[0].c_str(), target ? nullptr : values, &previous), -1);
      EXPECT_EQ(previous, nullptr);
    }
    EXPECT_EQ(_quarry_hashtable_get_size(table), m.size());
    EXPECT_EQ(_quarry_hashtable_iterator_init(table, nullptr), -1);
    _quarry_hashtable_iterator_destroy(it);
    _quarry_hashtable_destroy(table);  // leaves keys and values alone (ASan: a bad free)
  }
  EXPECT_EQ(_quarry_hashtable_get(nullptr, "a"), nullptr);
  EXPECT_EQ(_quarry_hashtable_remove(nullptr, "a"), nullptr);
}

}  // namespace

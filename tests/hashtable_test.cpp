// Hash table: bucket placement by known answers, and put/get/remove/iteration against a map
// model over random operations on tables whose chains hold many keys.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <map>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "hashtable.h"

namespace {

uint32_t bucket_of(uint64_t bucket_count, const char* key) {
  quarry_hashtable table{bucket_count, nullptr, 0};
  return hashtable_hash(&table, key);
}

// Big-endian blocks, unsigned bytes, a dropped tail or a product past 32 bits give other buckets;
// keys need not be aligned (UBSan checks the block loads). No table, no bad bucket count.
TEST(Hashtable, PlacesKeysByKnownAnswersAndRefusesNullTablesAndBadCounts) {
  alignas(8) char shifted[32] = "xquarry/net.handle";
  EXPECT_EQ(bucket_of(32, ""), 0u);
  EXPECT_EQ(bucket_of(32, "a"), 1u);
  EXPECT_EQ(bucket_of(32, "abcdefghi"), 8u);
  EXPECT_EQ(bucket_of(7, "\xE9"), 1u);
  EXPECT_EQ(bucket_of(1000003, "abcdefghijklmnopq"), 354557u);
  EXPECT_EQ(bucket_of(1000003, shifted + 1), 579863u);
  for (int count : {0, -1, INT_MIN, 268435456, INT_MAX})
    EXPECT_EQ(_quarry_hashtable_create(count), nullptr) << count;
  void* previous = &previous;
  EXPECT_EQ(_quarry_hashtable_put(nullptr, "a", &previous, &previous), -1);
  EXPECT_EQ(previous, nullptr);
  EXPECT_EQ(_quarry_hashtable_get(nullptr, "a"), nullptr);
  EXPECT_EQ(_quarry_hashtable_remove(nullptr, "a"), nullptr);
}

struct model_entry {
  const char* key;  // the pointer the table keeps
  void* value;
  uint64_t age;  // insertion number: a chain lists its newest entry first
};

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
    std::map<std::string, model_entry> m;
    for (uint64_t step = 0; step < 3000 && !HasFailure(); ++step) {
      const std::string& key = keys[rng() % keys.size()];
      const auto found = m.find(key);
      void* const old = found != m.end() ? found->second.value : nullptr;
      void* const value = rng() % 16 ? &values[rng() % 8] : nullptr;  // null: nothing stored
      EXPECT_EQ(_quarry_hashtable_get(table, key.c_str()), old) << key;
      if (rng() % 2) {
        // An equal key at another address replaces the value and keeps the entry as it is.
        const std::string copy = key;
        void* previous = value;
        EXPECT_EQ(_quarry_hashtable_put(table, old ? copy.c_str() : key.c_str(), value, &previous),
                  value ? 0 : -1);
        EXPECT_EQ(previous, value ? old : nullptr);
        if (value)
          m.emplace(key, model_entry{key.c_str(), nullptr, step}).first->second.value = value;
      } else {
        EXPECT_EQ(_quarry_hashtable_remove(table, key.c_str()), old) << key;
        m.erase(key);
      }
      EXPECT_EQ(_quarry_hashtable_get_size(table), m.size());
      if (step % 100 != 99) continue;

      // A walk yields every entry once, by bucket up and newest first, removing about a third.
      std::vector<std::tuple<uint32_t, uint64_t, const char*, void*>> expected, walked;
      for (const auto& [text, e] : m)
        expected.emplace_back(hashtable_hash(table, e.key), ~e.age, e.key, e.value);
      std::sort(expected.begin(), expected.end());
      ASSERT_EQ(_quarry_hashtable_iterator_init(table, it), 0);
      EXPECT_EQ(_quarry_hashtable_iterator_remove(it), 0);  // nothing produced yet
      const char* k;
      void* v;
      while (walked.size() <= expected.size() && _quarry_hashtable_iterator_next(it, &k, &v) == 1) {
        const auto e = m.find(k);
        walked.emplace_back(hashtable_hash(table, k), e != m.end() ? ~e->second.age : 0, k, v);
        if (rng() % 3 != 0) continue;
        EXPECT_EQ(_quarry_hashtable_iterator_remove(it), 1);
        EXPECT_EQ(_quarry_hashtable_iterator_remove(it), 0);  // only the entry produced last
        m.erase(k);
      }
      EXPECT_EQ(walked, expected);
      EXPECT_EQ(_quarry_hashtable_iterator_next(it, &k, &v), 0);  // stays at the end
    }
    EXPECT_EQ(_quarry_hashtable_iterator_init(table, nullptr), -1);
    _quarry_hashtable_iterator_destroy(it);
    _quarry_hashtable_destroy(table);  // leaves keys and values alone (ASan: a bad free)
  }
}

}  // namespace

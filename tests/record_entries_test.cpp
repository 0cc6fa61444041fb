// The non-variadic record entries against quarry_internal: over random layouts, values and ring
// positions (escapes, records and strings across the end of the ring) both write the same
// words, and the thread word read without pthread_self is pthread_self's.
#include <gtest/gtest.h>
#include <pthread.h>

#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "quarry/quarry.hpp"
#include "ring.h"
#include "test_support.h"

namespace {

quarry_handle* open_handle(const char* name) {
  quarry_handle* h = nullptr;
  EXPECT_EQ(0, quarry_open_internal(&h, name, 4096, 8, "t.dec", "0", nullptr));
  return h;
}

std::vector<uint32_t> record_at(quarry_handle* h, uint32_t first, uint32_t length) {
  const ring_view ring = load_ring(h->cb);
  std::vector<uint32_t> out;
  for (uint32_t i = 0; i < length; ++i) out.push_back(ring.buffer[(first + i) % ring.size_words]);
  return out;
}

// The timestamps of two records differ: their words and escape flags 0 and 1 are not compared.
void mask_timestamp(std::vector<uint32_t>& record, bool has_escape_word) {
  record[0] &= ~(3u << 16);
  record[1] = record[2] = 0;
  if (has_escape_word) record.back() &= ~3u;
}

// Writes a record through each handle from the same position `start`; both hold the same words.
template <class A, class B>
void expect_same_record(quarry_handle* a, quarry_handle* b, uint32_t start, bool escape_word,
                        A&& write_a, B&& write_b, const std::string& what) {
  a->cb->word_count = b->cb->word_count = start;
  write_a();
  write_b();
  const uint32_t length = a->cb->word_count - start;
  ASSERT_EQ(length, b->cb->word_count - start) << what;
  std::vector<uint32_t> expected = record_at(a, start, length);
  std::vector<uint32_t> actual = record_at(b, start, length);
  mask_timestamp(expected, escape_word);
  mask_timestamp(actual, escape_word);
  ASSERT_EQ(expected, actual) << what << " at " << start;
}

// Writes one record through the entry of its shape, as the typed front-ends do.
void write_fast(quarry_handle* h, uint32_t tp, const std::vector<uint32_t>& w,
                const std::vector<quarry_string>& s) {
  if (!s.empty()) return quarry_record_strings(h, tp, w.data(), w.size(), s.data(), s.size());
  switch (w.size()) {
    case 0:
      return quarry_record0(h, tp);
    case 1:
      return quarry_record1(h, tp, w[0]);
    case 2:
      return quarry_record2(h, tp, w[0], w[1]);
    case 3:
      return quarry_record3(h, tp, w[0], w[1], w[2]);
    case 4:
      return quarry_record4(h, tp, w[0], w[1], w[2], w[3]);
    default:
      return quarry_record_words(h, tp, w.data(), w.size());
  }
}

TEST(RecordEntries, SameWordsAsQuarryInternal) {
  quarry_handle* variadic = open_handle("variadic");
  quarry_handle* fast = open_handle("fast");
  const uint32_t size = load_ring(fast->cb).size_words;
  static const uint32_t kEdges[] = {0, 1, 0x7F000000u, 0xFEFFFFFFu, 0xFF000000u, 0xFFFFFFFFu};
  std::mt19937 rng(20261123);
  auto u32 = [&] { return rng() % 2 ? kEdges[rng() % 6] : static_cast<uint32_t>(rng()); };
  for (int round = 0; round < 2000; ++round) {
    // Up to eight arguments: what QUARRY_RECORD and a typed call pass.
    std::string sig;
    uint64_t slots[8] = {};
    std::string texts[8];
    std::vector<uint32_t> words;
    std::vector<quarry_string> strings;
    const size_t count = rng() % 9;
    for (size_t i = 0; i < count; ++i) {
      const char code = "ddDs"[rng() % 4];
      sig += code;
      if (code == 's') {
        texts[i].assign(rng() % 6 == 0 ? 40 + rng() % 30 : rng() % 14, 'x');
        for (char& c : texts[i]) c = rng() % 5 == 0 ? '\xff' : static_cast<char>('a' + rng() % 26);
        const char* text = rng() % 8 == 0 ? nullptr : texts[i].c_str();
        slots[i] = reinterpret_cast<uintptr_t>(text);
        strings.push_back(
            {text, static_cast<uint32_t>(texts[i].size()), static_cast<uint32_t>(words.size())});
      } else {
        slots[i] = code == 'd' ? u32() : static_cast<uint64_t>(u32()) << 32 | u32();
        if (code == 'D') words.push_back(static_cast<uint32_t>(slots[i] >> 32));
        words.push_back(static_cast<uint32_t>(slots[i]));
      }
    }
    // Near the end of the ring half of the time, so that records and strings cross it.
    const uint32_t start = round % 2 ? size - rng() % 24 : rng();
    const uint32_t tp = rng() % 8;
    expect_same_record(
        variadic, fast, start, words.size() >= 6,
        [&] {
          QUARRY_TRACE(variadic, tp, sig.c_str(), slots[0], slots[1], slots[2], slots[3], slots[4],
                       slots[5], slots[6], slots[7]);
        },
        [&] { write_fast(fast, tp, words, strings); }, "signature " + sig);
    if (HasFatalFailure()) return;
  }
  EXPECT_EQ(variadic->cb->wraparound_count.load(), fast->cb->wraparound_count.load());
  EXPECT_EQ(variadic->cb->entry_count.load(), fast->cb->entry_count.load());
}

extern "C" void record_c11_case(quarry_handle* h, int which);

TEST(RecordEntries, C11RecordsAsQuarryTrace) {
  quarry_handle* variadic = open_handle("variadic");
  quarry_handle* c11 = open_handle("c11");
  const std::function<void()> traces[] = {
      [&] { QUARRY_TRACE(variadic, 0, ""); },
      [&] { QUARRY_TRACE(variadic, 1, "dddd", -1, 65535, -5, 0xFF000000u); },
      [&] { QUARRY_TRACE(variadic, 2, "DDd", -1ll, 0x1FFFFFFFFull, 1); },
      [&] { QUARRY_TRACE(variadic, 3, "sdss", "c11", 7, "mutable", nullptr); },
      [&] { QUARRY_TRACE(variadic, 4, "dddddddD", 1, 2, 3, 4, 5, 6, 7, 8ull); },
  };
  for (int which = 0; which < 5; ++which) {
    expect_same_record(
        variadic, c11, 1000, which == 4, traces[which], [&] { record_c11_case(c11, which); },
        "case " + std::to_string(which));
  }
}

TEST(RecordEntries, ThreadWordIsPthreadSelfOnEveryThread) {
  quarry_handle* h = open_handle("threads");
  auto check = [h] {
    const uint32_t start = h->cb->word_count;
    quarry_record1(h, 0, 5);
    EXPECT_EQ(static_cast<uint32_t>(pthread_self()), record_at(h, start, 5)[3]);
  };
  check();
  std::thread(check).join();
  std::thread(check).join();
}

TEST(RecordEntries, NullAndDisabledHandlesWriteNothing) {
  quarry_handle* h = open_handle("switch");
  quarry_record2(nullptr, 0, 1, 2);
  quarry_set_enabled(h, false);
  EXPECT_FALSE(quarry_handle_enabled(h) || quarry_handle_enabled(nullptr));
  quarry_record0(h, 0);
  EXPECT_EQ(0u, h->cb->word_count.load());
  quarry_set_enabled(h, true);
  EXPECT_TRUE(quarry_handle_enabled(h));
}

}  // namespace

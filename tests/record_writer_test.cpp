// Every record writer against a model of the record layout over random calls and ring positions
// (encoder with a chosen clock, QUARRY_TRACE, entries, C11 QUARRY_RECORD); switches; ring growth.
#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <random>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "live_test_support.h"
#include "record_writer.h"

namespace {

using quarry_test::open_handle;

// A call: signature and arguments ('s' a pointer, null or into `texts`), more than are read.
struct call {
  std::string sig;
  std::array<uint64_t, 40> args{};
  std::vector<std::string> texts = std::vector<std::string>(40);
};

std::vector<uint32_t> ring_words(quarry_handle* h, uint32_t from, size_t count) {
  const ring_view ring = load_ring(h->cb);
  std::vector<uint32_t> out;
  for (uint32_t i = 0; i < count; ++i) out.push_back(ring.buffer[(from + i) % ring.size_words]);
  return out;
}

// The record of `c`: words from 0xFF000000 up escaped and flagged, strings padded and cut to fit.
std::vector<uint32_t> model(quarry_handle* h, uint32_t tp, const call& c, uint64_t ts,
                            uint32_t thread, bool declared = true) {
  const size_t fixed = declared ? model(h, tp, c, ts, thread, false).size() : 0;
  size_t room = load_ring(h->cb).size_words - fixed, arg = 0;
  std::vector<uint32_t> out{0};
  uint32_t flags = 0, bit = 0;
  auto put = [&](uint32_t value) {
    if (value >= 0xFF000000u && bit < 32) flags |= 1u << bit;
    ++bit;
    out.push_back(value >= 0xFF000000u ? value ^ 0x80000000u : value);
  };
  for (uint32_t word : {uint32_t(ts >> 32), uint32_t(ts), thread}) put(word);
  for (char code : c.sig.substr(0, 32)) {
    const uint64_t value = code == 'x' ? 0 : c.args[arg++];
    if (code == 'D') put(value >> 32);
    if (code == 'd' || code == 'D') put(value);
    if (code != 's' || !declared) continue;
    std::string bytes = value ? reinterpret_cast<const char*>(value) : "(null)";
    bytes.resize(std::min(bytes.size() + 1, 4 * room));
    if (!bytes.empty()) bytes.back() = '\0';
    bytes.resize((bytes.size() + 3) & ~size_t{3});
    for (uint32_t word : quarry_test::words_of(bytes)) out.push_back(word);
    room -= bytes.size() / 4;
  }
  if (bit >= 3 + 6) out.push_back(flags >= 0xFF000000u ? flags ^ 0x80000000u : flags);
  out[0] = 0xFF000000u | (flags & 0xFF) << 16 | ((tp + h->first_trace_point_id) & 0xFFFF);
  return out;
}

// The record at `start` is `expected` and the buffer's word count ends it.
void expect_record(quarry_handle* h, uint32_t start, const std::vector<uint32_t>& expected) {
  EXPECT_EQ(ring_words(h, start, expected.size()), expected) << "at " << start;
  EXPECT_EQ(h->cb->word_count.load(), uint32_t(start + expected.size()));
}

// The same with the real clock (read back) and this thread's word; disabled: nothing written.
void expect_real_record(quarry_handle* h, uint32_t start, uint32_t tp, const call& c,
                        bool enabled = true) {
  if (!enabled) return expect_record(h, start, {});
  const std::vector<uint32_t> w = ring_words(h, start, 3);
  const uint64_t ts =
      uint64_t{w[1] ^ (w[0] << 15 & 0x80000000u)} << 32 | (w[2] ^ (w[0] << 14 & 0x80000000u));
  expect_record(h, start, model(h, tp, c, ts, static_cast<uint32_t>(pthread_self())));
}

void write_args(quarry_handle* h, uint32_t tp, const call* c, bool declared, uint64_t ts,
                uint32_t thread, ...) {
  va_list measure, args;
  va_start(measure, thread);
  va_start(args, thread);
  write_record(
      h, tp, model(h, tp, *c, 0, 0, false).size(), declared ? QUARRY_FLAG_HAS_STRINGS : 0,
      c->sig.c_str(), measure, args, [ts] { return ts; }, [thread] { return thread; });
  va_end(args);
  va_end(measure);
}

// quarry_internal's encoder with a chosen timestamp and thread word.
void write_fixed(quarry_handle* h, uint32_t tp, const call& c, uint64_t ts, uint32_t thread,
                 bool declared = true) {
  std::apply([&](auto... a) { write_args(h, tp, &c, declared, ts, thread, a...); }, c.args);
}

// The non-variadic entry of the record's shape, as QUARRY_RECORD picks it.
void write_entry(quarry_handle* h, uint32_t tp, const call& c) {
  std::vector<uint32_t> w;
  std::vector<quarry_string> s;
  size_t arg = 0;
  for (char code : c.sig.substr(0, 32)) {
    const uint64_t value = code == 'x' ? 0 : c.args[arg++];
    const char* text = reinterpret_cast<const char*>(value);
    if (code == 's') s.push_back({text, text ? uint32_t(strlen(text)) : 0, uint32_t(w.size())});
    if (code == 'D') w.push_back(value >> 32);
    if (code == 'd' || code == 'D') w.push_back(value);
  }
  const uint32_t* v = w.data();
  if (!s.empty()) return quarry_record_strings(h, tp, v, w.size(), s.data(), s.size());
  if (w.size() == 0) return quarry_record0(h, tp);
  if (w.size() == 1) return quarry_record1(h, tp, v[0]);
  if (w.size() == 2) return quarry_record2(h, tp, v[0], v[1]);
  if (w.size() == 3) return quarry_record3(h, tp, v[0], v[1], v[2]);
  if (w.size() == 4) return quarry_record4(h, tp, v[0], v[1], v[2], v[3]);
  quarry_record_words(h, tp, v, w.size());
}

uint32_t random_word(std::mt19937& rng) {
  static const uint32_t kEdges[] = {0, 1, 0x7F000000u, 0xFEFFFFFFu, 0xFF000000u, 0xFFFFFFFFu};
  return rng() % 2 ? kEdges[rng() % 6] : static_cast<uint32_t>(rng());
}

// Up to 8 arguments or over 32 characters; escapable words; null, long and (`huge`) giant strings.
call random_call(uint32_t seed, bool huge = true) {
  std::mt19937 rng(seed);
  call c;
  const size_t chars = rng() % 8 == 0 ? 30 + rng() % 11 : rng() % 9;
  for (size_t count = 0; c.sig.size() < chars;) {
    const char code = "ddDsx"[rng() % 5];
    c.sig += code;
    if (code == 'x') continue;
    uint64_t& arg = c.args[count];
    std::string& text = c.texts[count++];
    if (code == 'd') arg = random_word(rng);
    if (code == 'D') arg = uint64_t{random_word(rng)} << 32 | random_word(rng);
    if (code != 's') continue;
    text.resize(huge && rng() % 64 == 0 ? 5 * 4096 : rng() % 6 == 0 ? 40 + rng() % 30 : rng() % 14);
    for (char& ch : text) ch = rng() % 5 == 0 ? '\xff' : static_cast<char>('a' + rng() % 26);
    arg = rng() % 8 == 0 ? 0 : reinterpret_cast<uintptr_t>(text.c_str());
  }
  return c;
}

TEST(RecordEncoding, EveryWriterWritesTheModelRecordAtAnyPosition) {
  quarry_handle* owner = open_handle("fixed");
  quarry_handle* child = open_handle("child", 0, owner);
  ASSERT_EQ(4u, child->first_trace_point_id);
  quarry_internal(nullptr, 0, 4, 0, "", 0);  // null handles write nothing
  quarry_record2(nullptr, 0, 1, 2);
  EXPECT_FALSE(quarry_handle_enabled(nullptr));
  quarry_handle* entries = open_handle("entries");
  circular_buffer* cb = owner->cb;
  const uint32_t size = load_ring(cb).size_words;
  std::mt19937 rng(20261123);
  uint32_t crossings = 0;
  std::pair<uint64_t, uint64_t> extremes{~0ull, 0};  // the shortest and longest time to a crossing
  for (uint32_t round = 0; round < 3000 && !HasFailure(); ++round) {
    const call c = random_call(rng());
    SCOPED_TRACE(c.sig);
    const uint32_t tp = rng() % 8;
    // Anywhere, near the end of the ring, or where the word count is about to overflow.
    const uint32_t start = round % 3 == 0 ? rng() : (round % 3 == 1 ? size : 0) - rng() % 24;
    quarry_handle* h = rng() % 2 ? owner : child;
    const uint64_t ts = uint64_t{random_word(rng)} << 32 | random_word(rng);
    const uint32_t thread = random_word(rng);
    const bool declared = rng() % 8 != 0;
    // Now and then the low timestamp bits carry a running index instead.
    ts_idx_mask.store(round % 5 == 0 ? 0xF : 0);
    const uint64_t stored_ts = round % 5 == 0 ? (ts & ~0xFull) | (ts_index.load() & 0xF) : ts;
    cb->creation_time = stored_ts - round;  // the time to each crossing grows with the round
    cb->word_count = start;
    write_fixed(h, tp, c, ts, thread, declared);
    const std::vector<uint32_t> expected = model(h, tp, c, stored_ts, thread, declared);
    expect_record(h, start, expected);
    if (start % size + expected.size() > size) {
      // The first crossing sets only the minimum, each later one the maximum.
      ++crossings;
      (crossings == 1 ? extremes.first : extremes.second) = round;
      EXPECT_EQ(stored_ts, cb->wraparound_time.load());
    }
    EXPECT_EQ(crossings, cb->wraparound_count.load());
    EXPECT_EQ(extremes,
              std::make_pair(cb->min_wraparound_time.load(), cb->max_wraparound_time.load()));

    const bool on = rng() % 8 != 0;
    quarry_set_enabled(entries, on);
    entries->cb->word_count = start;
    write_entry(entries, tp, c);
    expect_real_record(entries, start, tp, c, on);
    if (c.sig.size() > 32) continue;  // QUARRY_TRACE counts every character
    entries->cb->word_count = start;
    std::apply([&](auto... a) { QUARRY_TRACE(entries, tp, c.sig.c_str(), a...); }, c.args);
    expect_real_record(entries, start, tp, c, on);
  }
  EXPECT_GE(crossings, 2u);
}

extern "C" void record_c11_case(quarry_handle* h, int which);

TEST(RecordEncoding, C11RecordsAndTheThreadWordOfEveryThread) {
  quarry_handle* h = open_handle("c11");
  const call cases[] = {
      {""},
      {"dddd", {0xFFFFFFFFu, 65535, 0xFFFFFFFBu, 0xFF000000u}},
      {"DDd", {~0ull, 0x1FFFFFFFFull, 1}},
      {"sdss", {reinterpret_cast<uintptr_t>("c11"), 7, reinterpret_cast<uintptr_t>("mutable"), 0}},
      {"dddddddD", {1, 2, 3, 4, 5, 6, 7, 8}},
  };
  auto write_cases = [&] {
    for (int which = 0; which < 5; ++which) {
      const uint32_t start = h->cb->word_count;
      record_c11_case(h, which);
      expect_real_record(h, start, which, cases[which]);
    }
  };
  write_cases();
  std::thread(write_cases).join();
}

// Record `seq` of writer `id`: a random call of its own, its thread word the key a scan rebuilds
// it from (the clock's index bits may overwrite the low bits of any timestamp).
void write_known(quarry_handle* h, uint32_t id, uint32_t seq) {
  write_fixed(h, seq % 8, random_call(id << 20 | seq, false), 0, id << 20 | seq);
}

// Records written during a growth may be copied half-written; every one written after is intact.
TEST(RingGrowth, RoundsUpNeverShrinksAndRecordsWrittenAfterAreIntact) {
  quarry_handle* h = open_handle("grow");
  std::atomic<bool> growing{true};
  std::atomic<uint32_t> records{0};
  constexpr uint32_t kThreads = 4, kLate = 5000, kLastSize = 1048576;
  static circular_buffer fresh;  // the minimum for a small request, a power of two kept as it is
  ASSERT_EQ(0, set_circular_buffer_size(&fresh, 1));
  EXPECT_EQ(1024u, load_ring(&fresh).size_words);
  ASSERT_EQ(0, set_circular_buffer_size(&fresh, 8192));
  EXPECT_EQ(2048u, load_ring(&fresh).size_words);
  std::vector<std::thread> writers;
  for (uint32_t t = 0; t < kThreads; ++t) {
    writers.emplace_back([&, t] {
      uint32_t i = 0;
      for (; growing.load(); ++i) write_known(h, t, i);
      for (uint32_t j = 0; j < kLate; ++j) write_known(h, 100 + t, j);
      records.fetch_add(i + kLate);
    });
  }
  for (unsigned size = 8192; size <= 4 * kLastSize; size *= 2) {
    for (int i = 0; i < 50; ++i) ASSERT_EQ(0, set_circular_buffer_size(h->cb, size / 4));
    ASSERT_EQ(0, set_circular_buffer_size(h->cb, size / 2 + 1));
  }
  growing.store(false);
  for (auto& t : writers) t.join();
  ASSERT_EQ(kLastSize, load_ring(h->cb).size_words);
  EXPECT_EQ(records.load(), h->cb->entry_count.load());
  const std::vector<uint32_t> w = ring_words(h, 0, kLastSize + 1024);  // past the longest record
  uint32_t intact = 0;
  for (size_t pos = 0; pos < kLastSize; ++pos) {
    const uint32_t key = w[pos + 3], seq = key & 0xFFFFF, ts = w[pos + 2];
    if (w[pos] >> 24 != 0xFF || (w[pos] & 0xFFFF) != seq % 8 || (key >> 20) - 100 >= kThreads)
      continue;
    const std::vector<uint32_t> record = model(h, seq % 8, random_call(key, false), ts, key);
    if (std::equal(record.begin(), record.end(), w.begin() + pos)) ++intact;
  }
  EXPECT_EQ(kThreads * kLate, intact);
}

}  // namespace

// Every record writer against a model of the record layout, over random signatures, values and
// ring positions: quarry_internal's encoder with a chosen clock and thread word, QUARRY_TRACE,
// the non-variadic entries and QUARRY_RECORD in C11; the switches; writers through growth.
#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "record_writer.h"
#include "ring.h"
#include "test_support.h"

namespace {

constexpr size_t kSlots = 40;  // more arguments than the writer reads signature characters

// A call: its signature and arguments in call order ('s' as a pointer, null or into `texts`).
struct call {
  std::string sig;
  std::array<uint64_t, kSlots> args{};
  std::vector<std::string> texts = std::vector<std::string>(kSlots);
};

uint64_t text_arg(const char* text) {
  return reinterpret_cast<uintptr_t>(text);
}

quarry_handle* open_handle(const char* name, unsigned count = 8, quarry_handle* parent = nullptr) {
  quarry_handle* h = nullptr;
  EXPECT_EQ(0, quarry_open_internal(&h, name, parent ? 0 : 4096, count, "t.dec", "0", parent));
  return h;
}

std::vector<uint32_t> ring_words(quarry_handle* h, uint32_t from, size_t count) {
  const ring_view ring = load_ring(h->cb);
  std::vector<uint32_t> out;
  for (uint32_t i = 0; i < count; ++i) out.push_back(ring.buffer[(from + i) % ring.size_words]);
  return out;
}

// The numeric words among the signature characters the writer reads (the first 32).
uint32_t numeric_words(const call& c) {
  uint32_t n = 0;
  for (char code : c.sig.substr(0, 32)) n += code == 'd' ? 1 : code == 'D' ? 2 : 0;
  return n;
}

// The record of `c` in h's ring, header first: words from 0xFF000000 up stored with bit 31
// inverted and flagged; strings with their NUL, zero-padded, cut to fit the ring, left out when
// the flags do not declare them; the flags word after six numeric words.
std::vector<uint32_t> model(quarry_handle* h, uint32_t tp, const call& c, uint64_t ts,
                            uint32_t thread, bool declared = true) {
  const uint32_t ring_size = load_ring(h->cb).size_words;
  std::vector<uint32_t> out{0};
  uint32_t flags = 0, bit = 0;
  auto put = [&](uint32_t value) {
    const bool escaped = value >= 0xFF000000u;
    out.push_back(escaped ? value ^ 0x80000000u : value);
    if (escaped && bit < 32) flags |= 1u << bit;
    ++bit;
  };
  put(ts >> 32);
  put(ts);
  put(thread);
  const uint32_t numeric = numeric_words(c);
  size_t length = 4 + numeric + (numeric >= 6), arg = 0;
  for (char code : c.sig.substr(0, 32)) {
    const uint64_t value = code == 'x' ? 0 : c.args[arg++];
    if (code == 'D') put(value >> 32);
    if (code == 'd' || code == 'D') put(value);
    if (code != 's' || !declared) continue;
    std::string bytes = value ? reinterpret_cast<const char*>(value) : "(null)";
    bytes.resize(std::min(bytes.size() + 1, 4 * (ring_size - length)));
    if (!bytes.empty()) bytes.back() = '\0';
    bytes.resize((bytes.size() + 3) & ~size_t{3});
    for (uint32_t word : quarry_test::words_of(bytes)) out.push_back(word);
    length += bytes.size() / 4;
  }
  if (numeric >= 6) out.push_back(flags >= 0xFF000000u ? flags ^ 0x80000000u : flags);
  out[0] = 0xFF000000u | (flags & 0xFF) << 16 | ((tp + h->first_trace_point_id) & 0xFFFF);
  return out;
}

// The record at `start` is the model's and the buffer's word count ends it. With the real clock
// and thread word, the timestamp is read back from the record and the thread word is the
// calling thread's.
testing::AssertionResult holds(quarry_handle* h, uint32_t start,
                               const std::vector<uint32_t>& expected) {
  const std::vector<uint32_t> actual = ring_words(h, start, expected.size());
  if (actual != expected || h->cb->word_count != uint32_t(start + expected.size())) {
    return testing::AssertionFailure() << "at " << start << " " << testing::PrintToString(actual)
                                       << " instead of " << testing::PrintToString(expected);
  }
  return testing::AssertionSuccess();
}
testing::AssertionResult holds_real(quarry_handle* h, uint32_t start, uint32_t tp, const call& c) {
  const std::vector<uint32_t> w = ring_words(h, start, 3);
  const uint64_t ts =
      uint64_t{w[1] ^ (w[0] << 15 & 0x80000000u)} << 32 | (w[2] ^ (w[0] << 14 & 0x80000000u));
  return holds(h, start, model(h, tp, c, ts, static_cast<uint32_t>(pthread_self())));
}

void write_args(quarry_handle* h, uint32_t tp, uint32_t fixed, uint32_t flags, const char* sig,
                uint64_t ts, uint32_t thread, ...) {
  va_list measure;
  va_list args;
  va_start(measure, thread);
  va_start(args, thread);
  write_record(
      h, tp, fixed, flags, sig, measure, args, [ts] { return ts; }, [thread] { return thread; });
  va_end(args);
  va_end(measure);
}

// quarry_internal's encoder with a chosen timestamp and thread word.
void write_fixed(quarry_handle* h, uint32_t tp, const call& c, uint64_t ts, uint32_t thread,
                 bool declared = true) {
  const uint32_t fixed = 4 + numeric_words(c) + (numeric_words(c) >= 6);
  const uint32_t flags = declared ? QUARRY_FLAG_HAS_STRINGS : 0;
  std::apply([&](auto... a) { write_args(h, tp, fixed, flags, c.sig.c_str(), ts, thread, a...); },
             c.args);
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
  if (!s.empty())
    quarry_record_strings(h, tp, v, w.size(), s.data(), s.size());
  else if (w.size() == 0)
    quarry_record0(h, tp);
  else if (w.size() == 1)
    quarry_record1(h, tp, v[0]);
  else if (w.size() == 2)
    quarry_record2(h, tp, v[0], v[1]);
  else if (w.size() == 3)
    quarry_record3(h, tp, v[0], v[1], v[2]);
  else if (w.size() == 4)
    quarry_record4(h, tp, v[0], v[1], v[2], v[3]);
  else
    quarry_record_words(h, tp, v, w.size());
}

uint32_t random_word(std::mt19937& rng) {
  static const uint32_t kEdges[] = {0, 1, 0x7F000000u, 0xFEFFFFFFu, 0xFF000000u, 0xFFFFFFFFu};
  return rng() % 2 ? kEdges[rng() % 6] : static_cast<uint32_t>(rng());
}

// Up to eight arguments, or now and then a signature longer than the writer reads; characters
// without an argument; values at the escape threshold half of the time; null strings and
// strings of every length, with `huge` also longer than the ring.
call random_call(std::mt19937& rng, bool huge = true) {
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
    arg = rng() % 8 == 0 ? 0 : text_arg(text.c_str());
  }
  return c;
}

TEST(RecordEncoding, EveryWriterWritesTheModelRecordAtAnyPosition) {
  quarry_handle* owner = open_handle("fixed", 5);
  quarry_handle* child = open_handle("child", 10, owner);
  ASSERT_EQ(5u, child->first_trace_point_id);
  quarry_handle* traced = open_handle("traced");
  quarry_handle* entries = open_handle("entries");
  circular_buffer* cb = owner->cb;
  const uint32_t size = load_ring(cb).size_words;
  std::mt19937 rng(20261123);
  uint32_t crossings = 0, first_crossing = 0, last_crossing = 0;
  uint64_t last_crossing_ts = 0;
  for (uint32_t round = 0; round < 3000; ++round) {
    const call c = random_call(rng);
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
    ASSERT_TRUE(holds(h, start, expected)) << c.sig;
    if (start % size + expected.size() > size) {
      if (crossings++ == 0) first_crossing = round;
      last_crossing = round;
      last_crossing_ts = stored_ts;
      if (crossings == 1) {
        EXPECT_EQ(0u, cb->max_wraparound_time.load());  // set from the second crossing on
      }
    }

    entries->cb->word_count = start;
    write_entry(entries, tp, c);
    ASSERT_TRUE(holds_real(entries, start, tp, c)) << c.sig;
    if (c.sig.size() > 32) continue;  // QUARRY_TRACE counts every character
    traced->cb->word_count = start;
    std::apply([&](auto... a) { QUARRY_TRACE(traced, tp, c.sig.c_str(), a...); }, c.args);
    ASSERT_TRUE(holds_real(traced, start, tp, c)) << c.sig;
  }
  ts_idx_mask.store(0);
  ASSERT_GE(crossings, 2u);
  EXPECT_EQ(crossings, cb->wraparound_count.load());
  EXPECT_EQ(last_crossing_ts, cb->wraparound_time.load());
  EXPECT_EQ(first_crossing, cb->min_wraparound_time.load());
  EXPECT_EQ(last_crossing, cb->max_wraparound_time.load());
}

extern "C" void record_c11_case(quarry_handle* h, int which);

TEST(RecordEncoding, C11RecordsAndTheThreadWordOfEveryThread) {
  quarry_handle* h = open_handle("c11");
  const call cases[] = {
      {""},
      {"dddd", {0xFFFFFFFFu, 65535, 0xFFFFFFFBu, 0xFF000000u}},
      {"DDd", {~0ull, 0x1FFFFFFFFull, 1}},
      {"sdss", {text_arg("c11"), 7, text_arg("mutable"), 0}},
      {"dddddddD", {1, 2, 3, 4, 5, 6, 7, 8}},
  };
  for (int which = 0; which < 5; ++which) {
    const uint32_t start = h->cb->word_count;
    record_c11_case(h, which);
    EXPECT_TRUE(holds_real(h, start, which, cases[which])) << which;
  }
  auto one_record = [h] {
    const uint32_t start = h->cb->word_count;
    quarry_record1(h, 0, 5);
    EXPECT_TRUE(holds_real(h, start, 0, call{"d", {5}}));
  };
  one_record();
  std::thread(one_record).join();
  std::thread(one_record).join();
}

TEST(RecordWriterSwitches, DisabledAndNullHandlesWriteNothing) {
  quarry_handle* h = open_handle("switch");
  quarry_internal(nullptr, 0, 4, 0, "", 0);
  quarry_record2(nullptr, 0, 1, 2);
  EXPECT_FALSE(quarry_handle_enabled(nullptr));
  for (bool on : {false, true}) {
    quarry_set_enabled(h, on);
    EXPECT_EQ(on, quarry_handle_enabled(h));
    QUARRY_TRACE(h, 0, "d", 1);
    quarry_record0(h, 0);
    EXPECT_EQ(on ? 9u : 0u, h->cb->word_count.load());
    EXPECT_EQ(on ? 2u : 0u, h->cb->entry_count.load());
  }
}

TEST(RingSize, RequestsRoundUpToAPowerOfTwoFromTheMinimumAndOnlyGrow) {
  static circular_buffer cb;
  const std::pair<unsigned, uint32_t> steps[] = {
      {1, 1024}, {4097, 2048}, {8192, 2048}, {4096, 2048}, {8193, 4096}};
  for (const auto& step : steps) {
    EXPECT_EQ(0, set_circular_buffer_size(&cb, step.first));
    EXPECT_EQ(step.second, load_ring(&cb).size_words) << step.first;
  }
}

// Writer `thread`'s record number `seq`: a random call of its own, whose timestamp is `seq`, so
// that a scan of the ring can rebuild every record it finds.
void write_known(quarry_handle* h, uint32_t thread, uint32_t seq) {
  std::mt19937 rng(thread << 20 | seq);
  write_fixed(h, seq % 8, random_call(rng, false), seq, thread);
}

// The (thread, sequence) of each intact record of write_known that starts in the ring.
std::set<std::pair<uint32_t, uint32_t>> known_records(quarry_handle* h) {
  const uint32_t size = load_ring(h->cb).size_words;
  const std::vector<uint32_t> w = ring_words(h, 0, size + 1024);
  std::set<std::pair<uint32_t, uint32_t>> found;
  for (size_t pos = 0; pos < size; ++pos) {
    const uint32_t seq = w[pos + 2], thread = w[pos + 3];
    if (w[pos] >> 24 != 0xFF || (w[pos] & 0xFFFF) != seq % 8) continue;
    std::mt19937 rng(thread << 20 | seq);
    const std::vector<uint32_t> record = model(h, seq % 8, random_call(rng, false), seq, thread);
    if (record.size() <= w.size() - pos &&
        std::equal(record.begin(), record.end(), w.begin() + pos)) {
      found.insert({thread, seq});
    }
  }
  return found;
}

// Records written while the ring grows may be copied half-written; every record written after
// the last growth must be intact, which no two writers sharing a position would leave.
TEST(RecordWriterConcurrency, RecordsWrittenAfterGrowthUnderLoadAreAllIntact) {
  quarry_handle* h = open_handle("grow", 8);
  ts_idx_mask.store(0);
  std::atomic<int> phase{1};
  std::atomic<uint32_t> records{0};
  constexpr uint32_t kThreads = 4, kLate = 5000;
  std::vector<std::thread> writers;
  for (uint32_t t = 0; t < kThreads; ++t) {
    writers.emplace_back([&, t] {
      uint32_t i = 0;
      for (; phase.load() == 1; ++i) write_known(h, t, i);
      for (uint32_t j = 0; j < kLate; ++j) write_known(h, 100 + t, j);
      records.fetch_add(i + kLate);
    });
  }
  for (unsigned size = 8192; size <= 4194304; size *= 2) {
    for (int i = 0; i < 50; ++i) ASSERT_EQ(0, set_circular_buffer_size(h->cb, size / 2));
    ASSERT_EQ(0, set_circular_buffer_size(h->cb, size));
  }
  phase.store(2);
  for (auto& t : writers) t.join();
  ASSERT_EQ(1048576u, load_ring(h->cb).size_words);
  EXPECT_EQ(records.load(), h->cb->entry_count.load());
  std::set<std::pair<uint32_t, uint32_t>> late;
  for (const auto& id : known_records(h)) {
    if (id.first >= 100) late.insert(id);
  }
  EXPECT_EQ(kThreads * kLate, late.size());
}

}  // namespace

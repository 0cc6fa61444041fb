// The record encoders against a model of the record layout: quarry_internal's encoder with a
// chosen clock and thread word, QUARRY_TRACE, the non-variadic entries and QUARRY_RECORD in C11,
// over random signatures, values and ring positions; the switches; writers under concurrency
// and growth.
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "quarry/quarry.hpp"
#include "record_writer.h"
#include "ring.h"
#include "test_support.h"

namespace {

constexpr size_t kSlots = 40;  // more arguments than the writer reads signature characters

// One call: its signature and arguments in call order ('s' as a pointer, null or into `texts`).
struct call {
  std::string sig;
  std::vector<uint64_t> args = std::vector<uint64_t>(kSlots);
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

// The signature characters the writer reads and the numeric words among them.
std::string read_part(const call& c) {
  return c.sig.substr(0, 32);
}
uint32_t numeric_words(const call& c) {
  uint32_t n = 0;
  for (char code : read_part(c)) n += code == 'd' ? 1 : code == 'D' ? 2 : 0;
  return n;
}

// The words of the record of `c` in h's ring, header first: words from 0xFF000000 up stored
// with bit 31 inverted and flagged; strings with their NUL, zero-padded, cut to fit the ring
// (left out when the flags do not declare them); the flags word after six numeric words.
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
  uint32_t length = 4 + numeric + (numeric >= 6);
  size_t arg = 0;
  for (char code : read_part(c)) {
    if (code == 'x') continue;
    const uint64_t value = c.args[arg++];
    if (code == 'D') put(value >> 32);
    if (code != 's') {
      put(value);
    } else if (declared) {
      std::string bytes = value ? reinterpret_cast<const char*>(value) : "(null)";
      bytes.resize(std::min<size_t>(bytes.size() + 1, 4 * (ring_size - length)));
      if (!bytes.empty()) bytes.back() = '\0';
      bytes.resize((bytes.size() + 3) & ~size_t{3});
      const std::vector<uint32_t> words = quarry_test::words_of(bytes);
      out.insert(out.end(), words.begin(), words.end());
      length += words.size();
    }
  }
  if (numeric >= 6) out.push_back(flags >= 0xFF000000u ? flags ^ 0x80000000u : flags);
  out[0] = 0xFF000000u | (flags & 0xFF) << 16 | ((tp + h->first_trace_point_id) & 0xFFFF);
  return out;
}

// The model of a record written with the real clock and thread word: its timestamp is read
// back from the record, the thread word is the calling thread's.
std::vector<uint32_t> real_model(quarry_handle* h, uint32_t start, uint32_t tp, const call& c) {
  const std::vector<uint32_t> w = ring_words(h, start, 3);
  const uint64_t ts =
      uint64_t{w[1] ^ (w[0] << 15 & 0x80000000u)} << 32 | (w[2] ^ (w[0] << 14 & 0x80000000u));
  return model(h, tp, c, ts, static_cast<uint32_t>(pthread_self()));
}

// The record at `start` holds `expected` and the buffer's word count ends it.
testing::AssertionResult holds(quarry_handle* h, uint32_t start,
                               const std::vector<uint32_t>& expected) {
  const std::vector<uint32_t> actual = ring_words(h, start, expected.size());
  if (actual != expected) {
    return testing::AssertionFailure() << "at " << start << " " << testing::PrintToString(actual)
                                       << " instead of " << testing::PrintToString(expected);
  }
  if (h->cb->word_count != uint32_t(start + expected.size()))
    return testing::AssertionFailure() << "length";
  return testing::AssertionSuccess();
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
template <size_t... I>
void write_fixed(quarry_handle* h, uint32_t tp, const call& c, uint64_t ts, uint32_t thread,
                 bool declared, std::index_sequence<I...>) {
  const uint32_t numeric = numeric_words(c);
  write_args(h, tp, 4 + numeric + (numeric >= 6), declared ? QUARRY_FLAG_HAS_STRINGS : 0,
             c.sig.c_str(), ts, thread, c.args[I]...);
}
void write_fixed(quarry_handle* h, uint32_t tp, const call& c, uint64_t ts, uint32_t thread,
                 bool declared = true) {
  write_fixed(h, tp, c, ts, thread, declared, std::make_index_sequence<kSlots>());
}

template <size_t... I>
void trace(quarry_handle* h, uint32_t tp, const call& c, std::index_sequence<I...>) {
  QUARRY_TRACE(h, tp, c.sig.c_str(), c.args[I]...);
}

// The entry of the record's shape, as QUARRY_RECORD and the typed front-end pick it.
void write_entry(quarry_handle* h, uint32_t tp, const call& c) {
  std::vector<uint32_t> w;
  std::vector<quarry_string> s;
  size_t arg = 0;
  for (char code : read_part(c)) {
    if (code == 'x') continue;
    const uint64_t value = c.args[arg++];
    const char* text = reinterpret_cast<const char*>(value);
    if (code == 's') s.push_back({text, text ? uint32_t(strlen(text)) : 0, uint32_t(w.size())});
    if (code == 'D') w.push_back(value >> 32);
    if (code != 's') w.push_back(value);
  }
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

// Up to eight arguments, or now and then a signature longer than the writer reads; characters
// without an argument; values at the escape threshold half of the time; strings of every length
// up to longer than the ring, and null ones.
uint32_t random_word(std::mt19937& rng) {
  static const uint32_t kEdges[] = {0, 1, 0x7F000000u, 0xFEFFFFFFu, 0xFF000000u, 0xFFFFFFFFu};
  return rng() % 2 ? kEdges[rng() % 6] : static_cast<uint32_t>(rng());
}

call random_call(std::mt19937& rng) {
  auto word = [&rng] { return random_word(rng); };
  call c;
  const size_t chars = rng() % 8 == 0 ? 30 + rng() % 11 : rng() % 9;
  for (size_t arg = 0; c.sig.size() < chars;) {
    const char code = "ddDsx"[rng() % 5];
    c.sig += code;
    if (code == 'x') continue;
    if (code == 's') {
      std::string& text = c.texts[arg];
      text.resize(rng() % 64 == 0 ? 5 * 4096 : rng() % 6 == 0 ? 40 + rng() % 30 : rng() % 14);
      for (char& ch : text) ch = rng() % 5 == 0 ? '\xff' : static_cast<char>('a' + rng() % 26);
      c.args[arg++] = rng() % 8 == 0 ? 0 : text_arg(text.c_str());
    } else {
      c.args[arg++] = code == 'd' ? word() : uint64_t{word()} << 32 | word();
    }
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
    }

    entries->cb->word_count = traced->cb->word_count = start;
    write_entry(entries, tp, c);
    ASSERT_TRUE(holds(entries, start, real_model(entries, start, tp, c))) << c.sig;
    if (c.sig.size() > 32) continue;  // QUARRY_TRACE counts every character
    trace(traced, tp, c, std::make_index_sequence<kSlots>());
    ASSERT_TRUE(holds(traced, start, real_model(traced, start, tp, c))) << c.sig;
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
    EXPECT_TRUE(holds(h, start, real_model(h, start, which, cases[which]))) << which;
  }
  auto one_record = [h] {
    const uint32_t start = h->cb->word_count;
    quarry_record1(h, 0, 5);
    EXPECT_TRUE(holds(h, start, real_model(h, start, 0, call{"d", {5}})));
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

// Records whose content follows from (trace point, thread, sequence number): timestamp and
// thread word are the latter two, so a walk of the ring can rebuild each record it finds.
const char* const kKnownSignatures[] = {"ddd", "dsdd", "Dddd", "ddds"};

call known_call(uint32_t tp, uint32_t thread, uint32_t seq) {
  call c{kKnownSignatures[tp]};
  for (size_t i = 0; i < c.sig.size(); ++i) {
    c.texts[i] = i == 1 ? std::to_string(seq) : "0xFF\xFF\xFF\xFF-looks-like-a-header";
    c.args[i] = c.sig[i] == 's'   ? text_arg(c.texts[i].c_str())
                : c.sig[i] == 'D' ? 0xFFFFFFFF00000000ull | seq
                                  : (thread * 0x9E3779B9u) ^ seq ^ i;
  }
  return c;
}

void write_known(quarry_handle* h, uint32_t tp, uint32_t thread, uint32_t seq) {
  write_fixed(h, tp, known_call(tp, thread, seq), seq, thread);
}

// The record at `pos` of `w` if it is one of write_known's, intact: its (thread, sequence).
bool known_record_at(quarry_handle* h, const std::vector<uint32_t>& w, size_t pos,
                     std::pair<uint32_t, uint32_t>* id, size_t* length) {
  if (pos + 4 > w.size() || w[pos] >> 24 != 0xFF || (w[pos] & 0xFFFF) > 3) return false;
  const uint32_t tp = w[pos] & 0xFFFF, seq = w[pos + 2], thread = w[pos + 3];
  const std::vector<uint32_t> expected = model(h, tp, known_call(tp, thread, seq), seq, thread);
  if (pos + expected.size() > w.size() ||
      !std::equal(expected.begin(), expected.end(), w.begin() + pos)) {
    return false;
  }
  *id = {thread, seq};
  *length = expected.size();
  return true;
}

TEST(RecordWriterConcurrency, ThreadsNeverSharePositionsAndEveryRecordIsIntact) {
  quarry_handle* h = nullptr;
  ASSERT_EQ(0, quarry_open_internal(&h, "many", 4194304, 4, "t.dec", "0", nullptr));
  ts_idx_mask.store(0);
  constexpr uint32_t kThreads = 4, kRecords = 20000;
  std::vector<std::thread> threads;
  for (uint32_t t = 0; t < kThreads; ++t) {
    threads.emplace_back([h, t] {
      for (uint32_t i = 0; i < kRecords; ++i) write_known(h, i % 4, t, i);
    });
  }
  for (auto& t : threads) t.join();
  const uint32_t total = h->cb->word_count;
  ASSERT_LT(total, load_ring(h->cb).size_words);  // no wrap: every record must be there
  const std::vector<uint32_t> w = ring_words(h, 0, total);
  std::set<std::pair<uint32_t, uint32_t>> seen;
  std::pair<uint32_t, uint32_t> id;
  for (size_t pos = 0, length = 0; pos < total; pos += length) {
    ASSERT_TRUE(known_record_at(h, w, pos, &id, &length)) << "damaged record at " << pos;
    seen.insert(id);
  }
  EXPECT_EQ(kThreads * kRecords, seen.size());
  EXPECT_EQ(kThreads * kRecords, h->cb->entry_count.load());
}

TEST(RecordWriterConcurrency, GrowthUnderLoadKeepsLaterRecordsIntact) {
  quarry_handle* h = open_handle("grow", 4);
  ts_idx_mask.store(0);
  std::atomic<int> phase{1};
  std::atomic<uint32_t> written{0};
  constexpr uint32_t kThreads = 3, kLate = 1000;
  std::vector<std::thread> writers;
  for (uint32_t t = 0; t < kThreads; ++t) {
    writers.emplace_back([&, t] {
      for (uint32_t i = 0; phase.load() == 1; ++i) write_known(h, i % 4, t, i);
      // Everything from here on is written after the last growth.
      for (uint32_t j = 0; j < kLate; ++j) write_known(h, j % 4, 100 + t, j);
      written.fetch_add(kLate);
    });
  }
  for (unsigned size = 8192; size <= 4194304; size *= 2) {
    for (int i = 0; i < 50; ++i) ASSERT_EQ(0, set_circular_buffer_size(h->cb, size / 2));
    ASSERT_EQ(0, set_circular_buffer_size(h->cb, size));
  }
  phase.store(2);
  for (auto& t : writers) t.join();
  const uint32_t size = load_ring(h->cb).size_words;
  ASSERT_EQ(1048576u, size);
  const std::vector<uint32_t> w = ring_words(h, 0, size + 64);
  std::set<std::pair<uint32_t, uint32_t>> seen;
  std::pair<uint32_t, uint32_t> id;
  size_t length;
  for (size_t pos = 0; pos < size; ++pos) {
    if (known_record_at(h, w, pos, &id, &length) && id.first >= 100) seen.insert(id);
  }
  EXPECT_EQ(written.load(), seen.size());
}

}  // namespace

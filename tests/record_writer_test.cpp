// The record encoding word by word, with a fixed clock and thread word, and the writer under
// concurrency and growth.
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "record_writer.h"
#include "ring.h"
#include "test_support.h"

namespace {

quarry_handle* open_handle(const char* name, unsigned size, unsigned count,
                           quarry_handle* parent = nullptr) {
  quarry_handle* h = nullptr;
  EXPECT_EQ(0, quarry_open_internal(&h, name, size, count, "test.dec", "0", parent));
  return h;
}

// Writes one record with a chosen timestamp and thread word through the real encoder.
void write_fixed(quarry_handle* h, uint32_t tp, uint32_t fixed, uint32_t flags, const char* sig,
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

std::vector<uint32_t> ring_words(quarry_handle* h, uint32_t from, uint32_t count) {
  ring_view ring = load_ring(h->cb);
  std::vector<uint32_t> out;
  for (uint32_t i = 0; i < count; ++i) {
    out.push_back(ring.buffer[(from + i) & (ring.size_words - 1)].load());
  }
  return out;
}

uint32_t word_of(const char* bytes) {
  uint32_t w;
  memcpy(&w, bytes, 4);
  return w;
}

// A fresh buffer per test, also when all tests run in one process.
std::string unique_name(const char* stem) {
  static int counter = 0;
  return stem + std::to_string(counter++);
}

class RecordEncoding : public ::testing::Test {
 protected:
  void SetUp() override {
    owner_ = open_handle(unique_name("enc").c_str(), 4096, 5);
    child_ = open_handle("child", 0, 10, owner_);
    ASSERT_NE(nullptr, child_);
    ASSERT_EQ(5u, child_->first_trace_point_id);
    ts_idx_mask.store(0);  // exact timestamps, whatever the machine's clock resolution
  }
  quarry_handle* owner_ = nullptr;
  quarry_handle* child_ = nullptr;
};

TEST_F(RecordEncoding, EveryEscapableWordHasItsOwnFlag) {
  // Timestamp high and low words, thread word, then d values around the threshold.
  write_fixed(owner_, 0, 7, 0, "ddd", 0xFF000000FFFFFFFFull, 0xFF123400u, 0xFF000000u, 0x7F000000u,
              0xFEFFFFFFu);
  EXPECT_EQ((std::vector<uint32_t>{0xFF0F0000u, 0x7F000000u, 0x7FFFFFFFu, 0x7F123400u, 0x7F000000u,
                                   0x7F000000u, 0xFEFFFFFFu}),
            ring_words(owner_, 0, 7));
  // Only the thread word escaped: header bit 18.
  write_fixed(owner_, 1, 4, 0, "", 1, 0xFF123400u);
  EXPECT_EQ(0xFF040001u, ring_words(owner_, 7, 1)[0]);
}

// Encodings the round trip through the decoder cannot reach: escaped timestamp and thread
// words, characters without an argument, strings the flags left out, more flags than exist.
TEST_F(RecordEncoding, SkippedCharactersAndUndeclaredStringsTakeNoWords) {
  write_fixed(owner_, 4, 5, 0, "x%d", 1, 2, 42u);
  // Flags say "no strings": nothing was reserved for it, so it must not be written.
  write_fixed(owner_, 0, 5, 0, "sd", 1, 2, "hello", 9u);
  EXPECT_EQ((std::vector<uint32_t>{0xFF000000u, 0, 1, 2, 9}), ring_words(owner_, 5, 5));
  EXPECT_EQ(10u, owner_->cb->word_count.load());
}

TEST_F(RecordEncoding, LongSignaturesAndManyFlagsStayInBounds) {
  // 40 'D' arguments: more flag bits than exist and more characters than the writer reads.
  std::string sig(40, 'D');
  write_fixed(owner_, 0, 4 + 64 + 1, 0, sig.c_str(), 1, 2, ~0ull, ~0ull, ~0ull, ~0ull, ~0ull, ~0ull,
              ~0ull, ~0ull, ~0ull, ~0ull, ~0ull, ~0ull, ~0ull, ~0ull, ~0ull, ~0ull, ~0ull, ~0ull,
              ~0ull, ~0ull, ~0ull, ~0ull, ~0ull, ~0ull, ~0ull, ~0ull, ~0ull, ~0ull, ~0ull, ~0ull,
              ~0ull, ~0ull);
  std::vector<uint32_t> w = ring_words(owner_, 0, 69);
  EXPECT_EQ(0xFFF80000u, w[0]);  // flags 3..7 set in the header
  for (int i = 4; i < 68; ++i) EXPECT_EQ(0x7FFFFFFFu, w[i]) << i;
  EXPECT_EQ(0x7FFFFFF8u, w[68]);  // flags 3..31, stored through the escape rule
}

TEST_F(RecordEncoding, TraceModeTimestampIndex) {
  ts_idx_mask.store(0xF);
  ts_index.store(0xE);
  write_fixed(owner_, 0, 4, 0, "", 0x1230, 2);
  write_fixed(owner_, 0, 4, 0, "", 0x1230, 2);
  write_fixed(owner_, 0, 4, 0, "", 0x1230, 2);
  EXPECT_EQ(0x123Eu, ring_words(owner_, 2, 1)[0]);
  EXPECT_EQ(0x123Fu, ring_words(owner_, 6, 1)[0]);
  EXPECT_EQ(0x1230u, ring_words(owner_, 10, 1)[0]);
  ts_idx_mask.store(0);
}

class RingEdges : public RecordEncoding {
 protected:
  uint32_t size() { return load_ring(owner_->cb).size_words; }
  void place_at(uint32_t word_count) { owner_->cb->word_count.store(word_count); }
};

TEST_F(RingEdges, CrossingsAreCountedOnlyPastTheEnd) {
  owner_->cb->creation_time = 1000;
  place_at(size() - 4);  // ends exactly on the last position
  write_fixed(owner_, 0, 4, 0, "", 5000, 1);
  EXPECT_EQ(0u, owner_->cb->wraparound_count.load());
  EXPECT_EQ(~0ull, owner_->cb->min_wraparound_time.load());
  place_at(size() - 3);  // one word past it
  write_fixed(owner_, 0, 4, 0, "", 5000, 1);
  EXPECT_EQ(1u, owner_->cb->wraparound_count.load());
  EXPECT_EQ(5000u, owner_->cb->wraparound_time.load());
  EXPECT_EQ(4000u, owner_->cb->min_wraparound_time.load());
  EXPECT_EQ(0u, owner_->cb->max_wraparound_time.load());  // the maximum moves from the second
  place_at(2 * size() - 1);
  write_fixed(owner_, 0, 4, 0, "", 9000, 1);
  EXPECT_EQ(2u, owner_->cb->wraparound_count.load());
  EXPECT_EQ(4000u, owner_->cb->min_wraparound_time.load());
  EXPECT_EQ(8000u, owner_->cb->max_wraparound_time.load());
}

TEST_F(RingEdges, WordCountOverflowKeepsPositionsContinuous) {
  place_at(0xFFFFFFFEu);
  write_fixed(owner_, 0, 4, 0, "", 0x0000000300000004ull, 5);
  write_fixed(owner_, 1, 4, 0, "", 0x0000000300000004ull, 5);
  EXPECT_EQ(0xFF000000u, ring_words(owner_, size() - 2, 1)[0]);
  EXPECT_EQ((std::vector<uint32_t>{3, 4, 5, 0xFF000001u}), ring_words(owner_, size() - 1, 4));
  EXPECT_EQ(6u, owner_->cb->word_count.load());
}

TEST_F(RingEdges, StringLongerThanTheRingIsCutToFit) {
  std::string huge(5 * 4096, 'q');
  place_at(3);
  write_fixed(owner_, 0, 4, QUARRY_FLAG_HAS_STRINGS, "s", 1, 2, huge.c_str());
  EXPECT_EQ(3u + size(), owner_->cb->word_count.load());
  // The record fills the ring exactly; its header survives and the string ends in a NUL.
  EXPECT_EQ(0xFF000000u, ring_words(owner_, 3, 1)[0]);
  EXPECT_EQ(word_of("qqq\0"), ring_words(owner_, 2, 1)[0]);
}

TEST(RecordWriterSwitches, DisabledAndNullHandlesWriteNothing) {
  quarry_handle* h = open_handle(unique_name("switch").c_str(), 4096, 1);
  quarry_internal(nullptr, 0, 4, 0, "", 0);
  quarry_set_enabled(h, false);
  QUARRY_TRACE(h, 0, "d", 1);
  EXPECT_EQ(0u, h->cb->word_count.load());
  EXPECT_EQ(0u, h->cb->entry_count.load());
  quarry_set_enabled(h, true);
  QUARRY_TRACE(h, 0, "d", 1);
  EXPECT_EQ(5u, h->cb->word_count.load());
  EXPECT_EQ(1u, h->cb->entry_count.load());
}

// Records of known signature per trace point; each carries (thread, sequence, check) so that a
// walk of the ring can prove every record intact.
constexpr const char* kSignatures[] = {"ddd", "dsdd", "Dddd", "ddds"};

void write_known(quarry_handle* h, uint32_t tp, uint32_t thread, uint32_t seq) {
  uint32_t check = thread * 0x9E3779B9u ^ seq;
  switch (tp) {
    case 0:
      QUARRY_TRACE(h, 0, "ddd", thread, seq, check);
      break;
    case 1:
      QUARRY_TRACE(h, 1, "dsdd", thread, std::to_string(seq).c_str(), seq, check);
      break;
    case 2:
      QUARRY_TRACE(h, 2, "Dddd", 0xFFFFFFFF00000000ull | seq, thread, seq, check);
      break;
    default:
      QUARRY_TRACE(h, 3, "ddds", thread, seq, check, "0xFF\xFF\xFF\xFF-looks-like-a-header");
  }
}

// Decodes the record at pos (header already checked); returns its length or 0 when it is not
// intact. Records (thread, seq) seen.
uint32_t check_record(const std::vector<uint32_t>& w, size_t pos, uint32_t first_id,
                      std::set<std::pair<uint32_t, uint32_t>>* seen) {
  uint32_t tp = (w[pos] & 0xFFFF) - first_id;
  uint32_t flags = (w[pos] >> 16) & 0xFF;
  size_t at = pos + 4;
  std::vector<uint32_t> nums;
  uint32_t bit = 3;
  for (const char* c = kSignatures[tp]; *c; ++c) {
    if (*c == 's') {
      while (at < w.size()) {
        uint32_t word = w[at++];
        if ((word & 0xFF000000u) == 0 || (word & 0xFF0000u) == 0 || (word & 0xFF00u) == 0 ||
            (word & 0xFFu) == 0) {
          break;
        }
      }
      continue;
    }
    int n = *c == 'D' ? 2 : 1;
    for (int i = 0; i < n; ++i, ++bit) {
      uint32_t v = w[at++];
      if (flags & (1u << bit)) v ^= 0x80000000u;
      nums.push_back(v);
    }
  }
  if (tp == 2) nums.erase(nums.begin(), nums.begin() + 2);
  if (nums.size() != 3) return 0;
  uint32_t thread = nums[0], seq = nums[1], check = nums[2];
  if (check != (thread * 0x9E3779B9u ^ seq)) return 0;
  seen->insert({thread, seq});
  return static_cast<uint32_t>(at - pos);
}

TEST(RecordWriterConcurrency, ThreadsNeverSharePositionsAndEveryRecordIsIntact) {
  quarry_handle* h = open_handle(unique_name("many").c_str(), 4194304, 4);
  constexpr uint32_t kThreads = 4, kRecords = 20000;
  std::vector<std::thread> threads;
  for (uint32_t t = 0; t < kThreads; ++t) {
    threads.emplace_back([h, t] {
      for (uint32_t i = 0; i < kRecords; ++i) write_known(h, i % 4, t, i);
    });
  }
  for (auto& t : threads) t.join();
  ring_view ring = load_ring(h->cb);
  uint32_t total = h->cb->word_count.load();
  ASSERT_LT(total, ring.size_words);  // no wrap: every record must be there
  std::vector<uint32_t> w(total);
  for (uint32_t i = 0; i < total; ++i) w[i] = ring.buffer[i].load();
  std::set<std::pair<uint32_t, uint32_t>> seen;
  for (size_t pos = 0; pos < total;) {
    ASSERT_EQ(0xFF000000u, w[pos] & 0xFF000000u) << "record boundary lost at " << pos;
    uint32_t len = check_record(w, pos, 0, &seen);
    ASSERT_NE(0u, len) << "damaged record at " << pos;
    pos += len;
  }
  EXPECT_EQ(kThreads * kRecords, seen.size());
  EXPECT_EQ(kThreads * kRecords, h->cb->entry_count.load());
}

TEST(RecordWriterConcurrency, GrowthUnderLoadKeepsLaterRecordsIntact) {
  quarry_handle* h = open_handle(unique_name("grow").c_str(), 4096, 4);
  std::atomic<int> phase{1};
  std::atomic<uint32_t> written{0};
  constexpr uint32_t kThreads = 3, kLate = 1000;
  std::vector<std::thread> writers;
  for (uint32_t t = 0; t < kThreads; ++t) {
    writers.emplace_back([&, t] {
      uint32_t i = 0;
      while (phase.load() == 1) write_known(h, i % 4, t, i), ++i;
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
  ring_view ring = load_ring(h->cb);
  ASSERT_EQ(1048576u, ring.size_words);
  std::vector<uint32_t> w(ring.size_words + 64);
  for (uint32_t i = 0; i < w.size(); ++i) w[i] = ring.buffer[i & (ring.size_words - 1)].load();
  std::set<std::pair<uint32_t, uint32_t>> seen;
  for (size_t pos = 0; pos < ring.size_words; ++pos) {
    if ((w[pos] & 0xFF000000u) != 0xFF000000u || (w[pos] & 0xFFFF) > 3) continue;
    std::set<std::pair<uint32_t, uint32_t>> one;
    if (check_record(w, pos, 0, &one) && one.begin()->first >= 100) seen.insert(*one.begin());
  }
  EXPECT_EQ(written.load(), seen.size());
}

}  // namespace

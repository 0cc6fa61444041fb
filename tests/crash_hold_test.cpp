// Holding a buffer's ring for a crash dump: records written while it is held leave the held
// words alone, the dump writes exactly the held words and count, and releasing puts the ring
// back with the words reserved meanwhile cleared.
#include <gtest/gtest.h>

#include <vector>

#include "buffer.h"
#include "ring.h"
#include "test_support.h"

namespace {

std::vector<uint32_t> words_of(const ring_view& ring) {
  std::vector<uint32_t> words(ring.size_words);
  for (uint32_t i = 0; i < ring.size_words; ++i) words[i] = ring.buffer[i].load();
  return words;
}

TEST(CrashHold, HeldWordsStayWhileRecordsGoOnAndReleaseClearsTheGap) {
  quarry_set_process_name("crash_hold_test");
  quarry_handle* h = nullptr;
  ASSERT_EQ(0, quarry_open_internal(&h, "held", 16384, 1, "h.dec", "1", nullptr));
  circular_buffer* cb = h->cb;
  for (uint32_t i = 0; i < 3000; ++i) QUARRY_TRACE(h, 0, "dD", i, 7ull << 40);
  const ring_view real = load_ring(cb);
  const uint32_t count = cb->word_count.load();
  const std::vector<uint32_t> before = words_of(real);

  hold_ring(cb);
  hold_ring(cb);  // a second crash handler changes nothing
  for (uint32_t i = 0; i < 100; ++i) QUARRY_TRACE(h, 0, "s", "while held");
  EXPECT_TRUE(is_scratch_ring(load_ring(cb)));
  EXPECT_EQ(before, words_of(real));
  EXPECT_EQ(real.buffer, dump_ring(cb).buffer);
  EXPECT_EQ(count, dump_word_count(cb));
  EXPECT_EQ(0, set_circular_buffer_size(cb, 65536));  // no growth out of the scratch ring
  EXPECT_TRUE(is_scratch_ring(load_ring(cb)));

  release_ring(cb);
  const uint32_t after = cb->word_count.load();
  EXPECT_EQ(real.buffer, load_ring(cb).buffer);
  EXPECT_EQ(after, dump_word_count(cb));
  std::vector<uint32_t> expected = before;
  for (uint32_t at = count; at != after; ++at) expected[at & (real.size_words - 1)] = 0;
  EXPECT_EQ(expected, words_of(real));
}

}  // namespace

// Walking the ring of a trace file built byte by byte: escapes and the escape word, a wrapped
// buffer whose oldest record is cut, string words that look like headers, strings across the
// end, and records that do not fit their signature.
#include <gtest/gtest.h>

#include <random>

#include "decode_test_support.h"
#include "quarry_decode/trace_reader.h"

using namespace quarry_decode;
using namespace decode_test;

namespace {

constexpr uint64_t kT0 = 1000500000000ull;  // between the default creation and dump times

struct Decoded {
  TraceData data;
  std::vector<Seen> records;
  const DecodeStats& stats() const { return data.source->stats; }
};

Decoded decode(const std::string& bytes, const std::string& decode_file_text) {
  quarry_test::write_file(quarry_test::base_dir() + "t.dec", decode_file_text);
  DecodeFileCache cache({quarry_test::base_dir()});
  Decoded out{read_trace_bytes(bytes, "test.trc", cache), {}};
  Collector collector;
  decode_trace(out.data, collector);
  out.records = std::move(collector.records);
  return out;
}

void expect_args(const std::vector<Arg>& expected, const Seen& seen) {
  ASSERT_EQ(expected.size(), seen.args.size()) << seen.display;
  for (size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(expected[i].type, seen.args[i].type) << seen.display << " argument " << i;
    if (expected[i].type == 's') {
      EXPECT_EQ(expected[i].text, seen.args[i].text) << seen.display << " argument " << i;
    } else {
      EXPECT_EQ(expected[i].number, seen.args[i].number) << seen.display << " argument " << i;
    }
  }
}

// The escape edge values in every escapable position, with the flags in the header (fewer
// than six numeric words) and in the escape word (six or more).
TEST(DecodeRing, EscapedWordsAreRestored) {
  const std::string dec =
      "0 few dD a b\n"
      "1 many dddddd a b c e f g\n"
      "2 wide DDDs a b c t\n"
      "3 none -\n";
  const std::vector<std::pair<uint32_t, std::vector<Arg>>> calls = {
      {0, {d(0xFF000000u), D(0x00000001FFFFFFFFull)}},
      {0, {d(0x7F000000u), D(0xFFFFFFFFFF000000ull)}},
      {1, {d(0xFEFFFFFFu), d(0xFFFFFFFFu), d(0), d(0xFF000000u), d(0x7FFFFFFFu), d(0xFFFFFFFFu)}},
      {2, {D(~0ull), D(0xFF000000FF000000ull), D(42), s("x\xff\xff\xff")}},
      {3, {}},
  };
  Ring ring(1024);
  // The low timestamp word and the thread word need escaping too.
  const uint64_t ts = 0x000000E9FFFFFFFFull;
  for (const auto& call : calls) ring.add(encode(call.first, ts, 0xFF123400u, call.second));
  Decoded out = decode(ring.file(FileSpec{}), dec);
  ASSERT_EQ(calls.size(), out.records.size());
  for (size_t i = 0; i < calls.size(); ++i) {
    EXPECT_EQ(ts, out.records[i].timestamp);
    EXPECT_EQ(0xFF123400u, out.records[i].thread);
    EXPECT_FALSE(out.records[i].raw);
    expect_args(calls[i].second, out.records[i]);
  }
  EXPECT_EQ(0u, out.stats().rejected);
  EXPECT_EQ(0u, out.stats().skipped_words);
}

// With 29 numeric words flag bit 31 exists; when all flags are set the escape word itself is
// stored escaped (0x7FFFFFFF) and must be read back as 0xFFFFFFFF. When the flags only reach
// bit 30 the stored escape word also reads 0x7F..., and the last numeric word tells them apart.
TEST(DecodeRing, EscapeWordWithTwentyNineNumericWords) {
  const std::string dec = "0 full " + std::string(29, 'd') + "\n";
  std::vector<Arg> all_escaped(29, d(0xFFFFFFFFu));
  std::vector<Arg> up_to_bit_30(29, d(5));
  for (size_t i = 21; i < 28; ++i) up_to_bit_30[i] = d(0xFF00FF00u);  // flag bits 24..30
  Ring ring(1024);
  ring.add(encode(0, kT0, 1, all_escaped));
  std::vector<uint32_t> second = encode(0, kT0, 1, up_to_bit_30);
  ASSERT_EQ(0x7F000000u, second.back() & 0xFF000000u);  // the ambiguous-looking escape word
  ring.add(second);
  Decoded out = decode(ring.file(FileSpec{}), dec);
  ASSERT_EQ(2u, out.records.size());
  expect_args(all_escaped, out.records[0]);
  expect_args(up_to_bit_30, out.records[1]);
}

// Records of random signatures with strings whose words look like headers (0xFF in the top
// byte) fill a small ring several times over. Every record that lies wholly in the ring is
// decoded, in order; the partly overwritten one at the oldest end is skipped, not counted as
// damage, whatever header-like words it holds. The handle covers every ID, and the decode file
// describes the IDs those string words spell, so only the record checks can reject them.
TEST(DecodeRing, WrappedBufferRecoversEveryCompleteRecord) {
  const std::string sigs[] = {"s", "ds", "sD", "dddddds", "ss", "-", "dsd"};
  std::string dec;
  for (size_t i = 0; i < 7; ++i)
    dec += std::to_string(i) + " p" + std::to_string(i) + " " + sigs[i] + "\n";
  // What the header-like string words below spell as IDs: 0x4141 'AA', 0xFFFF, 0x00FF..
  dec += std::to_string(0x4141) + " fake1 -\n" + std::to_string(0xFFFF) + " fake2 d\n";
  FileSpec spec;
  spec.refs = {"QUARRY_DECODE_REF all \"t.dec\" 0.65535.1"};

  for (uint32_t seed = 1; seed <= 40; ++seed) {
    std::mt19937 rng(seed);
    Ring ring(1024);
    struct Placed {
      uint64_t start;
      size_t length;
      uint32_t id;
      std::vector<Arg> args;
      uint64_t ts;
    };
    std::vector<Placed> placed;
    bool crossed = false;
    uint64_t ts = kT0;
    while (ring.position < 1024 * 3 + rng() % 1024) {
      uint32_t id = rng() % 7;
      std::vector<Arg> args;
      for (char c : sigs[id]) {
        if (c == 'd') args.push_back(d(rng() % 3 == 0 ? 0xFF000000u | rng() : rng()));
        if (c == 'D') args.push_back(D(static_cast<uint64_t>(rng()) << 32 | rng()));
        if (c == 's') {
          std::string text;
          size_t length = rng() % 23;
          for (size_t k = 0; k < length; ++k) {
            // Every fourth byte (the top byte of a word) is often 0xFF.
            text += k % 4 == 3 && rng() % 2 ? '\xff' : static_cast<char>('A' + rng() % 3);
          }
          args.push_back(s(text));
        }
      }
      ts += 1 + rng() % 1000;
      std::vector<uint32_t> words = encode(id, ts, rng(), args);
      if (ring.position % 1024 + words.size() > 1024) crossed = true;
      placed.push_back({ring.position, words.size(), id, args, ts});
      ring.add(words);
    }
    ASSERT_TRUE(crossed);
    Decoded out = decode(ring.file(spec), dec);
    std::vector<const Placed*> complete;
    for (const Placed& p : placed) {
      if (p.start >= ring.position - 1024) complete.push_back(&p);
    }
    ASSERT_EQ(complete.size(), out.records.size()) << "seed " << seed;
    for (size_t i = 0; i < complete.size(); ++i) {
      EXPECT_EQ(complete[i]->id, out.records[i].id) << "seed " << seed << " record " << i;
      EXPECT_EQ(complete[i]->ts, out.records[i].timestamp);
      expect_args(complete[i]->args, out.records[i]);
    }
    EXPECT_EQ(0u, out.stats().rejected) << "seed " << seed;
    EXPECT_EQ(out.stats().seam_words, out.stats().skipped_words);
    EXPECT_TRUE(out.data.problems.empty());
  }
}

// Each kind of inconsistency costs exactly the record that has it; the walk goes on with the
// next header word.
TEST(DecodeRing, InconsistentRecordsAreRejectedAndCounted) {
  const std::string dec = "0 num d v\n1 str s t\n2 pair dd a b\n";
  std::vector<uint32_t> words;
  auto add = [&](std::vector<uint32_t> record) {
    words.insert(words.end(), record.begin(), record.end());
  };
  add(encode(0, kT0, 1, {d(1)}));
  // A string without its NUL: its bytes run on into the next header word.
  add({0xFF000001u, 0xE8u, 0xD4A51000u + 2, 7, 0x41414141u, 0x42424242u});
  add(encode(0, kT0 + 3, 1, {d(3)}));
  // Not followed by a header word.
  add(encode(0, kT0 + 4, 1, {d(4)}));
  add({0x12345678u});
  add(encode(0, kT0 + 5, 1, {d(5)}));
  // The header flags the argument, but the stored word is not an escaped one.
  std::vector<uint32_t> bad_flag = encode(0, kT0 + 6, 1, {d(6)});
  bad_flag[0] |= 1u << 19;
  add(bad_flag);
  // A newer record's header in the middle of an older one: its second word reads 0xFF...
  std::vector<uint32_t> overwritten = encode(2, kT0 + 7, 1, {d(7), d(8)});
  std::vector<uint32_t> newer = encode(0, kT0 + 9, 1, {d(9)});
  overwritten.resize(5);
  add(overwritten);
  add(newer);
  // An ID that no handle holds.
  add(encode(50, kT0 + 10, 1, {d(10)}));
  // A time before the buffer was created.
  add(encode(0, 5, 1, {d(11)}));
  add(encode(0, kT0 + 12, 1, {d(12)}));
  // The last record runs past the end of the valid data.
  add(encode(2, kT0 + 13, 1, {d(13), d(14)}));
  words.pop_back();

  Ring ring(1024);
  ring.add(words);
  Decoded out = decode(ring.file(FileSpec{}), dec);
  std::vector<uint64_t> values;
  for (const Seen& r : out.records) values.push_back(r.args.empty() ? 0 : r.args[0].number);
  EXPECT_EQ((std::vector<uint64_t>{1, 3, 5, 9, 12}), values);
  EXPECT_EQ(7u, out.stats().rejected);
  EXPECT_EQ(0u, out.stats().seam_words);
  EXPECT_TRUE(out.stats().damage);
  EXPECT_FALSE(out.stats().damage_from_start);
  EXPECT_TRUE(out.stats().damage_to_end);
  EXPECT_EQ(kT0, out.stats().damage_from_ns);
}

// Without a decode file a record runs up to the next header word; its fixed words are still
// restored from the header flags, the rest is shown as stored.
TEST(DecodeRing, RecordsWithoutSignatureAreRaw) {
  Ring ring(1024);
  ring.add(encode(3, kT0, 0xFFFFFFFFu, {d(0xFF000001u), s("abc")}));
  ring.add(encode(9, kT0 + 1, 2, {}));
  FileSpec spec;
  spec.refs = {"QUARRY_DECODE_REF app \"t.dec\" 0.9.1"};
  Decoded out = decode(ring.file(spec), "0 other d\n");
  ASSERT_EQ(2u, out.records.size());
  EXPECT_TRUE(out.records[0].raw);
  EXPECT_EQ("app:#3", out.records[0].display);
  EXPECT_EQ(0xFFFFFFFFu, out.records[0].thread);
  ASSERT_EQ(2u, out.records[0].args.size());
  EXPECT_EQ(0x7F000001u, out.records[0].args[0].number);  // as stored
  EXPECT_EQ(0x00636261u, out.records[0].args[1].number);
  EXPECT_EQ(0u, out.records[1].args.size());
  EXPECT_EQ(2u, out.stats().raw_records);

  // A header without any decode reference: every ID is shown raw.
  spec.refs.clear();
  Decoded bare = decode(ring.file(spec), "");
  ASSERT_EQ(2u, bare.records.size());
  EXPECT_EQ("#3", bare.records[0].display);
}

// WORD_COUNT passed 2^32 and restarted below BUFFER_SIZE: only its words are in the file, and
// the first of them may continue a record that began near the end.
TEST(DecodeRing, CounterRestartedBelowBufferSize) {
  std::vector<uint32_t> tail = {0x41414141u, 0x00000000u};  // end of an older string
  std::vector<uint32_t> record = encode(0, kT0, 1, {d(77)});
  FileSpec spec;
  spec.word_count = static_cast<uint32_t>(tail.size() + record.size());
  spec.wraparound_count = 4194305;
  spec.entry_count = 5;
  std::vector<uint32_t> data = tail;
  data.insert(data.end(), record.begin(), record.end());
  Decoded out = decode(header_text(spec) + word_bytes(data), "0 n d v\n");
  ASSERT_EQ(1u, out.records.size());
  EXPECT_EQ(77u, out.records[0].args[0].number);
  EXPECT_EQ(2u, out.stats().seam_words);
  EXPECT_FALSE(out.stats().damage);
}

}  // namespace

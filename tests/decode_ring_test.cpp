// Walking the ring of a trace file built byte by byte: escapes and the escape word, a wrapped
// buffer whose oldest record is cut, string words that look like headers, strings across the
// end, and records that do not fit their signature.
#include <gtest/gtest.h>

#include <random>
#include <tuple>

#include "decode_test_support.h"

using namespace quarry_decode;
using namespace decode_test;

namespace {

Decoded decode(const std::string& bytes, const std::string& decode_file_text) {
  put("t.dec", decode_file_text);
  DecodeFileCache cache({quarry_test::base_dir()});
  return decode_all(read_trace_bytes(bytes, "test.trc", cache));
}

// The escape edge values in every escapable position, with the flags in the header (fewer
// than six numeric words) and in the escape word (six or more). With 29 numeric words flag bit
// 31 exists: when all flags are set the escape word itself is stored escaped (0x7FFFFFFF); when
// the flags only reach bit 30 the stored escape word also reads 0x7F..., and the last numeric
// word tells them apart.
TEST(DecodeRing, EscapedWordsAreRestored) {
  const std::string dec = "0 few dD a b\n1 many dddddd a b c e f g\n2 wide DDDs a b c t\n" +
                          std::string("3 none -\n4 full ") + std::string(29, 'd') + "\n";
  std::vector<Arg> up_to_bit_30(29, d(5));
  for (size_t i = 21; i < 28; ++i) up_to_bit_30[i] = d(0xFF00FF00u);  // flag bits 24..30
  const std::vector<std::pair<uint32_t, std::vector<Arg>>> calls = {
      {0, {d(0xFF000000u), D(0x00000001FFFFFFFFull)}},
      {0, {d(0x7F000000u), D(0xFFFFFFFFFF000000ull)}},
      {1, {d(0xFEFFFFFFu), d(0xFFFFFFFFu), d(0), d(0xFF000000u), d(0x7FFFFFFFu), d(0xFFFFFFFFu)}},
      {2, {D(~0ull), D(0xFF000000FF000000ull), D(42), s("x\xff\xff\xff")}},
      {3, {}},
      {4, std::vector<Arg>(29, d(0xFFFFFFFFu))},
      {4, up_to_bit_30},
  };
  Ring ring(1024);
  const uint64_t ts = 0x000000E9FFFFFFFFull;  // the low timestamp and thread words escape too
  for (const auto& call : calls) ring.add(encode(call.first, ts, 0xFF123400u, call.second));
  ASSERT_EQ(0x7Fu, ring.words[ring.position - 1] >> 24);  // the ambiguous-looking escape word
  Decoded out = decode(ring.file(HeaderItems{}), dec);
  ASSERT_EQ(calls.size(), out.records.size());
  for (size_t i = 0; i < calls.size(); ++i) {
    EXPECT_EQ(ts, out.records[i].timestamp);
    EXPECT_EQ(0xFF123400u, out.records[i].thread);
    EXPECT_FALSE(out.records[i].raw);
    EXPECT_EQ(calls[i].second, out.records[i].args) << i;
  }
  EXPECT_EQ(0u, out.stats().rejected);
  EXPECT_EQ(0u, out.stats().skipped_words);
}

// Records of random signatures with strings whose words look like headers (0xFF in the top
// byte) fill a small ring several times over. Every record that lies wholly in the ring is
// decoded, in order; the partly overwritten one at the oldest end is skipped, not counted as
// damage, whatever header-like words it holds. The handle covers every ID, and the decode file
// describes the IDs those string words spell, so only the record checks can reject them.
TEST(DecodeRing, WrappedBufferRecoversEveryCompleteRecord) {
  const std::string sigs[] = {"s", "ds", "sD", "dddddds", "ss", "-", "dsd"};
  std::string dec = "16705 fake1 -\n65535 fake2 d\n";  // 0x4141 'AA' and 0xFFFF
  for (size_t i = 0; i < 7; ++i)
    dec += std::to_string(i) + " p" + std::to_string(i) + " " + sigs[i] + "\n";
  HeaderItems items;
  items.refs = {"QUARRY_DECODE_REF all \"t.dec\" 0.65535.1"};

  for (uint32_t seed = 1; seed <= 40; ++seed) {
    std::mt19937 rng(seed);
    auto u32 = [&] { return static_cast<uint32_t>(rng()); };
    Ring ring(1024);
    std::vector<Seen> placed;
    std::vector<uint64_t> starts;  // of the placed records
    bool crossed = false;
    for (uint64_t ts = kT0; ring.position < 1024 * 3 + rng() % 1024;) {
      Seen r{u32() % 7, ts += 1 + u32() % 1000, u32(), false, "", {}};
      for (char c : sigs[r.id]) {
        if (c == 'd') r.args.push_back(d(rng() % 3 == 0 ? 0xFF000000u | u32() : u32()));
        if (c == 'D') r.args.push_back(D(static_cast<uint64_t>(u32()) << 32 | u32()));
        if (c != 's') continue;
        std::string text(rng() % 23, 'A');
        // Every fourth byte (the top byte of a word) is often 0xFF.
        for (size_t k = 0; k < text.size(); ++k)
          text[k] = k % 4 == 3 && rng() % 2 ? '\xff' : static_cast<char>('A' + rng() % 3);
        r.args.push_back(s(text));
      }
      const std::vector<uint32_t> words = encode(r.id, r.timestamp, r.thread, r.args);
      crossed |= ring.position % 1024 + words.size() > 1024;
      placed.push_back(r);
      starts.push_back(ring.position);
      ring.add(words);
    }
    ASSERT_TRUE(crossed);
    Decoded out = decode(ring.file(items), dec);
    std::vector<const Seen*> complete;
    for (size_t i = 0; i < placed.size(); ++i)
      if (starts[i] >= ring.position - 1024) complete.push_back(&placed[i]);
    ASSERT_EQ(complete.size(), out.records.size()) << "seed " << seed;
    for (size_t i = 0; i < complete.size(); ++i) {
      EXPECT_EQ(complete[i]->id, out.records[i].id) << "seed " << seed << " record " << i;
      EXPECT_EQ(complete[i]->timestamp, out.records[i].timestamp);
      EXPECT_EQ(complete[i]->thread, out.records[i].thread);
      EXPECT_EQ(complete[i]->args, out.records[i].args);
    }
    EXPECT_EQ(0u, out.stats().rejected) << "seed " << seed;
    EXPECT_EQ(out.stats().seam_words, out.stats().skipped_words);
    EXPECT_TRUE(out.data.problems.empty());
  }
}

// Each kind of inconsistency costs exactly the record that has it; the walk goes on with the
// next header word.
TEST(DecodeRing, InconsistentRecordsAreRejectedAndCounted) {
  Ring ring(1024);
  ring.add(encode(0, kT0, 1, {d(1)}));
  // A string without its NUL: its bytes run on into the next header word.
  ring.add({0xFF000001u, 0xE8u, 0xD4A51000u + 2, 7, 0x41414141u, 0x42424242u});
  ring.add(encode(0, kT0 + 3, 1, {d(3)}));
  ring.add(encode(0, kT0 + 4, 1, {d(4)}));
  ring.add({0x12345678u});  // the record before is not followed by a header word
  ring.add(encode(0, kT0 + 5, 1, {d(5)}));
  // The header flags the argument, but the stored word is not an escaped one.
  std::vector<uint32_t> bad_flag = encode(0, kT0 + 6, 1, {d(6)});
  bad_flag[0] |= 1u << 19;
  ring.add(bad_flag);
  // A flag beyond the record's escapable words; an escape word whose low byte is not the
  // header's flags; a string whose NUL is followed by other bytes.
  bad_flag[0] ^= 1u << 19 | 1u << 21;
  ring.add(bad_flag);
  std::vector<uint32_t> six = encode(3, kT0 + 6, 1, {d(0x7F000001u), d(0), d(0), d(0), d(0), d(0)});
  six.back() |= 1u << 3;
  ring.add(six);
  ring.add({0xFF000001u, 0xE8u, 0xD4A51000u + 6, 7, 0x41004142u});
  // A newer record's header in the middle of an older one: its second word reads 0xFF...
  std::vector<uint32_t> overwritten = encode(2, kT0 + 7, 1, {d(7), d(8)});
  overwritten.resize(5);
  ring.add(overwritten);
  ring.add(encode(0, kT0 + 9, 1, {d(9)}));
  ring.add(encode(50, kT0 + 10, 1, {d(10)}));  // an ID that no handle holds
  ring.add(encode(0, 5, 1, {d(11)}));          // a time before the buffer was created
  ring.add(encode(0, kT0 + 12, 1, {d(12)}));
  ring.add(encode(2, kT0 + 13, 1, {d(13), d(14)}));
  --ring.position;  // the last record runs past the end of the valid data

  Decoded out =
      decode(ring.file(HeaderItems{}), "0 num d v\n1 str s t\n2 pair dd a b\n3 six dddddd\n");
  std::vector<uint64_t> values;
  for (const Seen& r : out.records) values.push_back(r.args.empty() ? 0 : r.args[0].number);
  EXPECT_EQ((std::vector<uint64_t>{1, 3, 5, 9, 12}), values);
  const DecodeStats& st = out.stats();  // damage from the last good record to the end
  EXPECT_EQ(std::make_tuple(10u, 0u, true, false, true, kT0),
            std::make_tuple(st.rejected, st.seam_words, st.damage, st.damage_from_start,
                            st.damage_to_end, st.damage_from_ns));
}

// Without a decode file a record runs up to the next header word; its fixed words are still
// restored from the header flags, the rest is shown as stored.
TEST(DecodeRing, RecordsWithoutSignatureAreRaw) {
  Ring ring(1024);
  ring.add(encode(3, kT0, 0xFFFFFFFFu, {d(0xFF000001u), s("abc")}));
  ring.add(encode(9, kT0 + 1, 2, {}));
  HeaderItems items;
  Decoded out = decode(ring.file(items), "0 other d\n");
  ASSERT_EQ(2u, out.records.size());
  EXPECT_TRUE(out.records[0].raw);
  EXPECT_EQ("app:#3", out.records[0].display);
  EXPECT_EQ(0xFFFFFFFFu, out.records[0].thread);
  // The words after the thread word, as stored.
  EXPECT_EQ((std::vector<Arg>{{'w', 0x7F000001u, ""}, {'w', 0x00636261u, ""}}),
            out.records[0].args);
  EXPECT_EQ(0u, out.records[1].args.size());
  EXPECT_EQ(2u, out.stats().raw_records);

  items.refs.clear();  // a header without any decode reference: every ID is shown raw
  Decoded bare = decode(ring.file(items), "");
  ASSERT_EQ(2u, bare.records.size());
  EXPECT_EQ("#3", bare.records[0].display);
}

// WORD_COUNT passed 2^32 and restarted below BUFFER_SIZE: only its words are in the file, and
// the first of them may continue a record that began near the end.
TEST(DecodeRing, CounterRestartedBelowBufferSize) {
  std::vector<uint32_t> data = {0x41414141u, 0x00000000u};  // end of an older string
  const std::vector<uint32_t> record = encode(0, kT0, 1, {d(77)});
  data.insert(data.end(), record.begin(), record.end());
  HeaderItems items;
  items.word_count = static_cast<uint32_t>(data.size());
  items.wraparound_count = 4194305;
  items.entry_count = 5;
  Decoded out = decode(header_text(items) + word_bytes(data), "0 n d v\n");
  ASSERT_EQ(1u, out.records.size());
  EXPECT_EQ(77u, out.records[0].args[0].number);
  EXPECT_EQ(2u, out.stats().seam_words);
  EXPECT_FALSE(out.stats().damage);
}

// A wrapped file cut short loses the newest end of the older piece: what survives is the
// oldest words up to the cut, then the words from position 0 up to the write position. A record
// that ran into the lost part must neither be decoded nor glued to the words after the gap.
TEST(DecodeRing, TruncatedWrappedFileDecodesBothPiecesApart) {
  Ring ring(1024);
  for (uint32_t k = 0; k < 300; ++k) ring.add(encode(0, kT0 + k, 1, {d(k)}));  // 5 words each
  const std::string whole = ring.file(HeaderItems{});
  const size_t cut_words = 1024 - 800;  // the file holds positions 0 to 799
  Decoded out = decode(whole.substr(0, whole.size() - cut_words * 4), "0 r d k\n");
  EXPECT_EQ(1u, out.data.problems.size());  // reported as truncated
  // Absolute words 476..799 (records 96 to 159) and 1024..1499 (records 205 to 299) survive;
  // record 95 is cut at the seam, 160 to 203 are lost and 204 straddles the gap.
  std::vector<uint64_t> expected;
  for (uint64_t k = 96; k <= 159; ++k) expected.push_back(k);
  for (uint64_t k = 205; k <= 299; ++k) expected.push_back(k);
  std::vector<uint64_t> decoded;
  for (const Seen& r : out.records) {
    EXPECT_EQ(kT0 + r.args.at(0).number, r.timestamp);
    decoded.push_back(r.args.at(0).number);
  }
  EXPECT_EQ(expected, decoded);
}

}  // namespace

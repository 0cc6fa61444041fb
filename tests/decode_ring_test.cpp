// Walking the ring of a trace file built byte by byte: escapes, a wrapped buffer whose oldest
// record is cut, records that do not fit their signature, the layouts the header counters give.
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

// Random records, then escape edges, fill a ring several times: every whole record decodes.
TEST(DecodeRing, WrappedBufferRecoversEveryCompleteRecord) {
  const std::string sigs[] = {"s", "ds", "sD", "dddddds", "ss", "-", "dsd"};
  std::string dec = "16705 fake1 -\n65535 fake2 d\n7 few dD\n8 many dddddd\n9 wide DDDs\n";
  for (size_t i = 0; i < 7; ++i)
    dec += std::to_string(i) + " p" + std::to_string(i) + " " + sigs[i] + "\n";
  dec += "10 full " + std::string(29, 'd') + "\n";
  HeaderItems items;
  items.refs = {"QUARRY_DECODE_REF all \"t.dec\" 0.65535.1"};
  // With 29 numeric words, all flags set and flags up to bit 30 both store 0x7F... escape words.
  std::vector<Arg> up_to_bit_30(29, d(5));
  for (size_t i = 21; i < 28; ++i) up_to_bit_30[i] = d(0xFF00FF00u);  // flag bits 24..30
  const std::vector<std::pair<uint32_t, std::vector<Arg>>> edges = {
      {7, {d(0xFF000000u), D(0x00000001FFFFFFFFull)}},
      {7, {d(0x7F000000u), D(0xFFFFFFFFFF000000ull)}},
      {8, {d(0xFEFFFFFFu), d(0xFFFFFFFFu), d(0), d(0xFF000000u), d(0x7FFFFFFFu), d(0xFFFFFFFFu)}},
      {9, {D(~0ull), D(0xFF000000FF000000ull), D(42), s("x\xff\xff\xff")}},
      {5, {}},
      {10, std::vector<Arg>(29, d(0xFFFFFFFFu))},
      {10, up_to_bit_30},
  };

  for (uint32_t seed = 1; seed <= 40; ++seed) {
    std::mt19937 rng(seed);
    auto u32 = [&] { return static_cast<uint32_t>(rng()); };
    Ring ring(1024);
    using Key = std::tuple<uint32_t, uint64_t, uint32_t, std::vector<Arg>>;
    std::vector<std::pair<uint64_t, Key>> placed;  // with the position of its first word
    auto place = [&](const Seen& r) {
      placed.emplace_back(ring.position, Key{r.id, r.timestamp, r.thread, r.args});
      ring.add(encode(r.id, r.timestamp, r.thread, r.args));
    };
    for (uint64_t ts = kT0; ring.position < 1024 * 3 + rng() % 1024;) {
      Seen r{u32() % 7, ts += 1 + u32() % 1000, u32(), false, "", {}};
      for (char c : sigs[r.id]) {
        if (c == 'd') r.args.push_back(d(rng() % 3 == 0 ? 0xFF000000u | u32() : u32()));
        if (c == 'D') r.args.push_back(D(static_cast<uint64_t>(u32()) << 32 | u32()));
        if (c != 's') continue;
        std::string text(rng() % 23, 'A');
        for (size_t k = 0; k < text.size(); ++k)  // the top byte of a word often 0xFF
          text[k] = k % 4 == 3 && rng() % 2 ? '\xff' : static_cast<char>('A' + rng() % 3);
        r.args.push_back(s(text));
      }
      place(r);
    }
    for (const auto& edge : edges)
      place(Seen{edge.first, 0xE9FFFFFFFFull, 0xFF123400u, false, "", edge.second});
    ASSERT_EQ(0x7Fu, ring.words[(ring.position - 1) % 1024] >> 24);  // the last escape word
    Decoded out = decode(ring.file(items), dec);
    std::vector<Key> want, got;
    for (const auto& p : placed)
      if (p.first + 1024 >= ring.position) want.push_back(p.second);
    for (const Seen& r : out.records) got.emplace_back(r.id, r.timestamp, r.thread, r.args);
    EXPECT_EQ(want, got) << "seed " << seed;
    const DecodeStats& st = out.data.source->stats;
    EXPECT_EQ(std::make_tuple(0u, st.seam_words, true),
              std::make_tuple(st.rejected, st.skipped_words, out.data.problems.empty()));
  }
}

// Each inconsistency costs exactly its record; the walk goes on with the next header word.
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
  // A flag past the escapable words, an escape word unlike the header flags, bytes after a NUL.
  bad_flag[0] ^= 1u << 19 | 1u << 20;
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
  ring.add(encode(50, kT0 + 10, 1, {d(10)}));         // an ID that no handle holds
  ring.add(encode(0, 5, 1, {d(11)}));                 // a time before the buffer was created
  ring.add(encode(0, 3000000000000ull, 1, {d(11)}));  // and one long after the dump
  ring.add(encode(0, kT0 + 12, 1, {d(12)}));
  // No signature for ID 9: raw up to the next header, its fixed words still restored.
  ring.add(encode(9, kT0 + 12, 0xFFFFFFFFu, {d(0xFF000001u), s("abc")}));
  ring.add(encode(2, kT0 + 13, 1, {d(13), d(14)}));
  --ring.position;  // the last record runs past the end of the valid data

  Decoded out =
      decode(ring.file(HeaderItems{}), "0 num d v\n1 str s t\n2 pair dd a b\n3 six dddddd\n");
  std::vector<uint64_t> values;
  for (const Seen& r : out.records) values.push_back(r.args.empty() ? 0 : r.args[0].number);
  EXPECT_EQ((std::vector<uint64_t>{1, 3, 5, 9, 12, 0x7F000001u}), values);
  const Seen& raw = out.records.back();
  EXPECT_EQ(std::make_tuple(true, std::string("app:#9"), 0xFFFFFFFFu,
                            std::vector<Arg>{{'w', 0x7F000001u, ""}, {'w', 0x00636261u, ""}}),
            std::tie(raw.raw, raw.display, raw.thread, raw.args));
  const DecodeStats& st = out.data.source->stats;  // damage from the last good record to the end
  EXPECT_EQ(std::make_tuple(11u, 1u, 0u, true, false, true, kT0),
            std::make_tuple(st.rejected, st.raw_records, st.seam_words, st.damage,
                            st.damage_from_start, st.damage_to_end, st.damage_from_ns));
}

// Records k = 0, 1, ... in a ring: the counters and the words held say which survive.
TEST(DecodeRing, CountersLayOutTheData) {
  const struct {
    const char* what;
    uint32_t size, records, record_words, word_count, wraps, kept;  // 0 counts: as written
    std::vector<std::pair<uint64_t, uint64_t>> expected;            // ranges of k
    bool wrapped;
    size_t problems, notes;
  } kCases[] = {
      {"a full ring, the last record at its end", 1024, 256, 4, 0, 0, 0, {{0, 255}}, true, 0, 0},
      // Record 95 is cut at the seam; 204 straddles the gap and is not glued to what follows.
      {"a wrapped file cut short", 1024, 300, 5, 0, 1, 800, {{96, 159}, {205, 299}}, true, 1, 0},
      // Past 2^32 the counter restarted: position 0 holds the last word of record 204.
      {"WORD_COUNT restarted", 1024, 210, 5, 26, 4194305, 26, {{205, 209}}, false, 0, 0},
      {"a size that is not a power of two", 1000, 10, 5, 0, 0, 0, {{0, 9}}, false, 0, 1},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.what);
    Ring ring(c.size);
    for (uint32_t k = 0; k < c.records; ++k)
      ring.add(encode(c.record_words - 4, kT0 + k, 1, std::vector<Arg>(c.record_words - 4, d(k))));
    HeaderItems items;
    items.buffer_size = c.size;
    items.word_count = c.word_count ? c.word_count : static_cast<uint32_t>(ring.position);
    items.wraparound_count = c.wraps;
    const size_t kept = c.kept ? c.kept : std::min<size_t>(ring.position, c.size);
    const std::string data = word_bytes(ring.words).substr(0, kept * 4);
    Decoded out = decode(header_text(items) + data, "0 e -\n1 r d k\n");
    std::vector<uint64_t> expected, decoded;
    for (const auto& range : c.expected)
      for (uint64_t k = range.first; k <= range.second; ++k) expected.push_back(k);
    for (const Seen& r : out.records) decoded.push_back(r.timestamp - kT0);
    EXPECT_EQ(expected, decoded);
    EXPECT_EQ(
        std::make_tuple(c.wrapped, c.problems, c.notes, 0u, out.data.source->stats.seam_words),
        std::make_tuple(out.data.source->wrapped, out.data.problems.size(), out.data.notes.size(),
                        out.data.source->stats.rejected, out.data.source->stats.skipped_words));
  }
}

}  // namespace

// The ring decoded: trace files built byte by byte (escapes, cut records, counter layouts), the
// round trip through the library (piped and dumped records decode as written, buffers merge in
// time order), and persistent rings recovered with every record completed before their host died.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <random>
#include <set>
#include <thread>
#include <tuple>

#include "buffer.h"
#include "decode_test_support.h"
#include "persistent_ring.h"
#include "quarry/quarry.h"
#include "quarry_decode/error.h"
#include "quarry_decode/inputs.h"
#include "quarry_decode/recover.h"
#include "quarry_decode/stream_reader.h"
#include "quarry_decode/trace_reader.h"
#include "ring.h"
#include "test_support.h"
#include "trace_file.h"

using namespace quarry_decode;
using namespace decode_test;

namespace {

struct Values {
  uint32_t d[29];
  uint64_t D[4];
  const char* s[4];
};

// Each trace point's signature and a writer that passes the values in signature order.
#define POINT(sig, ...)                                                          \
  {                                                                              \
    sig, [](auto h, auto id, auto& v) { QUARRY_TRACE(h, id, sig, __VA_ARGS__); } \
  }
const struct {
  const char* signature;
  void (*write)(quarry_handle*, uint32_t, const Values&);
} kPoints[] = {
    POINT("d", v.d[0]),
    POINT("D", v.D[0]),
    POINT("s", v.s[0]),
    POINT("ds", v.d[0], v.s[0]),
    POINT("sD", v.s[0], v.D[0]),
    POINT("dDs", v.d[0], v.D[0], v.s[0]),
    POINT("dddddd", v.d[0], v.d[1], v.d[2], v.d[3], v.d[4], v.d[5]),
    POINT("DDDDs", v.D[0], v.D[1], v.D[2], v.D[3], v.s[0]),
    POINT("ssss", v.s[0], v.s[1], v.s[2], v.s[3]),
    POINT("ddddddddddddddddddddddddddddd", v.d[0], v.d[1], v.d[2], v.d[3], v.d[4], v.d[5], v.d[6],
          v.d[7], v.d[8], v.d[9], v.d[10], v.d[11], v.d[12], v.d[13], v.d[14], v.d[15], v.d[16],
          v.d[17], v.d[18], v.d[19], v.d[20], v.d[21], v.d[22], v.d[23], v.d[24], v.d[25], v.d[26],
          v.d[27], v.d[28]),
    {"", [](quarry_handle* h, uint32_t id, const Values&) { QUARRY_TRACE(h, id, ""); }},
};
#undef POINT
constexpr uint32_t kCount = sizeof kPoints / sizeof kPoints[0];

struct Written {
  uint32_t index;
  std::vector<Arg> args;
  uint32_t words;  // the record's length in the buffer
};

// Writes trace point `index` with random values: many edge values, strings of every length.
Written write_random(std::mt19937& rng, quarry_handle* h, uint32_t index) {
  static const uint32_t kEdges[] = {0,           1,           0x7F000000u, 0x7FFFFFFFu,
                                    0x80000000u, 0xFEFFFFFFu, 0xFF000000u, 0xFFFFFFFFu};
  static std::string strings[4];
  std::string shown[4];  // as decoded: a null string shows as "(null)"
  auto u32 = [&] { return rng() % 2 ? kEdges[rng() % 8] : static_cast<uint32_t>(rng()); };
  Values v;
  for (uint32_t& x : v.d) x = u32();
  for (uint64_t& x : v.D) x = static_cast<uint64_t>(u32()) << 32 | u32();
  for (size_t i = 0; i < 4; ++i) {
    strings[i].assign(rng() % 13, 'a');
    for (char& c : strings[i]) c = rng() % 4 == 0 ? '\xff' : static_cast<char>('a' + rng() % 26);
    v.s[i] = rng() % 8 == 0 ? nullptr : strings[i].c_str();
    shown[i] = v.s[i] ? strings[i] : "(null)";
  }
  kPoints[index].write(h, index, v);
  std::vector<Arg> args;
  uint32_t di = 0, Di = 0, si = 0;
  for (const char* c = kPoints[index].signature; *c; ++c) {
    if (*c == 'd') args.push_back(d(v.d[di++]));
    if (*c == 'D') args.push_back(D(v.D[Di++]));
    if (*c == 's') args.push_back(s(shown[si++]));
  }
  return Written{index, args, static_cast<uint32_t>(encode(index, 0, 0, args).size())};
}

void expect_same(const Written& w, const Seen& r, size_t at) {
  EXPECT_EQ(std::make_pair(w.index, w.args), std::make_pair(r.id, r.args)) << "record " << at;
}

class DecodeRoundTrip : public ::testing::Test {
 protected:
  void SetUp() override {
    quarry_set_process_name("roundtrip");
    quarry_set_current_thread_name("rt-main");
    std::string text;  // the parent's points are named p0, p1, ..., the child's c0, c1, ...
    for (uint32_t i = 0; i < kCount; ++i)
      text += std::to_string(i) + " p" + std::to_string(i) + " " +
              (*kPoints[i].signature ? kPoints[i].signature : "-") + "\n";
    put("rt.dec", text);
    std::replace(text.begin(), text.end(), 'p', 'c');
    put("child.dec", text);
  }
};

// Parent and child records decode as written from the pipe, and the newest from a wrapped dump.
TEST_F(DecodeRoundTrip, PipeStreamAndWrappedDump) {
  quarry_handle *h = nullptr, *child = nullptr;
  ASSERT_EQ(0, quarry_open_internal(&h, "small", 4096, kCount, "rt.dec", "1", nullptr));
  ASSERT_EQ(0, quarry_open_internal(&child, "kid", 0, kCount, "child.dec", "2", h));
  const std::string ctrl = h->cb->ctrl_file_name, pipe = ctrl.substr(0, ctrl.size() - 4) + "pipe";
  ASSERT_EQ(0, mkfifo(pipe.c_str(), 0666));
  const int reader = open(pipe.c_str(), O_RDONLY | O_NONBLOCK);
  ASSERT_GE(reader, 0);
  h->pipe.store(1);
  child->pipe.store(1);

  std::mt19937 rng(11);
  std::vector<Written> written;
  uint64_t position = 0;  // word_count of a new buffer starts at 0
  auto write = [&](uint32_t index) {
    const bool by_child = written.size() % 2;
    written.push_back(write_random(rng, by_child ? child : h, index));
    if (by_child) written.back().index += kCount;  // the child's IDs follow the parent's
    position += written.back().words;
  };
  // Well within the pipe's capacity, so nothing is dropped while nobody reads.
  while (position < 2500) write(written.size() % kCount);
  // Fill up to 5 to 9 words before the end, then a string record of 15 words crosses it.
  while (1024 - position % 1024 > 9 || 1024 - position % 1024 < 5) write(0);
  const std::string long_text(41, 'L');
  QUARRY_TRACE(h, 2, "s", long_text.c_str());
  written.push_back(Written{2, {s(long_text)}, 15});
  position += 15;
  const size_t crossing = written.size() - 1;
  for (uint32_t i = 0; i < 20; ++i) write(i % kCount);

  Collector collector;
  DecodeFileCache cache(decode_search_path({}));
  StreamDecoder decoder("quarry.pipe", cache, collector);
  char chunk[7];  // words and records cut at every offset
  for (ssize_t got; (got = read(reader, chunk, sizeof chunk)) > 0;)
    decoder.feed(chunk, static_cast<size_t>(got));
  close(reader);
  decoder.finish();
  ASSERT_EQ(written.size(), collector.records.size());
  const uint32_t self = static_cast<uint32_t>(pthread_self());
  const uint64_t mask = decoder.source()->header.ts_idx_mask;
  for (size_t i = 0; i < written.size(); ++i) {
    const Seen& r = collector.records[i];
    expect_same(written[i], r, i);
    EXPECT_EQ((written[i].index < kCount ? "small:p" : "small/kid:c") +
                  std::to_string(written[i].index % kCount),
              r.display);
    EXPECT_EQ(self, r.thread);
    // One thread: clock time never goes back, and the index bits count records.
    const uint64_t before = i > 0 ? collector.records[i - 1].timestamp : r.timestamp - 1;
    EXPECT_LE(before & ~mask, r.timestamp & ~mask);
    EXPECT_EQ((before + 1) & mask, r.timestamp & mask);
  }
  EXPECT_EQ(0u, decoder.source()->stats.skipped_words);

  ASSERT_EQ(0, quarry_dump(h));
  const std::string file = newest_trace_file(quarry_test::base_dir() + "roundtrip/small");
  Decoded out = decode_all(read_trace_file(file, cache));
  EXPECT_TRUE(cache.diagnostics().empty()) << cache.diagnostics()[0];
  const SourceInfo& source = *out.data.source;
  ASSERT_TRUE(source.wrapped);
  ASSERT_LE(out.records.size(), written.size());
  const size_t first = written.size() - out.records.size();
  uint64_t words = 0;
  for (size_t i = 0; i < out.records.size(); ++i) {
    expect_same(written[first + i], out.records[i], first + i);
    words += written[first + i].words;
  }
  EXPECT_LT(first, crossing);
  EXPECT_EQ(std::make_tuple(0u, source.stats.seam_words, 1024u, written.size()),
            std::make_tuple(source.stats.rejected, source.stats.skipped_words,
                            words + source.stats.seam_words, source.header.entry_count));
  ASSERT_NE(nullptr, source.threads.find(self));
  EXPECT_EQ("rt-main", *source.threads.find(self));
}

// Four threads, three buffers: the process's directory decodes every record once, in time order.
TEST_F(DecodeRoundTrip, BuffersOfOneProcessMergeInExactTimeOrder) {
  put("merge.dec", "0 n d v\n");
  quarry_handle* h[3];
  for (int b = 0; b < 3; ++b) {
    const std::string name = "buf" + std::to_string(b);
    ASSERT_EQ(0, quarry_open_internal(&h[b], name.c_str(), 1 << 20, 1, "merge.dec", "1", nullptr));
  }
  std::vector<std::thread> threads;
  for (uint32_t t = 0; t < 4; ++t)
    threads.emplace_back([&h, t] {
      for (uint32_t i = 0; i < 3000; ++i) QUARRY_TRACE(h[(i + t) % 3], 0, "d", t * 100000 + i);
    });
  for (std::thread& thread : threads) thread.join();
  ASSERT_EQ(0, quarry_dump_all());
  CliResult r = run({"--format=json", quarry_test::base_dir() + "roundtrip/"});
  ASSERT_EQ(0, r.status) << r.err;
  auto number = [](const std::string& line, const std::string& key) {
    const size_t at = line.find("\"" + key + "\":");
    return at == std::string::npos ? 0 : std::stoull(line.substr(at + key.size() + 3));
  };
  std::vector<std::string> lines = lines_of(r.out);
  ASSERT_EQ(12000u, lines.size());
  std::pair<uint64_t, uint64_t> previous{0, 0};
  uint64_t next_of_thread[4] = {0, 100000, 200000, 300000};
  for (const std::string& line : lines) {
    const std::pair<uint64_t, uint64_t> time{number(line, "mono_ns"), number(line, "seq")};
    ASSERT_LE(previous, time) << line;
    previous = time;
    const uint64_t v = number(line, "v");
    ASSERT_EQ(next_of_thread[v / 100000]++, v) << line;
  }

  // Records of two files in one clock step follow their index bits, not the input order.
  HeaderItems items;
  items.refs = {"QUARRY_DECODE_REF app \"merge.dec\" 0.9.1"};
  items.extra = "TS_IDX_MSK 3\n";
  Ring late(1024), early(1024);
  late.add(encode(0, kT0 + 2, 1, {d(2)}));
  early.add(encode(0, kT0 + 1, 1, {d(1)}));
  r = run(
      {"--format=json", put("late.trc", late.file(items)), put("early.trc", early.file(items))});
  lines = lines_of(r.out);
  ASSERT_EQ(2u, lines.size()) << r.err;
  EXPECT_EQ(std::make_pair(1ull, 2ull),
            std::make_pair(number(lines[0], "v"), number(lines[1], "v")));
}

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

using quarry_test::base_dir;

constexpr int kThreads = 2, kBuffers = 3;

// Shared with the children, per writer and buffer: records started, completed, late (> 2 us).
struct Progress {
  std::atomic<uint32_t> started[8][kBuffers], done[8][kBuffers], late[8][kBuffers], grown_at[8];
  uint64_t before[8][kBuffers][1024];  // clock read just before record n, at n % 1024
};

// Record n of writer t: even ones a text of varying length (strings cross the ring's end), odd
// ones a check value.
std::string text_of(uint32_t t, uint32_t n) {
  return std::string((n * 7 + t) % 23, static_cast<char>('a' + (n + t) % 26));
}
uint64_t check_of(uint32_t t, uint32_t n) {
  return n * 0x9E3779B97F4A7C15ull ^ t;
}
void write_record(quarry_handle* h, uint32_t t, uint32_t n) {
  if (n % 2 == 0) QUARRY_TRACE(h, 0, "dds", t, n, text_of(t, n).c_str());
  if (n % 2 == 1) QUARRY_TRACE(h, 1, "ddD", t, n, static_cast<unsigned long long>(check_of(t, n)));
}

uint64_t now_ns() {  // CLOCK_MONOTONIC, as the records' timestamps
  return std::chrono::steady_clock::now().time_since_epoch() / std::chrono::nanoseconds(1);
}

// Persistent buffer b<buffer> of a process named `process`; null if it does not open.
quarry_handle* open_ring(const char* process, int buffer, unsigned size) {
  quarry_set_process_name(process);
  set_persistent_mode_override(1);
  quarry_handle* h = nullptr;
  const std::string name = "b" + std::to_string(buffer);
  return quarry_open_internal(&h, name.c_str(), size, 2, "persist.dec", "1", nullptr) ? nullptr : h;
}

// Forks a host writing to `buffers` buffers until it dies; `during` runs on its main thread.
pid_t spawn(Progress* p, int buffers, unsigned size,
            const std::function<void(quarry_handle*)>& during) {
  pid_t pid = fork();
  if (pid != 0) return pid;
  static quarry_handle* handles[kBuffers];
  for (int b = 0; b < buffers; ++b)
    if (!(handles[b] = open_ring("host", b, size))) _exit(3);
  for (int t = 0; t < kThreads; ++t)
    std::thread([=] {
      for (uint32_t k = 0;; ++k) {
        int b = k % buffers;
        uint32_t n = p->done[t][b].load();
        p->before[t][b][n % 1024] = now_ns();
        p->started[t][b].store(n + 1);
        write_record(handles[b], t, n);
        if (now_ns() - p->before[t][b][n % 1024] > 2000) ++p->late[t][b];
        p->done[t][b].store(n + 1);
      }
    }).detach();
  during(handles[0]);
  for (;;) pause();
}

std::string run_dir(const char* name, int buffer, pid_t pid) {
  return base_dir() + name + "/b" + std::to_string(buffer) + "/quarry.ring." + std::to_string(pid);
}

struct Valid {
  uint64_t mono;
  uint32_t t, n;
};
struct Found {
  std::vector<Valid> valid;                      // in ring order, oldest first
  std::set<std::pair<uint32_t, uint32_t>> held;  // writer and number of the valid records
  int bogus = 0;                                 // records matching no write, or repeated
};

// Recovers one run and decodes it; checks what every recovered file must show.
Found recover_and_read(const std::string& run, uint32_t size_words) {
  DecodeFileCache cache(decode_search_path({}));
  TraceData data = read_trace_bytes(recover_ring(run, cache), run, cache);
  EXPECT_TRUE(data.problems.empty()) << run;
  EXPECT_EQ(size_words, data.source->header.buffer_size);
  const auto& items = data.source->header.unknown_items;
  EXPECT_EQ(1, std::count(items.begin(), items.end(),
                          std::pair<std::string, std::string>("RECOVERED", "1")));
  struct Sink : RecordSink {
    Found found;
    void on_record(const Record& r) override {
      uint32_t t = r.arg_count == 3 ? r.args[0].number : 99, n = r.args[1].number;
      bool ok =
          t < 8 && (n % 2 ? r.args[2].number == check_of(t, n) : r.args[2].text == text_of(t, n));
      if (ok && found.held.insert({t, n}).second)
        found.valid.push_back({r.mono_ns, t, n});
      else
        ++found.bogus;
    }
  } sink;
  decode_trace(data, sink);
  return sink.found;
}

// Every record begun after the oldest held is there, in order; in-flight and late ones excepted.
void check_complete(const Found& f, Progress* p, int buffer) {
  int in_flight = 0, budget = 0;
  for (int t = 0; t < kThreads; ++t) {
    in_flight += p->started[t][buffer] != p->done[t][buffer];
    budget += 5 * p->late[t][buffer];
  }
  budget += 2 * in_flight;
  std::vector<uint64_t> times;
  for (const Valid& v : f.valid) times.push_back(v.mono);
  std::sort(times.begin(), times.end());
  // The records at either end that in-flight writers may have left are not held to order.
  const size_t skip = 2 * in_flight;
  if (times.size() <= 2 * skip) return;
  const uint64_t oldest = times[skip], newest = times[times.size() - 1 - skip];
  int anomalies = f.bogus;
  for (uint32_t t = 0; t < kThreads; ++t) {
    std::vector<uint32_t> ns;  // the writer's, in ring order
    for (const Valid& v : f.valid)
      if (v.t == t && v.mono >= oldest && v.mono <= newest) ns.push_back(v.n);
    for (size_t i = 1; i < ns.size(); ++i) anomalies += ns[i] < ns[i - 1];  // out of order
    const std::set<uint32_t> held(ns.begin(), ns.end());
    if (!held.empty()) anomalies += *held.rbegin() - *held.begin() + 1 - held.size();  // holes
    const uint32_t done = p->done[t][buffer];
    for (uint32_t n = done; n-- > 0 && n + 1024 > done &&
                            p->before[t][buffer][n % 1024] > oldest + 1000 &&
                            (held.empty() || n > *held.rbegin());)
      anomalies += f.held.count({t, n}) == 0;  // completed, newer than those checked above
  }
  EXPECT_LE(anomalies, budget) << "in flight " << in_flight;
}

class Recovery : public ::testing::Test {
 protected:
  void SetUp() override {
    quarry_test::write_file(base_dir() + "persist.dec",
                            "0 even dds t n text\n1 odd ddD t n check:x\n");
    p_ = new (mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS,
                   -1, 0)) Progress();
  }
  Progress* p_;
};

__attribute__((noinline)) int recurse(volatile int depth) {
  if (depth < 0) return 0;  // never: the stack ends first
  volatile char frame[256];
  frame[depth % 256] = static_cast<char>(depth);
  return recurse(depth + 1) + frame[0];
}

// Hosts killed at random (200 runs), killed after a growth, or dead of a stack overflow.
enum Death { kKilled, kGrownThenKilled, kOverflow };

TEST_F(Recovery, DeathsLoseNothingCompleted) {
  std::mt19937 random(16);
  for (Death death : {kKilled, kGrownThenKilled, kOverflow}) {
    const int buffers = death == kKilled ? kBuffers : 1, runs = death == kKilled ? 200 : 1;
    const unsigned size = death == kOverflow ? 65536 : 4096;
    for (int run = 0; run < runs && !HasFailure(); ++run) {
      SCOPED_TRACE("death " + std::to_string(death) + " run " + std::to_string(run));
      Progress* p = new (p_) Progress();
      const uint32_t target = random() % 3000;
      const bool grown = death == kGrownThenKilled;
      pid_t pid = spawn(p, buffers, size, [&](quarry_handle* h) {
        if (death == kKilled) return;
        while (p->done[0][0] < 2000) std::this_thread::yield();
        if (death == kOverflow) _exit(recurse(0));
        if (set_circular_buffer_size(h->cb, 16384) != 0) _exit(4);
        for (int t = 0; t < kThreads; ++t) p->grown_at[t] = p->done[t][0].load();
        while (p->done[0][0] <= p->grown_at[0] + 3000) std::this_thread::yield();
        raise(SIGKILL);
      });
      while (death == kKilled && p->done[0][0] + p->done[1][1] < target) std::this_thread::yield();
      if (death == kKilled) kill(pid, SIGKILL);
      int status = 0;
      waitpid(pid, &status, 0);
      ASSERT_TRUE(WIFSIGNALED(status) || WEXITSTATUS(status) != 0) << status;
      if (grown) {
        // Without the words.1 the header names, the newest generation present is read.
        const std::string words = run_dir("host", 0, pid) + "/words.";
        EXPECT_FALSE(quarry_test::file_exists(words + "0"));
        ASSERT_EQ(0, rename((words + "1").c_str(), (words + "5").c_str()));
        quarry_test::write_file(words + "7.tmp", "");
      }
      for (int b = 0; b < buffers; ++b) {
        Found f = recover_and_read(run_dir("host", b, pid), (grown ? 16384 : size) / 4);
        for (const Valid& v : f.valid) EXPECT_TRUE(!grown || v.n > p->grown_at[v.t]) << v.n;
        check_complete(f, p, b);
      }
    }
  }
}

// Runs killed in turn (one reusing a pid), then a normal exit: the two newest dead runs remain.
TEST_F(Recovery, RestartsKeepThePreviousRuns) {
  const std::string buffer_dir = base_dir() + "restart/b0/";
  pid_t previous = 0;
  for (uint32_t r = 0; r < 6; ++r) {
    quarry_test::in_child(
        [&] {
          const std::string reused = run_dir("restart", 0, getpid());
          if (r == 3) rename(run_dir("restart", 0, previous).c_str(), reused.c_str());
          quarry_handle* h = open_ring("restart", 0, 4096);
          for (uint32_t n = 0; h && n < 50; ++n) write_record(h, r, n);
          if (r < 5) raise(SIGKILL);
          persistent_rings_at_exit();  // what exit(3) runs, without this test's own handlers
          dump_at_exit();
          return 0;
        },
        &previous);
  }
  DecodeFileCache cache(decode_search_path({}));
  std::map<uint32_t, size_t> records;  // of each writer, over all the runs
  for (const RecoveredRun& run : recover(buffer_dir, cache)) {
    ASSERT_EQ("", run.error);
    for (const auto& record : recover_and_read(run.ring_dir, 1024).held) ++records[record.first];
  }
  EXPECT_EQ((std::map<uint32_t, size_t>{{3, 50}, {4, 50}}), records);
  EXPECT_TRUE(quarry_test::file_exists(buffer_dir + "quarry_0.trc"));
}

// A live process's rings are never recovered; a forked child writes into private memory.
TEST_F(Recovery, LiveRingsAreRefusedAndAForkedChildWritesPrivately) {
  quarry_handle* h = open_ring("live", 0, 4096);
  ASSERT_NE(nullptr, h);
  for (uint32_t n = 0; n < 10; ++n) write_record(h, 0, n);
  const std::string run = run_dir("live", 0, getpid());
  DecodeFileCache cache(decode_search_path({}));
  EXPECT_THROW(recover_ring(run, cache), DecodeError);
  const std::string before = quarry_test::read_file(run + "/words.0");
  EXPECT_EQ(0, quarry_test::in_child([&] {
              persistent_rings_after_fork();
              for (uint32_t n = 0; n < 500; ++n) write_record(h, 1, n);
              return load_ring(h->cb).buffer[0].load() == 0 ? 5 : 0;
            }));
  EXPECT_EQ(before, quarry_test::read_file(run + "/words.0"));
}

}  // namespace

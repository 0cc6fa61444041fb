// The trace header as the decoder reads it: every key, THREAD lines cut at 63 characters, and odd
// but readable headers.
#include <gtest/gtest.h>

#include <tuple>

#include "decode_test_support.h"
#include "quarry_decode/thread_names.h"
#include "quarry_decode/time_base.h"
#include "quarry_decode/trace_header.h"

using namespace quarry_decode;
using decode_test::header_text;
using decode_test::HeaderItems;

namespace {

TraceHeader parse_all(const std::string& bytes, HeaderExtent* extent_out = nullptr) {
  HeaderExtent extent = HeaderScanner().scan(bytes);
  EXPECT_TRUE(extent.complete);
  if (extent_out) *extent_out = extent;
  return parse_trace_header(std::string_view(bytes).substr(0, extent.text_end));
}

TEST(DecodeHeader, EveryKeyIsRead) {
  HeaderItems f;
  // Found from the right: a quote and a space in a file name, dots and spaces in a tag, no ids.
  f.refs = {"QUARRY_DECODE_REF net \"net.dec\" 0.1.1", "QUARRY_DECODE_REF net/io \"io.dec\" 2.3.v2",
            "QUARRY_DECODE_REF a/b_1f \"x\" y.dec\" 3.4.tag with.dots",
            "QUARRY_DECODE_REF empty \"e.dec\" 5.4.1"};
  f.threads = {"THREAD main 12345\n", "THREAD worker 2 -5\n", "THREAD main 12345\n"};
  f.word_count = 0x10;
  f.entry_count = 3;
  f.wraparound_count = 0x12;
  f.extra = "SIGNALING_PID 18446744073709551615\nSIGNAL 11\nFUTURE_KEY some value\n";
  TraceHeader h = parse_all(header_text(f));
  EXPECT_EQ("1.0", h.version);
  EXPECT_EQ("/usr/bin/test host", h.argv0);  // the value runs to the line end, spaces and all
  EXPECT_EQ("tester", h.prog_name);
  EXPECT_EQ(std::make_tuple(1704164645ull, 1000ull, 7u, 4242, 2000ull, 1000000000000ull, 0x12u, 3u,
                            1024u, 0x10u, ~0ull, -1, 11),
            std::make_tuple(h.wall_time_sec, h.clock_time_sec, h.node_id, h.process_id,
                            h.clock_time_z_sec, h.creation_time, h.wraparound_count, h.entry_count,
                            h.buffer_size, h.word_count, h.min_wraparound_time, h.signaling_pid,
                            h.signal));
  std::vector<std::string> refs;  // handle|decode file|first|last|tag
  for (const DecodeRef& r : h.decode_refs) {
    refs.push_back(r.handle + "|" + r.decode_file + "|" + std::to_string(r.first_id) + "|" +
                   std::to_string(r.last_id) + "|" + r.tag);
  }
  EXPECT_EQ((std::vector<std::string>{"net|net.dec|0|1|1", "net/io|io.dec|2|3|v2",
                                      "a/b_1f|x\" y.dec|3|4|tag with.dots", "empty|e.dec|5|4|1"}),
            refs);
  ASSERT_EQ(3u, h.threads.size());
  EXPECT_EQ("worker 2", h.threads[1].name);  // a name may hold spaces; the ID is the last word
  EXPECT_EQ(-5, h.threads[1].id);
  ASSERT_EQ(1u, h.unknown_items.size());
  EXPECT_EQ("FUTURE_KEY", h.unknown_items[0].first);
  EXPECT_TRUE(h.has(TraceHeader::kAlphaKeys | TraceHeader::kOmegaKeys | TraceHeader::kSignal));
  EXPECT_TRUE(h.warnings.empty());
}

// An entry cut to 63 characters has no line end: the next item, or the empty line, follows on it.
TEST(DecodeHeader, CutThreadLines) {
  const std::string long_name(50, 'n');
  std::string cut = ("THREAD " + long_name + " -1234567890\n").substr(0, 63);
  ASSERT_EQ('-', cut[58]);
  HeaderItems f;
  f.threads = {cut, "THREAD next 5\n", "THREAD exact63_" + std::string(40, 'x') + " 123456\n",
               "THREAD later 5\n", ("THREAD " + std::string(60, 'q') + " 77\n").substr(0, 63)};
  ASSERT_EQ(63u, f.threads[2].size());  // 63 characters with its line end: not cut
  HeaderExtent extent;
  const std::string bytes = header_text(f) + "DATA";
  TraceHeader h = parse_all(bytes, &extent);
  std::vector<std::string> threads;  // name|ID text, and whether the entry was cut
  for (const ThreadLine& t : h.threads)
    threads.push_back(t.name + "|" + t.id_text + (t.cut ? " cut" : ""));
  EXPECT_EQ((std::vector<std::string>{long_name + "|-1234 cut", "next|5",
                                      "exact63_" + std::string(40, 'x') + "|123456", "later|5",
                                      std::string(56, 'q') + "| cut"}),
            threads);
  EXPECT_EQ(0u, extent.data_offset % 4);
  EXPECT_EQ("DATA", bytes.substr(extent.data_offset));

  ThreadNames names(h.threads);
  EXPECT_EQ(long_name, *names.find(static_cast<uint32_t>(-1234567890)));
  EXPECT_EQ("later", *names.find(5));                                 // the later line wins
  EXPECT_EQ(nullptr, names.find(77));                                 // its ID was cut away
  EXPECT_EQ(nullptr, names.find(static_cast<uint32_t>(1234567890)));  // the sign is part of it
}

TEST(DecodeHeader, OddButReadableHeadersWarn) {
  HeaderItems f;
  f.version = "1.3";
  f.threads = {"THREAD lone\x1f\x7f\n"};
  f.extra = "PROG_NAME again\n";
  TraceHeader h = parse_all(header_text(f));
  ASSERT_EQ(3u, h.warnings.size());
  EXPECT_NE(std::string::npos,
            h.warnings[0].find("THREAD line without a thread ID: \"lone\\x1f\\x7f\""));
  EXPECT_NE(std::string::npos, h.warnings[1].find("PROG_NAME appears again"));
  EXPECT_NE(std::string::npos, h.warnings[2].find("1.3"));
  EXPECT_EQ("again", h.prog_name);

  // Without the open block (its header text could not be built) only monotonic time is known.
  std::string no_open = header_text(HeaderItems{});
  no_open.erase(0, no_open.find("WALL_TIME_Z_SEC"));
  TraceHeader bare = parse_all(no_open);
  EXPECT_FALSE(TimeBase(bare).has_wall());
  EXPECT_EQ(1u, bare.warnings.size());
}

}  // namespace

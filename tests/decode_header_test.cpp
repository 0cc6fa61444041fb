// The trace header as the decoder reads it: every key, repeated items, THREAD lines cut at 63
// characters, the data offset, and headers that are not headers.
#include <gtest/gtest.h>

#include "decode_test_support.h"
#include "quarry_decode/error.h"
#include "quarry_decode/thread_names.h"
#include "quarry_decode/time_base.h"
#include "quarry_decode/trace_header.h"

using namespace quarry_decode;
using decode_test::FileSpec;
using decode_test::header_text;

namespace {

TraceHeader parse_all(const std::string& bytes, HeaderExtent* extent_out = nullptr) {
  HeaderScanner scanner;
  HeaderExtent extent = scanner.scan(bytes);
  EXPECT_TRUE(extent.complete);
  if (extent_out) *extent_out = extent;
  return parse_trace_header(std::string_view(bytes).substr(0, extent.text_end));
}

std::string error_of(const std::string& bytes) {
  try {
    HeaderScanner scanner;
    HeaderExtent extent = scanner.scan(bytes);
    parse_trace_header(
        std::string_view(bytes).substr(0, extent.complete ? extent.text_end : bytes.size()));
  } catch (const DecodeError& e) {
    return e.what();
  }
  return "";
}

TEST(DecodeHeader, EveryKeyIsRead) {
  FileSpec f;
  f.refs = {"QUARRY_DECODE_REF net \"net.dec\" 0.1.1",
            "QUARRY_DECODE_REF net/io \"io.dec\" 2.3.v2"};
  f.threads = {"THREAD main 12345\n", "THREAD worker 2 -5\n", "THREAD main 12345\n"};
  f.word_count = 0x10;
  f.entry_count = 3;
  f.wraparound_count = 2;
  f.extra = "SIGNALING_PID 18446744073709551615\nSIGNAL 11\nFUTURE_KEY some value\n";
  TraceHeader h = parse_all(header_text(f));
  EXPECT_EQ("1.0", h.version);
  EXPECT_EQ(1704164645u, h.wall_time_sec);
  EXPECT_EQ(1000u, h.clock_time_sec);
  EXPECT_EQ(7u, h.node_id);
  EXPECT_EQ(4242, h.process_id);
  EXPECT_EQ("/usr/bin/test host", h.argv0);  // the value runs to the line end, spaces and all
  EXPECT_EQ(2000u, h.clock_time_z_sec);
  EXPECT_EQ(1000000000000ull, h.creation_time);
  EXPECT_EQ(2u, h.wraparound_count);
  EXPECT_EQ(3u, h.entry_count);
  EXPECT_EQ(1024u, h.buffer_size);
  EXPECT_EQ(0x10u, h.word_count);
  EXPECT_EQ(~0ull, h.min_wraparound_time);
  EXPECT_EQ("tester", h.prog_name);
  EXPECT_EQ(-1, h.signaling_pid);  // printed as the unsigned value of the sign-extended pid
  EXPECT_EQ(11, h.signal);
  ASSERT_EQ(2u, h.decode_refs.size());
  EXPECT_EQ("net/io", h.decode_refs[1].handle);
  EXPECT_EQ("io.dec", h.decode_refs[1].decode_file);
  EXPECT_EQ(2, h.decode_refs[1].first_id);
  EXPECT_EQ(3, h.decode_refs[1].last_id);
  EXPECT_EQ("v2", h.decode_refs[1].tag);
  ASSERT_EQ(3u, h.threads.size());
  EXPECT_EQ("worker 2", h.threads[1].name);  // a name may hold spaces; the ID is the last word
  EXPECT_EQ(-5, h.threads[1].id);
  ASSERT_EQ(1u, h.unknown_items.size());
  EXPECT_EQ("FUTURE_KEY", h.unknown_items[0].first);
  EXPECT_TRUE(h.has(TraceHeader::kAlphaKeys | TraceHeader::kOmegaKeys | TraceHeader::kSignal));
  EXPECT_TRUE(h.warnings.empty());
}

TEST(DecodeHeader, DecodeReferenceFieldsAreFoundFromTheRight) {
  FileSpec f;
  // A decode file whose name holds a quote and a space, a tag with dots and spaces, and a
  // handle with no trace points (last below first).
  f.refs = {"QUARRY_DECODE_REF a/b_1f \"x\" y.dec\" 3.4.tag with.dots",
            "QUARRY_DECODE_REF empty \"e.dec\" 5.4.1"};
  TraceHeader h = parse_all(header_text(f));
  ASSERT_EQ(2u, h.decode_refs.size());
  EXPECT_EQ("a/b_1f", h.decode_refs[0].handle);
  EXPECT_EQ("x\" y.dec", h.decode_refs[0].decode_file);
  EXPECT_EQ(3, h.decode_refs[0].first_id);
  EXPECT_EQ("tag with.dots", h.decode_refs[0].tag);
  EXPECT_LT(h.decode_refs[1].last_id, h.decode_refs[1].first_id);

  f.refs = {"QUARRY_DECODE_REF a \"x.dec\" 3-4-1"};
  EXPECT_NE(std::string::npos, error_of(header_text(f)).find("QUARRY_DECODE_REF"));
}

// A thread entry is cut to 63 characters without its line end; the next item follows on the
// same line, and when the cut entry is the last one the empty line follows it directly.
TEST(DecodeHeader, CutThreadLines) {
  const std::string long_name(50, 'n');
  std::string cut = ("THREAD " + long_name + " -1234567890\n").substr(0, 63);
  ASSERT_EQ('-', cut[58]);
  const std::string lost_id = ("THREAD " + std::string(60, 'q') + " 77\n").substr(0, 63);
  FileSpec f;
  f.threads = {cut, "THREAD next 5\n", "THREAD exact63_" + std::string(40, 'x') + " 123456\n",
               lost_id};
  ASSERT_EQ(63u, f.threads[2].size());  // 63 characters with its line end: not cut
  HeaderExtent extent;
  const std::string bytes = header_text(f) + "DATA";
  TraceHeader h = parse_all(bytes, &extent);
  ASSERT_EQ(4u, h.threads.size());
  EXPECT_TRUE(h.threads[0].cut);
  EXPECT_EQ(long_name, h.threads[0].name);
  EXPECT_EQ("-1234", h.threads[0].id_text);
  EXPECT_EQ("next", h.threads[1].name);
  EXPECT_FALSE(h.threads[1].cut);
  EXPECT_EQ(123456, h.threads[2].id);
  EXPECT_TRUE(h.threads[3].cut);
  EXPECT_EQ(std::string(56, 'q'), h.threads[3].name);
  EXPECT_EQ(0u, extent.data_offset % 4);
  EXPECT_EQ("DATA", bytes.substr(extent.data_offset));

  ThreadNames names(h.threads);
  ASSERT_NE(nullptr, names.find(static_cast<uint32_t>(-1234567890)));
  EXPECT_EQ(long_name, *names.find(static_cast<uint32_t>(-1234567890)));
  EXPECT_EQ("next", *names.find(5));
  EXPECT_EQ(nullptr, names.find(77));                                 // its ID was cut away
  EXPECT_EQ(nullptr, names.find(static_cast<uint32_t>(1234567890)));  // the sign is part of it
}

TEST(DecodeHeader, LaterThreadLineForAnIdWins) {
  FileSpec f;
  f.threads = {"THREAD first 9\n", "THREAD second 9\n"};
  ThreadNames names(parse_all(header_text(f)).threads);
  EXPECT_EQ("second", *names.find(9));
}

// The scanner is fed the growing prefix of a stream: it finds the end exactly once all of it
// is there, however the bytes are split, including inside a cut THREAD entry.
TEST(DecodeHeader, ScannerFindsTheEndIncrementally) {
  FileSpec f;
  f.threads = {("THREAD " + std::string(70, 'z')).substr(0, 63)};
  const std::string bytes = header_text(f);
  HeaderScanner whole;
  const HeaderExtent expected = whole.scan(bytes);
  ASSERT_TRUE(expected.complete);
  HeaderScanner scanner;
  for (size_t n = 1; n <= bytes.size(); ++n) {
    HeaderExtent extent = scanner.scan(std::string_view(bytes).substr(0, n));
    ASSERT_EQ(n >= expected.text_end, extent.complete) << n;
    if (extent.complete) {
      EXPECT_EQ(expected.data_offset, extent.data_offset);
    }
  }
}

TEST(DecodeHeader, BadHeadersAreRefusedWithTheReason) {
  EXPECT_NE(std::string::npos, error_of(std::string("\x7f"
                                                    "ELF\x02\x01\x01",
                                                    7))
                                   .find("not a trace header"));
  EXPECT_NE(std::string::npos, error_of("VERSION 1.0\nNOSPACE\n\n").find("line 2"));
  FileSpec f;
  f.version = "2.0";
  EXPECT_NE(std::string::npos, error_of(header_text(f)).find("unknown format VERSION \"2.0\""));
  std::string bad_number = header_text(FileSpec{});
  bad_number.replace(bad_number.find("WORD_COUNT 0"), 12, "WORD_COUNT 1z");
  const std::string message = error_of(bad_number);
  EXPECT_NE(std::string::npos, message.find("WORD_COUNT")) << message;
  EXPECT_NE(std::string::npos, message.find("not hexadecimal")) << message;
  EXPECT_NE(std::string::npos, error_of("VERSION 1.0\nWORD_COUNT 1\n").find("ends before"));
  EXPECT_NE(std::string::npos,
            error_of("VERSION 1.0\nQUARRY_PROCESS_ID 99999999999\n\n").find("range"));
}

TEST(DecodeHeader, OddButReadableHeadersWarn) {
  FileSpec f;
  f.version = "1.3";
  f.threads = {"THREAD lonely\n"};
  f.extra = "PROG_NAME again\n";
  TraceHeader h = parse_all(header_text(f));
  ASSERT_EQ(3u, h.warnings.size());
  EXPECT_NE(std::string::npos, h.warnings[0].find("THREAD line without a thread ID: \"lonely\""));
  EXPECT_NE(std::string::npos, h.warnings[1].find("PROG_NAME appears again"));
  EXPECT_NE(std::string::npos, h.warnings[2].find("1.3"));
  EXPECT_EQ("again", h.prog_name);

  // Without the open block (a buffer whose header text could not be built) only monotonic
  // time is known.
  std::string no_open = header_text(FileSpec{});
  no_open.erase(0, no_open.find("WALL_TIME_Z_SEC"));
  TraceHeader bare = parse_all(no_open);
  EXPECT_FALSE(TimeBase(bare).has_wall());
  EXPECT_EQ(1u, bare.warnings.size());
}

TEST(DecodeHeader, ClockPairsPlaceRecordsAndMeasureDrift) {
  FileSpec f;
  TraceHeader h = parse_all(header_text(f));
  TimeBase time(h);
  ASSERT_TRUE(time.has_wall());
  EXPECT_EQ(1704164645000000000ll + 1500, time.wall_ns(1000000001500ull));
  ASSERT_TRUE(time.has_omega());
  EXPECT_EQ(0, time.drift_ns());
  // The wall clock stepped 3 s ahead between the start and the dump.
  h.wall_time_z_sec += 3;
  EXPECT_EQ(3000000000ll, TimeBase(h).drift_ns());
  // A stream opened before any dump carries zeros in the omega pair.
  h.clock_time_z_sec = h.clock_time_z_nsec = 0;
  EXPECT_FALSE(TimeBase(h).has_omega());
}

}  // namespace

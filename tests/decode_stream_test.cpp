// Pipe streams decoded incrementally: header and records split at every possible point, each
// record passed on as soon as its last word is there, a record that crossed the end of the
// buffer arriving contiguous, and streams that end early or are not streams at all.
#include <gtest/gtest.h>

#include "decode_test_support.h"
#include "quarry_decode/error.h"
#include "quarry_decode/stream_reader.h"

using namespace quarry_decode;
using namespace decode_test;

namespace {

constexpr uint64_t kT0 = 1000500000000ull;

struct StreamCase {
  std::string bytes;
  std::vector<size_t> record_ends;  // byte offset just after each record
  std::vector<std::vector<Arg>> args;
};

// A header as the pipe writes it (omega pair still zero: no dump yet, and a THREAD entry cut at
// 63 characters right before the empty line), then records one after the other.
StreamCase make_stream() {
  FileSpec spec;
  spec.dump_time = 0;
  spec.threads = {"THREAD main 1\n", ("THREAD " + std::string(70, 'w')).substr(0, 63)};
  StreamCase c;
  c.bytes = header_text(spec);
  const std::vector<std::vector<Arg>> calls = {
      {d(1), s("first")},
      {d(0xFFFFFFFFu), s("")},
      // In the buffer this record's string ran over the end; the pipe sends it contiguous.
      {d(3), s(std::string(57, 'x') + "\xff\xff\xff")},
      {d(4), s("abc")},
  };
  for (size_t i = 0; i < calls.size(); ++i) {
    c.bytes += word_bytes(encode(0, kT0 + i, 1, calls[i]));
    c.record_ends.push_back(c.bytes.size());
    c.args.push_back(calls[i]);
  }
  return c;
}

class DecodeStream : public ::testing::Test {
 protected:
  void SetUp() override {
    quarry_test::write_file(quarry_test::base_dir() + "t.dec", "0 rec ds n text\n");
  }
  DecodeFileCache cache_{{quarry_test::base_dir()}};
};

TEST_F(DecodeStream, EveryChunkingGivesTheSameRecordsAsSoonAsTheyAreComplete) {
  const StreamCase c = make_stream();
  for (size_t chunk = 1; chunk <= 9; ++chunk) {
    Collector collector;
    int headers = 0;
    StreamDecoder decoder("pipe", cache_, collector, [&](SourceInfo& source) {
      ++headers;
      EXPECT_TRUE(source.is_stream);
      EXPECT_FALSE(source.time.has_omega());
    });
    for (size_t at = 0; at < c.bytes.size(); at += chunk) {
      const size_t n = std::min(chunk, c.bytes.size() - at);
      decoder.feed(c.bytes.data() + at, n);
      // Records whose last byte has arrived are out; none before.
      size_t complete = 0;
      while (complete < c.record_ends.size() && c.record_ends[complete] <= at + n) ++complete;
      ASSERT_EQ(complete, collector.records.size()) << "chunk " << chunk << " at " << at + n;
    }
    decoder.finish();
    ASSERT_EQ(1, headers);
    ASSERT_EQ(c.args.size(), collector.records.size());
    for (size_t i = 0; i < c.args.size(); ++i) {
      EXPECT_EQ(kT0 + i, collector.records[i].timestamp);
      ASSERT_EQ(2u, collector.records[i].args.size());
      EXPECT_EQ(c.args[i][0].number, collector.records[i].args[0].number);
      EXPECT_EQ(c.args[i][1].text, collector.records[i].args[1].text);
    }
    const SourceInfo& source = *decoder.source();
    EXPECT_EQ(0u, source.stats.skipped_words);
    EXPECT_EQ(std::string(56, 'w'), source.header.threads[1].name);
    EXPECT_TRUE(decoder.problems().empty());
  }
}

// Without a signature a record's end is the next header word, so it waits for that (or for
// the end of the stream).
TEST_F(DecodeStream, RawRecordsWaitForTheNextHeader) {
  FileSpec spec;
  spec.refs = {"QUARRY_DECODE_REF app \"none.dec\" 0.9.1"};
  std::string head = header_text(spec);
  std::string first = word_bytes(encode(1, kT0, 1, {d(5)}));
  std::string second = word_bytes(encode(2, kT0 + 1, 1, {d(6), d(7)}));
  Collector collector;
  StreamDecoder decoder("pipe", cache_, collector);
  decoder.feed(head.data(), head.size());
  decoder.feed(first.data(), first.size());
  EXPECT_EQ(0u, collector.records.size());
  decoder.feed(second.data(), 4);
  ASSERT_EQ(1u, collector.records.size());
  EXPECT_TRUE(collector.records[0].raw);
  decoder.feed(second.data() + 4, second.size() - 4);
  decoder.finish();
  ASSERT_EQ(2u, collector.records.size());
  EXPECT_EQ(2u, collector.records[1].args.size());
}

TEST_F(DecodeStream, StreamThatEndsInsideARecordOrWord) {
  StreamCase c = make_stream();
  const size_t cut = c.record_ends[2] - 6;  // inside the third record, not on a word boundary
  Collector collector;
  StreamDecoder decoder("pipe", cache_, collector);
  decoder.feed(c.bytes.data(), cut);
  decoder.finish();
  EXPECT_EQ(2u, collector.records.size());
  EXPECT_EQ(1u, decoder.source()->stats.rejected);
  ASSERT_EQ(1u, decoder.problems().size());
  EXPECT_EQ("the stream ended inside a word (2 stray bytes)", decoder.problems()[0]);
}

TEST_F(DecodeStream, NotAStream) {
  Collector collector;
  {
    // Binary data is refused as soon as it arrives, not after a long wait for a line end.
    StreamDecoder decoder("pipe", cache_, collector);
    const std::string binary("\xff\x00\x00\xff\x01\x02", 6);
    EXPECT_THROW(decoder.feed(binary.data(), binary.size()), DecodeError);
  }
  {
    StreamDecoder decoder("pipe", cache_, collector);
    const std::string partial = "VERSION 1.0\nWALL_TIME_SEC 1\n";
    decoder.feed(partial.data(), partial.size());
    try {
      decoder.finish();
      FAIL() << "no error";
    } catch (const DecodeError& e) {
      EXPECT_STREQ("the stream ended inside its header", e.what());
    }
  }
  {
    StreamDecoder decoder("pipe", cache_, collector);
    EXPECT_THROW(decoder.finish(), DecodeError);  // empty
  }
  EXPECT_TRUE(collector.records.empty());
}

// Damage in the middle of a stream (a record lost in part to a full pipe) costs only itself.
TEST_F(DecodeStream, ResynchronisesAfterAPartialRecord) {
  StreamCase c = make_stream();
  std::string bytes = c.bytes.substr(0, c.record_ends[0]);
  bytes += c.bytes.substr(c.record_ends[1] - 8, 8);  // the tail of the second record only
  bytes += c.bytes.substr(c.record_ends[1]);
  Collector collector;
  StreamDecoder decoder("pipe", cache_, collector);
  for (size_t at = 0; at < bytes.size(); at += 5)
    decoder.feed(bytes.data() + at, std::min<size_t>(5, bytes.size() - at));
  decoder.finish();
  ASSERT_EQ(3u, collector.records.size());
  EXPECT_EQ(3u, collector.records[1].args[0].number);
  EXPECT_EQ(2u, decoder.source()->stats.skipped_words);
  EXPECT_TRUE(decoder.source()->stats.damage);
}

}  // namespace

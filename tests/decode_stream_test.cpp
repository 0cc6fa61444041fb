// Pipe streams decoded incrementally: header and records split at every possible point, each
// record passed on as soon as its last word is there, a record that crossed the end of the
// buffer arriving contiguous, and streams that are damaged, end early or are not streams.
#include <gtest/gtest.h>

#include <memory>

#include "decode_test_support.h"
#include "quarry_decode/error.h"
#include "quarry_decode/stream_reader.h"

using namespace quarry_decode;
using namespace decode_test;

namespace {

// The records of the test stream.
const std::vector<std::vector<Arg>> kCalls = {
    {d(1), s("first")},
    {d(0xFFFFFFFFu), s("")},
    // In the buffer this record's string ran over the end; the pipe sends it contiguous.
    {d(3), s(std::string(57, 'x') + "\xff\xff\xff")},
    {d(4), s("abc")},
};

class DecodeStream : public ::testing::Test {
 protected:
  // A header as the pipe writes it (omega pair still zero: no dump yet; a THREAD entry cut at
  // 63 characters right before the empty line), then the records one after the other.
  void SetUp() override {
    put("t.dec", "0 rec ds n text\n");
    HeaderItems items;
    items.dump_sec = 0;
    items.threads = {"THREAD main 1\n", ("THREAD " + std::string(70, 'w')).substr(0, 63)};
    bytes_ = header_text(items);
    for (size_t i = 0; i < kCalls.size(); ++i) {
      bytes_ += word_bytes(encode(0, kT0 + i, 1, kCalls[i]));
      ends_.push_back(bytes_.size());
    }
  }
  // Feeds `bytes` to a new decoder in pieces of `chunk` bytes, then ends the stream.
  void feed_all(const std::string& bytes, size_t chunk) {
    decoder_ = std::make_unique<StreamDecoder>("pipe", cache_, collector_);
    for (size_t at = 0; at < bytes.size(); at += chunk)
      decoder_->feed(bytes.data() + at, std::min(chunk, bytes.size() - at));
    decoder_->finish();
  }
  DecodeFileCache cache_{{quarry_test::base_dir()}};
  Collector collector_;
  std::unique_ptr<StreamDecoder> decoder_;
  std::string bytes_;
  std::vector<size_t> ends_;  // byte offset just after each record
};

TEST_F(DecodeStream, EveryChunkingGivesTheSameRecordsAsSoonAsTheyAreComplete) {
  for (size_t chunk = 1; chunk <= 9; ++chunk) {
    Collector collector;
    int headers = 0;
    StreamDecoder decoder("pipe", cache_, collector, [&](SourceInfo& source) {
      ++headers;
      EXPECT_TRUE(source.is_stream);
      EXPECT_FALSE(source.time.has_omega());
    });
    for (size_t at = 0; at < bytes_.size(); at += chunk) {
      const size_t n = std::min(chunk, bytes_.size() - at);
      decoder.feed(bytes_.data() + at, n);
      // Records whose last byte has arrived are out; none before.
      size_t complete = 0;
      while (complete < ends_.size() && ends_[complete] <= at + n) ++complete;
      ASSERT_EQ(complete, collector.records.size()) << "chunk " << chunk << " at " << at + n;
    }
    decoder.finish();
    ASSERT_EQ(1, headers);
    ASSERT_EQ(kCalls.size(), collector.records.size());
    for (size_t i = 0; i < kCalls.size(); ++i) {
      EXPECT_EQ(kT0 + i, collector.records[i].timestamp);
      EXPECT_EQ(kCalls[i], collector.records[i].args);
    }
    EXPECT_EQ(0u, decoder.source()->stats.skipped_words);
    EXPECT_EQ(std::string(56, 'w'), decoder.source()->header.threads[1].name);
    EXPECT_TRUE(decoder.problems().empty());
  }
}

// Without a signature a record's end is the next header word, so it waits for that (or for
// the end of the stream).
TEST_F(DecodeStream, RawRecordsWaitForTheNextHeader) {
  HeaderItems items;
  items.refs = {"QUARRY_DECODE_REF app \"none.dec\" 0.9.1"};
  const std::string first = header_text(items) + word_bytes(encode(1, kT0, 1, {d(5)}));
  const std::string second = word_bytes(encode(2, kT0 + 1, 1, {d(6), d(7)}));
  StreamDecoder decoder("pipe", cache_, collector_);
  decoder.feed(first.data(), first.size());
  EXPECT_EQ(0u, collector_.records.size());
  decoder.feed(second.data(), 4);
  ASSERT_EQ(1u, collector_.records.size());
  EXPECT_TRUE(collector_.records[0].raw);
  decoder.feed(second.data() + 4, second.size() - 4);
  decoder.finish();
  ASSERT_EQ(2u, collector_.records.size());
  EXPECT_EQ(2u, collector_.records[1].args.size());
}

TEST_F(DecodeStream, DamagedShortAndConcatenatedStreams) {
  // A record lost in part (to a full pipe) in the middle costs only itself.
  feed_all(bytes_.substr(0, ends_[0]) + bytes_.substr(ends_[1] - 8, 8) + bytes_.substr(ends_[1]),
           5);
  ASSERT_EQ(3u, collector_.records.size());
  EXPECT_EQ(3u, collector_.records[1].args[0].number);
  EXPECT_EQ(2u, decoder_->source()->stats.skipped_words);
  EXPECT_TRUE(decoder_->source()->stats.damage);

  // The stream ends inside the third record, not on a word boundary.
  collector_.records.clear();
  feed_all(bytes_.substr(0, ends_[2] - 7), 1000);
  EXPECT_EQ(2u, collector_.records.size());
  EXPECT_EQ(1u, decoder_->source()->stats.rejected);
  EXPECT_EQ(std::vector<std::string>{"the stream ended inside a word (1 stray byte)"},
            decoder_->problems());

  // Two saved streams one after the other: the second header starts a second input, nothing
  // is damage.
  collector_.records.clear();
  feed_all(bytes_ + bytes_, 3);
  ASSERT_EQ(2 * kCalls.size(), collector_.records.size());
  EXPECT_EQ(kCalls.back(), collector_.records.back().args);
  std::vector<std::unique_ptr<SourceInfo>> sources = decoder_->take_sources();
  ASSERT_EQ(2u, sources.size());
  for (const auto& source : sources) {
    EXPECT_EQ(kCalls.size(), source->stats.records);
    EXPECT_EQ(0u, source->stats.skipped_words);
  }
}

// Binary data is refused as soon as it arrives, not after a long wait for a line end.
TEST_F(DecodeStream, NotAStream) {
  StreamDecoder binary("pipe", cache_, collector_);
  EXPECT_THROW(binary.feed("\xff\x00\x00\xff\x01\x02", 6), DecodeError);
  EXPECT_THROW(feed_all("", 1), DecodeError);
  try {
    feed_all("VERSION 1.0\nWALL_TIME_SEC 1\n", 3);
    ADD_FAILURE() << "no error";
  } catch (const DecodeError& e) {
    EXPECT_STREQ("the stream ended inside its header", e.what());
  }
}

}  // namespace

// Pipe streams decoded incrementally: split at every point, each record passed on once its last
// word is there; streams that are damaged, end early, are concatenated or are not streams.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

#include "decode_test_support.h"
#include "quarry_decode/error.h"
#include "quarry_decode/stream_reader.h"

using namespace quarry_decode;
using namespace decode_test;

namespace {

const std::vector<std::vector<Arg>> kCalls = {
    {d(1), s("first")},
    {d(0xFFFFFFFFu), s("")},
    {d(3), s(std::string(57, 'x') + "\xff\xff\xff")},  // ran over the buffer's end, sent whole
    {d(4), s("abc")},
};

class DecodeStream : public ::testing::Test {
 protected:
  // A header as the pipe writes it (no dump yet, a cut THREAD entry last), then the records.
  void SetUp() override {
    put("t.dec", "0 rec ds n text\n");
    HeaderItems items;
    items.dump_sec = 0;
    items.threads = {"THREAD main 1\n", ("THREAD " + std::string(70, 'w')).substr(0, 63)};
    header_ = header_text(items);
    bytes_ = header_;
    for (size_t i = 0; i < kCalls.size(); ++i) {
      bytes_ += word_bytes(encode(0, kT0 + i, 1, kCalls[i]));
      ends_.push_back(bytes_.size());
    }
  }
  // Feeds `bytes` to a new decoder in `chunk`-byte pieces, telling `fed` the count fed so far.
  void feed_all(const std::string& bytes, size_t chunk, std::function<void(size_t)> fed = {}) {
    collector_.records.clear();
    decoder_ = std::make_unique<StreamDecoder>("pipe", cache_, collector_, [&](SourceInfo& s) {
      ++headers_;
      EXPECT_TRUE(s.is_stream && !s.time.has_omega());
    });
    for (size_t at = 0; at < bytes.size(); at += chunk) {
      decoder_->feed(bytes.data() + at, std::min(chunk, bytes.size() - at));
      if (fed) fed(std::min(at + chunk, bytes.size()));
    }
    decoder_->finish();
  }
  std::vector<uint64_t> first_args() const {
    std::vector<uint64_t> numbers;
    for (const Seen& record : collector_.records) numbers.push_back(record.args[0].number);
    return numbers;
  }
  DecodeFileCache cache_{{quarry_test::base_dir()}};
  Collector collector_;
  std::unique_ptr<StreamDecoder> decoder_;
  int headers_ = 0;
  std::string header_, bytes_;
  std::vector<size_t> ends_;  // byte offset just after each record
};

TEST_F(DecodeStream, EveryChunkingGivesTheSameRecordsAsSoonAsTheyAreComplete) {
  for (size_t chunk = 1; chunk <= 9; ++chunk) {
    feed_all(bytes_, chunk, [&](size_t fed) {
      const auto complete =
          std::count_if(ends_.begin(), ends_.end(), [&](size_t end) { return end <= fed; });
      ASSERT_EQ(static_cast<size_t>(complete), collector_.records.size()) << chunk << " " << fed;
    });
    ASSERT_EQ(kCalls.size(), collector_.records.size());
    for (size_t i = 0; i < kCalls.size(); ++i) {
      EXPECT_EQ(kT0 + i, collector_.records[i].timestamp);
      EXPECT_EQ(kCalls[i], collector_.records[i].args);
    }
    EXPECT_TRUE(decoder_->problems().empty());
  }
  EXPECT_EQ(9, headers_);
}

// Without a signature a record's end is the next header word (or the end of the stream).
TEST_F(DecodeStream, RawRecordsWaitForTheNextHeader) {
  const std::string first = header_ + word_bytes(encode(1, kT0, 1, {d(5)}));
  feed_all(first + word_bytes(encode(2, kT0 + 1, 1, {d(6), d(7)})), 4, [&](size_t fed) {
    EXPECT_EQ(fed > first.size() ? 1u : 0u, collector_.records.size()) << fed;
  });
  ASSERT_EQ(2u, collector_.records.size());
  EXPECT_TRUE(collector_.records[0].raw);
  EXPECT_EQ(2u, collector_.records[1].args.size());
}

TEST_F(DecodeStream, DamagedShortAndConcatenatedStreams) {
  // A record lost in part (to a full pipe) in the middle costs only itself.
  feed_all(bytes_.substr(0, ends_[0]) + bytes_.substr(ends_[1] - 8), 5);
  EXPECT_EQ((std::vector<uint64_t>{1, 3, 4}), first_args());
  EXPECT_EQ(2u, decoder_->source()->stats.skipped_words);
  EXPECT_TRUE(decoder_->source()->stats.damage);

  // The stream ends inside the third record, not on a word boundary.
  feed_all(bytes_.substr(0, ends_[2] - 7), 1000);
  EXPECT_EQ((std::vector<uint64_t>{1, 0xFFFFFFFFu}), first_args());
  EXPECT_EQ(1u, decoder_->source()->stats.rejected);
  EXPECT_EQ(std::vector<std::string>{"the stream ended inside a word (1 stray byte)"},
            decoder_->problems());

  // Two saved streams one after the other: two inputs, no damage.
  feed_all(bytes_ + bytes_, 3);
  EXPECT_EQ((std::vector<uint64_t>{1, 0xFFFFFFFFu, 3, 4, 1, 0xFFFFFFFFu, 3, 4}), first_args());
  EXPECT_EQ(4, headers_);
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

// The decoder's inputs: decode files (the documented format, errors with file and line, where
// files are found), trace headers (every key, THREAD lines cut at 63 characters, odd headers) and
// pipe streams decoded incrementally (any split, damaged, short, concatenated or not a stream).
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <tuple>

#include "decode_test_support.h"
#include "quarry_decode/decode_file.h"
#include "quarry_decode/error.h"
#include "quarry_decode/stream_reader.h"
#include "quarry_decode/thread_names.h"
#include "quarry_decode/time_base.h"
#include "quarry_decode/trace_header.h"

using namespace quarry_decode;
using namespace decode_test;

namespace {

// A trace point in one line: index, name, signature, numeric words, arguments, span, message.
std::string describe(const TracePoint& p) {
  const char kFormat[] = "dux";
  std::string text = std::to_string(p.index) + " " + p.name + " " + p.signature + " " +
                     std::to_string(p.numeric_words);
  for (const ArgSpec& a : p.args) {
    text += " " + a.name + ":" + a.type;
    if (a.type != 's') text += kFormat[static_cast<int>(a.format)];
  }
  if (p.span_role != TracePoint::SpanRole::kNone)
    text += (p.span_role == TracePoint::SpanRole::kBegin ? " @begin:" : " @end:") + p.span;
  if (p.has_message) text += " =";
  for (const MessagePart& m : p.message)
    text += m.arg < 0
                ? " '" + m.literal + "'"
                : " {" + std::to_string(m.arg) + ":" + kFormat[static_cast<int>(m.format)] + "}";
  return text;
}

// Placeholder formats beat argument formats, {} takes the next argument, {{ is literal.
TEST(DecodeFile, DocumentedExampleParses) {
  DecodeFile f = parse_decode_file(
      "# net.dec: requests and replies of the net handle.\n"
      "0        request   ds         id path                = request {} for {path}\n"
      "\n"
      "   # an indented comment\n"
      "1\treply\tdD\tstatus elapsed_ns:u\t= reply {status} after {elapsed_ns} ns  \r\n"
      "7 idle - = nothing to do # not a comment here\n"
      "8 mixed sDd\n"
      "3 p dDd a b:x c = {{{:x}}} {b:d} {} {a:u} {c}\n"
      "4 handle_begin d id @begin:handle = handling {id}\n"
      "5 handle_end - @end:req.v-2_x\n",
      "net.dec");
  ASSERT_TRUE(f.errors.empty()) << f.errors[0];
  std::vector<std::string> points;
  for (const TracePoint& p : f.points) points.push_back(describe(p));
  EXPECT_EQ((std::vector<std::string>{
                "0 request ds 1 id:dd path:s = 'request ' {0:d} ' for ' {1:d}",
                "1 reply dD 3 status:dd elapsed_ns:Du = 'reply ' {0:d} ' after ' {1:u} ' ns'",
                "7 idle  0 = 'nothing to do # not a comment here'",
                "8 mixed sDd 3 arg0:s arg1:Dd arg2:dd",
                "3 p dDd 4 a:dd b:Dx c:dd = '{' {0:x} '} ' {1:d} ' ' {1:x} ' ' {0:u} ' ' {2:d}",
                "4 handle_begin d 1 id:dd @begin:handle = 'handling ' {0:d}",
                "5 handle_end  0 @end:req.v-2_x",
            }),
            points);
  EXPECT_EQ(f.points[2].name, f.find(7)->name);
  EXPECT_EQ(nullptr, f.find(2));
}

// Every malformed line is reported with file and line, the others are still used.
TEST(DecodeFile, ErrorsNameFileAndLine) {
  const std::vector<std::pair<std::string, std::string>> lines = {
      {"0 ok d", ""},
      {"1 bad dq", "signature \"dq\": 'q' is not d, D or s"},
      {"2 toomany dd a b c", "the signature has 2 arguments but 3 names are given"},
      {"x notanumber d", "index \"x\" is not a number from 0 to 65535"},
      {"3 msg d v = {count}", "message placeholder {count}: no argument is called count"},
      {"0 again d", "index 0 is already described on line 1"},
      {"4 brace d = {", "message: '{' without '}'"},
      {"5 lone d = }", "message: a lone '}'"},
      {"6 fmt s t:x", "argument \"t:x\" is a string; it takes no format"},
      {"7 two", "expected <index> <name> <signature>"},
      {"8 dup dd v v", "argument name \"v\" is used twice"},
      {"9 big " + std::string(15, 'D'), "signature \"DDDDDDDDDDDDDDD\" has 30 numeric words"},
      {"10 long " + std::string(33, 's'),
       "signature \"" + std::string(33, 's') + "\" is longer than 32"},
      {"11 nothing d =   ", "nothing follows '='"},
      {"12 na/me d", "name \"na/me\""},
      {"65536 range d", "index \"65536\""},
      {"13 extra d {} = {} {}", "argument name \"{}\""},
      {"14 sfmt s = {:x}", "message placeholder {:x}: a string takes no format"},
      {"15 over d = {} {}", "message placeholder {}: there are only 1 arguments"},
      {"16 mark d v @start:x", "marker \"@start:x\" is not @begin:<span> or @end:<span>"},
      {"17 mark d v @end:a/b", "span name \"a/b\""},
      {"18 mark - @begin:", "span name \"\""},
  };
  std::string text;
  std::vector<std::string> expected;
  for (size_t i = 0; i < lines.size(); ++i) {
    text += lines[i].first + "\n";
    if (!lines[i].second.empty())
      expected.push_back("/dec/io.dec:" + std::to_string(i + 1) + ": " + lines[i].second);
  }
  DecodeFile f = parse_decode_file(text, "/dec/io.dec");
  ASSERT_EQ(expected.size(), f.errors.size());
  for (size_t i = 0; i < expected.size(); ++i)
    EXPECT_EQ(0u, f.errors[i].find(expected[i])) << f.errors[i];
  ASSERT_EQ(1u, f.points.size());
  EXPECT_EQ("ok", f.find(0)->name);
}

// Command-line directories, then QUARRY_DEC_PATH; each name loaded once, a missing one said once.
TEST(DecodeFile, SearchPathAndCache) {
  const std::string base = quarry_test::base_dir();
  const std::string first = quarry_test::make_dir("first"),
                    second = quarry_test::make_dir("second");
  quarry_test::write_file(second + "a.dec", "0 from_second d\n");
  quarry_test::write_file(base + "a.dec", "0 from_env d\n");
  quarry_test::write_file(base + "b.dec", "0 bad dx\n");
  std::vector<std::string> path = decode_search_path({first.substr(0, first.size() - 1), second});
  EXPECT_EQ((std::vector<std::string>{first, second, base}), path);  // a trailing '/' is added

  DecodeFileCache cache(path);
  auto a = cache.get("a.dec");
  ASSERT_TRUE(a);
  EXPECT_EQ("from_second", a->find(0)->name);
  EXPECT_EQ(a.get(), cache.get("a.dec").get());
  EXPECT_FALSE(cache.get("missing.dec") || cache.get("missing.dec") || cache.get(first));
  const std::string raw = "; its records are shown raw";
  EXPECT_EQ((std::vector<std::string>{"decode file \"missing.dec\" not found in " + first + ", " +
                                          second + ", " + base + raw,
                                      "decode file \"" + first + "\" not found" + raw}),
            cache.diagnostics());
  EXPECT_FALSE(cache.had_errors());
  auto b = cache.get(base + "b.dec");  // an absolute name is used as it is
  ASSERT_TRUE(b && b->points.empty());
  EXPECT_TRUE(cache.had_errors());
  EXPECT_EQ(base + "b.dec:1: signature \"dx\": 'x' is not d, D or s (use - for no arguments)",
            cache.diagnostics().back());
}

TraceHeader parse_all(const std::string& bytes) {
  HeaderExtent extent = HeaderScanner().scan(bytes + "DATA");
  EXPECT_TRUE(extent.complete);
  EXPECT_EQ(bytes.size(), extent.data_offset);
  return parse_trace_header(std::string_view(bytes).substr(0, extent.text_end));
}

TEST(DecodeHeader, EveryKeyIsRead) {
  HeaderItems f;
  // Found from the right: a quote and a space in a file name, dots and spaces in a tag, no ids.
  f.refs = {"QUARRY_DECODE_REF net \"net.dec\" 0.1.1", "QUARRY_DECODE_REF net/io \"io.dec\" 2.3.v2",
            "QUARRY_DECODE_REF a/b_1f \"x\" y.dec\" 3.4.tag with.dots",
            "QUARRY_DECODE_REF empty \"e.dec\" 5.4.1"};
  f.word_count = 0x10;
  f.entry_count = 3;
  f.wraparound_count = 0x12;
  f.extra = "SIGNALING_PID 18446744073709551615\nSIGNAL 11\nFUTURE_KEY some value\n";
  TraceHeader h = parse_all(header_text(f));
  // A value runs to the line end, spaces and all.
  EXPECT_EQ(std::make_tuple("1.0", "/usr/bin/test host", "tester", 1704164645ull, 1000ull, 7u, 4242,
                            2000ull, 1000000000000ull, 0x12u, 3u, 1024u, 0x10u, ~0ull, -1, 11),
            std::make_tuple(h.version, h.argv0, h.prog_name, h.wall_time_sec, h.clock_time_sec,
                            h.node_id, h.process_id, h.clock_time_z_sec, h.creation_time,
                            h.wraparound_count, h.entry_count, h.buffer_size, h.word_count,
                            h.min_wraparound_time, h.signaling_pid, h.signal));
  std::vector<std::string> refs;  // handle|decode file|first|last|tag
  for (const DecodeRef& r : h.decode_refs)
    refs.push_back(r.handle + "|" + r.decode_file + "|" + std::to_string(r.first_id) + "|" +
                   std::to_string(r.last_id) + "|" + r.tag);
  EXPECT_EQ((std::vector<std::string>{"net|net.dec|0|1|1", "net/io|io.dec|2|3|v2",
                                      "a/b_1f|x\" y.dec|3|4|tag with.dots", "empty|e.dec|5|4|1"}),
            refs);
  ASSERT_EQ(1u, h.unknown_items.size());
  EXPECT_EQ("FUTURE_KEY", h.unknown_items[0].first);
  EXPECT_TRUE(h.has(TraceHeader::kAlphaKeys | TraceHeader::kOmegaKeys | TraceHeader::kSignal));
  EXPECT_TRUE(h.warnings.empty());
}

// An entry cut to 63 characters has no line end: the next item, or the empty line, follows on it.
TEST(DecodeHeader, CutThreadLines) {
  const std::string long_name(50, 'n');
  std::string cut = ("THREAD " + long_name + " -1234567890\n").substr(0, 63);
  HeaderItems f;
  f.threads = {cut, "THREAD next one 5\n", "THREAD exact63_" + std::string(40, 'x') + " 123456\n",
               "THREAD later 5\n", ("THREAD " + std::string(60, 'q') + " 77\n").substr(0, 63)};
  TraceHeader h = parse_all(header_text(f));
  std::vector<std::string> threads;  // name|ID text, and whether the entry was cut
  for (const ThreadLine& t : h.threads)
    threads.push_back(t.name + "|" + t.id_text + (t.cut ? " cut" : ""));
  EXPECT_EQ((std::vector<std::string>{long_name + "|-1234 cut", "next one|5",
                                      "exact63_" + std::string(40, 'x') + "|123456", "later|5",
                                      std::string(56, 'q') + "| cut"}),
            threads);

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
  EXPECT_EQ((std::vector<std::string>{
                "header line 25: THREAD line without a thread ID: \"lone\\x1f\\x7f\"",
                "header line 26: PROG_NAME appears again; the last value is used",
                "format VERSION 1.3 is newer than 1.0; decoding as 1.0"}),
            h.warnings);
  EXPECT_EQ("again", h.prog_name);

  // Without the open block (its header text could not be built) only monotonic time is known.
  std::string no_open = header_text(HeaderItems{});
  no_open.erase(0, no_open.find("WALL_TIME_Z_SEC"));
  TraceHeader bare = parse_trace_header(no_open);
  EXPECT_FALSE(TimeBase(bare).has_wall());
  EXPECT_EQ(1u, bare.warnings.size());
}

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

TEST_F(DecodeStream, RawDamagedShortConcatenatedAndNotStreams) {
  // Without a signature a record's end is the next header word (or the end of the stream).
  const std::string first = header_ + word_bytes(encode(1, kT0, 1, {d(5)}));
  feed_all(first + word_bytes(encode(2, kT0 + 1, 1, {d(6), d(7)})), 4, [&](size_t fed) {
    EXPECT_EQ(fed > first.size() ? 1u : 0u, collector_.records.size()) << fed;
  });
  ASSERT_EQ(2u, collector_.records.size());
  EXPECT_TRUE(collector_.records[0].raw);
  EXPECT_EQ(2u, collector_.records[1].args.size());

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
  EXPECT_EQ(5, headers_);

  // Binary data is refused as soon as it arrives, not after a long wait for a line end.
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

// Decode files: the documented format, errors with file and line, and where files are found.
#include <gtest/gtest.h>

#include "quarry_decode/decode_file.h"
#include "test_support.h"

using namespace quarry_decode;

namespace {

TEST(DecodeFile, DocumentedExampleParses) {
  const std::string text =
      "# net.dec: requests and replies of the net handle.\n"
      "# index  name      signature  arguments              message\n"
      "0        request   ds         id path                = request {} for {path}\n"
      "\n"
      "   # an indented comment\n"
      "1\treply\tdD\tstatus elapsed_ns:u\t= reply {status} after {elapsed_ns} ns  \r\n"
      "7 idle - = nothing to do # not a comment here\n"
      "8 mixed sDd\n";
  DecodeFile f = parse_decode_file(text, "net.dec");
  ASSERT_TRUE(f.errors.empty()) << f.errors[0];
  ASSERT_EQ(4u, f.points.size());

  const TracePoint* request = f.find(0);
  ASSERT_NE(nullptr, request);
  EXPECT_EQ("request", request->name);
  EXPECT_EQ("ds", request->signature);
  EXPECT_EQ(1u, request->numeric_words);
  ASSERT_EQ(2u, request->args.size());
  EXPECT_EQ("path", request->args[1].name);
  EXPECT_EQ('s', request->args[1].type);
  // "request ", {0}, " for ", {1}
  ASSERT_EQ(4u, request->message.size());
  EXPECT_EQ("request ", request->message[0].literal);
  EXPECT_EQ(0, request->message[1].arg);
  EXPECT_EQ(1, request->message[3].arg);

  const TracePoint* reply = f.find(1);
  ASSERT_NE(nullptr, reply);
  EXPECT_EQ(3u, reply->numeric_words);
  EXPECT_EQ(ArgFormat::kUnsigned, reply->args[1].format);
  EXPECT_EQ(" ns", reply->message.back().literal);  // trailing blanks and the CR are gone

  const TracePoint* idle = f.find(7);
  ASSERT_NE(nullptr, idle);
  EXPECT_TRUE(idle->signature.empty());
  EXPECT_EQ("nothing to do # not a comment here", idle->message[0].literal);

  const TracePoint* mixed = f.find(8);
  ASSERT_NE(nullptr, mixed);
  EXPECT_EQ("arg0", mixed->args[0].name);  // unnamed arguments
  EXPECT_EQ("arg2", mixed->args[2].name);
  EXPECT_FALSE(mixed->has_message);
  EXPECT_EQ(nullptr, f.find(2));
  EXPECT_EQ(nullptr, f.find(100000));
}

TEST(DecodeFile, PlaceholderFormatsAndBraces) {
  DecodeFile f = parse_decode_file("3 p dDd a b:x c = {{{:x}}} {b:d} {} {a:u} {c}\n", "p.dec");
  ASSERT_TRUE(f.errors.empty()) << f.errors[0];
  const auto& m = f.find(3)->message;
  ASSERT_EQ(10u, m.size());
  EXPECT_EQ("{", m[0].literal);
  EXPECT_EQ(0, m[1].arg);
  EXPECT_EQ(ArgFormat::kHex, m[1].format);
  EXPECT_EQ("} ", m[2].literal);
  EXPECT_EQ(1, m[3].arg);
  EXPECT_EQ(ArgFormat::kSigned, m[3].format);  // the placeholder's format beats b:x
  EXPECT_EQ(1, m[5].arg);                      // {} continues in order after {:x}
  EXPECT_EQ(ArgFormat::kHex, m[5].format);     // and keeps the argument's own format
  EXPECT_EQ(ArgFormat::kUnsigned, m[7].format);
}

// Every malformed line is reported with file and line, the others are still used.
TEST(DecodeFile, ErrorsNameFileAndLine) {
  const std::string text =
      "0 ok d\n"
      "1 bad dq\n"
      "2 toomany dd a b c\n"
      "x notanumber d\n"
      "3 msg d v = {count}\n"
      "0 again d\n"
      "4 brace d = {\n"
      "5 lone d = }\n"
      "6 fmt s t:x\n"
      "7 two\n"
      "8 dup dd v v\n"
      "9 big " +
      std::string(15, 'D') +
      "\n"
      "10 long " +
      std::string(33, 's') +
      "\n"
      "11 nothing d =   \n"
      "12 na/me d\n"
      "65536 range d\n"
      "13 extra d {} = {} {}\n"
      "14 sfmt s = {:x}\n"
      "15 over d = {} {}\n";
  DecodeFile f = parse_decode_file(text, "/dec/io.dec");
  const std::vector<std::string> expected = {
      "/dec/io.dec:2: signature \"dq\": 'q' is not d, D or s",
      "/dec/io.dec:3: the signature has 2 arguments but 3 names are given",
      "/dec/io.dec:4: index \"x\" is not a number from 0 to 65535",
      "/dec/io.dec:5: message placeholder {count}: no argument is called count",
      "/dec/io.dec:6: index 0 is already described on line 1",
      "/dec/io.dec:7: message: '{' without '}'",
      "/dec/io.dec:8: message: a lone '}'",
      "/dec/io.dec:9: argument \"t:x\" is a string; it takes no format",
      "/dec/io.dec:10: expected <index> <name> <signature>",
      "/dec/io.dec:11: argument name \"v\" is used twice",
      "/dec/io.dec:12: signature \"DDDDDDDDDDDDDDD\" has 30 numeric words",
      "/dec/io.dec:13: signature \"sssssssssssssssssssssssssssssssss\" is longer than 32",
      "/dec/io.dec:14: nothing follows '='",
      "/dec/io.dec:15: name \"na/me\"",
      "/dec/io.dec:16: index \"65536\"",
      "/dec/io.dec:17: argument name \"{}\"",
      "/dec/io.dec:18: message placeholder {:x}: a string takes no format",
      "/dec/io.dec:19: message placeholder {}: there are only 1 arguments",
  };
  ASSERT_EQ(expected.size(), f.errors.size());
  for (size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(0u, f.errors[i].find(expected[i])) << f.errors[i];
  }
  ASSERT_EQ(1u, f.points.size());
  EXPECT_EQ("ok", f.find(0)->name);
}

// Command-line directories come first, in order; the decode directory (QUARRY_DEC_PATH, set by
// the test support to the test's own directory) last. Each name is loaded once.
TEST(DecodeFile, SearchPathAndCache) {
  const std::string first = quarry_test::make_dir("first");
  const std::string second = quarry_test::make_dir("second");
  quarry_test::write_file(second + "a.dec", "0 from_second d\n");
  quarry_test::write_file(quarry_test::base_dir() + "a.dec", "0 from_env d\n");
  quarry_test::write_file(quarry_test::base_dir() + "b.dec", "0 bad dx\n");

  std::vector<std::string> path = decode_search_path({first.substr(0, first.size() - 1), second});
  ASSERT_EQ(3u, path.size());
  EXPECT_EQ(first, path[0]);  // a trailing '/' is added
  EXPECT_EQ(quarry_test::base_dir(), path[2]);

  DecodeFileCache cache(path);
  auto a = cache.get("a.dec");
  ASSERT_TRUE(a);
  EXPECT_EQ("from_second", a->find(0)->name);
  EXPECT_EQ(a.get(), cache.get("a.dec").get());
  EXPECT_FALSE(cache.had_errors());

  EXPECT_FALSE(cache.get("missing.dec"));
  EXPECT_FALSE(cache.get("missing.dec"));
  ASSERT_EQ(1u, cache.diagnostics().size());  // reported once
  EXPECT_NE(std::string::npos,
            cache.diagnostics()[0].find("\"missing.dec\" not found in " + first));
  EXPECT_FALSE(cache.had_errors());  // a missing file is not an error of the input

  auto b = cache.get(quarry_test::base_dir() + "b.dec");  // an absolute name is used as it is
  ASSERT_TRUE(b);
  EXPECT_TRUE(b->points.empty());
  EXPECT_TRUE(cache.had_errors());
  EXPECT_EQ(quarry_test::base_dir() +
                "b.dec:1: signature \"dx\": 'x' is not d, D or s (use - for no arguments)",
            cache.diagnostics().back());

  EXPECT_FALSE(cache.get(first));  // a directory is not a decode file
}

}  // namespace

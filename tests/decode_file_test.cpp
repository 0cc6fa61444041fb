// Decode files: the documented format, errors with file and line, and where files are found.
#include <gtest/gtest.h>

#include "quarry_decode/decode_file.h"
#include "test_support.h"

using namespace quarry_decode;

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
  for (const MessagePart& m : p.message) {
    text += m.arg < 0
                ? " '" + m.literal + "'"
                : " {" + std::to_string(m.arg) + ":" + kFormat[static_cast<int>(m.format)] + "}";
  }
  return text;
}

// A placeholder's format beats the argument's, {} continues after the last placeholder with the
// argument's own format, doubled braces are literal; trailing blanks and CR are dropped.
TEST(DecodeFile, DocumentedExampleParses) {
  const std::string text =
      "# net.dec: requests and replies of the net handle.\n"
      "0        request   ds         id path                = request {} for {path}\n"
      "\n"
      "   # an indented comment\n"
      "1\treply\tdD\tstatus elapsed_ns:u\t= reply {status} after {elapsed_ns} ns  \r\n"
      "7 idle - = nothing to do # not a comment here\n"
      "8 mixed sDd\n"
      "3 p dDd a b:x c = {{{:x}}} {b:d} {} {a:u} {c}\n"
      "4 handle_begin d id @begin:handle = handling {id}\n"
      "5 handle_end - @end:req.v-2_x\n";
  DecodeFile f = parse_decode_file(text, "net.dec");
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

// Command-line directories first, QUARRY_DEC_PATH (the test's directory) last; each name is loaded
// once, and a missing one is said once and is no error of the input.
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

}  // namespace

// What quarry-decode shows: the text lines, JSON lines and Chrome Trace Event JSON of one sample
// file compared whole, the summary, and spans in every output form.
#include <gtest/gtest.h>

#include "decode_test_support.h"

using namespace decode_test;

namespace {

// Each of `parts` occurs in `text`, in this order.
void expect_in_order(const std::string& text, const std::vector<std::string>& parts) {
  size_t at = 0;
  for (const std::string& part : parts) {
    at = text.find(part, at);
    ASSERT_NE(std::string::npos, at) << part << "\nnot in order in\n" << text;
    at += part.size();
  }
}

// The lines, each ended by a newline.
std::string lines(const std::vector<std::string>& each) {
  std::string text;
  for (const std::string& line : each) text += line + "\n";
  return text;
}

// One file with a message, an argument list with every kind of value (the string holds a
// quote, a backslash, a control byte, a valid euro sign, an encoded surrogate and an invalid
// byte), a trace point without arguments, and a record without a decode file entry.
std::string sample_file() {
  put("t.dec",
      "0 request ds id path = request {} for {path}\n"
      "1 values dDsd neg big text flags:x\n"
      "2 idle -\n");
  HeaderItems items;
  items.threads = {"THREAD main 1\n", "THREAD worker \"2\" 2\n"};
  Ring ring(1024);
  ring.add(encode(0, kT0, 1, {d(7), s("/a\nb")}));
  ring.add(encode(1, kT0 + 1234, 2,
                  {d(0xFFFFFFFFu), D(0x8000000000000000ull),
                   s("q\"\\\x01\xe2\x82\xac\xed\xa0\x80\xff"), d(255)}));
  ring.add(encode(2, kT0 + 1000, 3, {}));
  ring.add(encode(5, kT0 + 1000000002, 1, {d(9), s("xy")}));
  return put("sample.trc", ring.file(items));
}

TEST(DecodeOutput, EveryFormatOfTheSampleFile) {
  const struct {
    std::vector<std::string> args;
    std::string out;
  } cases[] = {
      {{"--utc"},
       lines({"[2024-01-02 03:04:05.500000000] (+?.\?\?\?\?\?\?\?\?\?) main app:request: request 7 "
              "for /a\\nb",
              "[2024-01-02 03:04:05.500001234] (+0.000001234) worker \"2\" app:values: { neg = -1, "
              "big = -9223372036854775808, text = \"q\\\"\\\\\\x01\xe2\x82\xac\xed\xa0\x80\xff\", "
              "flags = 0xff }",
              "[2024-01-02 03:04:05.500001000] (-0.000000234) 3 app:idle",
              "[2024-01-02 03:04:06.500000002] (+0.999999002) main app:#5: { words = [ "
              "0x00000009, 0x00007978 ] }"})},
      {{"--format=json"},
       lines(
           {R"({"time":"2024-01-02T03:04:05.500000000Z","time_ns":1704164645500000000,)"
            R"("mono_ns":1000500000000,"pid":4242,"tid":1,"thread":"main","handle":"app",)"
            R"("index":0,"point":"request","id":0,"message":"request 7 for /a\nb",)"
            R"("args":{"id":7,"path":"/a\nb"}})",
            R"({"time":"2024-01-02T03:04:05.500001234Z","time_ns":1704164645500001234,)"
            R"("mono_ns":1000500001234,"pid":4242,"tid":2,"thread":"worker \"2\"","handle":"app",)"
            R"("index":1,"point":"values","id":1,"args":{"neg":-1,"big":-9223372036854775808,)"
            R"("text":"q\"\\\u0001€\u00ed\u00a0\u0080\u00ff","flags":255}})",
            R"({"time":"2024-01-02T03:04:05.500001000Z","time_ns":1704164645500001000,)"
            R"("mono_ns":1000500001000,"pid":4242,"tid":3,"thread":null,"handle":"app","index":2,)"
            R"("point":"idle","id":2,"args":{}})",
            R"({"time":"2024-01-02T03:04:06.500000002Z","time_ns":1704164646500000002,)"
            R"("mono_ns":1001500000002,"pid":4242,"tid":1,"thread":"main","handle":"app",)"
            R"("index":5,"point":null,"id":5,"words":[9,31096]})"})},
      {{"-f", "chrome"},
       lines(
           {"[", R"({"name":"process_name","ph":"M","pid":4242,"tid":0,"args":{"name":"tester"}},)",
            R"({"name":"thread_name","ph":"M","pid":4242,"tid":1,"args":{"name":"main"}},)",
            R"({"name":"app:request","cat":"app","ph":"i","s":"t","ts":1000500000.000,"pid":4242,)"
            R"("tid":1,"args":{"message":"request 7 for /a\nb","id":7,"path":"/a\nb"}},)",
            R"({"name":"thread_name","ph":"M","pid":4242,"tid":2,"args":{"name":"worker \"2\""}},)",
            R"({"name":"app:values","cat":"app","ph":"i","s":"t","ts":1000500001.234,"pid":4242,)"
            R"("tid":2,"args":{"neg":-1,"big":-9223372036854775808,)"
            R"("text":"q\"\\\u0001€\u00ed\u00a0\u0080\u00ff","flags":255}},)",
            R"({"name":"app:idle","cat":"app","ph":"i","s":"t","ts":1000500001.000,"pid":4242,)"
            R"("tid":3,"args":{}},)",
            R"({"name":"app:#5","cat":"app","ph":"i","s":"t","ts":1001500000.002,"pid":4242,)"
            R"("tid":1,"args":{"words":[9,31096]}})",
            "]"})},
  };
  for (const auto& c : cases) {
    std::vector<std::string> args = c.args;
    args.push_back(sample_file());
    CliResult r = run(args);
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ("", r.err);
    EXPECT_EQ(c.out, r.out) << args[0];
  }
}

TEST(DecodeOutput, Summary) {
  CliResult r = run({"--summary", "--utc", sample_file()});
  EXPECT_EQ(0, r.status) << r.err;
  expect_in_order(
      r.out,
      {"  process: tester, pid 4242, node 0x7\n",
       "  wall clock against monotonic clock: +0.000000000 s between start and dump\n",
       "  buffer: 1024 words (4096 bytes)\n",
       "  handle: app ids 0..9, tag 1, decode file \"t.dec\"", "  thread: worker \"2\" 2\n",
       "  records decoded: 4 (1 raw, without decode information)\n",
       "  records skipped: 0 could not be decoded\n",
       "  time span: 2024-01-02 03:04:05.500000000 to 2024-01-02 03:04:06.500000002 (1.000000002 "
       "s)\n"});
  EXPECT_EQ(std::string::npos, r.out.find("[2024")) << "no records in a summary";

  // Header items that change the summary: the termination reason (a fault signal's
  // SIGNALING_PID is the fault address's low 32 bits, printed sign-extended, any other
  // signal's the sender), a forked child's parent, a wall clock set back before the dump.
  const std::vector<std::pair<std::string, std::string>> items = {
      {"SIGNALING_PID 18446744073150512879\nSIGNAL 11\n",
       "  terminated by: signal 11 (SIGSEGV), fault address 0xdeadbeef (its low 32 bits)\n"},
      {"SIGNALING_PID 42\nSIGNAL 15\nPARENT_PID 77\n",
       "  terminated by: signal 15 (SIGTERM) from pid 42\n  parent process: pid 77\n"},
      {"WALL_TIME_Z_SEC 6593810a\n", "against monotonic clock: -3.000000000 s between"},
  };
  for (const auto& item : items) {
    HeaderItems header;
    header.extra = item.first;
    CliResult other = run({"--summary", put("other.trc", header_text(header))});
    EXPECT_NE(std::string::npos, other.out.find(item.second)) << other.out;
  }
}

// Spans on two threads: thread 1 has an end whose begin was lost, a span with another nested
// in it, and a begin still open at the end; thread 2 a span of the same name nested in its own.
TEST(DecodeOutput, Spans) {
  put("t.dec",
      "0 req_begin d id @begin:req = begin {id}\n1 req_end d status @end:req\n"
      "2 in_begin - @begin:inner\n3 in_end - @end:inner\n");
  Ring ring(1024);
  const struct {
    uint32_t id;
    uint64_t at;
    uint32_t thread;
  } records[] = {{1, 5, 1},  {0, 10, 1}, {0, 15, 2}, {0, 16, 2}, {1, 17, 2},
                 {1, 18, 2}, {2, 20, 1}, {3, 25, 1}, {1, 40, 1}, {0, 50, 1}};
  for (const auto& r : records)
    ring.add(encode(r.id, kT0 + r.at * 1000, r.thread,
                    r.id < 2 ? std::vector<Arg>{d(r.id)} : std::vector<Arg>{}));
  const std::string file = put("spans.trc", ring.file(HeaderItems{}));

  CliResult text = run({"--no-delta", file});
  EXPECT_EQ("quarry-decode: " + file +
                ": 1 span end without their begin (overwritten or before the data); 1 span "
                "begun and not ended (in flight)\n",
            text.err);
  expect_in_order(text.out, {" [span req 0.000001000 s]", " [span req 0.000003000 s]",
                             " [span inner 0.000005000 s]", " [span req 0.000030000 s]"});
  expect_in_order(
      run({"-f", "json", file}).out,
      {"\"span_end\":\"req\"}", "\"span_end\":\"req\",\"duration_ns\":1000}",
       "\"span_end\":\"req\",\"duration_ns\":3000}", "\"span_end\":\"inner\",\"duration_ns\":5000}",
       "\"span_end\":\"req\",\"duration_ns\":30000}"});
  // Complete events at the begin's time, in the order they end; the lone halves as instants.
  expect_in_order(
      run({"-f", "chrome", file}).out,
      {R"({"name":"app:req_end","cat":"app","ph":"i","s":"t","ts":1000500005.000,"pid":4242,)"
       R"("tid":1,"args":{"status":1}})",
       R"({"name":"req","cat":"app","ph":"X","ts":1000500016.000,"dur":1.000,"pid":4242,"tid":2,)"
       R"("args":{"begin":{"message":"begin 0","id":0},"end":{"status":1}}})",
       R"({"name":"req","cat":"app","ph":"X","ts":1000500015.000,"dur":3.000,"pid":4242,"tid":2,)",
       R"({"name":"inner","cat":"app","ph":"X","ts":1000500020.000,"dur":5.000,"pid":4242,)"
       R"("tid":1,"args":{"begin":{},"end":{}}})",
       R"({"name":"req","cat":"app","ph":"X","ts":1000500010.000,"dur":30.000,"pid":4242,)",
       R"({"name":"app:req_begin","cat":"app","ph":"i","s":"t","ts":1000500050.000,"pid":4242,)"
       R"("tid":1,"args":{"message":"begin 0","id":0}})"});
}

}  // namespace

// What quarry-decode shows: the text lines, JSON lines and Chrome Trace Event JSON (parsed back
// here with a strict JSON reader), and the summary.
#include <gtest/gtest.h>

#include <map>
#include <stdexcept>

#include "decode_test_support.h"

using namespace decode_test;

namespace {

using JsonMap = std::map<std::string, std::string>;

// A strict reader of what the formatters write: objects, arrays, strings with escapes (\u only
// below U+0800), numbers, true, false and null; anything else, or text after the value, throws.
// It maps the path of every value ("args.path", "3.ts"; "" for the document) to its text: a
// string's value after a '"', a number or literal as written, "{" or "[" for a container.
struct JsonReader {
  explicit JsonReader(const std::string& text) : s(text) {}
  const std::string& s;
  size_t i = 0;
  JsonMap flat;

  JsonMap document() {
    value("");
    if (next() != '\0') fail("text after the value");
    return flat;
  }
  void fail(const char* what) const {
    throw std::runtime_error(std::string(what) + " at offset " + std::to_string(i));
  }
  char next() {  // the next character after blanks, '\0' at the end
    while (i < s.size() && std::string(" \t\r\n").find(s[i]) != std::string::npos) ++i;
    return i < s.size() ? s[i] : '\0';
  }
  bool take(char c) { return next() == c && ++i; }
  bool digit() const { return i < s.size() && s[i] >= '0' && s[i] <= '9'; }
  std::string string() {
    if (next() != '"') fail("string expected");
    std::string text;
    while (++i < s.size() && s[i] != '"') {
      const unsigned char c = static_cast<unsigned char>(s[i]);
      if (c < 0x20) fail("control character in a string");
      if (c != '\\') {
        text += static_cast<char>(c);
        continue;
      }
      const char e = ++i < s.size() ? s[i] : '\0';
      const size_t simple = std::string("\"\\/bfnrt").find(e);
      if (simple != std::string::npos) {
        text += "\"\\/\b\f\n\r\t"[simple];
        continue;
      }
      const std::string hex = e == 'u' ? s.substr(i + 1, 4) : "";
      if (hex.size() != 4 || hex.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
        fail("bad escape");
      const unsigned long code = std::stoul(hex, nullptr, 16);
      if (code >= 0x800) fail("\\u beyond U+07FF");
      if (code >= 0x80) text += static_cast<char>(0xC0 | code >> 6);
      text += static_cast<char>(code >= 0x80 ? 0x80 | (code & 0x3F) : code);
      i += 4;
    }
    if (!take('"')) fail("unterminated string");
    return text;
  }
  std::string atom() {  // a number, true, false or null
    next();
    const size_t start = i;
    for (const std::string word : {"true", "false", "null"})
      if (i == start && s.compare(i, word.size(), word) == 0) i += word.size();
    if (i == start) {
      if (s[i] == '-') ++i;
      if (!digit()) fail("not a value");
      if (s[i++] != '0')
        while (digit()) ++i;
      if (s[i] == '.' && ++i) {
        if (!digit()) fail("digit expected");
        while (digit()) ++i;
      }
    }
    return s.substr(start, i - start);
  }
  void value(const std::string& path) {
    const char c = next();
    if (c != '[' && c != '{') {
      flat[path] = c == '"' ? '"' + string() : atom();
      return;
    }
    flat[path] = c;
    ++i;
    for (size_t n = 0; !take(c == '[' ? ']' : '}'); ++n) {
      if (n > 0 && !take(',')) fail("',' expected");
      std::string key = std::to_string(n);
      if (c == '{') {
        key = string();
        if (!take(':')) fail("':' expected");
      }
      key = (path.empty() ? "" : path + ".") + key;
      if (flat.count(key)) fail("duplicate key");
      value(key);
    }
  }
};

JsonMap parse_json(const std::string& text) {
  try {
    return JsonReader(text).document();
  } catch (const std::runtime_error& e) {
    ADD_FAILURE() << e.what() << "\n" << text;
    return {};
  }
}

TEST(DecodeOutput, JsonReaderIsStrict) {
  for (const std::string bad :
       {"[1,]", "{\"a\":1} x", "[01]", "\"a\nb\"", "\"\\x\"", "\"\\u00g1\"", "{\"a\":1,\"a\":2}",
        "{a:1}", "tru", "-", "1.", "[1 2]", "\"open"}) {
    EXPECT_THROW(JsonReader(bad).document(), std::runtime_error) << bad;
  }
  EXPECT_EQ(
      (JsonMap{{"", "["}, {"0", "{"}, {"0.k", "\"a\"\n\xc3\xbf"}, {"1", "-1.5"}, {"2", "null"}}),
      parse_json("[ {\"k\" : \"a\\\"\\n\\u00ff\"}, -1.5, null ]"));
}

// One file with a message, an argument list with every kind of value, a trace point without
// arguments, and a record without a decode file entry.
std::string sample_file() {
  put("t.dec",
      "0 request ds id path = request {} for {path}\n"
      "1 values dDsd neg big text flags:x\n"
      "2 idle -\n");
  HeaderItems items;
  items.threads = {"THREAD main 1\n", "THREAD worker \"2\" 2\n"};
  Ring ring(1024);
  ring.add(encode(0, kT0, 1, {d(7), s("/a\nb")}));
  ring.add(
      encode(1, kT0 + 1234, 2,
             {d(0xFFFFFFFFu), D(0x8000000000000000ull), s("q\"\\\x01\xe2\x82\xac\xff"), d(255)}));
  ring.add(encode(2, kT0 + 1000, 3, {}));
  ring.add(encode(5, kT0 + 1000000002, 1, {d(9), s("xy")}));
  return put("sample.trc", ring.file(items));
}

TEST(DecodeOutput, TextLines) {
  CliResult r = run({"--utc", sample_file()});
  EXPECT_EQ(0, r.status) << r.err;
  EXPECT_EQ("", r.err);
  EXPECT_EQ(
      "[2024-01-02 03:04:05.500000000] (+?.\?\?\?\?\?\?\?\?\?) main app:request: request 7 for "
      "/a\\nb\n"
      "[2024-01-02 03:04:05.500001234] (+0.000001234) worker \"2\" app:values: { neg = -1, big = "
      "-9223372036854775808, text = \"q\\\"\\\\\\x01\xe2\x82\xac\xff\", flags = 0xff }\n"
      "[2024-01-02 03:04:05.500001000] (-0.000000234) 3 app:idle\n"
      "[2024-01-02 03:04:06.500000002] (+0.999999002) main app:#5: { words = [ 0x00000009, "
      "0x00007978 ] }\n",
      r.out);
}

// Each "path=value" of `expected` (the path below `prefix`) is in `json`; "path=" for none.
void expect_values(const std::vector<std::string>& expected, const JsonMap& json,
                   const std::string& prefix = "") {
  for (const std::string& item : expected) {
    auto it = json.find(prefix + item.substr(0, item.find('=')));
    EXPECT_EQ(item.substr(item.find('=') + 1), it == json.end() ? "" : it->second) << item;
  }
}

TEST(DecodeOutput, JsonLines) {
  CliResult r = run({"--format=json", sample_file()});
  EXPECT_EQ(0, r.status) << r.err;
  std::vector<JsonMap> records;
  for (const std::string& line : lines_of(r.out)) records.push_back(parse_json(line));
  ASSERT_EQ(4u, records.size());
  expect_values({"time=\"2024-01-02T03:04:05.500000000Z", "time_ns=1704164645500000000",
                 "mono_ns=1000500000000", "pid=4242", "thread=\"main", "handle=\"app",
                 "point=\"request", "message=\"request 7 for /a\nb", "args.path=\"/a\nb"},
                records[0]);
  // The invalid byte 0xFF becomes U+00FF; the valid euro sign stays. No message in the
  // decode file: no "message" member.
  expect_values(
      {"args.neg=-1", "args.flags=255", "args.text=\"q\"\\\x01\xe2\x82\xac\xc3\xbf", "message="},
      records[1]);
  expect_values({"thread=null"}, records[2]);
  expect_values({"point=null", "words.1=31096", "words.2="}, records[3]);
}

TEST(DecodeOutput, ChromeTraceEvents) {
  CliResult r = run({"-f", "chrome", sample_file()});
  EXPECT_EQ(0, r.status) << r.err;
  JsonMap trace = parse_json(r.out), names;
  ASSERT_EQ("[", trace[""]);
  std::vector<std::string> events;  // path prefixes of the instant events
  for (size_t k = 0; trace.count(std::to_string(k)); ++k) {
    const std::string e = std::to_string(k) + ".";
    ASSERT_EQ("{", trace[std::to_string(k)]);
    EXPECT_EQ("4242", trace[e + "pid"]);
    if (trace[e + "ph"] == "\"M") {
      names[trace[e + "name"] + " " + trace[e + "tid"]] = trace[e + "args.name"];
      continue;
    }
    expect_values({"ph=\"i", "s=\"t"}, trace, e);
    events.push_back(e);
  }
  EXPECT_EQ((JsonMap{{"\"process_name 0", "\"tester"},
                     {"\"thread_name 1", "\"main"},
                     {"\"thread_name 2", "\"worker \"2\""}}),
            names);
  ASSERT_EQ(4u, events.size());  // times are microseconds with three decimals
  expect_values({"name=\"app:request", "cat=\"app", "ts=1000500000.000",
                 "args.message=\"request 7 for /a\nb", "args.id=7"},
                trace, events[0]);
  expect_values({"ts=1000500001.234", "tid=2", "args.text=\"q\"\\\x01\xe2\x82\xac\xc3\xbf"}, trace,
                events[1]);
  expect_values({"args={"}, trace, events[2]);
  expect_values({"name=\"app:#5"}, trace, events[3]);
  // The array form: every event line ends in a comma or the closing bracket, so a stream cut
  // after any complete event is still a loadable prefix.
  EXPECT_EQ("[", lines_of(r.out).front());
  EXPECT_EQ("]", lines_of(r.out).back());
}

TEST(DecodeOutput, Summary) {
  CliResult r = run({"--summary", "--utc", sample_file()});
  EXPECT_EQ(0, r.status) << r.err;
  for (const char* expected :
       {"  process: tester, pid 4242, node 0x7\n", "  buffer: 1024 words (4096 bytes)\n",
        "  handle: app ids 0..9, tag 1, decode file \"t.dec\"", "  thread: worker \"2\" 2\n",
        "  records decoded: 4 (1 raw, without decode information)\n",
        "  records skipped: 0 could not be decoded\n",
        "  time span: 2024-01-02 03:04:05.500000000 to 2024-01-02 03:04:06.500000002 (1.000000002 "
        "s)\n"}) {
    EXPECT_NE(std::string::npos, r.out.find(expected)) << expected << "\n" << r.out;
  }
  EXPECT_EQ(std::string::npos, r.out.find("[2024")) << "no records in a summary";

  // The termination reason: a fault signal's SIGNALING_PID is the fault address's low 32
  // bits (printed sign-extended), any other signal's the sender. A forked child's parent.
  const std::vector<std::pair<std::string, std::string>> reasons = {
      {"SIGNALING_PID 18446744073150512879\nSIGNAL 11\n",
       "  terminated by: signal 11 (SIGSEGV), fault address 0xdeadbeef (its low 32 bits)\n"},
      {"SIGNALING_PID 42\nSIGNAL 15\nPARENT_PID 77\n",
       "  terminated by: signal 15 (SIGTERM) from pid 42\n  parent process: pid 77\n"},
  };
  for (const auto& reason : reasons) {
    HeaderItems items;
    items.extra = reason.first;
    CliResult crashed = run({"--summary", put("crashed.trc", header_text(items))});
    EXPECT_NE(std::string::npos, crashed.out.find(reason.second)) << crashed.out;
  }
}

// Spans on two threads: thread 1 has an end whose begin was lost, a span with one nested in
// it, and a begin still open at the end; thread 2 one short span inside thread 1's.
TEST(DecodeOutput, Spans) {
  put("t.dec",
      "0 req_begin d id @begin:req = begin {id}\n1 req_end d status @end:req\n"
      "2 in_begin - @begin:inner\n3 in_end - @end:inner\n");
  Ring ring(1024);
  const struct {
    uint32_t id;
    uint64_t at;
    uint32_t thread;
  } records[] = {{1, 5, 1},  {0, 10, 1}, {0, 15, 2}, {1, 16, 2},
                 {2, 20, 1}, {3, 25, 1}, {1, 40, 1}, {0, 50, 1}};
  for (const auto& r : records)
    ring.add(encode(r.id, kT0 + r.at * 1000, r.thread,
                    r.id < 2 ? std::vector<Arg>{d(r.id)} : std::vector<Arg>{}));
  const std::string file = put("spans.trc", ring.file(HeaderItems{}));

  CliResult text = run({"--no-delta", file});
  EXPECT_EQ(0, text.status);
  EXPECT_EQ(
      "quarry-decode: " + file +
          ": 1 span end without their begin (overwritten or before the data); 1 span begun and "
          "not ended (in flight)\n",
      text.err);
  std::vector<std::string> spans;
  for (const std::string& line : lines_of(text.out))
    if (line.find(" [span ") != std::string::npos)
      spans.push_back(line.substr(line.find(" [span ")));
  EXPECT_EQ((std::vector<std::string>{" [span req 0.000001000 s]", " [span inner 0.000005000 s]",
                                      " [span req 0.000030000 s]"}),
            spans);

  std::string durations;
  for (const std::string& line : lines_of(run({"-f", "json", file}).out)) {
    JsonMap json = parse_json(line);
    if (json.count("span_end")) durations += json["span_end"] + "=" + json["duration_ns"] + " ";
  }
  EXPECT_EQ("\"req= \"req=1000 \"inner=5000 \"req=30000 ", durations);

  // Complete events at the begin's time, nested by time on thread 1; the lone halves as
  // instant events.
  JsonMap trace = parse_json(run({"-f", "chrome", file}).out);
  std::vector<std::string> events;
  for (size_t k = 0; trace.count(std::to_string(k)); ++k) {
    const std::string e = std::to_string(k) + ".";
    if (trace[e + "ph"] == "\"M") continue;
    events.push_back(trace[e + "ph"] + " " + trace[e + "name"] + " " + trace[e + "tid"] + " " +
                     trace[e + "ts"] + " " + trace[e + "dur"] + " " + trace[e + "args.begin.id"]);
  }
  EXPECT_EQ((std::vector<std::string>{
                "\"i \"app:req_end 1 1000500005.000  ",
                "\"X \"req 2 1000500015.000 1.000 0",
                "\"X \"inner 1 1000500020.000 5.000 ",
                "\"X \"req 1 1000500010.000 30.000 0",
                "\"i \"app:req_begin 1 1000500050.000  ",
            }),
            events);
}

}  // namespace

// What quarry-decode shows: the text lines, JSON lines and Chrome Trace Event JSON (parsed back
// here with a strict JSON reader), and the summary.
#include <gtest/gtest.h>

#include <map>
#include <memory>

#include "decode_test_support.h"

using namespace decode_test;

namespace {

// A strict JSON reader (RFC 8259), enough to check the output and look into it.
struct Json {
  enum Kind { kNull, kBool, kNumber, kString, kArray, kObject } kind = kNull;
  std::string text;  // a number's literal, a string's value, "true" or "false"
  std::vector<Json> items;
  std::map<std::string, Json> members;

  const Json& operator[](const std::string& key) const {
    static const Json missing;
    auto it = members.find(key);
    return it == members.end() ? missing : it->second;
  }
  bool has(const std::string& key) const { return members.count(key) != 0; }
};

class JsonReader {
 public:
  explicit JsonReader(const std::string& text) : s_(text) {}

  // Parses one complete value; false with a reason when the text is not exactly that.
  bool parse(Json* out, std::string* error) {
    try {
      *out = value();
      space();
      if (i_ != s_.size()) throw std::runtime_error("text after the value");
      return true;
    } catch (const std::runtime_error& e) {
      *error = std::string(e.what()) + " at offset " + std::to_string(i_);
      return false;
    }
  }

 private:
  char peek() const { return i_ < s_.size() ? s_[i_] : '\0'; }
  bool digit() const { return peek() >= '0' && peek() <= '9'; }
  void expect(char c) {
    if (peek() != c) throw std::runtime_error(std::string("expected ") + c);
    ++i_;
  }
  void space() {
    while (std::string(" \t\r\n").find(peek()) != std::string::npos && i_ < s_.size()) ++i_;
  }
  // The members of an object or the items of an array, after the opening bracket.
  template <class F>
  void sequence(char close, F&& element) {
    space();
    if (peek() == close) {
      ++i_;
      return;
    }
    do {
      space();
      element();
      space();
    } while (peek() == ',' && ++i_);
    expect(close);
  }
  Json value() {
    space();
    Json v;
    const char c = peek();
    if (c == '{' && ++i_) {
      v.kind = Json::kObject;
      sequence('}', [&] {
        std::string key = string();
        space();
        expect(':');
        if (!v.members.emplace(key, value()).second) throw std::runtime_error("duplicate key");
      });
    } else if (c == '[' && ++i_) {
      v.kind = Json::kArray;
      sequence(']', [&] { v.items.push_back(value()); });
    } else if (c == '"') {
      v.kind = Json::kString;
      v.text = string();
    } else if (s_.compare(i_, 4, "true") == 0 || s_.compare(i_, 5, "false") == 0) {
      v.kind = Json::kBool;
      v.text = c == 't' ? "true" : "false";
      i_ += v.text.size();
    } else if (s_.compare(i_, 4, "null") == 0) {
      i_ += 4;
    } else {
      v.kind = Json::kNumber;
      const size_t start = i_;
      if (peek() == '-') ++i_;
      if (!digit()) throw std::runtime_error("not a value");
      if (peek() == '0') {
        ++i_;
      } else {
        while (digit()) ++i_;
      }
      if (peek() == '.' && ++i_) {
        if (!digit()) throw std::runtime_error("digit expected");
        while (digit()) ++i_;
      }
      v.text = s_.substr(start, i_ - start);
    }
    return v;
  }
  std::string string() {
    expect('"');
    std::string out;
    for (;;) {
      if (i_ >= s_.size()) throw std::runtime_error("unterminated string");
      const unsigned char c = static_cast<unsigned char>(s_[i_++]);
      if (c == '"') return out;
      if (c < 0x20) throw std::runtime_error("control character in a string");
      if (c == '\\') {
        const char e = s_[i_++];
        if (e == 'u') {
          const unsigned code = static_cast<unsigned>(std::stoul(s_.substr(i_, 4), nullptr, 16));
          i_ += 4;
          if (code >= 0x80) out += static_cast<char>(0xC0 | code >> 6);
          out += static_cast<char>(code >= 0x80 ? 0x80 | (code & 0x3F) : code);
        } else if (std::string("\"\\/nrt").find(e) == std::string::npos) {
          throw std::runtime_error("bad escape");
        } else {
          out += e == 'n' ? '\n' : e == 't' ? '\t' : e == 'r' ? '\r' : e;
        }
      } else if (c >= 0x80) {
        // Valid UTF-8 only: a lead byte and its continuation bytes.
        const size_t length = c >= 0xF5 ? 0 : c >= 0xF0 ? 4 : c >= 0xE0 ? 3 : c >= 0xC2 ? 2 : 0;
        if (length == 0) throw std::runtime_error("invalid UTF-8");
        out += static_cast<char>(c);
        for (size_t k = 1; k < length; ++k, ++i_) {
          if ((static_cast<unsigned char>(peek()) & 0xC0) != 0x80)
            throw std::runtime_error("invalid UTF-8");
          out += s_[i_];
        }
      } else {
        out += static_cast<char>(c);
      }
    }
  }

  const std::string& s_;
  size_t i_ = 0;
};

Json parse_json(const std::string& text) {
  Json value;
  std::string error;
  EXPECT_TRUE(JsonReader(text).parse(&value, &error)) << error << "\n" << text;
  return value;
}

constexpr uint64_t kMono = 1000500000000ull;  // 2024-01-02 03:04:05.5 UTC in the test header

// One file with a message, an argument list with every kind of value, a trace point without
// arguments, and a record without a decode file entry.
std::string sample_file() {
  quarry_test::write_file(quarry_test::base_dir() + "t.dec",
                          "0 request ds id path = request {} for {path}\n"
                          "1 values dDsd neg big text flags:x\n"
                          "2 idle -\n");
  FileSpec spec;
  spec.threads = {"THREAD main 1\n", "THREAD worker \"2\" 2\n"};
  Ring ring(1024);
  ring.add(encode(0, kMono, 1, {d(7), s("/a\nb")}));
  ring.add(
      encode(1, kMono + 1234, 2,
             {d(0xFFFFFFFFu), D(0x8000000000000000ull), s("q\"\\\x01\xe2\x82\xac\xff"), d(255)}));
  ring.add(encode(2, kMono + 1000, 3, {}));
  ring.add(encode(5, kMono + 1000000002, 1, {d(9), s("xy")}));
  const std::string path = quarry_test::base_dir() + "sample.trc";
  quarry_test::write_file(path, ring.file(spec));
  return path;
}

TEST(DecodeOutput, TextLines) {
  const std::string path = sample_file();
  CliResult r = run({"--utc", path});
  EXPECT_EQ(0, r.status) << r.err;
  EXPECT_EQ("", r.err);
  const std::vector<std::string> expected = {
      "[2024-01-02 03:04:05.500000000] (+?.\?\?\?\?\?\?\?\?\?) main app:request: request 7 for "
      "/a\\nb",
      "[2024-01-02 03:04:05.500001234] (+0.000001234) worker \"2\" app:values: { neg = -1, big = "
      "-9223372036854775808, text = \"q\\\"\\\\\\x01\xe2\x82\xac\xff\", flags = 0xff }",
      "[2024-01-02 03:04:05.500001000] (-0.000000234) 3 app:idle",
      "[2024-01-02 03:04:06.500000002] (+0.999999002) main app:#5: { words = [ 0x00000009, "
      "0x00007978 ] }",
  };
  EXPECT_EQ(expected, lines_of(r.out));

  r = run({"--monotonic", "--no-delta", path});
  ASSERT_EQ(4u, lines_of(r.out).size());
  EXPECT_EQ("[1000.500000000] main app:request: request 7 for /a\\nb", lines_of(r.out)[0]);
}

TEST(DecodeOutput, JsonLines) {
  CliResult r = run({"--format=json", sample_file()});
  EXPECT_EQ(0, r.status) << r.err;
  std::vector<std::string> lines = lines_of(r.out);
  ASSERT_EQ(4u, lines.size());
  std::vector<Json> records;
  for (const std::string& line : lines) records.push_back(parse_json(line));
  EXPECT_EQ("2024-01-02T03:04:05.500000000Z", records[0]["time"].text);
  EXPECT_EQ("1704164645500000000", records[0]["time_ns"].text);
  EXPECT_EQ("1000500000000", records[0]["mono_ns"].text);
  EXPECT_EQ("4242", records[0]["pid"].text);
  EXPECT_EQ("main", records[0]["thread"].text);
  EXPECT_EQ("app", records[0]["handle"].text);
  EXPECT_EQ("request", records[0]["point"].text);
  EXPECT_EQ("request 7 for /a\nb", records[0]["message"].text);
  EXPECT_EQ("/a\nb", records[0]["args"]["path"].text);
  EXPECT_EQ("-1", records[1]["args"]["neg"].text);
  EXPECT_EQ("255", records[1]["args"]["flags"].text);
  // The invalid byte 0xFF becomes U+00FF; the valid euro sign stays.
  EXPECT_EQ("q\"\\\x01\xe2\x82\xac\xc3\xbf", records[1]["args"]["text"].text);
  EXPECT_FALSE(records[1].has("message"));
  EXPECT_EQ(Json::kNull, records[2]["thread"].kind);
  EXPECT_EQ(Json::kNull, records[3]["point"].kind);
  ASSERT_EQ(2u, records[3]["words"].items.size());
  EXPECT_EQ("31096", records[3]["words"].items[1].text);
}

TEST(DecodeOutput, ChromeTraceEvents) {
  CliResult r = run({"-f", "chrome", sample_file()});
  EXPECT_EQ(0, r.status) << r.err;
  Json trace = parse_json(r.out);
  ASSERT_EQ(Json::kArray, trace.kind);
  std::map<std::string, std::string> thread_names;
  std::vector<const Json*> events;
  std::string process_name;
  for (const Json& e : trace.items) {
    ASSERT_EQ(Json::kObject, e.kind);
    EXPECT_EQ("4242", e["pid"].text);
    if (e["ph"].text == "M") {
      if (e["name"].text == "thread_name") thread_names[e["tid"].text] = e["args"]["name"].text;
      if (e["name"].text == "process_name") process_name = e["args"]["name"].text;
      continue;
    }
    EXPECT_EQ("i", e["ph"].text);
    EXPECT_EQ("t", e["s"].text);
    events.push_back(&e);
  }
  EXPECT_EQ("tester", process_name);
  EXPECT_EQ((std::map<std::string, std::string>{{"1", "main"}, {"2", "worker \"2\""}}),
            thread_names);
  ASSERT_EQ(4u, events.size());
  EXPECT_EQ("app:request", (*events[0])["name"].text);
  EXPECT_EQ("app", (*events[0])["cat"].text);
  EXPECT_EQ("1000500000.000", (*events[0])["ts"].text);  // microseconds, three decimals
  EXPECT_EQ("1000500001.234", (*events[1])["ts"].text);
  EXPECT_EQ("request 7 for /a\nb", (*events[0])["args"]["message"].text);
  EXPECT_EQ("7", (*events[0])["args"]["id"].text);
  EXPECT_EQ("2", (*events[1])["tid"].text);
  EXPECT_EQ(Json::kObject, (*events[2])["args"].kind);
  EXPECT_EQ("app:#5", (*events[3])["name"].text);

  // The array form: every event line ends in a comma or the closing bracket, so a stream cut
  // after any complete event is still a loadable prefix.
  std::vector<std::string> lines = lines_of(r.out);
  EXPECT_EQ("[", lines.front());
  EXPECT_EQ("]", lines.back());
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
}

}  // namespace

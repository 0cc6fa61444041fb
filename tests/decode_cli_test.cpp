// quarry-decode end to end: usage errors, bad inputs named with the reason, directories, named
// pipes, filters, loss reports, every output form (text, JSON lines, Chrome, summary, spans), and
// calls of typed providers decoded with the decode file the build generated from their declaration.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <random>
#include <thread>
#include <tuple>

#include "decode_test_support.h"
#include "typed_test_providers.h"

extern "C" void typed_c_calls(void);

#define UNDECODABLE(POINT, SPAN) \
  POINT(0, a, "{z:x} {} {{ok}} {y} {}", (uint32_t, z)) POINT(1, b, "}{z", (uint32_t, z))
QUARRY_PROVIDER(undecodable, "undecodable", "undecodable.dec", UNDECODABLE);

using namespace quarry_decode;
using namespace decode_test;
using quarry_test::base_dir;

namespace {

// A trace file of numbered records ("n ds v text"), by default wrapped: 4096 bytes of data last.
std::string wrapped_file(uint64_t first_time = kT0, uint32_t step = 10, uint32_t records = 400) {
  Ring ring(1024);
  for (uint32_t i = 0; i < records; ++i)
    ring.add(encode(0, first_time + i * step, 1, {d(i), s(i % 3 ? "ab" : "")}));
  return ring.file(HeaderItems{});
}

std::string changed(std::string bytes, const std::string& from, const std::string& to) {
  return bytes.replace(bytes.find(from), from.size(), to);
}

// Each of `parts` occurs in `text`, in this order.
void expect_in_order(const std::string& text, const std::vector<std::string>& parts) {
  size_t at = 0;
  for (const std::string& part : parts) {
    at = text.find(part, at);
    ASSERT_NE(std::string::npos, at) << part << "\nnot in order in\n" << text;
    at += part.size();
  }
}

// A run of quarry-decode: exit status, part of its diagnostics (empty: none), part of its output.
struct Outcome {
  std::vector<std::string> args;
  int status;
  std::string err, out;
};

class DecodeCli : public ::testing::Test {
 protected:
  void SetUp() override {
    put("t.dec", "0 n ds v text\n");
    signal(SIGPIPE, SIG_IGN);  // as quarry-decode's main does
  }
};

// Also inputs that are not trace files, bytes past the data, records just below and beyond 2^63 ns.
TEST_F(DecodeCli, UsageErrorsAndOddInputs) {
  char usec[32];
  snprintf(usec, sizeof usec, "%llx",
           static_cast<unsigned long long>((INT64_MAX - kT0 + 1000000000000ull) / 1000));
  HeaderItems items;  // later header items override earlier ones
  items.extra = "WALL_TIME_SEC 0\nWALL_TIME_USEC " + std::string(usec) +
                "\nWALL_TIME_Z_SEC ffffffffffffffff\n";
  Ring ring(64);
  ring.add(encode(0, kT0, 1, {d(1), s("")}));
  ring.add(encode(0, kT0 + 1000, 1, {d(2), s("")}));
  const std::string crafted = put("crafted.trc", ring.file(items));
  const std::string fifo = base_dir() + "fifo", empty = quarry_test::make_dir("empty");
  ASSERT_EQ(0, mkfifo(fifo.c_str(), 0666));
  const std::string odd = changed(wrapped_file(kT0, 10, 100), "SIZE 400", "SIZE 3ff");
  const std::string usage = "\nTry 'quarry-decode --help'.\n";
  auto summary_of = [](const std::string& name, const std::string& extra) {
    HeaderItems header;
    header.extra = extra;
    return std::vector<std::string>{"--summary", put(name, header_text(header))};
  };
  // A fault's SIGNALING_PID is the fault address's low 32 bits sign-extended; else the sender.
  const auto segv = summary_of("segv.trc", "SIGNALING_PID 18446744073150512879\nSIGNAL 11\n");
  const auto term = summary_of("term.trc", "SIGNALING_PID 42\nSIGNAL 15\nPARENT_PID 77\n");
  const auto skew = summary_of("skew.trc", "WALL_TIME_Z_SEC 6593810a\n");
  const std::vector<Outcome> cases = {
      {{"--help"}, 0, "", "Usage: quarry-decode [OPTION]... INPUT...\n"},
      {{"--version"}, 0, "", "quarry-decode 1."},
      {{}, kExitUsage, "quarry-decode: no input given" + usage, ""},
      {{"--bogus", "x"}, kExitUsage, "quarry-decode: unknown option --bogus" + usage, ""},
      {{"--format=xml", "x"}, kExitUsage, "unknown format 'xml' (text, json or chrome)\n", ""},
      {{"x", "-f"}, kExitUsage, "quarry-decode: option -f needs a value" + usage, ""},
      {{"--summary=yes", "x"}, kExitUsage, "option --summary takes no value" + usage, ""},
      {{"--begin=yesterday", "x"}, kExitUsage, "'yesterday' is not a time (YYYY-MM-DD HH:MM", ""},
      {{"--last=5x", "x"}, kExitUsage, "quarry-decode: --last: '5x' is not a duration", ""},
      {{"--end=2024-13-01 00:00", "x"}, kExitUsage, "'2024-13-01 00:00' is not a time", ""},
      {{"--end=2024-01-01 00:60", "x"}, kExitUsage, "'2024-01-01 00:60' is not a time", ""},
      {{"-o", base_dir() + "t.dec/x", "in"}, kExitUsage, "t.dec/x: cannot create: Not a dir", ""},
      {{"/dev/zero"}, kExitBadInput, "/dev/zero: header line 1: not a trace header item", ""},
      {{"/dev/null"}, kExitBadInput, "/dev/null: the stream is empty", ""},
      {{empty}, kExitBadInput, "empty/: no trace files", ""},
      {{fifo, crafted}, kExitUsage, "a pipe stream cannot be merged with other inputs", ""},
      {{put("stray.trc", wrapped_file() + "xy")}, 0, "2 bytes past the announced data", "v = 399"},
      {{put("odd.trc", odd)}, 0, "BUFFER_SIZE 1023 is not a power of two", "v = 99"},
      {{crafted}, 0, "the wall clock moved 9223371036354 ms", "] (+0.000001000) 1 app:n"},
      {{"--summary", crafted}, 0, "WALL_TIME_SEC appears again", "wall clock against monotonic"},
      {segv, 0, "", "signal 11 (SIGSEGV), fault address 0xdeadbeef (its low 32 bits)\n"},
      {term, 0, "", "signal 15 (SIGTERM) from pid 42\n  parent process: pid 77\n"},
      {skew, 0, "wall clock moved -3000 ms against the", "monotonic clock: -3.000000000 s between"},
  };
  for (const Outcome& c : cases) {
    const CliResult r = run(c.args);
    const std::string what = ::testing::PrintToString(c.args) + "\n" + r.err;
    EXPECT_EQ(c.status, r.status) << what;
    EXPECT_TRUE(c.err.empty() ? r.err.empty() : r.err.find(c.err) != std::string::npos) << what;
    EXPECT_NE(std::string::npos, r.out.find(c.out)) << what << r.out;
  }
}

// Each bad input is named with what is wrong; the good one and what could be read are still shown.
TEST_F(DecodeCli, BadInputsAreReportedAndTheRestIsShown) {
  const std::string good = wrapped_file();
  const std::string dir = base_dir();
  ASSERT_EQ(0, mkfifo((dir + "fifo.dec").c_str(), 0666));
  ASSERT_EQ(0, truncate(put("big.dec", "0 n ds v text\n").c_str(), 17 << 20));
  put("broken.dec", "0 n ds v text\n1 broken q\n");
  std::vector<uint32_t> noise(16384);
  std::generate(noise.begin(), noise.end(), std::mt19937(5));
  HeaderItems noisy;
  noisy.buffer_size = noisy.word_count = 16384;
  auto with_decode_file = [&](const std::string& name, const std::string& file_name) {
    return put(file_name, changed(good, "\"t.dec\"", "\"" + name + "\""));
  };
  const std::vector<std::pair<std::string, std::string>> cases = {
      {put("cut_data.trc", good.substr(0, good.size() - 4096 + 2000)),
       "/cut_data.trc: truncated: the header announces 1024 data words, the file holds 500\n"},
      {put("cut_header.trc", good.substr(0, 100)),
       "/cut_header.trc: the header ends before its empty line (truncated file)"},
      {put("empty.trc", ""), "/empty.trc: the file is empty"},
      {put("garbage.trc", std::string("\x89PNG\r\n\x1a\n\0\0\0\rIHDR", 16)),
       "/garbage.trc: header line 1: not a trace header item (expected KEY VALUE)"},
      {put("version.trc", changed(good, "VERSION 1.0", "VERSION 9.9")),
       "/version.trc: unknown format VERSION \"9.9\" (this decoder reads 1.0)"},
      {put("nospace.trc", "VERSION 1.0\nNOSPACE\n\n"), "/nospace.trc: header line 2: not a trace"},
      {put("hex.trc", changed(good, "\nWORD_COUNT ", "\nWORD_COUNT z")),
       "/hex.trc: header line 20: WORD_COUNT: value \"z960\" is not hexadecimal"},
      {put("pid.trc", changed(good, "QUARRY_PROCESS_ID 4242", "QUARRY_PROCESS_ID 99999999999")),
       "/pid.trc: header line 7: QUARRY_PROCESS_ID: value out of range"},
      {put("ref.trc", changed(good, ".dec\" 0.9.1", ".dec\" 0-9-1")),
       "/ref.trc: header line 24: QUARRY_DECODE_REF: expected \"<decode file>\" <first>.<last>"},
      {put("stream.trc", "VERSION 1.0\nPROG_NAME x\n\n   "),
       "/stream.trc: the header has no BUFFER_SIZE or WORD_COUNT"},
      {dir + "missing.trc", "/missing.trc: cannot access: No such file or directory"},
      {put("noise.trc", header_text(noisy) + word_bytes(noise)),
       "/noise.trc: most of the data could not be decoded"},
      {with_decode_file("/dev/zero", "zero.trc"), "decode file /dev/zero is not a regular file"},
      {with_decode_file(dir + "fifo.dec", "fifo.trc"), "/fifo.dec is not a regular file"},
      {with_decode_file("big.dec", "big.trc"), "/big.dec is larger than 16 MiB"},
      {with_decode_file("broken.dec", "broken.trc"), "/broken.dec:2: signature \"q\""},
  };
  std::vector<std::string> args = {put("good.trc", good)};
  for (const auto& c : cases) args.push_back(c.first);
  CliResult r = run(args);
  EXPECT_EQ(kExitBadInput, r.status);
  for (const auto& c : cases) EXPECT_EQ(1u, count(r.err, c.second)) << r.err;
  EXPECT_GT(count(r.out, " app:n: { v = "), 171u + 50u);
  EXPECT_NE(std::string::npos, r.out.find(" app:#0: { words = [ 0x0000018f, 0x00000000 ] }\n"));
}

// A buffer directory gives its newest trace file; a process directory those of each buffer, merged.
TEST_F(DecodeCli, DirectoriesPickTheNewestFilesAndMerge) {
  const std::string process = quarry_test::make_dir("proc");
  quarry_test::write_file(process + "quarry.info", "PROCESS_PID 4242\nDUMP_SIGNAL 62\n");
  for (const char* dir : {"a", "b"}) mkdir((process + dir).c_str(), 0777);
  auto write = [&](const std::string& name, const std::string& bytes, time_t mtime) {
    quarry_test::write_file(process + name, bytes);
    const struct timespec times[2] = {{mtime, 0}, {mtime, 0}};
    ASSERT_EQ(0, utimensat(AT_FDCWD, (process + name).c_str(), times, 0));
  };
  // Buffer a: an older file, the current one (odd times), a newer non-trace name; b: even times.
  write("a/quarry_1.trc", wrapped_file(kT0, 10, 10), 1000);
  write("a/quarry_0.trc", wrapped_file(kT0 + 5, 10, 10), 2000);
  write("a/quarry_1a.trc", "not a trace file", 3000);
  write("b/quarry.trc", wrapped_file(kT0, 10, 10), 2000);

  CliResult merged = run({"--monotonic", "--no-delta", process});
  EXPECT_EQ(0, merged.status) << merged.err;
  std::vector<uint64_t> times;
  for (const std::string& line : lines_of(merged.out))
    times.push_back(std::stoull(line.substr(line.find("[1000.") + 6, 9)));
  ASSERT_EQ(20u, times.size());
  for (size_t i = 0; i < times.size(); ++i) EXPECT_EQ(500000000 + 5 * i, times[i]) << i;

  // A wall clock 2 s apart is another mapping: b's records then all follow a's.
  write("b/quarry.trc", changed(wrapped_file(kT0, 10, 10), "SEC 65937d25", "SEC 65937d27"), 2000);
  const std::vector<std::string> apart = lines_of(run({"--utc", process}).out);
  ASSERT_EQ(20u, apart.size());
  EXPECT_EQ(0u, apart.back().find("[2024-01-02 03:04:07.500000090]"));
}

// A named pipe is followed until the writer closes it; the bytes arrive in small pieces.
TEST_F(DecodeCli, NamedPipeIsReadUntilItEnds) {
  const std::string fifo = base_dir() + "quarry.pipe";
  ASSERT_EQ(0, mkfifo(fifo.c_str(), 0666));
  std::string bytes = header_text(HeaderItems{});
  for (uint32_t i = 0; i < 50; ++i)
    bytes += word_bytes(encode(0, kT0 + i, 1, {d(i), s(std::string(i % 9, 'p'))}));
  std::atomic<bool> done{false};
  std::thread writer([&] {
    int fd = -1;  // opened without blocking, so that a run that never opens the pipe still ends
    while (!done && (fd = open(fifo.c_str(), O_WRONLY | O_NONBLOCK)) < 0) usleep(1000);
    fcntl(fd, F_SETFL, 0);
    for (size_t at = 0; at < bytes.size(); at += 13) {
      size_t n = std::min<size_t>(13, bytes.size() - at);
      if (write(fd, bytes.data() + at, n) != static_cast<ssize_t>(n)) break;
    }
    close(fd);
  });
  CliResult r = run({"--format=json", fifo});
  done = true;
  writer.join();
  EXPECT_EQ(0, r.status) << r.err;
  EXPECT_EQ(50u, count(r.out, "\"point\":\"n\""));
  EXPECT_NE(std::string::npos, r.out.find("\"args\":{\"v\":49,\"text\":\"pppp\"}"));
}

TEST_F(DecodeCli, LossesAreReportedOnceWithCountsAndTimes) {
  // 6-word records wrapped twice in 1024; the one at word 500 now flags a word beyond its own.
  std::string bytes = wrapped_file(kT0, 1000);
  bytes[bytes.size() - 4096 + 4 * 500 + 2] |= 1 << 4;
  const std::string lossy = put("lossy.trc", bytes), name = "quarry-decode: " + lossy + ": ";
  CliResult r = run({"--utc", lossy});
  EXPECT_EQ(0, r.status) << r.err;
  EXPECT_EQ(name +
                "the buffer wrapped: 229 older records were overwritten (written between "
                "2024-01-02 03:04:05.000000000 and 2024-01-02 03:04:05.500230000)\n" +
                name +
                "1 record could not be decoded (6 words skipped) between 2024-01-02 "
                "03:04:05.500253000 and 2024-01-02 03:04:05.500255000\n",
            r.err);
  // With --summary the losses are part of the summary, not said again on standard error.
  CliResult summary = run({"--summary", lossy});
  EXPECT_EQ("", summary.err);
  EXPECT_EQ(1u, count(summary.out, "  lost: the buffer wrapped: "));
}

// Ten records a second apart, alternating handle and thread; the dump was at monotonic 2000 s.
TEST_F(DecodeCli, Filters) {
  HeaderItems items;
  items.refs.push_back("QUARRY_DECODE_REF net \"t.dec\" 10.19.1");
  items.threads = {"THREAD main 1\n", "THREAD worker 2\n"};
  Ring ring(1024);
  for (uint32_t i = 0; i < 10; ++i)
    ring.add(encode(i % 2 ? 10 : 0, kT0 + i * 1000000000ull, 1 + i % 3 % 2, {d(i), s("")}));
  ring.add(encode(0, 2061000000000ull, 1, {d(9), s("")}));  // over a minute after the dump: refused
  const std::string file = put("f.trc", ring.file(items));
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{"--handle=net", file}, "13579"},
      {{"--handle=a*", "--handle=x", file}, "02468"},
      {{"--point=net:n", file}, "13579"},
      {{"--point=n", file}, "0123456789"},
      {{"--thread=worker", file}, "147"},
      {{"--thread=1", "--handle=app", file}, "0268"},
      {{"--begin=+3s", "--end=+6.5s", file}, "3456"},
      {{"--begin=2024-01-02 03:04:08Z", file}, "3456789"},
      {{"--utc", "--end=2024-01-02T03:04:07.5", file}, "012"},
      {{"--begin=1004", file}, "456789"},
      {{"--last=996500ms", file}, "3456789"},
      {{"--begin=-997s", "--end=-995.6s", file}, "3"},
  };
  for (const auto& c : cases) {
    CliResult r = run(c.first);
    EXPECT_EQ(0, r.status) << r.err;
    std::string shown;
    for (const std::string& line : lines_of(r.out)) shown += line.substr(line.find("v = ") + 4, 1);
    EXPECT_EQ(c.second, shown) << c.first[0];
  }
}

// A message, every kind of value and of string byte, no arguments, a record without decode entry.
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
  const std::string file = sample_file();
  const std::vector<std::pair<std::vector<std::string>, std::vector<std::string>>> cases = {
      {{"--utc", file},
       {"[2024-01-02 03:04:05.500000000] (+?.\?\?\?\?\?\?\?\?\?) main app:request: request 7 "
        "for /a\\nb",
        "[2024-01-02 03:04:05.500001234] (+0.000001234) worker \"2\" app:values: { neg = -1, "
        "big = -9223372036854775808, text = \"q\\\"\\\\\\x01\xe2\x82\xac\xed\xa0\x80\xff\", "
        "flags = 0xff }",
        "[2024-01-02 03:04:05.500001000] (-0.000000234) 3 app:idle",
        "[2024-01-02 03:04:06.500000002] (+0.999999002) main app:#5: { words = [ "
        "0x00000009, 0x00007978 ] }"}},
      {{"--format=json", file},
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
        R"("index":5,"point":null,"id":5,"words":[9,31096]})"}},
      {{"-f", "chrome", file},
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
        "]"}},
  };
  for (const auto& c : cases) {
    CliResult r = run(c.first);
    EXPECT_EQ("", r.err);
    EXPECT_EQ(c.second, lines_of(r.out)) << c.first[0];
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
}

// Thread 1: a lone end, nested spans, a lone begin; thread 2: a span nested in one of its name.
TEST(DecodeOutput, Spans) {
  put("t.dec",
      "0 req_begin d id @begin:req = begin {id}\n1 req_end d status @end:req\n"
      "2 in_begin - @begin:inner\n3 in_end - @end:inner\n");
  Ring ring(1024);
  const std::vector<std::tuple<uint32_t, uint64_t, uint32_t>> records = {
      {1, 5, 1},  {0, 10, 1}, {0, 15, 2}, {0, 16, 2}, {1, 17, 2},
      {1, 18, 2}, {2, 20, 1}, {3, 25, 1}, {1, 40, 1}, {0, 50, 1}};
  for (const auto& [id, at, thread] : records)
    ring.add(
        encode(id, kT0 + at * 1000, thread, id < 2 ? std::vector<Arg>{d(id)} : std::vector<Arg>{}));
  const std::string file = put("spans.trc", ring.file(HeaderItems{}));

  CliResult text = run({"--no-delta", file});
  EXPECT_EQ("quarry-decode: " + file +
                ": 1 span end without their begin (overwritten or before the data); 1 span "
                "begun and not ended (in flight)\n",
            text.err);
  expect_in_order(text.out, {" [span req 0.000001000 s]", " [span req 0.000003000 s]",
                             " [span inner 0.000005000 s]", " [span req 0.000030000 s]"});
  expect_in_order(run({"-f", "json", file}).out,
                  {"\"span_end\":\"req\"}", "\"span_end\":\"inner\",\"duration_ns\":5000}"});
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

// The same records from C++ and from C (typed_c_host.c), a span, nothing from before the open.
TEST(DecodeTyped, GeneratedDecodeFileDecodesTheCalls) {
  quarry_set_process_name("typed_host");
  typed_spans::note("before the open: a disabled call");
  quarry::provider<typed_points> typed(4096);
  quarry::provider<typed_spans> spans(4096);
  EXPECT_EQ(6u, typed_points::trace_point_count);  // one above the highest index
  EXPECT_EQ(quarry::decode_file_text<typed_points>(),
            quarry_test::read_file(QUARRY_TEST_DECODE_DIR "typed.dec"));
  EXPECT_NE(
      std::string::npos,
      quarry::decode_file_text<typed_spans>().find(
          "\n0 work_begin d item:u @begin:work = working on {item}\n1 work_end - @end:work\n"));

  typed_points::tick();
  typed_points::request(0xFF000000u, std::string_view("GET /x\0junk", 11));
  typed_points::reply(-2, 0xFFFFFFFFFFFFFFFFull);
  typed_points::mixed(int8_t{-1}, nullptr, INT64_MIN, std::string("abcd"), typed_color::blue);
  typed_points::six(1u, 2u, 3u, 4u, 0xFFFFFFFFu, -6);
  typed_c_calls();
  {
    auto work = typed_spans::work(9u);
    typed_spans::note("inside");
  }
  typed_spans::note("after");
  ASSERT_EQ(0, quarry_dump(typed.handle()));
  ASSERT_EQ(0, quarry_dump(spans.handle()));

  // spans.dec is not generated: those records show raw, by index.
  const std::string dir = quarry_test::base_dir() + "typed_host/";
  const CliResult r = run({"-d", QUARRY_TEST_DECODE_DIR, dir + "typed/", dir + "spans/"});
  EXPECT_EQ(0, r.status) << r.err;
  const std::vector<std::string> calls = {
      "typed:tick\n",
      "typed:request: request 4278190080 for GET /x\n",  // cut at the NUL
      "typed:reply: reply -2 after 18446744073709551615 ns\n",
      ("typed:mixed: { small = -1, text = \"(null)\", wide = -9223372036854775808, "
       "name = \"abcd\", color = 200 }\n"),
      "typed:six: 1 2 3 4 4294967295 -6\n",
  };
  std::vector<std::string> parts = calls;  // from C++, then from C
  parts.insert(parts.end(), calls.begin(), calls.end());
  parts.insert(parts.end(), {"spans:#0", "spans:#2", "spans:#1", "spans:#2"});
  EXPECT_EQ(parts.size(), lines_of(r.out).size()) << r.out;
  expect_in_order(r.out, parts);
}

// The generator refuses messages the decoder would reject, so a build cannot ship them.
TEST(DecodeTyped, MessagesTheDecoderWouldRejectAreFound) {
  EXPECT_EQ("", quarry::decode_file_problems<typed_points>());
  EXPECT_EQ(
      "a: the message placeholder {y} names no argument\n"
      "a: the message placeholder {} names no argument\n"
      "b: unmatched } in the message\nb: unmatched { in the message\n",
      quarry::decode_file_problems<undecodable>());
}

}  // namespace

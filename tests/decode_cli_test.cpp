// The quarry-decode command: usage errors, bad input (truncated, garbage, unknown version,
// broken or hostile decode files, random corruption) reported with the file and the reason and
// never a crash, inputs given as directories and named pipes, filters and the loss reports.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <random>
#include <thread>

#include "decode_test_support.h"

using namespace quarry_decode;
using namespace decode_test;

namespace {

// A wrapped trace file of numbered records ("n ds v text"), each record's value its number.
std::string wrapped_file(uint64_t first_time = kT0, uint32_t step = 10, uint32_t records = 400) {
  Ring ring(1024);
  for (uint32_t i = 0; i < records; ++i)
    ring.add(encode(0, first_time + i * step, 1, {d(i), s(i % 3 ? "ab" : "")}));
  return ring.file(HeaderItems{});
}

// Where the data of a trace file begins: after the empty line, at a multiple of 4.
size_t data_offset(const std::string& file) {
  return (file.find("\n\n") + 2 + 3) & ~size_t{3};
}

// `bytes` with the first `from` replaced by `to`.
std::string changed(std::string bytes, const std::string& from, const std::string& to) {
  return bytes.replace(bytes.find(from), from.size(), to);
}

// A trace file of one record whose header names the decode file `name`.
std::string with_decode_file(const std::string& name, const std::string& file_name) {
  HeaderItems items;
  items.refs = {"QUARRY_DECODE_REF app \"" + name + "\" 0.9.1"};
  Ring ring(64);
  ring.add(encode(0, kT0, 1, {d(5), s("x")}));
  ring.add(encode(1, kT0 + 1, 1, {d(6)}));
  return put(file_name, ring.file(items));
}

class DecodeCli : public ::testing::Test {
 protected:
  void SetUp() override { put("t.dec", "0 n ds v text\n"); }
};

TEST_F(DecodeCli, UsageErrors) {
  CliResult help = run({"--help"});
  EXPECT_EQ(0, help.status);
  EXPECT_EQ(0u, help.out.find("Usage: quarry-decode [OPTION]... INPUT...\n"));
  CliResult version = run({"--version"});
  EXPECT_EQ(0, version.status);
  EXPECT_EQ(0u, version.out.find("quarry-decode 1."));
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{}, "no input given\n"},
      {{"--bogus", "x"}, "unknown option --bogus\n"},
      {{"--format=xml", "x"}, "unknown format 'xml' (text, json or chrome)\n"},
      {{"x", "-f"}, "option -f needs a value\n"},
      {{"--summary=yes", "x"}, "option --summary takes no value\n"},
      {{"--begin=yesterday", "x"}, "'yesterday' is not a time (YYYY-MM-DD HH:MM:SS[.frac], "},
      {{"--last=5x", "x"}, "--last: '5x' is not a duration"},
      {{"--end=2024-13-01 00:00", "x"}, "'2024-13-01 00:00' is not a time"},
      {{"--end=2024-01-01 00:60", "x"}, "'2024-01-01 00:60' is not a time"},
  };
  for (const auto& c : cases) {
    CliResult r = run(c.first);
    EXPECT_EQ(kExitUsage, r.status) << c.second;
    EXPECT_EQ(0u, r.err.find("quarry-decode: " + c.second)) << r.err;
    EXPECT_NE(std::string::npos, r.err.find("Try 'quarry-decode --help'.")) << r.err;
  }
  CliResult no_output = run({"-o", quarry_test::base_dir() + "t.dec/x", "in"});
  EXPECT_EQ(kExitUsage, no_output.status);
  EXPECT_NE(std::string::npos, no_output.err.find("t.dec/x: cannot create: Not a directory"));
}

// Bad inputs given together with a good one: each is named with what is wrong, the run exits
// with 1, and the good file (and what could be read of the others) is still shown.
TEST_F(DecodeCli, BadInputsAreReportedAndTheRestIsShown) {
  const std::string good = wrapped_file();
  const std::string dir = quarry_test::base_dir();
  ASSERT_EQ(0, mkfifo((dir + "fifo.dec").c_str(), 0666));
  ASSERT_EQ(0, truncate(put("big.dec", "0 n ds v text\n").c_str(), 17 << 20));
  put("broken.dec", "0 n ds v text\n1 broken q\n");
  // A valid header of a wrapped buffer, then words of random bytes.
  std::mt19937 rng(5);
  std::vector<uint32_t> noise(16384);
  for (uint32_t& w : noise) w = static_cast<uint32_t>(rng());
  HeaderItems noisy;
  noisy.buffer_size = noisy.word_count = 16384;
  // Each input with a part of its message.
  const std::vector<std::pair<std::string, std::string>> cases = {
      {put("cut_data.trc", good.substr(0, data_offset(good) + 2000)),
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
  // The good file's 171 records, and more than 50 of the truncated one.
  EXPECT_GT(count(r.out, " app:n: { v = "), 171u + 50u);
  EXPECT_NE(std::string::npos, r.out.find(" app:#0: "));
  EXPECT_NE(std::string::npos, r.out.find(" app:#1: { words = [ 0x00000006 ] }\n"));
}

// Inputs that are not trace files, bytes after the data, and wall-clock values that put the first
// record just below 2^63 ns and the next one beyond it.
TEST_F(DecodeCli, HostileInputs) {
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
  const struct {
    std::vector<std::string> args;
    int status;
    std::string err;  // a part of the diagnostics
    std::string out;  // a part of the output
  } cases[] = {
      {{"/dev/zero"}, 1, "/dev/zero: header line 1: not a trace header item", ""},
      {{"/dev/null"}, 1, "/dev/null: the stream is empty", ""},
      {{put("stray.trc", wrapped_file() + "xy")}, 0, "2 bytes past the announced data", "v = 399"},
      {{crafted}, 0, "", "] (+0.000001000) 1 app:n"},
      {{"--summary", crafted}, 0, "", "wall clock against monotonic"},
  };
  for (const auto& c : cases) {
    CliResult r = run(c.args);
    EXPECT_EQ(c.status, r.status) << c.args[0] << r.err;
    EXPECT_NE(std::string::npos, r.err.find(c.err)) << r.err;
    EXPECT_NE(std::string::npos, r.out.find(c.out)) << r.out;
  }
}

// Random damage anywhere in a file (header or data) and random truncation give an error or a
// partial decoding, never a crash, in every output format and the summary.
TEST_F(DecodeCli, CorruptedFilesNeverCrash) {
  const std::string good = wrapped_file();
  const size_t header_size = data_offset(good);
  std::mt19937 rng(99);
  size_t refused = 0, decoded = 0;
  for (int round = 0; round < 300; ++round) {
    std::string bytes = good;
    for (int k = 0, flips = 1 + static_cast<int>(rng() % 40); k < flips; ++k) {
      // Every fourth round damages the header, the others the data.
      size_t at =
          round % 4 == 0 ? rng() % header_size : header_size + rng() % (bytes.size() - header_size);
      bytes[at] = static_cast<char>(rng() % 3 == 0 ? 0xFF : rng());
    }
    if (round % 3 == 0) bytes.resize(rng() % bytes.size());
    CliResult r{};
    for (const char* mode : {"--format=json", "--format=chrome", "--summary", "--format=text"}) {
      r = run({mode, put("fuzz.trc", bytes)});
      ASSERT_TRUE(r.status == 0 || r.status == kExitBadInput) << r.err;
    }
    ++(r.out.empty() ? refused : decoded);  // by the text run
  }
  EXPECT_GT(decoded, 150u);
  EXPECT_GT(refused, 20u);
}

// A buffer directory gives its newest trace file; a process directory the newest of each
// buffer, merged by time.
TEST_F(DecodeCli, DirectoriesPickTheNewestFilesAndMerge) {
  const std::string process = quarry_test::make_dir("proc");
  quarry_test::write_file(process + "quarry.info", "PROCESS_PID 4242\nDUMP_SIGNAL 62\n");
  for (const char* dir : {"a", "b", "empty"}) mkdir((process + dir).c_str(), 0777);
  auto write = [&](const std::string& name, const std::string& bytes, time_t mtime) {
    quarry_test::write_file(process + name, bytes);
    const struct timespec times[2] = {{mtime, 0}, {mtime, 0}};
    ASSERT_EQ(0, utimensat(AT_FDCWD, (process + name).c_str(), times, 0));
  };
  // Buffer a: an old file that must not be taken, the current one (odd times), and a newer
  // file whose name is not a trace file's. Buffer b: times that fall between a's.
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

  CliResult nothing = run({process + "empty"});
  EXPECT_EQ(kExitBadInput, nothing.status);
  EXPECT_NE(std::string::npos, nothing.err.find("empty: no trace files"));
}

// A named pipe is followed until the writer closes it; the bytes arrive in small pieces.
TEST_F(DecodeCli, NamedPipeIsReadUntilItEnds) {
  const std::string fifo = quarry_test::base_dir() + "quarry.pipe";
  ASSERT_EQ(0, mkfifo(fifo.c_str(), 0666));
  std::string bytes = header_text(HeaderItems{});
  for (uint32_t i = 0; i < 50; ++i)
    bytes += word_bytes(encode(0, kT0 + i, 1, {d(i), s(std::string(i % 9, 'p'))}));
  std::thread writer([&] {
    int fd = open(fifo.c_str(), O_WRONLY);
    for (size_t at = 0; at < bytes.size(); at += 13) {
      size_t n = std::min<size_t>(13, bytes.size() - at);
      if (write(fd, bytes.data() + at, n) != static_cast<ssize_t>(n)) break;
    }
    close(fd);
  });
  CliResult r = run({"--format=json", fifo});
  writer.join();
  EXPECT_EQ(0, r.status) << r.err;
  EXPECT_EQ(50u, count(r.out, "\"point\":\"n\""));
  EXPECT_NE(std::string::npos, r.out.find("\"args\":{\"v\":49,\"text\":\"pppp\"}"));

  CliResult mixed = run({fifo, put("x.trc", wrapped_file())});
  EXPECT_EQ(kExitUsage, mixed.status);
  EXPECT_NE(std::string::npos, mixed.err.find("a pipe stream cannot be merged with other inputs"));
}

TEST_F(DecodeCli, LossesAreReportedOnceWithCountsAndTimes) {
  // 400 records of 6 words in 1024: the buffer wrapped twice, and the record written at word
  // 1524 (6 * 254) lies at word 500. Its header now flags a word beyond its numeric ones.
  std::string bytes = wrapped_file(kT0, 1000);
  const size_t header = data_offset(bytes) + 4 * 500;
  ASSERT_EQ('\xff', bytes[header + 3]);
  bytes[header + 2] |= 1 << 4;
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

// Records chosen by handle, trace point, thread and time: ten records a second apart,
// alternating handle and thread; the buffer was dumped at monotonic 2000 s.
TEST_F(DecodeCli, Filters) {
  HeaderItems items;
  items.refs.push_back("QUARRY_DECODE_REF net \"t.dec\" 10.19.1");
  items.threads = {"THREAD main 1\n", "THREAD worker 2\n"};
  put("t.dec", "0 n d v\n");
  Ring ring(1024);
  for (uint32_t i = 0; i < 10; ++i)
    ring.add(encode(i % 2 ? 10 : 0, kT0 + i * 1000000000ull, 1 + i % 3 % 2, {d(i)}));
  ring.add(encode(0, 2061000000000ull, 1, {d(9)}));  // over a minute after the dump: refused
  const std::string file = put("f.trc", ring.file(items));
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{"--handle=net"}, "13579"},
      {{"--handle=a*", "--handle=x"}, "02468"},
      {{"--point=net:n"}, "13579"},
      {{"--point=n"}, "0123456789"},
      {{"--thread=worker"}, "147"},
      {{"--thread=1", "--handle=app"}, "0268"},
      {{"--begin=+3s", "--end=+6.5s"}, "3456"},
      {{"--begin=2024-01-02 03:04:08Z"}, "3456789"},
      {{"--utc", "--end=2024-01-02T03:04:07.5"}, "012"},
      {{"--begin=1004"}, "456789"},
      {{"--last=996500ms"}, "3456789"},
      {{"--begin=-997s", "--end=-995.6s"}, "3"},
  };
  for (const auto& c : cases) {
    std::vector<std::string> args = c.first;
    args.push_back(file);
    CliResult r = run(args);
    EXPECT_EQ(0, r.status) << r.err;
    std::string shown;
    for (const std::string& line : lines_of(r.out)) shown += line.substr(line.find("v = ") + 4, 1);
    EXPECT_EQ(c.second, shown) << c.first[0];
  }
}

// A reader that closed its end of the output (`| head`) ends the run quietly.
TEST_F(DecodeCli, ClosedOutputEndsQuietly) {
  signal(SIGPIPE, SIG_IGN);  // as quarry-decode's main does
  int fds[2];
  ASSERT_EQ(0, pipe(fds));
  close(fds[0]);
  FILE* out = fdopen(fds[1], "w");
  const std::string err_path = quarry_test::base_dir() + "err";
  FILE* err = fopen(err_path.c_str(), "w");
  const std::string path = put("w.trc", wrapped_file());
  const char* argv[] = {"quarry-decode", "--summary", path.c_str()};
  EXPECT_EQ(0, run_cli(3, argv, out, err));
  fclose(out);
  fclose(err);
  EXPECT_EQ("", quarry_test::read_file(err_path));
}

}  // namespace

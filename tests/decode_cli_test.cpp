// The quarry-decode command: usage errors, bad input (truncated, garbage, unknown version,
// broken decode files, random corruption) reported with the file and the reason and never a
// crash, inputs given as directories and named pipes, and the loss reports.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <random>
#include <thread>

#include "decode_test_support.h"
#include "quarry_decode/error.h"
#include "quarry_decode/output.h"
#include "quarry_decode/trace_reader.h"

using namespace decode_test;

namespace {

constexpr uint64_t kMono = 1000500000000ull;

// A wrapped trace file of numbered records ("n d v"), each record's value its number.
std::string wrapped_file(uint64_t first_time = kMono, uint32_t step = 10, uint32_t records = 400) {
  Ring ring(1024);
  for (uint32_t i = 0; i < records; ++i)
    ring.add(encode(0, first_time + i * step, 1, {d(i), s(i % 3 ? "ab" : "")}));
  return ring.file(FileSpec{});
}

// Where the data of a trace file begins: after the empty line, at a multiple of 4.
size_t data_offset(const std::string& file) {
  return (file.find("\n\n") + 2 + 3) & ~size_t{3};
}

class DecodeCli : public ::testing::Test {
 protected:
  void SetUp() override {
    quarry_test::write_file(quarry_test::base_dir() + "t.dec", "0 n ds v text\n");
  }
  std::string put(const std::string& name, const std::string& bytes) {
    std::string path = quarry_test::base_dir() + name;
    quarry_test::write_file(path, bytes);
    return path;
  }
};

TEST_F(DecodeCli, UsageErrors) {
  CliResult help = run({"--help"});
  EXPECT_EQ(0, help.status);
  EXPECT_EQ(0u, help.out.find("Usage: quarry-decode [OPTION]... INPUT...\n"));
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{}, "quarry-decode: no input given\n"},
      {{"--bogus", "x"}, "quarry-decode: unknown option --bogus\n"},
      {{"--format=xml", "x"}, "quarry-decode: unknown format 'xml' (text, json or chrome)\n"},
      {{"x", "-f"}, "quarry-decode: option -f needs a value\n"},
      {{"--summary=yes", "x"}, "quarry-decode: option --summary takes no value\n"},
  };
  for (const auto& c : cases) {
    CliResult r = run(c.first);
    EXPECT_EQ(quarry_decode::kExitUsage, r.status) << c.second;
    EXPECT_EQ(0u, r.err.find(c.second)) << r.err;
    EXPECT_NE(std::string::npos, r.err.find("Try 'quarry-decode --help'."));
  }
  CliResult no_output = run({"-o", quarry_test::base_dir() + "t.dec/x", "in"});
  EXPECT_EQ(quarry_decode::kExitUsage, no_output.status);
  EXPECT_NE(std::string::npos, no_output.err.find("t.dec/x: cannot create: Not a directory"));
}

// Each bad input names the file and what is wrong, exits with 1, and still shows what could
// be decoded (the other inputs, the records before a cut).
TEST_F(DecodeCli, BadFilesAreReportedAndTheRestIsShown) {
  const std::string good = wrapped_file();
  const size_t header_size = data_offset(good);
  std::string bad_version = good;
  bad_version.replace(0, 11, "VERSION 9.9");
  const std::vector<std::pair<std::string, std::string>> cases = {
      {put("cut_data.trc", good.substr(0, header_size + 2000)),
       "truncated: the header announces 1024 data words, the file holds 500\n"},
      {put("stray.trc", good + "xy"), ""},  // past the announced data: ignored
      {put("cut_header.trc", good.substr(0, 100)),
       "the header ends before its empty line (truncated file)"},
      {put("empty.trc", ""), "the file is empty"},
      {put("garbage.trc", std::string("\x89PNG\r\n\x1a\n\0\0\0\rIHDR", 16)),
       "header line 1: not a trace header item (expected KEY VALUE)"},
      {put("version.trc", bad_version), "unknown format VERSION \"9.9\" (this decoder reads 1.0)"},
      {put("stream.trc", "VERSION 1.0\nPROG_NAME x\n\n   "),
       "the header has no BUFFER_SIZE or WORD_COUNT"},
      {quarry_test::base_dir() + "missing.trc", "cannot access: No such file or directory"},
  };
  for (const auto& c : cases) {
    CliResult r = run({c.first, put("good.trc", good)});
    if (c.second.empty()) {
      EXPECT_EQ(0, r.status) << r.err;
      continue;
    }
    EXPECT_EQ(quarry_decode::kExitBadInput, r.status) << c.first;
    EXPECT_NE(std::string::npos, r.err.find("quarry-decode: " + c.first + ": " + c.second))
        << r.err;
    EXPECT_GT(count(r.out, " app:n: { v = "), 50u) << "the good file is still decoded";
  }
  // The truncated wrapped file alone: the records that are there are shown.
  CliResult cut = run({quarry_test::base_dir() + "cut_data.trc"});
  EXPECT_EQ(quarry_decode::kExitBadInput, cut.status);
  EXPECT_GT(count(cut.out, " app:n: { v = "), 50u);
}

TEST_F(DecodeCli, DecodeFileErrorsFailTheRunButGoodLinesAreUsed) {
  quarry_test::write_file(quarry_test::base_dir() + "t.dec", "0 n ds v text\n1 broken q\n");
  Ring ring(1024);
  ring.add(encode(0, kMono, 1, {d(5), s("x")}));
  ring.add(encode(1, kMono + 1, 1, {d(6)}));
  CliResult r = run({"--no-delta", put("a.trc", ring.file(FileSpec{}))});
  EXPECT_EQ(quarry_decode::kExitBadInput, r.status);
  EXPECT_NE(std::string::npos,
            r.err.find("quarry-decode: " + quarry_test::base_dir() + "t.dec:2: signature \"q\""));
  EXPECT_NE(std::string::npos, r.out.find(" app:n: { v = 5, text = \"x\" }\n"));
  EXPECT_NE(std::string::npos, r.out.find(" app:#1: { words = [ 0x00000006 ] }\n"));

  // A decode file that does not exist is not an error of the input; it is said once.
  FileSpec spec;
  spec.refs = {"QUARRY_DECODE_REF app \"nowhere.dec\" 0.9.1"};
  const std::string a = put("a.trc", ring.file(spec)), b = put("b.trc", ring.file(spec));
  CliResult missing = run({a, b});
  EXPECT_EQ(0, missing.status) << missing.err;
  EXPECT_EQ(1u, count(missing.err,
                      "decode file \"nowhere.dec\" not found in " + quarry_test::base_dir()));
  EXPECT_EQ(4u, count(missing.out, " app:#"));

  // Directories given with -d come before the decode directory.
  const std::string dir = quarry_test::make_dir("decode_files");
  quarry_test::write_file(dir + "nowhere.dec", "0 found d v\n1 other d w\n");
  CliResult found = run({"-d", dir, a});
  EXPECT_EQ(0, found.status) << found.err;
  EXPECT_EQ(1u, count(found.out, " app:other: { w = 6 }"));
}

// Random damage anywhere in a file (header or data) and random truncation give an error or a
// partial decoding, never a crash, in every output format.
TEST_F(DecodeCli, CorruptedFilesNeverCrash) {
  const std::string good = wrapped_file();
  std::mt19937 rng(99);
  quarry_decode::DecodeFileCache cache({quarry_test::base_dir()});
  size_t refused = 0, decoded = 0;
  const size_t header_size = data_offset(good);
  for (int round = 0; round < 300; ++round) {
    std::string bytes = good;
    const int flips = 1 + static_cast<int>(rng() % 40);
    for (int k = 0; k < flips; ++k) {
      // Every fourth round damages the header, the others the data.
      size_t at =
          round % 4 == 0 ? rng() % header_size : header_size + rng() % (bytes.size() - header_size);
      bytes[at] = static_cast<char>(rng() % 3 == 0 ? 0xFF : rng());
    }
    if (round % 3 == 0) bytes.resize(rng() % bytes.size());
    try {
      quarry_decode::TraceData data = quarry_decode::read_trace_bytes(bytes, "fuzz.trc", cache);
      for (auto format : {quarry_decode::OutputFormat::kText, quarry_decode::OutputFormat::kJson,
                          quarry_decode::OutputFormat::kChrome}) {
        quarry_decode::OutputOptions options;
        options.format = format;
        quarry_decode::OutputBuffer out;
        auto formatter = quarry_decode::make_formatter(options, out);
        data.source->stats = quarry_decode::DecodeStats{};
        formatter->begin_source(*data.source);
        quarry_decode::decode_trace(data, *formatter);
        formatter->end();
        quarry_decode::describe_losses(*data.source, options);
        quarry_decode::write_summary(*data.source, options, out);
      }
      ++decoded;
    } catch (const quarry_decode::DecodeError&) {
      ++refused;
    }
  }
  EXPECT_GT(decoded, 150u);
  EXPECT_GT(refused, 20u);
}

// A buffer directory gives its newest trace file; a process directory the newest of each
// buffer, merged by time.
TEST_F(DecodeCli, DirectoriesPickTheNewestFilesAndMerge) {
  const std::string process = quarry_test::make_dir("proc");
  quarry_test::write_file(process + "quarry.info", "PROCESS_PID 4242\nDUMP_SIGNAL 62\n");
  mkdir((process + "a").c_str(), 0777);
  mkdir((process + "b").c_str(), 0777);
  mkdir((process + "empty").c_str(), 0777);
  // Buffer a: an old file that must not be taken, and the current one (odd times).
  quarry_test::write_file(process + "a/quarry_1.trc", wrapped_file(kMono, 10, 10));
  quarry_test::write_file(process + "a/quarry_0.trc", wrapped_file(kMono + 5, 10, 10));
  quarry_test::write_file(process + "a/notes.trc", "not a trace file");
  struct timespec old_times[2] = {{1000, 0}, {1000, 0}};
  ASSERT_EQ(0, utimensat(AT_FDCWD, (process + "a/quarry_1.trc").c_str(), old_times, 0));
  // Buffer b: times that fall between a's.
  quarry_test::write_file(process + "b/quarry.trc", wrapped_file(kMono, 10, 10));

  CliResult one = run({"--monotonic", "--no-delta", process + "a"});
  EXPECT_EQ(0, one.status) << one.err;
  EXPECT_EQ(0u, one.out.find("[1000.500000005] "));

  CliResult merged = run({"--monotonic", "--no-delta", process});
  EXPECT_EQ(0, merged.status) << merged.err;
  std::vector<uint64_t> times;
  for (size_t at = merged.out.find("[1000."); at != std::string::npos;
       at = merged.out.find("[1000.", at + 1)) {
    times.push_back(std::stoull(merged.out.substr(at + 6, 9)));
  }
  ASSERT_EQ(20u, times.size());
  for (size_t i = 0; i < times.size(); ++i) EXPECT_EQ(500000000 + 5 * i, times[i]) << i;

  CliResult nothing = run({process + "empty"});
  EXPECT_EQ(quarry_decode::kExitBadInput, nothing.status);
  EXPECT_NE(std::string::npos, nothing.err.find("empty: no trace files"));
}

// A named pipe is followed until the writer closes it; the bytes arrive in small pieces.
TEST_F(DecodeCli, NamedPipeIsReadUntilItEnds) {
  const std::string fifo = quarry_test::base_dir() + "quarry.pipe";
  ASSERT_EQ(0, mkfifo(fifo.c_str(), 0666));
  FileSpec spec;
  std::string bytes = header_text(spec);
  for (uint32_t i = 0; i < 50; ++i)
    bytes += word_bytes(encode(0, kMono + i, 1, {d(i), s(std::string(i % 9, 'p'))}));
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
  EXPECT_EQ(quarry_decode::kExitUsage, mixed.status);
  EXPECT_NE(std::string::npos, mixed.err.find("a pipe stream cannot be merged with other inputs"));
}

TEST_F(DecodeCli, LossesAreReportedOnceWithCountsAndTimes) {
  // 400 records of 6 or 7 words in 1024 words: the buffer wrapped twice.
  Ring ring(1024);
  for (uint32_t i = 0; i < 400; ++i)
    ring.add(encode(0, kMono + i * 1000, 1, {d(i), s(i % 3 ? "ab" : "")}));
  std::string bytes = ring.file(FileSpec{});
  // Damage one record in the middle: its value word gets a set flag it does not have.
  const size_t data = data_offset(bytes);
  size_t damaged = 0;
  for (size_t w = 500; w < 1024; ++w) {
    uint32_t word;
    memcpy(&word, bytes.data() + data + 4 * w, 4);
    if ((word >> 24) == 0xFF) {
      word |= 1u << 19;
      memcpy(&bytes[data + 4 * w], &word, 4);
      damaged = w;
      break;
    }
  }
  ASSERT_NE(0u, damaged);
  CliResult r = run({"--utc", put("lossy.trc", bytes)});
  EXPECT_EQ(0, r.status) << r.err;
  EXPECT_EQ(1u, count(r.err, "the buffer wrapped 2 times: "));
  EXPECT_EQ(1u, count(r.err,
                      "older records were overwritten (written between 2024-01-02 "
                      "03:04:05.000000000 and 2024-01-02 03:04:05.5"));
  EXPECT_EQ(1u,
            count(r.err,
                  "1 record could not be decoded (6 words skipped) between 2024-01-02 03:04:05.5"));
  EXPECT_EQ(2u, count(r.err, "\n"));
}

}  // namespace

// The control file: its tokenizer, the rotation scan, the text written for a buffer, and what
// reading it back changes.
#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "ctrl_file.h"
#include "gtest/gtest.h"
#include "ring.h"
#include "live_test_support.h"
#include "test_support.h"

// A failing MAX_SIZE needs an allocation that returns null under the sanitizers' allocators.
extern "C" const char* __asan_default_options() {
  return "allocator_may_return_null=1";
}
extern "C" const char* __tsan_default_options() {
  return "allocator_may_return_null=1";
}

namespace {

using namespace quarry_test;

// Applies `text` as the buffer's control file.
int parse_text(quarry_handle* handle, const std::string& text, int allow_dump) {
  write_file(handle->cb->ctrl_file_name, text);
  return parse_ctrl_file(handle->cb, allow_dump);
}

void set_mtime(const std::string& path, time_t seconds) {
  write_file(path, "x");
  struct timespec times[2] = {{seconds, 0}, {seconds, 0}};
  ASSERT_EQ(0, utimensat(AT_FDCWD, path.c_str(), times, 0));
}

// ---- Tokenizer ---------------------------------------------------------------------------------

struct token_walk {
  explicit token_walk(const char* text) { snprintf(line, sizeof line, "%s", text); }
  // The next token as a string, or "<-1>" / "<-2>" for the two failures.
  std::string next() {
    int length = next_ctrl_token(line, &position, &saved);
    if (length < 0) return "<" + std::to_string(length) + ">";
    EXPECT_EQ(static_cast<size_t>(length), strlen(line + position));
    std::string token(line + position);
    position += length;
    return token;
  }
  char line[1024];
  int position = 0;
  char saved = '\0';
};

TEST(NextCtrlToken, SplitsOnWhitespaceAndRestoresTheLine) {
  token_walk walk(" \tTRACE  app/io\textra  ");
  EXPECT_EQ("TRACE", walk.next());
  EXPECT_EQ("app/io", walk.next());
  EXPECT_EQ("extra", walk.next());
  int before = walk.position;
  EXPECT_EQ("<-1>", walk.next());
  EXPECT_EQ(before, walk.position);  // unchanged when only whitespace is left
  // Every terminator written was put back by the following call.
  EXPECT_STREQ(" \tTRACE  app/io\textra  ", walk.line);
}

TEST(NextCtrlToken, QuotedTokensKeepQuotesSpacesAndBackslashes) {
  token_walk walk("PIPE \"a b\\\" c\"rest \"x\"");
  EXPECT_EQ("PIPE", walk.next());
  EXPECT_EQ("\"a b\\\" c\"", walk.next());  // an escaped quote does not close the token
  EXPECT_EQ("rest", walk.next());           // the token ends right after the closing quote
  EXPECT_EQ("\"x\"", walk.next());
  EXPECT_EQ("<-1>", walk.next());

  token_walk unterminated("NOTRACE \"main");
  EXPECT_EQ("NOTRACE", unterminated.next());
  EXPECT_EQ("<-2>", unterminated.next());

  token_walk empty("   ");
  EXPECT_EQ("<-1>", empty.next());
  EXPECT_EQ(0, empty.position);
}

// ---- Rotation scan -----------------------------------------------------------------------------

TEST(LatestFileLoopIndex, PathsWithoutADirectory) {
  EXPECT_EQ(-1, latest_file_loop_index("quarry"));
  EXPECT_EQ(-1, latest_file_loop_index("/quarry"));  // the only '/' is at position 0
  EXPECT_EQ(0, latest_file_loop_index((base_dir() + "missing/quarry").c_str()));
  EXPECT_EQ(0, latest_file_loop_index((make_dir("rot_empty") + "quarry").c_str()));
}

TEST(LatestFileLoopIndex, NewestRotatedFileWins) {
  std::string dir = make_dir("rot_newest");
  set_mtime(dir + "quarry_1.trc", 1000);
  set_mtime(dir + "quarry_12.trc", 3000);
  set_mtime(dir + "quarry_3.trc", 2000);
  // Names that do not have the "quarry_" form are ignored, however new.
  set_mtime(dir + "quarry.ctrl", 9000);
  set_mtime(dir + "quarryx_7.trc", 9000);
  set_mtime(dir + "other_9.trc", 9000);
  EXPECT_EQ(12, latest_file_loop_index((dir + "quarry").c_str()));

  set_mtime(dir + "quarry_abc.trc", 4000);  // no digits: index 0
  EXPECT_EQ(0, latest_file_loop_index((dir + "quarry").c_str()));
  set_mtime(dir + "quarry_5x.trc", 5000);  // digits up to the first other character
  EXPECT_EQ(5, latest_file_loop_index((dir + "quarry").c_str()));
}

TEST(LatestFileLoopIndex, AmongEqualTimesTheFirstReadStays) {
  std::string dir = make_dir("rot_equal");
  set_mtime(dir + "quarry_2.trc", 1000);
  set_mtime(dir + "quarry_7.trc", 1000);
  set_mtime(dir + "quarry_5.trc", 1000);
  int first_read = -1;
  DIR* d = opendir(dir.c_str());
  ASSERT_NE(nullptr, d);
  while (struct dirent* entry = readdir(d)) {
    if (first_read < 0 && strncmp(entry->d_name, "quarry_", 7) == 0) {
      first_read = atoi(entry->d_name + 7);
    }
  }
  closedir(d);
  EXPECT_EQ(first_read, latest_file_loop_index((dir + "quarry").c_str()));
}

// ---- Writing -----------------------------------------------------------------------------------

TEST(WriteCtrlFile, OneHandleByteForByte) {
  quarry_handle* main_handle = open_handle("main", 65536);
  ASSERT_NE(nullptr, main_handle);
  ASSERT_EQ(0, write_ctrl_file(main_handle->cb));
  EXPECT_EQ("MAX_SIZE 65536\nDUMP on\nFILE_LOOP_COUNT 2\nTRACE main\nNOPIPE main\n",
            read_file(main_handle->cb->ctrl_file_name));

  quarry_set_enabled(main_handle, false);
  main_handle->pipe.store(1);
  main_handle->cb->file_loop_count = 7;
  ASSERT_EQ(0, write_ctrl_file(main_handle->cb));
  EXPECT_EQ("MAX_SIZE 65536\nDUMP on\nFILE_LOOP_COUNT 7\nNOTRACE main\nPIPE main\n",
            read_file(main_handle->cb->ctrl_file_name));
}

TEST(WriteCtrlFile, HandlesFollowTheTableOrder) {
  // One bucket (the first byte 'a'): newest first, whatever the order of opening.
  quarry_handle* a = open_handle("a");
  ASSERT_NE(nullptr, a);
  ASSERT_NE(nullptr, open_handle("x", 4096, a));
  ASSERT_NE(nullptr, open_handle("y", 4096, a));
  ASSERT_EQ(0, write_ctrl_file(a->cb));
  EXPECT_EQ(
      "MAX_SIZE 4096\nDUMP on\nFILE_LOOP_COUNT 2\n"
      "TRACE a/y\nNOPIPE a/y\nTRACE a/x\nNOPIPE a/x\nTRACE a\nNOPIPE a\n",
      read_file(a->cb->ctrl_file_name));

  // Lower bucket first: the owner (bucket 1) before its child (bucket 14), though newer.
  quarry_handle* owner = open_handle("abcdefgh");
  ASSERT_NE(nullptr, owner);
  ASSERT_NE(nullptr, open_handle("x", 4096, owner));
  ASSERT_EQ(0, write_ctrl_file(owner->cb));
  EXPECT_EQ(
      "MAX_SIZE 4096\nDUMP on\nFILE_LOOP_COUNT 2\n"
      "TRACE abcdefgh\nNOPIPE abcdefgh\nTRACE abcdefgh/x\nNOPIPE abcdefgh/x\n",
      read_file(owner->cb->ctrl_file_name));
}

TEST(WriteCtrlFile, UnopenableFile) {
  quarry_handle* handle = open_handle("unopenable");
  ASSERT_NE(nullptr, handle);
  std::string blocker = base_dir() + "blocker";
  write_file(blocker, "");
  std::string through_file = blocker + "/quarry.ctrl";
  char* real_name = handle->cb->ctrl_file_name;
  handle->cb->ctrl_file_name = &through_file[0];
  EXPECT_EQ(1, write_ctrl_file(handle->cb));
  EXPECT_EQ(1, parse_ctrl_file(handle->cb, 1));
  handle->cb->ctrl_file_name = real_name;
  EXPECT_EQ(1, parse_ctrl_file(handle->cb, 1));  // never written: nothing to read
}

// ---- Reading -----------------------------------------------------------------------------------

TEST(ParseCtrlFile, SwitchesByKeywordAndName) {
  quarry_handle* owner = open_handle("sw");
  ASSERT_NE(nullptr, owner);
  quarry_handle* child = open_handle("kid", 4096, owner);
  quarry_handle* other = open_handle("sw_other");
  ASSERT_NE(nullptr, child);
  ASSERT_NE(nullptr, other);

  EXPECT_EQ(0, parse_text(owner,
                          "NOTRACE sw\n"
                          "PIPE sw/kid\n"
                          "   NOTRACE sw/kid   trailing words\n"  // leading space, extra tokens
                          "NOTRACE sw_other\n"                    // a handle of another buffer
                          "NOTRACE nobody\n"
                          "notrace sw\n",  // keywords are case-sensitive
                          0));
  EXPECT_EQ(0, owner->enabled.load());
  EXPECT_EQ(0, owner->pipe.load());
  EXPECT_EQ(0, child->enabled.load());
  EXPECT_EQ(1, child->pipe.load());
  EXPECT_EQ(1, other->enabled.load());

  EXPECT_EQ(0, parse_text(owner,
                          "#TRACE sw\n"      // a comment
                          "TRACE \"sw\"\n"   // quotes stay in the name: no such handle
                          "TRACE\n"          // no value
                          "PIPE \"sw/kid\n"  // unterminated quote
                          "TRACE sw/kid\n"
                          "NOPIPE sw/kid\n"
                          "PIPE sw\n"
                          "NOPIPE sw",  // last line without a newline; later lines win
                          0));
  EXPECT_EQ(0, owner->enabled.load());
  EXPECT_EQ(0, owner->pipe.load());
  EXPECT_EQ(1, child->enabled.load());
  EXPECT_EQ(0, child->pipe.load());
}

TEST(ParseCtrlFile, LongLinesAreReadIn1023ByteParts) {
  quarry_handle* handle = open_handle("longline");
  ASSERT_NE(nullptr, handle);
  // The first part holds "FOO" and spaces only; the rest is read as a line of its own.
  std::string line = "FOO" + std::string(1020, ' ') + "PIPE longline\n";
  EXPECT_EQ(0, parse_text(handle, line, 0));
  EXPECT_EQ(1, handle->pipe.load());
  // A comment covers only its first part.
  line = "#" + std::string(1022, 'x') + "NOTRACE longline\n";
  EXPECT_EQ(0, parse_text(handle, line, 0));
  EXPECT_EQ(0, handle->enabled.load());
}

TEST(ParseCtrlFile, MaxSizeOnlyGrows) {
  quarry_handle* handle = open_handle("sizes");
  ASSERT_NE(nullptr, handle);
  ASSERT_EQ(4096u, size_bytes(handle));
  EXPECT_EQ(0, parse_text(handle, "MAX_SIZE 5000\n", 0));
  EXPECT_EQ(8192u, size_bytes(handle));
  EXPECT_EQ(0, parse_text(handle, "MAX_SIZE 4096\nMAX_SIZE -5\nMAX_SIZE junk\n", 0));
  EXPECT_EQ(8192u, size_bytes(handle));
  EXPECT_EQ(0, parse_text(handle, "MAX_SIZE 8388608\n", 0));  // above the open's 4 MiB limit
  EXPECT_EQ(8388608u, size_bytes(handle));
  // The next rewrite shows the size the buffer really has.
  write_file(handle->cb->ctrl_file_name, "MAX_SIZE 100\n");
  ASSERT_EQ(0, parse_ctrl_file(handle->cb, 0));
  ASSERT_EQ(0, write_ctrl_file(handle->cb));
  EXPECT_EQ(0u, read_file(handle->cb->ctrl_file_name).find("MAX_SIZE 8388608\n"));
}

TEST(ParseCtrlFile, DumpRequests) {
  quarry_handle* handle = open_handle("dumps");
  ASSERT_NE(nullptr, handle);
  dump_counter dumps(buffer_dir(handle));

  // Not "on", a lower-case keyword, or dumps not allowed: no dump.
  EXPECT_EQ(0, parse_text(handle, "DUMP off\nDUMP 1\ndump on\nDUMP\n", 1));
  EXPECT_EQ(0, parse_text(handle, "DUMP on\n", 0));
  EXPECT_EQ(0, dumps.count());

  // Any number of requests, in any letter case, give one dump after the whole file; a last
  // line without a newline counts.
  EXPECT_EQ(0, parse_text(handle, "DUMP On\nNOTRACE dumps\nDUMP oN", 1));
  EXPECT_EQ(1, dumps.count());
  EXPECT_EQ(0, handle->enabled.load());
}

TEST(ParseCtrlFile, UnchangedFileChangesNothingAndDumpsOnce) {
  quarry_handle* owner = open_handle("roundtrip", 16384);
  ASSERT_NE(nullptr, owner);
  quarry_handle* child = open_handle("c", 4096, owner);
  ASSERT_NE(nullptr, child);
  quarry_set_enabled(child, false);
  child->pipe.store(1);
  ASSERT_EQ(0, write_ctrl_file(owner->cb));
  std::string written = read_file(owner->cb->ctrl_file_name);
  dump_counter dumps(buffer_dir(owner));

  EXPECT_EQ(0, parse_ctrl_file(owner->cb, 1));
  EXPECT_EQ(1, owner->enabled.load());
  EXPECT_EQ(0, owner->pipe.load());
  EXPECT_EQ(0, child->enabled.load());
  EXPECT_EQ(1, child->pipe.load());
  EXPECT_EQ(16384u, size_bytes(owner));
  EXPECT_EQ(2, owner->cb->file_loop_count);
  EXPECT_EQ(1, dumps.count());
  ASSERT_EQ(0, write_ctrl_file(owner->cb));
  EXPECT_EQ(written, read_file(owner->cb->ctrl_file_name));
}

TEST(ParseCtrlFile, FileLoopCountAgainstRotatedFiles) {
  quarry_handle* handle = open_handle("rotation");
  ASSERT_NE(nullptr, handle);
  circular_buffer* cb = handle->cb;
  // No rotated file yet: the next index is 1.
  EXPECT_EQ(0, parse_text(handle, "FILE_LOOP_COUNT 4\n", 0));
  EXPECT_EQ(4, cb->file_loop_count);
  EXPECT_EQ(1, cb->file_loop_index);

  std::string dir = buffer_dir(handle);
  set_mtime(dir + "quarry_3.trc", 2000000000);
  set_mtime(dir + "quarry_1.trc", 1000000000);
  EXPECT_EQ(0, parse_text(handle, "FILE_LOOP_COUNT 4\n", 0));
  EXPECT_EQ(0, cb->file_loop_index);
  EXPECT_EQ(0, parse_text(handle, "FILE_LOOP_COUNT 5\n", 0));
  EXPECT_EQ(4, cb->file_loop_index);

  // 0 and text that is no number both mean 2.
  EXPECT_EQ(0, parse_text(handle, "FILE_LOOP_COUNT 0\n", 0));
  EXPECT_EQ(2, cb->file_loop_count);
  EXPECT_EQ(0, cb->file_loop_index);
  EXPECT_EQ(0, parse_text(handle, "FILE_LOOP_COUNT 9\nFILE_LOOP_COUNT many\n", 0));
  EXPECT_EQ(2, cb->file_loop_count);

  // Negative counts give a remainder in [0, |count|) and never trap.
  EXPECT_EQ(0, parse_text(handle, "FILE_LOOP_COUNT -3\n", 0));
  EXPECT_EQ(-3, cb->file_loop_count);
  EXPECT_EQ(1, cb->file_loop_index);  // (3 + 1) rem -3
  EXPECT_EQ(0, parse_text(handle, "FILE_LOOP_COUNT -1\n", 0));
  EXPECT_EQ(0, cb->file_loop_index);

  // A name whose number exceeds int saturates; that index plus one, against INT_MIN and INT_MAX.
  set_mtime(dir + "quarry_99999999999.trc", 2100000000);
  EXPECT_EQ(INT_MAX, latest_file_loop_index(cb->output_file_name));
  EXPECT_EQ(0, parse_text(handle, "FILE_LOOP_COUNT -2147483648\n", 0));
  EXPECT_EQ(INT_MIN, cb->file_loop_count);
  EXPECT_EQ(0, cb->file_loop_index);
  EXPECT_EQ(0, parse_text(handle, "FILE_LOOP_COUNT 2147483647\n", 0));
  EXPECT_EQ(1, cb->file_loop_index);
  EXPECT_EQ(0, parse_text(handle, "FILE_LOOP_COUNT 5\n", 0));
  EXPECT_EQ(3, cb->file_loop_index);  // 2147483648 rem 5
}

// Bytes of address space the process maps now.
uint64_t mapped_bytes() {
  std::string status = read_file("/proc/self/status");
  size_t at = status.find("VmSize:");
  if (at == std::string::npos) return 0;
  return strtoull(status.c_str() + at + 7, nullptr, 10) * 1024;
}

TEST(ParseCtrlFile, FailingMaxSizeStopsTheReading) {
  quarry_handle* handle = open_handle("maxfail");
  ASSERT_NE(nullptr, handle);
  write_file(handle->cb->ctrl_file_name,
             "DUMP on\nPIPE maxfail\nMAX_SIZE 1073741824\nNOTRACE maxfail\n");
  dump_counter dumps(buffer_dir(handle));
  // A gigabyte cannot be had once the address space is capped a little above its current use.
  uint64_t mapped = mapped_bytes();
  ASSERT_NE(0u, mapped);
  struct rlimit previous;
  ASSERT_EQ(0, getrlimit(RLIMIT_AS, &previous));
  struct rlimit capped = previous;
  capped.rlim_cur = mapped + (256u << 20);
  ASSERT_EQ(0, setrlimit(RLIMIT_AS, &capped));
  int result = parse_ctrl_file(handle->cb, 1);
  ASSERT_EQ(0, setrlimit(RLIMIT_AS, &previous));

  EXPECT_EQ(1, result);
  EXPECT_EQ(1, handle->pipe.load());     // the line before stays applied
  EXPECT_EQ(1, handle->enabled.load());  // the line after is not read
  EXPECT_EQ(4096u, size_bytes(handle));
  EXPECT_EQ(0, dumps.count());  // the requested dump is dropped
}

}  // namespace

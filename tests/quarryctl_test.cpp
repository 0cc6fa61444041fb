// quarryctl end to end against a live demo_host (kelp, live configuration) traced below this
// test's own QUARRY_PATH, plus the control-file reading it shares with the library.
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "quarry_layout/control.h"
#include "test_support.h"

namespace {

using quarry_test::base_dir;
using quarry_test::file_exists;
using quarry_test::read_file;

struct Result {
  int status;
  std::string out, err;
};

#ifdef QUARRYCTL_PATH
Result quarryctl(const std::string& args, int max_lines = -1) {
  std::string err_path = base_dir() + "ctl.err";
  const bool decodes = args.compare(0, 4, "dump") == 0 || args.compare(0, 6, "stream") == 0;
  std::string command = std::string(QUARRYCTL_PATH) + " --base " + base_dir() + " " + args +
                        (decodes ? " -d " DECODE_DIR : "") + " 2>" + err_path;
  FILE* pipe = popen(command.c_str(), "r");
  Result result{-1, "", ""};
  char line[4096];
  // Closing the pipe early is how a reader like head ends a stream.
  for (int n = 0; n != max_lines && fgets(line, sizeof line, pipe) != nullptr; ++n)
    result.out += line;
  int status = pclose(pipe);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  result.err = read_file(err_path);
  return result;
}
#endif

pid_t spawn(const char* path, const char* arg) {
  pid_t pid = fork();
  if (pid == 0) {
    freopen("/dev/null", "w", stdout);
    execl(path, path, arg, static_cast<char*>(nullptr));
    _exit(127);
  }
  return pid;
}

class QuarryctlTest : public ::testing::Test {
 protected:
  void SetUp() override {
#ifndef QUARRYCTL_PATH
    GTEST_SKIP() << "quarryctl is not built";
#else
    // Run directly, all cases share one base directory: start from an empty one.
    ASSERT_EQ(system(("rm -rf " + base_dir() + "*").c_str()), 0);
    // The host says when it watches both control files; its last line follows.
    int out[2];
    ASSERT_EQ(pipe(out), 0);
    host_ = fork();
    if (host_ == 0) {
      dup2(out[1], 1);
      execl(DEMO_HOST_PATH, DEMO_HOST_PATH, "--live", static_cast<char*>(nullptr));
      _exit(127);
    }
    close(out[1]);
    said_ = fdopen(out[0], "r");  // kept open: the host may still report on standard output
    char line[512];
    bool live = false;
    while (fgets(line, sizeof line, said_) != nullptr && strncmp(line, "Ctrl-C", 6) != 0)
      live = live || strncmp(line, "Live configuration is on", 24) == 0;
    ASSERT_TRUE(live);
    net_ctrl_ = base_dir() + "demo_host/net/quarry.ctrl";
#endif
  }
  void TearDown() override {
    if (host_ > 0) kill(host_, SIGKILL);
    if (host_ > 0) waitpid(host_, nullptr, 0);
    if (said_ != nullptr) fclose(said_);
  }
  std::string info_path() const {
    return base_dir() + "demo_host/quarry.info";
  }
  // A process directory whose quarry.info names `pid`.
  void fake_process(const std::string& name, pid_t pid) {
    quarry_test::make_dir(name);
    quarry_test::make_dir(name + "/buf");
    quarry_test::write_file(base_dir() + name + "/quarry.info",
                            "PROCESS_PID " + std::to_string(pid) + "\nDUMP_SIGNAL 62\n");
  }
  pid_t host_ = -1;
  FILE* said_ = nullptr;
  std::string net_ctrl_;
};

#ifdef QUARRYCTL_PATH

TEST_F(QuarryctlTest, LsShowsTheHostItsHandlesAndStaleDirectories) {
  pid_t gone = fork();
  if (gone == 0) _exit(0);
  waitpid(gone, nullptr, 0);
  fake_process("ghost", gone);
  Result ls = quarryctl("ls");
  EXPECT_EQ(ls.status, 0) << ls.err;
  EXPECT_NE(ls.out.find("demo_host  PID " + std::to_string(host_) + "  running"), std::string::npos)
      << ls.out;
  EXPECT_NE(ls.out.find("TRACE    NOPIPE  net/io"), std::string::npos) << ls.out;
  EXPECT_NE(ls.out.find("ghost  PID " + std::to_string(gone) + "  stale"), std::string::npos);
  Result json = quarryctl("ls demo_host --json");
  EXPECT_NE(json.out.find("\"live\": true"), std::string::npos) << json.out;
  EXPECT_EQ(json.out.find("ghost"), std::string::npos);
}

TEST_F(QuarryctlTest, DumpWritesNewCompleteFilesThatDecode) {
  Result all = quarryctl("dump demo_host");
  ASSERT_EQ(all.status, 0) << all.err;
  EXPECT_NE(all.out.find("demo_host/net/quarry_"), std::string::npos) << all.out;
  EXPECT_NE(all.out.find("demo_host/app/quarry_"), std::string::npos) << all.out;
  // One buffer through its control file, which must not keep the dump request.
  Result net = quarryctl("dump " + std::to_string(host_) + " net --decode=json");
  ASSERT_EQ(net.status, 0) << net.err;
  EXPECT_NE(net.out.find("\"handle\":\"net/io\""), std::string::npos);
  EXPECT_EQ(net.out.find("\"handle\":\"app\""), std::string::npos);
  EXPECT_NE(read_file(net_ctrl_).find("DUMP off\n"), std::string::npos);
  // Without quarry.info the host is found through /proc.
  unlink(info_path().c_str());
  Result found = quarryctl("dump demo_host app");
  EXPECT_EQ(found.status, 0) << found.err;
}

TEST_F(QuarryctlTest, OffAndOnChangeWhatStreamShowsAndStreamCleansUp) {
  struct Step {
    const char* command;
    bool io_expected;
  } steps[] = {{"off demo_host 'net/*'", false}, {"on demo_host net/io", true}};
  for (const Step& step : steps) {
    Result set = quarryctl(step.command);
    ASSERT_EQ(set.status, 0) << set.err;
    // 12 records span at least two of the host's ticks, each with two net/io records.
    Result stream = quarryctl("stream demo_host net 'net/*' --format=json", 12);
    EXPECT_EQ(stream.status, 0) << step.command << ": " << stream.err;
    EXPECT_NE(stream.out.find("\"handle\":\"net\""), std::string::npos) << stream.out;
    EXPECT_EQ(stream.out.find("\"handle\":\"net/io\"") != std::string::npos, step.io_expected)
        << step.command << ": " << stream.out;
    EXPECT_FALSE(file_exists(base_dir() + "demo_host/net/quarry.pipe"));
    std::string ctrl = read_file(net_ctrl_);
    EXPECT_EQ(ctrl.find("PIPE net"), ctrl.find("NOPIPE net") + 2) << ctrl;
    EXPECT_NE(ctrl.find(step.io_expected ? "\nTRACE net/io" : "\nNOTRACE net/io"),
              std::string::npos);
  }
}

TEST_F(QuarryctlTest, RefusesWhatItMustNotDoAndLeavesFilesAlone) {
  pid_t gone = fork();
  if (gone == 0) _exit(0);
  waitpid(gone, nullptr, 0);
  pid_t sleeper = spawn("/bin/sleep", "60");  // alive, does not catch the dump signal
  fake_process("ghost", gone);
  fake_process("sleeper", sleeper);
  struct Case {
    std::string command;
    int status;
    const char* message;
  } cases[] = {
      {"dump ghost", 1, "not running"},
      {"dump sleeper", 1, "does not catch signal 62"},
      {"off demo_host nosuch", 1, "unknown handle 'nosuch' (handles: app, net/io, net)"},
      {"on demo_host 'disk/*'", 1, "no handle matches 'disk/*'"},
      {"resize demo_host net 4K", 1, "never shrinks"},
      {"resize demo_host net lots", 2, "expected bytes"},
      {"rotate demo_host net 0", 1, "count 0"},
      {"rotate demo_host net -3", 1, "count -3"},
      {"resize demo_host nosuch 1M", 1, "no such buffer (buffers: app, net)"},
      {"dump nosuch", 1, "nosuch: no such process directory"},
      {"frob", 2, "unknown command"},
  };
  const std::string before = read_file(net_ctrl_);
  for (const Case& c : cases) {
    Result r = quarryctl(c.command);
    EXPECT_EQ(r.status, c.status) << c.command << ": " << r.err;
    EXPECT_NE(r.err.find(c.message), std::string::npos) << c.command << ": " << r.err;
  }
  EXPECT_EQ(read_file(net_ctrl_), before);
  EXPECT_EQ(waitpid(sleeper, nullptr, WNOHANG), 0) << "the sleeper was signalled";
  kill(sleeper, SIGKILL);
  waitpid(sleeper, nullptr, 0);
}

#endif

// The library's reading of control files, misreadings included, and the written state reading
// back unchanged.
TEST(ControlFile, ReadsLikeTheLibraryAndRoundTrips) {
  using quarry_layout::parse_control;
  quarry_layout::ControlState s = parse_control(
      "MAX_SIZE lots\nDUMP On\nFILE_LOOP_COUNT 0\nTRACE a\nNOPIPE a\nNOTRAC a\n"
      "NOTRACE \"a\"\n#NOTRACE a\n  PIPE a\nTRACE\n");
  EXPECT_EQ(s.max_size, 0u);
  EXPECT_TRUE(s.dump);
  EXPECT_EQ(s.loop_count, 2);
  ASSERT_EQ(s.handles.size(), 2u);  // "a" and the quoted "\"a\"", which matches no handle
  EXPECT_TRUE(s.handles[0].trace && s.handles[0].pipe);
  EXPECT_EQ(s.ignored.size(), 2u);  // NOTRAC, and TRACE without a value
  EXPECT_EQ(quarry_layout::library_atoi("-1"), -1);
  EXPECT_EQ(static_cast<uint32_t>(quarry_layout::library_atoi("4294971392")), 4096u);

  s.ignored.clear();
  s.dump = false;
  quarry_layout::ControlState back = parse_control(quarry_layout::format_control(s));
  EXPECT_EQ(quarry_layout::format_control(back), quarry_layout::format_control(s));
  EXPECT_FALSE(back.dump);
}

}  // namespace

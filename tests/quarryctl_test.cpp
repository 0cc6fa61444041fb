// quarryctl end to end against a live demo_host (kelp, live configuration) traced below this
// test's own QUARRY_PATH, plus the control-file reading it shares with the library.
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "quarry_layout/control.h"
#include "test_support.h"

namespace {

using namespace quarry_test;

#ifdef QUARRYCTL_PATH
struct Result {
  int status;
  std::string out, err;
};

// Runs quarryctl on base_dir(); stopping to read after max_lines lines is how head ends a stream.
Result quarryctl(const std::string& args, int max_lines = -1) {
  const bool decodes = args.compare(0, 4, "dump") == 0 || args.compare(0, 6, "stream") == 0;
  const std::string command = QUARRYCTL_PATH " --base " + base_dir() + " " + args +
                              (decodes ? " -d " DECODE_DIR : "") + " 2>" + base_dir() + "ctl.err";
  FILE* out = popen(command.c_str(), "r");
  std::string text;
  char line[4096];
  for (int n = 0; n != max_lines && fgets(line, sizeof line, out) != nullptr; ++n) text += line;
  const int status = pclose(out);
  const int code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return {code, text, read_file(base_dir() + "ctl.err")};
}

// demo_host --live until the test ends; it has said its pid once it watches its control files.
struct LiveHost {
  FILE* said = popen("exec " DEMO_HOST_PATH " --live", "r");
  pid_t pid = 0;
  bool live = false;
  LiveHost() {
    char line[512];
    while (!live && fgets(line, sizeof line, said) != nullptr) {
      sscanf(line, "process %d traced", &pid);
      live = strncmp(line, "Ctrl-C", 6) == 0;
    }
  }
  ~LiveHost() {
    if (pid > 0) kill(pid, SIGKILL);
    pclose(said);
  }
};

TEST(Quarryctl, CommandsAgainstALiveHost) {
  LiveHost host;
  ASSERT_TRUE(host.live);
  const std::string pid = std::to_string(host.pid);
  // ghost is above any PID; self is alive, and the dump signal would end the test.
  write_file(make_dir("ghost") + "quarry.info", "PROCESS_PID 4194304\nDUMP_SIGNAL 62\n");
  write_file(make_dir("self") + "quarry.info",
             "PROCESS_PID " + std::to_string(getpid()) + "\nDUMP_SIGNAL 62\n");
  const std::string net_ctrl = base_dir() + "demo_host/net/quarry.ctrl";
  // 12 records span at least two of the host's ticks, each with two net/io records.
  const std::string stream = "stream demo_host net 'net/*' --format=json";
  const std::string net = "\"handle\":\"net\"", io = "\"handle\":\"net/io\"";
  struct Step {
    std::string command;
    int status;
    std::vector<std::string> shown;  // on standard output when done, else on standard error
    std::string hidden = "";         // not on standard output
    std::string ctrl = "";           // in net's control file afterwards; "": left unchanged
    int max_lines = -1;
  } steps[] = {
      {"ls", 0, {"demo_host  PID " + pid + "  running", "ghost  PID 4194304  stale"}},
      {"ls demo_host", 0, {"TRACE    NOPIPE  net/io"}, "ghost"},
      {"ls demo_host --json", 0, {"\"live\": true"}, "ghost"},
      {"dump demo_host", 0, {"demo_host/net/quarry_", "demo_host/app/quarry_"}},
      // One buffer through its control file, which must not keep the dump request.
      {"dump " + pid + " net --decode=json", 0, {io}, "\"handle\":\"app\"", "DUMP off\n"},
      {"off demo_host 'net/*'", 0, {}, "", "\nNOTRACE net/io\n"},
      {stream, 0, {net}, io, "", 12},
      {"on demo_host net/io", 0, {}, "", "\nTRACE net/io\n"},
      {stream, 0, {net, io}, "", "", 12},
      {"dump ghost", 1, {"not running"}},
      {"dump self", 1, {"does not catch signal 62"}},
      {"off demo_host nosuch", 1, {"unknown handle 'nosuch' (handles: app, net/io, net)"}},
      {"on demo_host 'disk/*'", 1, {"no handle matches 'disk/*'"}},
      {"resize demo_host net 32K", 1, {"never shrinks"}},
      {"resize demo_host net lots", 2, {"expected bytes"}},
      {"rotate demo_host net 0", 1, {"count 0"}},
      {"resize demo_host nosuch 1M", 1, {"no such buffer (buffers: app, net)"}},
      {"dump nosuch", 1, {"nosuch: no such process directory"}},
      {"frob", 2, {"unknown command"}},
      {"resize demo_host net 1M", 0, {}, "", "MAX_SIZE 1048576\n"},
      {"rotate demo_host net 3", 0, {}, "", "FILE_LOOP_COUNT 3\n"},
  };
  for (const Step& step : steps) {
    const std::string before = read_file(net_ctrl);
    const Result r = quarryctl(step.command, step.max_lines);
    const std::string ctrl = read_file(net_ctrl);
    SCOPED_TRACE(step.command + ": " + r.out + r.err + ctrl);
    EXPECT_EQ(r.status, step.status);
    for (const std::string& text : step.shown) {
      EXPECT_NE((r.status == 0 ? r.out : r.err).find(text), std::string::npos) << text;
    }
    EXPECT_TRUE(step.hidden.empty() || r.out.find(step.hidden) == std::string::npos);
    EXPECT_TRUE(step.ctrl.empty() ? ctrl == before : ctrl.find(step.ctrl) != std::string::npos);
    // No command leaves a handle piping, nor the pipe that a stream made.
    EXPECT_EQ(ctrl.find("\nPIPE "), std::string::npos);
    EXPECT_FALSE(file_exists(base_dir() + "demo_host/net/quarry.pipe"));
  }
  // Without quarry.info the host is found through /proc.
  unlink((base_dir() + "demo_host/quarry.info").c_str());
  EXPECT_EQ(quarryctl("dump demo_host app").status, 0);
}
#endif

// The library's reading of control files, misreadings included, and a written state reading back.
TEST(ControlFile, ReadsLikeTheLibraryAndRoundTrips) {
  using quarry_layout::parse_control;
  quarry_layout::ControlState s = parse_control(
      "MAX_SIZE lots\nDUMP On\nFILE_LOOP_COUNT 0\nTRACE a\nNOPIPE a\nNOTRAC a\n"
      "NOTRACE \"a\\\"b\"\n#NOTRACE a\n  PIPE a\nTRACE\n");
  EXPECT_EQ(s.max_size, 0u);
  EXPECT_TRUE(s.dump);
  EXPECT_EQ(s.loop_count, 2);
  ASSERT_EQ(s.handles.size(), 2u);  // "a", and a quoted name (quotes kept) that matches none
  EXPECT_EQ(s.handles[1].name, "\"a\\\"b\"");
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

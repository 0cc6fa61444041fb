// Files in the shared trace directory: every way another user could redirect or steer what the
// library writes (a link or planted file at each path, a foreign directory or control file), and
// the modes of the shared and private file modes. Each case runs in a child process of its own,
// so that it meets the library's first open with fresh process state.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <string>

#include "buffer.h"
#include "env.h"
#include "ring.h"
#include "test_support.h"

namespace {

using quarry_test::base_dir;
using quarry_test::read_file;
using quarry_test::write_file;

constexpr uid_t kOtherUser = 65534;
constexpr char kVictimText[] = "MAX_SIZE 1048576\nPIPE buf\n";

mode_t mode_of(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? (st.st_mode & 07777) : 0;
}

// The library's side of an attack, in the child: opens the buffer "buf" and uses it.
struct Child {
  std::string proc;  // process directory, with '/'
  quarry_handle* handle = nullptr;
  int open_result = 0;
  std::string fail;  // what went wrong

  void open() {
    open_result = quarry_open_internal(&handle, "buf", 4096, 4, "b.dec", "1", nullptr);
  }
  void expect(bool ok, const char* what) {
    if (!ok && fail.empty()) fail = what;
  }
  void trace_piped() {
    handle->pipe.store(1);
    QUARRY_TRACE(handle, 0, "d", 7);
  }
  std::string buf() const { return proc + "buf/"; }
};

struct Case {
  const char* name;
  std::function<void(const std::string& proc, const std::string& victim)> plant;
  std::function<void(Child&)> act;
  const char* message;  // expected in the child's output
};

void link_to(const std::string& target, const std::string& path) {
  ASSERT_EQ(0, symlink(target.c_str(), path.c_str())) << path;
}
void foreign(const std::string& path) {
  ASSERT_EQ(0, lchown(path.c_str(), kOtherUser, kOtherUser)) << path;
}
void mkdirs(const std::string& path) {
  ASSERT_EQ(0, system(("mkdir -p '" + path + "'").c_str()));
}

// Modes under umask 022: directories, trace file, control file, info file.
void check_modes(Child& c, mode_t dirs, mode_t trace, mode_t text) {
  umask(022);
  c.open();
  c.open();  // the first open of a fresh directory has no info file yet
  c.expect(quarry_enable_configuration2(c.handle) == 0, "enable");
  c.expect(quarry_dump(c.handle) == 0, "dump");
  c.expect(mode_of(c.proc) == dirs && mode_of(c.buf()) == dirs, "directory mode");
  c.expect(mode_of(c.buf() + "quarry_0.trc") == trace, "trace file mode");
  c.expect(mode_of(c.buf() + "quarry.ctrl") == text, "control file mode");
  c.expect(mode_of(c.proc + "quarry.info") == text, "info file mode");
  c.expect(umask(022) == 022, "umask");
}

const Case kCases[] = {
    {"trace file is a link",
     [](auto& proc, auto& victim) {
       mkdirs(proc + "buf"), link_to(victim, proc + "buf/quarry_0.trc");
     },
     [](Child& c) { c.open(), c.expect(quarry_dump(c.handle) == 1, "dump refused"); },
     "unable to open trace file"},
    {"trace file is a hard link",
     [](auto& proc, auto& victim) {
       mkdirs(proc + "buf");
       ASSERT_EQ(0, link(victim.c_str(), (proc + "buf/quarry_0.trc").c_str()));
     },
     [](Child& c) { c.open(), c.expect(quarry_dump(c.handle) == 1, "dump refused"); },
     "(Operation not permitted)"},
    {"info file is a link",
     [](auto& proc, auto& victim) { mkdirs(proc), link_to(victim, proc + "quarry.info"); },
     [](Child& c) { c.open(), c.open(), c.expect(c.open_result == 0, "open goes on"); }, ""},
    {"control file is a link",
     [](auto& proc, auto& victim) {
       mkdirs(proc + "buf"), link_to(victim, proc + "buf/quarry.ctrl");
     },
     [](Child& c) {
       c.open(), quarry_enable_configuration2(c.handle);
       c.expect(load_ring(c.handle->cb).size_words == 1024, "not applied");
     },
     "is not a regular file of this user or root; not applied"},
    {"control file of another user",
     [](auto& proc, auto&) {
       mkdirs(proc + "buf"), write_file(proc + "buf/quarry.ctrl", kVictimText);
       foreign(proc + "buf/quarry.ctrl");
     },
     [](Child& c) {
       c.open(), quarry_enable_configuration2(c.handle);
       c.expect(load_ring(c.handle->cb).size_words == 1024 && c.handle->pipe.load() == 0,
                "not applied");
       c.expect(read_file(c.buf() + "quarry.ctrl") == kVictimText, "not rewritten");
     },
     "is not a regular file of this user or root; not applied"},
    {"pipe is a link",
     [](auto& proc, auto& victim) {
       mkdirs(proc + "buf"), link_to(victim, proc + "buf/quarry.pipe");
     },
     [](Child& c) { c.open(), c.trace_piped(); }, "quarry.pipe is a symbolic link"},
    {"pipe is a regular file",
     [](auto& proc, auto&) { mkdirs(proc + "buf"), write_file(proc + "buf/quarry.pipe", ""); },
     [](Child& c) {
       c.open(), c.trace_piped();
       c.expect(read_file(c.buf() + "quarry.pipe").empty(), "nothing written");
     },
     "quarry.pipe is not a named pipe"},
    {"pipe of another user",
     [](auto& proc, auto&) {
       mkdirs(proc + "buf");
       ASSERT_EQ(0, mkfifo((proc + "buf/quarry.pipe").c_str(), 0666));
       foreign(proc + "buf/quarry.pipe");
     },
     [](Child& c) {
       int reader = ::open((c.buf() + "quarry.pipe").c_str(), O_RDONLY | O_NONBLOCK);
       c.open(), c.trace_piped();
       char byte;
       c.expect(read(reader, &byte, 1) <= 0, "nothing written");
     },
     "quarry.pipe is a named pipe of another user"},
    {"buffer directory of another user",
     [](auto& proc, auto&) { mkdirs(proc + "buf"), foreign(proc + "buf"); },
     [](Child& c) { c.open(), c.expect(c.open_result == 10, "open fails"); },
     "neither this user nor root"},
    {"process directory of another user", [](auto& proc, auto&) { mkdirs(proc), foreign(proc); },
     [](Child& c) { c.open(), c.expect(c.open_result == 10, "open fails"); },
     "neither this user nor root"},
    {"buffer directory is a link",
     [](auto& proc, auto&) {
       mkdirs(proc + "elsewhere"), link_to(proc + "elsewhere", proc + "buf");
     },
     [](Child& c) { c.open(), c.expect(c.open_result == 10, "open fails"); },
     "buf/ is a symbolic link"},
    {"process directory is a link",
     [](auto& proc, auto&) {
       mkdirs(base_dir() + "elsewhere");
       link_to(base_dir() + "elsewhere", proc.substr(0, proc.size() - 1));
     },
     [](Child& c) { c.open(), c.expect(c.open_result == 10, "open fails"); }, "is a symbolic link"},
    {"shared modes", nullptr, [](Child& c) { check_modes(c, 0777, 0666, 0644); }, ""},
    {"private mode from the environment", nullptr,
     [](Child& c) {
       setenv("QUARRY_FILE_MODE", "private", 1);
       check_modes(c, 0700, 0600, 0600);
     },
     ""},
    {"private mode from the setup file", nullptr,
     [](Child& c) {
       static const std::string setup = base_dir() + "private.setup";
       write_file(setup, "QUARRY_FILE_MODE = private\n");
       static const char* const candidates[] = {setup.c_str(), nullptr};
       set_setup_file_candidates(candidates);
       check_modes(c, 0700, 0600, 0600);
     },
     ""},
};

TEST(FileSafety, PlantedFilesAndDirectoriesAreRefusedAndModesAreExact) {
  if (geteuid() != 0) GTEST_SKIP() << "planting another user's files needs root";
  int index = 0;
  for (const Case& attack : kCases) {
    SCOPED_TRACE(attack.name);
    const std::string name = "attack" + std::to_string(index++);
    const std::string proc = base_dir() + name + "/";
    const std::string victim = base_dir() + name + ".victim";
    write_file(victim, kVictimText);
    chmod(victim.c_str(), 0600);
    foreign(victim);
    if (attack.plant) attack.plant(proc, victim);
    const std::string err_path = base_dir() + name + ".err";
    int report[2];
    ASSERT_EQ(0, pipe(report));
    pid_t pid = fork();
    if (pid == 0) {
      // Dump reports go to standard output, the others to standard error: both are kept.
      int out = ::open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      dup2(out, 1), dup2(out, 2);
      quarry_set_process_name(name.c_str());
      Child child;
      child.proc = proc;
      attack.act(child);
      ssize_t ignored = write(report[1], child.fail.data(), child.fail.size());
      (void)ignored;
      fflush(nullptr);
      _exit(0);
    }
    close(report[1]);
    char text[256];
    ssize_t got = read(report[0], text, sizeof text);
    close(report[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ("", std::string(text, got > 0 ? got : 0));
    EXPECT_EQ(kVictimText, read_file(victim));
    EXPECT_NE(std::string::npos, read_file(err_path).find(attack.message)) << read_file(err_path);
  }
}

}  // namespace

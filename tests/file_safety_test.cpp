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

#include <string>

#include "buffer.h"
#include "env.h"
#include "ring.h"
#include "test_support.h"

namespace {

using quarry_test::base_dir;
using quarry_test::read_file;
using quarry_test::write_file;

constexpr char kVictimText[] = "MAX_SIZE 1048576\nPIPE buf\n";

mode_t mode_of(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? (st.st_mode & 07777) : 0;
}

// The library's side, in the child: opens the buffer "buf" below the process directory and
// uses it; fail names the first check that went wrong.
struct Child {
  std::string proc, fail;
  quarry_handle* handle = nullptr;
  int open_result = 0;

  void open() {
    open_result = quarry_open_internal(&handle, "buf", 4096, 4, "b.dec", "1", nullptr);
  }
  void expect(bool ok, const char* what) {
    if (!ok && fail.empty()) fail = what;
  }
  std::string buf() const { return proc + "buf/"; }
};

void dump_refused(Child& c) {
  c.open();
  c.expect(quarry_dump(c.handle) == 1, "dump refused");
}
void opens_twice(Child& c) {
  c.open();
  c.open();
  c.expect(c.open_result == 0, "open goes on");
}
void open_fails(Child& c) {
  c.open();
  c.expect(c.open_result == 10, "open fails");
}
void config_not_applied(Child& c) {
  c.open();
  quarry_enable_configuration2(c.handle);
  c.expect(load_ring(c.handle->cb).size_words == 1024 && c.handle->pipe.load() == 0, "applied");
  c.expect(read_file(c.buf() + "quarry.ctrl") == kVictimText, "not rewritten");
}
void nothing_piped(Child& c) {
  int reader = ::open((c.buf() + "quarry.pipe").c_str(), O_RDONLY | O_NONBLOCK);
  char bytes[64];
  while (read(reader, bytes, sizeof bytes) > 0) {
  }
  c.open();
  c.handle->pipe.store(1);
  QUARRY_TRACE(c.handle, 0, "d", 7);
  c.expect(read(reader, bytes, 1) <= 0, "nothing written");
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

const char kNotApplied[] = "is not a regular file of this user or root; not applied";
const char kNotOurs[] = "neither this user nor root";

// Each plant runs in the shell in the process directory $P, with the other user's file $VICTIM.
const struct {
  const char* plant;
  void (*act)(Child&);
  const char* message;  // expected in the child's output
} kCases[] = {
    {"mkdir buf && ln -s $VICTIM buf/quarry_0.trc", dump_refused, "unable to open trace file"},
    {"mkdir buf && ln $VICTIM buf/quarry_0.trc", dump_refused, "(Operation not permitted)"},
    {"ln -s $VICTIM quarry.info", opens_twice, ""},
    {"mkdir buf && ln -s $VICTIM buf/quarry.ctrl", config_not_applied, kNotApplied},
    {"mkdir buf && cp -p $VICTIM buf/quarry.ctrl", config_not_applied, kNotApplied},
    {"mkdir buf && ln -s $VICTIM buf/quarry.pipe", nothing_piped, "quarry.pipe is a symbolic link"},
    {"mkdir buf && touch buf/quarry.pipe", nothing_piped, "quarry.pipe is not a named pipe"},
    {"mkdir buf && mkfifo buf/quarry.pipe && chown 65534 buf/quarry.pipe", nothing_piped,
     "quarry.pipe is a named pipe of another user"},
    {"mkdir buf && chown 65534 buf", open_fails, kNotOurs},
    {"chown 65534 .", open_fails, kNotOurs},
    {"mkdir elsewhere && ln -s elsewhere buf", open_fails, "buf/ is a symbolic link"},
    {"rmdir $P && mkdir $P.elsewhere && ln -s $P.elsewhere $P", open_fails, "is a symbolic link"},
    {"", [](Child& c) { check_modes(c, 0777, 0666, 0644); }, ""},
    {"",
     [](Child& c) {
       setenv("QUARRY_FILE_MODE", "private", 1);
       check_modes(c, 0700, 0600, 0600);
     },
     ""},
    {"",
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
  for (const auto& attack : kCases) {
    SCOPED_TRACE(attack.plant);
    const std::string name = "attack" + std::to_string(index++), proc = base_dir() + name + "/";
    const std::string victim = base_dir() + name + ".victim", output = base_dir() + name + ".err";
    write_file(victim, kVictimText);
    // The process directory is there for a plant only: the modes are the library's own.
    std::string shell = "export P='" + base_dir() + name + "' VICTIM='" + victim +
                        "' && chmod 600 $VICTIM && chown 65534 $VICTIM";
    // The process directory is there for a plant only: the modes are the library's own.
    if (*attack.plant) shell += std::string(" && mkdir $P && cd $P && ") + attack.plant;
    ASSERT_EQ(0, system(shell.c_str()));
    int status = quarry_test::in_child([&] {
      // Dump reports go to standard output, the others to standard error: both are kept.
      int out = ::open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      dup2(out, 1);
      dup2(out, 2);
      quarry_set_process_name(name.c_str());
      Child child;
      child.proc = proc;
      attack.act(child);
      fprintf(stderr, "\nfailed check: %s\n", child.fail.c_str());
      return child.fail.empty() ? 0 : 1;
    });
    EXPECT_EQ(0, status) << read_file(output);
    EXPECT_EQ(kVictimText, read_file(victim));
    EXPECT_NE(std::string::npos, read_file(output).find(attack.message)) << read_file(output);
  }
}

}  // namespace

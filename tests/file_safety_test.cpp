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
// uses it; each use tells whether the library behaved.
struct Child {
  std::string proc;
  quarry_handle* h = nullptr;

  int open() { return quarry_open_internal(&h, "buf", 4096, 4, "b.dec", "1", nullptr); }
  std::string buf() const { return proc + "buf/"; }
};

bool dump_refused(Child& c) {
  return c.open() == 0 && quarry_dump(c.h) == 1;
}
bool opens_twice(Child& c) {
  return c.open() == 0 && c.open() == 0;
}
bool open_fails(Child& c) {
  return c.open() == 10;
}
bool config_not_applied(Child& c) {
  c.open();
  quarry_enable_configuration2(c.h);
  return load_ring(c.h->cb).size_words == 1024 && c.h->pipe.load() == 0 &&
         read_file(c.buf() + "quarry.ctrl") == kVictimText;
}
bool nothing_piped(Child& c) {
  int reader = ::open((c.buf() + "quarry.pipe").c_str(), O_RDONLY | O_NONBLOCK);
  char bytes[64];
  while (read(reader, bytes, sizeof bytes) > 0) {
  }
  c.open();
  c.h->pipe.store(1);
  QUARRY_TRACE(c.h, 0, "d", 7);
  return read(reader, bytes, 1) <= 0;
}
// Modes under umask 022: directories, trace file, control file, info file.
bool modes_are(Child& c, mode_t dirs, mode_t trace, mode_t text) {
  umask(022);
  c.open();  // the first open of a fresh directory has no info file yet
  bool ok = c.open() == 0 && quarry_enable_configuration2(c.h) == 0 && quarry_dump(c.h) == 0;
  for (auto [file, mode] : {std::pair{"", dirs},
                            {"buf", dirs},
                            {"buf/quarry_0.trc", trace},
                            {"buf/quarry.ctrl", text},
                            {"quarry.info", text}}) {
    if (mode_of(c.proc + file) == mode) continue;
    fprintf(stderr, "mode of '%s' is %o\n", file, mode_of(c.proc + file));
    ok = false;
  }
  return ok && umask(022) == 022;
}

const char kNotApplied[] = "is not a regular file of this user or root; not applied";
const char kNotOurs[] = "neither this user nor root";

// Each plant runs in the shell in the process directory $P, with the other user's file $VICTIM.
const struct {
  const char* plant;
  bool (*act)(Child&);
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
    {"", [](Child& c) { return modes_are(c, 0777, 0666, 0644); }, ""},
    {"",
     [](Child& c) {
       setenv("QUARRY_FILE_MODE", "private", 1);
       return modes_are(c, 0700, 0600, 0600);
     },
     ""},
    {"",
     [](Child& c) {
       static const std::string setup = base_dir() + "private.setup";
       write_file(setup, "QUARRY_FILE_MODE = private\n");
       static const char* const candidates[] = {setup.c_str(), nullptr};
       set_setup_file_candidates(candidates);
       return modes_are(c, 0700, 0600, 0600);
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
      return attack.act(child) ? 0 : 1;
    });
    EXPECT_EQ(0, status) << read_file(output);
    EXPECT_EQ(kVictimText, read_file(victim));
    EXPECT_NE(std::string::npos, read_file(output).find(attack.message)) << read_file(output);
  }
}

}  // namespace

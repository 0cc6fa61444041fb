// Files in the shared trace directory: every way another user could redirect or steer what the
// library writes (a link or planted file at each path, a foreign directory or control file), and
// the exact shared and private file modes. Each case runs in a child with fresh process state.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include "env.h"
#include "ring.h"
#include "test_support.h"

namespace {

using quarry_test::base_dir;

constexpr char kVictimText[] = "MAX_SIZE 1048576\nPIPE buf\n";

// The library's side, in the child: opens the buffer "buf" and tells whether the library behaved.
struct Child {
  std::string proc;
  quarry_handle* h = nullptr;

  int open() { return quarry_open_internal(&h, "buf", 4096, 4, "b.dec", "1", nullptr); }
  bool dump_refused() { return open() == 0 && quarry_dump(h) == 1; }
  bool opens_twice() { return open() == 0 && open() == 0; }
  bool open_fails() { return open() == 10; }
  bool config_not_applied() {
    open();
    quarry_enable_configuration2(h);
    return load_ring(h->cb).size_words == 1024 && h->pipe.load() == 0 &&
           quarry_test::read_file(proc + "buf/quarry.ctrl") == kVictimText;
  }
  bool nothing_piped() {
    int reader = ::open((proc + "buf/quarry.pipe").c_str(), O_RDONLY | O_NONBLOCK);
    char bytes[64];
    while (read(reader, bytes, sizeof bytes) > 0) continue;  // what the path held before
    open();
    h->pipe.store(1);
    QUARRY_TRACE(h, 0, "d", 7);
    return read(reader, bytes, 1) <= 0;
  }
  // Modes under umask 022: directories, trace file, control file, info file.
  bool modes_are(mode_t dirs, mode_t trace, mode_t text) {
    umask(022);
    open();  // the first open of a fresh directory has no info file yet
    auto mode_is = [&](const char* file, mode_t mode) {
      struct stat st {};
      stat((proc + file).c_str(), &st);
      fprintf(stderr, "mode of '%s' is %o\n", file, st.st_mode & 07777);
      return (st.st_mode & 07777) == mode;
    };
    return open() == 0 && quarry_enable_configuration2(h) == 0 && quarry_dump(h) == 0 &&
           mode_is("", dirs) && mode_is("buf", dirs) && mode_is("buf/quarry_0.trc", trace) &&
           mode_is("buf/quarry.ctrl", text) && mode_is("quarry.info", text) && umask(022) == 022;
  }
  bool shared_modes() { return modes_are(0777, 0666, 0644); }
  bool private_by_environment() {
    setenv("QUARRY_FILE_MODE", "private", 1);
    return modes_are(0700, 0600, 0600);
  }
  bool private_by_setup_file() {
    const std::string setup = proc.substr(0, proc.size() - 1) + ".setup";
    quarry_test::write_file(setup, "QUARRY_FILE_MODE = private\n");
    const char* const candidates[] = {setup.c_str(), nullptr};
    set_setup_file_candidates(candidates);
    return modes_are(0700, 0600, 0600);
  }
};

using C = Child;
const char kNotApplied[] = "is not a regular file of this user or root; not applied";
const char kNotOurs[] = "neither this user nor root";

// Shell run in the process directory $P next to another user's $VICTIM (none: $P is the library's).
const struct {
  const char* plant;
  bool (Child::*act)();
  const char* message;  // expected in the child's output
} kCases[] = {
    {"mkdir buf && ln -s $VICTIM buf/quarry_0.trc", &C::dump_refused, "unable to open trace file"},
    {"mkdir buf && ln $VICTIM buf/quarry_0.trc", &C::dump_refused, "(Operation not permitted)"},
    {"ln -s $VICTIM quarry.info", &C::opens_twice, ""},
    {"mkdir buf && ln -s $VICTIM buf/quarry.ctrl", &C::config_not_applied, kNotApplied},
    {"mkdir buf && cp -p $VICTIM buf/quarry.ctrl", &C::config_not_applied, kNotApplied},
    {"mkdir buf && ln -s $VICTIM buf/quarry.pipe", &C::nothing_piped, "pipe is a symbolic link"},
    {"mkdir buf && touch buf/quarry.pipe", &C::nothing_piped, "quarry.pipe is not a named pipe"},
    {"mkdir buf && mkfifo buf/quarry.pipe && chown 65534 buf/quarry.pipe", &C::nothing_piped,
     "quarry.pipe is a named pipe of another user"},
    {"mkdir buf && chown 65534 buf", &C::open_fails, kNotOurs},
    {"chown 65534 .", &C::open_fails, kNotOurs},
    {"mkdir elsewhere && ln -s elsewhere buf", &C::open_fails, "buf/ is a symbolic link"},
    {"rmdir $P && mkdir $P.x && ln -s $P.x $P", &C::open_fails, "is a symbolic link"},
    {"", &C::shared_modes, ""},
    {"", &C::private_by_environment, ""},
    {"", &C::private_by_setup_file, ""},
};

TEST(FileSafety, PlantedFilesAndDirectoriesAreRefusedAndModesAreExact) {
  if (geteuid() != 0) GTEST_SKIP() << "planting another user's files needs root";
  int index = 0;
  for (const auto& attack : kCases) {
    SCOPED_TRACE(attack.plant);
    const std::string name = "attack" + std::to_string(index++), proc = base_dir() + name + "/";
    const std::string victim = base_dir() + name + ".victim", output = base_dir() + name + ".err";
    quarry_test::write_file(victim, kVictimText);
    std::string shell = "export P='" + base_dir() + name + "' VICTIM='" + victim +
                        "' && chmod 600 $VICTIM && chown 65534 $VICTIM";
    if (*attack.plant) shell += std::string(" && mkdir $P && cd $P && ") + attack.plant;
    ASSERT_EQ(0, system(shell.c_str()));
    int status = quarry_test::in_child([&] {
      // Dump reports go to standard output, the others to standard error: both are kept.
      int out = ::open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      dup2(out, 1);
      dup2(out, 2);
      quarry_set_process_name(name.c_str());
      return (Child{proc}.*attack.act)() ? 0 : 1;
    });
    const std::string out = quarry_test::read_file(output);
    EXPECT_EQ(0, status) << out;
    EXPECT_NE(std::string::npos, out.find(attack.message)) << out;
    EXPECT_EQ(kVictimText, quarry_test::read_file(victim));
  }
}

}  // namespace

// Opening handles: size clamping and name checks, children and twins with their ID ranges,
// failures that leave the registry intact, many threads at once; then the files the open makes in
// the shared trace directory: planted links and files refused, shared and private modes exact.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <thread>

#include "env.h"
#include "open.h"
#include "ring.h"
#include "test_support.h"

namespace {

using Handles = std::vector<quarry_handle*>;

Handles listed(circular_buffer* cb) {
  Handles handles;
  for (handle_node* n = cb->handle_list.load(); n != nullptr; n = n->next.load())
    handles.push_back(n->handle);
  return handles;
}

class Open : public ::testing::Test {
 protected:
  void SetUp() override { quarry_set_process_name("open_test"); }
  // Opens into h_ and returns the result; standard error goes to err_.
  int open(const char* name, unsigned size, unsigned count, quarry_handle* parent = nullptr,
           const char* decode = "d.dec", const char* tag = "7") {
    testing::internal::CaptureStderr();
    int result = quarry_open_internal(&h_, name, size, count, decode, tag, parent);
    err_ = testing::internal::GetCapturedStderr();
    return result;
  }
  quarry_handle* must_open(const char* name, unsigned count, quarry_handle* parent = nullptr,
                           const char* decode = "d.dec", const char* tag = "7") {
    EXPECT_EQ(0, open(name, 4096, count, parent, decode, tag)) << name << ": " << err_;
    return h_;
  }
  // An open that must fail so, leaving the handle null and the registry without the name.
  void must_fail(const char* name, quarry_handle* parent, int result, const std::string& message) {
    EXPECT_EQ(result, open(name, 4096, 1, parent)) << name;
    EXPECT_EQ(message, err_);
    EXPECT_EQ(nullptr, h_) << name;
    const std::string full = parent ? std::string(parent->name) + "/" + name : name;
    EXPECT_EQ(nullptr, find_handle_by_name(full.c_str()));
  }
  static std::string dir(const std::string& name) {
    return quarry_test::base_dir() + "open_test/" + name + "/";
  }
  quarry_handle* h_ = nullptr;
  std::string err_;
};

TEST_F(Open, SizeIsClampedWithAMessageAndRaisedToAPowerOfTwo) {
  // The size as the message shows it (none when it is in range) and the ring's words.
  const struct {
    unsigned size;
    const char* shown;
    uint32_t words;
  } cases[] = {{100, "100", 1024},
               {0, "0", 1024},
               {5000, nullptr, 2048},
               {4194304, nullptr, 1048576},
               {4194305, "4194305", 1048576},
               {4294967295u, "-1", 1048576}};
  for (const auto& c : cases) {
    const std::string name = "s" + std::to_string(c.size);
    ASSERT_EQ(0, open(name.c_str(), c.size, 1));
    EXPECT_EQ(c.shown == nullptr
                  ? ""
                  : "quarry_open(): Process open_test: Buffer " + name + ": Size " + c.shown +
                        " not in valid range [4096...4194304]. Adjusting to " +
                        std::to_string(c.words * 4) + "\n",
              err_);
    EXPECT_EQ(c.words, load_ring(h_->cb).size_words) << name;
  }
  // A child neither checks nor changes the size.
  ASSERT_EQ(0, open("c", 100, 1, must_open("sparent", 1)));
  EXPECT_EQ("", err_);
  EXPECT_EQ(1024u, load_ring(h_->cb).size_words);
}

TEST_F(Open, InvalidNamesAreRefusedBeforeAnythingIsBuilt) {
  circular_buffer* head = circular_buffer_list.load();
  h_ = reinterpret_cast<quarry_handle*>(0x1);
  EXPECT_EQ(2, open(nullptr, 4096, 1));
  EXPECT_EQ("quarry_open(): Invalid NULL quarry handle name\n", err_);
  for (const char* bad : {"a b", "a\tb", "a/b", "a\nb", "a\rb", "/", " "}) {
    EXPECT_EQ(3, open(bad, 4096, 1)) << bad;
    EXPECT_EQ("quarry_open(): Invalid quarry handle name. Name must not contain spaces or '/'\n",
              err_);
  }
  EXPECT_EQ(reinterpret_cast<quarry_handle*>(0x1), h_);  // untouched
  EXPECT_EQ(head, circular_buffer_list.load());
  // The parent's full name may hold '/': a grandchild is fine.
  quarry_handle* child = must_open("in", 1, must_open("nest", 1));
  EXPECT_STREQ("nest/in/deep", quarry_handle_get_name(must_open("deep", 1, child)));
}

TEST_F(Open, NewBufferThenChildrenSharingItWithConsecutiveIds) {
  quarry_handle* app = must_open("app", 10);
  EXPECT_EQ(dir("app") + "quarry", app->cb->output_file_name);
  EXPECT_EQ(dir("app") + "quarry.ctrl", app->cb->ctrl_file_name);
  quarry_handle* empty = must_open("none", 0, app, "x.dec");
  quarry_handle* io = must_open("io", 5, app, "io.dec");
  EXPECT_EQ((Handles{app, empty, io}), listed(app->cb));
  EXPECT_STREQ("QUARRY_DECODE_REF app \"d.dec\" 0.9.7\n", app->decode_ref);
  EXPECT_STREQ("QUARRY_DECODE_REF app/none \"x.dec\" 10.9.7\n", empty->decode_ref);
  EXPECT_STREQ("QUARRY_DECODE_REF app/io \"io.dec\" 10.14.7\n", io->decode_ref);
  EXPECT_FALSE(quarry_test::file_exists(dir("io")));
  // The same full name with the same decode file is the same handle, whatever else differs.
  ASSERT_EQ(0, open("io", 8192, 99, app, "io.dec", "other"));
  EXPECT_EQ(io, h_);
  // A long reference line is allocated for what it holds; its IDs show the repeat took none.
  const std::string file(5000, 'f'), tag(300, 't');
  EXPECT_EQ("QUARRY_DECODE_REF app/big \"" + file + "\" 15.15." + tag + "\n",
            must_open("big", 1, app, file.c_str(), tag.c_str())->decode_ref);
}

TEST_F(Open, OtherDecodeFileMakesATwinInTheSameBuffer) {
  quarry_handle* tw = must_open("tw", 3, nullptr, "a.dec");
  quarry_handle* twin = must_open("tw", 4, nullptr, "b.dec");
  const std::string name = quarry_handle_get_name(twin);
  EXPECT_TRUE(name.size() > 3 && name.size() <= 10 && name.rfind("tw_", 0) == 0 &&
              name.find_first_not_of("0123456789abcdef", 3) == std::string::npos)
      << name;
  EXPECT_EQ("QUARRY_DECODE_REF " + name + " \"b.dec\" 3.6.7\n", twin->decode_ref);
  EXPECT_FALSE(quarry_test::file_exists(dir(name)));
  EXPECT_EQ(tw, must_open("tw", 1, nullptr, "a.dec"));
  EXPECT_EQ(twin, find_handle_by_name(name.c_str()));
}

TEST_F(Open, FailuresLeaveTheRegistryAndTheBuffersAsTheyWere) {
  // Trace point IDs run out at exactly 65536; a count of 0 still fits after them.
  quarry_handle* big = must_open("big", 65000);
  EXPECT_EQ(65000u, must_open("rest", 536, big)->first_trace_point_id);
  must_fail("over", big, 6,
            "quarry_open(): too many handles created on same buffer. Run out of dynamic "
            "tracepoint IDs.\n");
  EXPECT_EQ(2u, big->cb->handle_count.load());
  EXPECT_STREQ("QUARRY_DECODE_REF big/zero \"d.dec\" 65536.65535.7\n",
               must_open("zero", 0, big)->decode_ref);

  // A regular file where the buffer's directory goes.
  const std::string path = dir("blocked"), file = path.substr(0, path.size() - 1);
  quarry_test::write_file(file, "not a directory");
  must_fail("blocked", nullptr, 10,
            "QUARRY ERROR: " + path + " exists but it's not a directory\n" +
                "quarry_open(): unable to create quarry directory " + path + "\n");
  EXPECT_EQ(big->cb, circular_buffer_list.load());
  ASSERT_EQ(0, unlink(file.c_str()));
  EXPECT_NE(nullptr, must_open("blocked", 1));

  // A child of a watched buffer whose control file cannot come back: the watch is not re-added.
  quarry_handle* parent = must_open("watched", 1);
  circular_buffer* cb = parent->cb;
  ASSERT_EQ(0, quarry_enable_configuration2(parent));
  ASSERT_GE(cb->ctrl_watch, 0);
  ASSERT_EQ(0, unlink(cb->ctrl_file_name));
  ASSERT_EQ(0, rmdir(dir("watched").c_str()));
  must_fail("lost", parent, 7, "quarry_open(): unable to re-add inotify watch for control file\n");
  EXPECT_LT(cb->ctrl_watch, 0);
  EXPECT_EQ((Handles{parent}), listed(cb));
  EXPECT_EQ(1u, cb->handle_count.load());
  EXPECT_NE(nullptr, must_open("lost", 1, parent));
}

TEST_F(Open, ConcurrentOpensGiveOneHandlePerFullName) {
  constexpr int kThreads = 8;
  std::atomic<bool> go{false}, stop{false};
  std::atomic<int> faults{0};
  circular_buffer* before = circular_buffer_list.load();
  // Walks the registry the way a dump does, without the lock: all it reaches is complete.
  std::thread reader([&] {
    while (!stop.load()) {
      for (circular_buffer* cb = circular_buffer_list.load(); cb; cb = cb->next.load()) {
        const uint32_t count = cb->handle_count.load();
        const Handles handles = listed(cb);
        faults += handles.size() < count || cb->output_file_name == nullptr;
        for (quarry_handle* h : handles)
          faults += h->cb != cb || strncmp(h->decode_ref, "QUARRY_DECODE_REF ", 18) != 0;
      }
    }
  });
  // Each thread must get the registered handle of each name.
  auto open_one = [](const std::string& name, quarry_handle* parent) {
    quarry_handle* h = nullptr;
    EXPECT_EQ(0, quarry_open_internal(&h, name.c_str(), 4096, 2, "d.dec", "0", parent));
    EXPECT_EQ(h, find_handle_by_name(h->name));
    return h;
  };
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      while (!go.load()) std::this_thread::yield();
      for (int round = 0; round < 5; ++round) {
        quarry_handle* shared = open_one("shared", nullptr);
        open_one("own" + std::to_string(t), nullptr);
        open_one("kid" + std::to_string((t + round) % 3), shared);
      }
    });
  }
  go.store(true);
  for (auto& th : threads) th.join();
  stop.store(true);
  reader.join();
  EXPECT_EQ(0, faults.load());
  // Per buffer: each handle once, consecutive ID ranges, agreeing counts; 4 shared, 1 own each.
  size_t handles = 0;
  for (circular_buffer* cb = circular_buffer_list.load(); cb != before; cb = cb->next.load()) {
    uint32_t ids = 0;
    for (quarry_handle* h : listed(cb)) {
      EXPECT_EQ(ids, h->first_trace_point_id) << h->name;
      ids += h->trace_point_count;
      ++handles;
    }
    EXPECT_EQ(listed(cb).size(), cb->handle_count.load());
    EXPECT_EQ(ids, cb->next_trace_point_id);
  }
  EXPECT_EQ(kThreads + 4u, handles);
}

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

// Forked children: prefork workers that exit and crash while another thread holds the library's
// locks each leave files of their own, with their own pid and records, never deadlock, and
// never act on their parent's control file.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

#include "process_init.h"
#include "trace_fixture.h"

namespace {

using quarry_test::base_dir;
using quarry_test::read_file;
using quarry_test::read_trace;

// The argument of every one-integer record ("d": five words, the value last), in ring order.
std::vector<uint32_t> values_of(const std::string& path) {
  std::vector<uint32_t> values, words = read_trace(path).data();
  for (size_t i = 4; i < words.size(); i += 5) values.push_back(words[i]);
  return values;
}

// Each worker traces, disables the handle and sets up live configuration afresh (its own
// control file), opens a buffer of its own and ends by exit (the exit dump) or by a crash.
int worker(quarry_handle* h, bool crashes) {
  for (uint32_t i = 0; i < 3; ++i) QUARRY_TRACE(h, 1, "d", 0xB0 + i);
  struct rlimit limit;
  getrlimit(RLIMIT_FSIZE, &limit);
  // The first file while the file size limit cuts the info file short: the next open writes
  // it again.
  const struct rlimit tiny = {8, limit.rlim_max};
  signal(SIGXFSZ, SIG_IGN);
  setrlimit(RLIMIT_FSIZE, &tiny);
  quarry_dump(h);
  setrlimit(RLIMIT_FSIZE, &limit);
  quarry_handle* own = nullptr;
  quarry_set_enabled(h, false);
  bool ok = quarry_open_internal(&own, "own", 4096, 1, "fork.dec", "t", nullptr) == 0 &&
            quarry_set_current_thread_name("worker") == 0 && quarry_enable_configuration2(h) == 0;
  if (!crashes) exit(ok ? 0 : 1);
  const struct rlimit no_core = {0, 0};
  setrlimit(RLIMIT_CORE, &no_core);
  abort();
}

TEST(ForkTest, WorkersForkedWhileLocksAreHeldKeepTheirOwnFilesAndIdentity) {
  quarry_set_process_name("prefork");
  quarry_handle* h = nullptr;
  ASSERT_EQ(0, quarry_open_internal(&h, "net", 4096, 4, "fork.dec", "t", nullptr));
  // The set-up completes (its info file) now, so that a worker's info file is the fork's own.
  ASSERT_EQ(0, quarry_global_init_once());
  QUARRY_TRACE(h, 1, "d", 0xA0);
  ASSERT_EQ(0, quarry_enable_configuration2(h));  // the parent's control file: TRACE net
  ASSERT_EQ(0, quarry_dump(h));  // a worker's file landing here would replace this one
  const std::string parent_pid = std::to_string(getpid()), parent = base_dir() + "prefork/net/";
  // Holds the registry lock and the buffer's lock nearly all the time while the workers fork.
  std::atomic<bool> stop{false};
  std::thread holder([&] {
    while (!stop.load()) {
      pthread_mutex_lock(&circular_buffer_list_mutex);
      pthread_mutex_lock(&h->cb->mutex);
      usleep(200);
      pthread_mutex_unlock(&h->cb->mutex);
      pthread_mutex_unlock(&circular_buffer_list_mutex);
      usleep(20);  // lets a waiting fork in
    }
  });
  for (int w = 0; w < 4; ++w) {
    const bool crashes = w == 3;
    SCOPED_TRACE("worker " + std::to_string(w));
    pid_t pid = 0;
    int status = quarry_test::in_child([&] { return worker(h, crashes); }, &pid);
    EXPECT_TRUE(crashes ? WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT
                        : WIFEXITED(status) && WEXITSTATUS(status) == 0)
        << status;
    const std::string name = "prefork." + std::to_string(pid), dir = base_dir() + name + "/";
    quarry_test::trace_file file = read_trace(dir + "net/quarry_0.trc");
    EXPECT_EQ(std::to_string(pid), file.value("QUARRY_PROCESS_ID"));
    EXPECT_NE(std::string::npos,
              file.header.find("PROG_NAME " + name + "\nPARENT_PID " + parent_pid + "\n"));
    EXPECT_EQ(crashes ? "6" : "<missing SIGNAL>", file.value("SIGNAL"));
    EXPECT_EQ((std::vector<uint32_t>{0xA0, 0xB0, 0xB1, 0xB2}), values_of(dir + "net/quarry_0.trc"));
    EXPECT_EQ(std::to_string(pid), read_trace(dir + "own/quarry_0.trc").value("QUARRY_PROCESS_ID"));
    EXPECT_NE(std::string::npos, read_file(dir + "net/quarry.ctrl").find("NOTRACE"));
    EXPECT_EQ("PROCESS_PID " + std::to_string(pid) + "\nDUMP_SIGNAL " +
                  std::to_string(SIGRTMAX - 2) + "\n",
              read_file(dir + "quarry.info"));
  }
  stop = true;
  holder.join();
  EXPECT_EQ(parent_pid, read_trace(parent + "quarry_0.trc").value("QUARRY_PROCESS_ID"));
  EXPECT_EQ(0u, read_trace(parent + "quarry_0.trc").items.count("PARENT_PID"));
  EXPECT_EQ((std::vector<uint32_t>{0xA0}), values_of(parent + "quarry_0.trc"));
  EXPECT_NE(std::string::npos, read_file(parent + "quarry.ctrl").find("\nTRACE net\n"));
}

}  // namespace

// Forked children: a prefork parent whose workers exit and crash leaves one file per process,
// each with its own pid and records; forks while another thread holds the library's locks
// never leave a child deadlocked, and a child never acts on its parent's control file.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "trace_fixture.h"

namespace {

using quarry_test::base_dir;
using quarry_test::read_file;
using quarry_test::read_trace;
using quarry_test::trace_file;

std::string in_buffer(const std::string& process, const std::string& name, const char* file) {
  return base_dir() + process + "/" + name + "/" + file;
}

// The argument of every one-integer record ("d": five words, the value last), in ring order.
std::vector<uint32_t> values_of(const trace_file& file) {
  std::vector<uint32_t> values;
  std::vector<uint32_t> words = file.data();
  for (size_t i = 4; i < words.size(); i += 5) values.push_back(words[i]);
  return values;
}

TEST(ForkTest, EveryWorkerKeepsItsOwnFilesAndIdentity) {
  quarry_set_process_name("prefork");
  quarry_handle* h = nullptr;
  ASSERT_EQ(0, quarry_open_internal(&h, "net", 4096, 4, "fork.dec", "t", nullptr));
  QUARRY_TRACE(h, 1, "d", 0xA0);
  QUARRY_TRACE(h, 1, "d", 0xA1);
  ASSERT_EQ(0, quarry_dump(h));  // a worker's file landing here would replace this one

  constexpr int kWorkers = 4;  // the last one crashes
  std::vector<pid_t> workers;
  for (int w = 0; w < kWorkers; ++w) {
    pid_t pid = fork();
    ASSERT_NE(-1, pid);
    if (pid == 0) {
      alarm(30);
      for (uint32_t i = 0; i < 10; ++i) QUARRY_TRACE(h, 1, "d", 0x100 * (w + 1) + i);
      if (w < kWorkers - 1) exit(0);  // the exit dump
      struct rlimit no_core = {0, 0};
      setrlimit(RLIMIT_CORE, &no_core);
      abort();
    }
    workers.push_back(pid);
  }

  const std::string parent_pid = std::to_string(getpid());
  for (int w = 0; w < kWorkers; ++w) {
    SCOPED_TRACE("worker " + std::to_string(w));
    int status = 0;
    ASSERT_EQ(workers[w], waitpid(workers[w], &status, 0));
    const bool crashes = w == kWorkers - 1;
    EXPECT_TRUE(crashes ? WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT
                        : WIFEXITED(status) && WEXITSTATUS(status) == 0)
        << status;

    const std::string pid = std::to_string(workers[w]);
    const std::string name = "prefork." + pid;
    trace_file file = read_trace(in_buffer(name, "net", "quarry_0.trc"));
    ASSERT_TRUE(file.complete);
    EXPECT_EQ(pid, file.value("QUARRY_PROCESS_ID"));
    EXPECT_NE(std::string::npos,
              file.header.find("PROG_NAME " + name + "\nPARENT_PID " + parent_pid + "\n"));
    EXPECT_EQ(crashes ? "6" : "<missing SIGNAL>", file.value("SIGNAL"));
    std::vector<uint32_t> expected = {0xA0, 0xA1};  // kept from before the fork
    for (uint32_t i = 0; i < 10; ++i) expected.push_back(0x100 * (w + 1) + i);
    EXPECT_EQ(expected, values_of(file));
    EXPECT_EQ("PROCESS_PID " + pid + "\nDUMP_SIGNAL " + std::to_string(SIGRTMAX - 2) + "\n",
              read_file(base_dir() + name + "/quarry.info"));
  }

  trace_file parent = read_trace(in_buffer("prefork", "net", "quarry_0.trc"));
  EXPECT_EQ(parent_pid, parent.value("QUARRY_PROCESS_ID"));
  EXPECT_EQ(0u, parent.items.count("PARENT_PID"));
  EXPECT_EQ((std::vector<uint32_t>{0xA0, 0xA1}), values_of(parent));
}

// Another thread holds the registry lock and the buffer's lock nearly all the time while the
// parent forks; each child then opens, names a thread, sets up live configuration and dumps.
// A child that inherited a held lock would hang there until its alarm ends it.
TEST(ForkTest, ForksWhileLocksAreHeldLeaveChildrenThatOpenAndDump) {
  quarry_set_process_name("locks");
  quarry_handle* h = nullptr;
  ASSERT_EQ(0, quarry_open_internal(&h, "live", 4096, 4, "fork.dec", "t", nullptr));
  ASSERT_EQ(0, quarry_enable_configuration2(h));  // the parent's control file: TRACE live

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

  std::vector<pid_t> children;
  for (int i = 0; i < 8; ++i) {
    pid_t pid = fork();
    if (pid == 0) {
      alarm(10);
      quarry_handle* own = nullptr;
      quarry_set_enabled(h, false);
      _exit(quarry_open_internal(&own, "own", 4096, 1, "fork.dec", "t", nullptr) == 0 &&
                    quarry_set_current_thread_name("worker") == 0 &&
                    quarry_enable_configuration2(h) == 0 &&  // set up afresh: its own file
                    quarry_dump(h) == 0 && quarry_dump(own) == 0
                ? 0
                : 1);
    }
    children.push_back(pid);
  }
  stop = true;
  holder.join();

  for (pid_t pid : children) {
    int status = 0;
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
    const std::string name = "locks." + std::to_string(pid);
    EXPECT_NE(std::string::npos, read_file(in_buffer(name, "live", "quarry.ctrl")).find("NOTRACE"));
    for (const char* buffer : {"own", "live"}) {
      EXPECT_EQ(std::to_string(pid),
                read_trace(in_buffer(name, buffer, "quarry_0.trc")).value("QUARRY_PROCESS_ID"));
    }
  }
  EXPECT_NE(std::string::npos,
            read_file(in_buffer("locks", "live", "quarry.ctrl")).find("\nTRACE live\n"));
}

}  // namespace

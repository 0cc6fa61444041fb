// Persistent rings, end to end: hosts in child processes write numbered records and die without
// a dump; recovery gives back every record they completed that the ring still holds.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <random>
#include <set>
#include <thread>

#include "persistent_ring.h"
#include "ring.h"
#include "trace_file.h"
#include "quarry/quarry.h"
#include "quarry_decode/error.h"
#include "quarry_decode/recover.h"
#include "quarry_decode/trace_reader.h"
#include "test_support.h"

namespace {

using namespace quarry_decode;
using quarry_test::base_dir;

constexpr int kThreads = 2, kBuffers = 3;

// Shared with the children, per writer and buffer: records started, completed, late (> 2 us).
struct Progress {
  std::atomic<uint32_t> started[8][kBuffers], done[8][kBuffers], late[8][kBuffers], grown_at[8];
  uint64_t before[8][kBuffers][1024];  // clock read just before record n, at n % 1024
};

// Record n of writer t: a text of varying length (strings cross the ring's end), a check value.
std::string text_of(uint32_t t, uint32_t n) {
  return std::string((n * 7 + t) % 23, static_cast<char>('a' + (n + t) % 26));
}
uint64_t check_of(uint32_t t, uint32_t n) {
  return n * 0x9E3779B97F4A7C15ull ^ t;
}
void write_record(quarry_handle* h, uint32_t t, uint32_t n) {
  QUARRY_TRACE(h, 0, "ddsD", t, n, text_of(t, n).c_str(),
               static_cast<unsigned long long>(check_of(t, n)));
}

uint64_t now_ns() {  // CLOCK_MONOTONIC, as the records' timestamps
  return std::chrono::steady_clock::now().time_since_epoch() / std::chrono::nanoseconds(1);
}

// Persistent buffer b<buffer> of a process named `process`; null if it does not open.
quarry_handle* open_ring(const char* process, int buffer, unsigned size) {
  quarry_set_process_name(process);
  set_persistent_mode_override(1);
  quarry_handle* h = nullptr;
  const std::string name = "b" + std::to_string(buffer);
  return quarry_open_internal(&h, name.c_str(), size, 2, "persist.dec", "1", nullptr) ? nullptr : h;
}

// Forks a host writing to `buffers` buffers until it dies; `during` runs on its main thread.
pid_t spawn(Progress* p, int buffers, unsigned size,
            const std::function<void(quarry_handle*)>& during) {
  pid_t pid = fork();
  if (pid != 0) return pid;
  static quarry_handle* handles[kBuffers];
  for (int b = 0; b < buffers; ++b)
    if (!(handles[b] = open_ring("host", b, size))) _exit(3);
  for (int t = 0; t < kThreads; ++t)
    std::thread([=] {
      for (uint32_t k = 0;; ++k) {
        int b = k % buffers;
        uint32_t n = p->done[t][b].load();
        p->before[t][b][n % 1024] = now_ns();
        p->started[t][b].store(n + 1);
        write_record(handles[b], t, n);
        if (now_ns() - p->before[t][b][n % 1024] > 2000) ++p->late[t][b];
        p->done[t][b].store(n + 1);
      }
    }).detach();
  during(handles[0]);
  for (;;) pause();
}

std::string run_dir(const char* name, int buffer, pid_t pid) {
  return base_dir() + name + "/b" + std::to_string(buffer) + "/quarry.ring." + std::to_string(pid);
}

struct Valid {
  uint64_t mono;
  uint32_t t, n;
};
struct Found {
  std::vector<Valid> valid;                      // in ring order, oldest first
  std::set<std::pair<uint32_t, uint32_t>> held;  // writer and number of the valid records
  int bogus = 0;                                 // records matching no write, or repeated
};

// Recovers one run and decodes it; checks what every recovered file must show.
Found recover_and_read(const std::string& run, uint32_t size_words) {
  DecodeFileCache cache(decode_search_path({}));
  TraceData data = read_trace_bytes(recover_ring(run, cache), run, cache);
  EXPECT_TRUE(data.problems.empty()) << run;
  EXPECT_EQ(size_words, data.source->header.buffer_size);
  const auto& items = data.source->header.unknown_items;
  EXPECT_EQ(1, std::count(items.begin(), items.end(),
                          std::pair<std::string, std::string>("RECOVERED", "1")));
  struct Sink : RecordSink {
    Found found;
    void on_record(const Record& r) override {
      uint32_t t = r.arg_count == 4 ? r.args[0].number : 99, n = r.args[1].number;
      bool ok = t < 8 && r.args[2].text == text_of(t, n) && r.args[3].number == check_of(t, n);
      if (ok && found.held.insert({t, n}).second)
        found.valid.push_back({r.mono_ns, t, n});
      else
        ++found.bogus;
    }
  } sink;
  decode_trace(data, sink);
  return sink.found;
}

// Every record begun after the oldest held is there, in order; in-flight and late ones excepted.
void check_complete(const Found& f, Progress* p, int buffer) {
  int in_flight = 0, budget = 0;
  for (int t = 0; t < kThreads; ++t) {
    in_flight += p->started[t][buffer] != p->done[t][buffer];
    budget += 5 * p->late[t][buffer];
  }
  budget += 2 * in_flight;
  std::vector<uint64_t> times;
  for (const Valid& v : f.valid) times.push_back(v.mono);
  std::sort(times.begin(), times.end());
  // The records at either end that in-flight writers may have left are not held to order.
  const size_t skip = 2 * in_flight;
  if (times.size() <= 2 * skip) return;
  const uint64_t oldest = times[skip], newest = times[times.size() - 1 - skip];
  int anomalies = f.bogus;
  for (uint32_t t = 0; t < kThreads; ++t) {
    std::vector<uint32_t> ns;  // the writer's, in ring order
    for (const Valid& v : f.valid)
      if (v.t == t && v.mono >= oldest && v.mono <= newest) ns.push_back(v.n);
    for (size_t i = 1; i < ns.size(); ++i) anomalies += ns[i] < ns[i - 1];  // out of order
    const std::set<uint32_t> held(ns.begin(), ns.end());
    if (!held.empty()) anomalies += *held.rbegin() - *held.begin() + 1 - held.size();  // holes
    const uint32_t done = p->done[t][buffer];
    for (uint32_t n = done; n-- > 0 && n + 1024 > done &&
                            p->before[t][buffer][n % 1024] > oldest + 1000 &&
                            (held.empty() || n > *held.rbegin());)
      anomalies += f.held.count({t, n}) == 0;  // completed, newer than those checked above
  }
  EXPECT_LE(anomalies, budget) << "in flight " << in_flight;
}

class Recovery : public ::testing::Test {
 protected:
  void SetUp() override {
    quarry_test::write_file(base_dir() + "persist.dec", "0 rec ddsD t n text check:x\n");
    p_ = new (mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS,
                   -1, 0)) Progress();
  }
  Progress* p_;
};

__attribute__((noinline)) int recurse(volatile int depth) {
  if (depth < 0) return 0;  // never: the stack ends first
  volatile char frame[256];
  frame[depth % 256] = static_cast<char>(depth);
  return recurse(depth + 1) + frame[0];
}

// Hosts killed at random (200 runs), killed after a growth, or dead of a stack overflow.
enum Death { kKilled, kGrownThenKilled, kOverflow };

TEST_F(Recovery, DeathsLoseNothingCompleted) {
  std::mt19937 random(16);
  for (Death death : {kKilled, kGrownThenKilled, kOverflow}) {
    const int buffers = death == kKilled ? kBuffers : 1, runs = death == kKilled ? 200 : 1;
    const unsigned size = death == kOverflow ? 65536 : 4096;
    for (int run = 0; run < runs && !HasFailure(); ++run) {
      SCOPED_TRACE("death " + std::to_string(death) + " run " + std::to_string(run));
      Progress* p = new (p_) Progress();
      const uint32_t target = random() % 3000;
      const bool grown = death == kGrownThenKilled;
      pid_t pid = spawn(p, buffers, size, [&](quarry_handle* h) {
        if (death == kKilled) return;
        while (p->done[0][0] < 2000) std::this_thread::yield();
        if (death == kOverflow) _exit(recurse(0));
        if (set_circular_buffer_size(h->cb, 16384) != 0) _exit(4);
        for (int t = 0; t < kThreads; ++t) p->grown_at[t] = p->done[t][0].load();
        while (p->done[0][0] <= p->grown_at[0] + 3000) std::this_thread::yield();
        raise(SIGKILL);
      });
      while (death == kKilled && p->done[0][0] + p->done[1][1] < target) std::this_thread::yield();
      if (death == kKilled) kill(pid, SIGKILL);
      int status = 0;
      waitpid(pid, &status, 0);
      ASSERT_TRUE(WIFSIGNALED(status) || WEXITSTATUS(status) != 0) << status;
      if (grown) {
        // Without the words.1 the header names, the newest generation present is read.
        const std::string words = run_dir("host", 0, pid) + "/words.";
        EXPECT_FALSE(quarry_test::file_exists(words + "0"));
        ASSERT_EQ(0, rename((words + "1").c_str(), (words + "5").c_str()));
        quarry_test::write_file(words + "7.tmp", "");
      }
      for (int b = 0; b < buffers; ++b) {
        Found f = recover_and_read(run_dir("host", b, pid), (grown ? 16384 : size) / 4);
        for (const Valid& v : f.valid) EXPECT_TRUE(!grown || v.n > p->grown_at[v.t]) << v.n;
        check_complete(f, p, b);
      }
    }
  }
}

// Runs killed in turn (one reusing a pid), then a normal exit: the two newest dead runs remain.
TEST_F(Recovery, RestartsKeepThePreviousRuns) {
  const std::string buffer_dir = base_dir() + "restart/b0/";
  pid_t previous = 0;
  for (uint32_t r = 0; r < 6; ++r) {
    quarry_test::in_child(
        [&] {
          const std::string reused = run_dir("restart", 0, getpid());
          if (r == 3) rename(run_dir("restart", 0, previous).c_str(), reused.c_str());
          quarry_handle* h = open_ring("restart", 0, 4096);
          for (uint32_t n = 0; h && n < 50; ++n) write_record(h, r, n);
          if (r < 5) raise(SIGKILL);
          persistent_rings_at_exit();  // what exit(3) runs, without this test's own handlers
          dump_at_exit();
          return 0;
        },
        &previous);
  }
  DecodeFileCache cache(decode_search_path({}));
  std::map<uint32_t, size_t> records;  // of each writer, over all the runs
  for (const RecoveredRun& run : recover(buffer_dir, cache)) {
    ASSERT_EQ("", run.error);
    for (const auto& record : recover_and_read(run.ring_dir, 1024).held) ++records[record.first];
  }
  EXPECT_EQ((std::map<uint32_t, size_t>{{3, 50}, {4, 50}}), records);
  EXPECT_TRUE(quarry_test::file_exists(buffer_dir + "quarry_0.trc"));
}

// A live process's rings are never recovered; a forked child writes into private memory.
TEST_F(Recovery, LiveRingsAreRefusedAndAForkedChildWritesPrivately) {
  quarry_handle* h = open_ring("live", 0, 4096);
  ASSERT_NE(nullptr, h);
  for (uint32_t n = 0; n < 10; ++n) write_record(h, 0, n);
  const std::string run = run_dir("live", 0, getpid());
  DecodeFileCache cache(decode_search_path({}));
  EXPECT_THROW(recover_ring(run, cache), DecodeError);
  const std::string before = quarry_test::read_file(run + "/words.0");
  EXPECT_EQ(0, quarry_test::in_child([&] {
              persistent_rings_after_fork();
              for (uint32_t n = 0; n < 500; ++n) write_record(h, 1, n);
              return load_ring(h->cb).buffer[0].load() == 0 ? 5 : 0;
            }));
  EXPECT_EQ(before, quarry_test::read_file(run + "/words.0"));
}

}  // namespace

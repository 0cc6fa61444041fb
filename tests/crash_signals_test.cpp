// Crash and dump signals, each in a child process: every crash signal dumps with the reason,
// then takes its usual course or the host's action; the dump signal dumps while writers run.
#include <errno.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <set>
#include <thread>

#include "crash_signals.h"
#include "live_test_support.h"
#include "trace_fixture.h"

#if defined(__SANITIZE_ADDRESS__)
// The crash handler must meet the process's own actions, not the sanitizer's reporters.
extern "C" const char* __asan_default_options() {
  return "handle_segv=0:handle_abort=0:handle_sigill=0:handle_sigfpe=0:allow_user_segv_handler=1";
}
#endif
#if defined(__SANITIZE_THREAD__)
// As above; the dump's intended read of ring words being stored is suppressed.
extern "C" const char* __tsan_default_options() {
  return "handle_segv=0:handle_sigbus=0:handle_abort=0:handle_sigill=0:handle_sigfpe=0"
         ":suppressions=" QUARRY_TSAN_SUPPRESSIONS;
}
#endif

namespace {

using namespace quarry_test;

// A failed check inside a child: the message reaches the parent on standard error.
[[noreturn]] void child_failed(int line, const char* condition) {
  fprintf(stderr, "child check failed at line %d: %s", line, condition);
  _exit(100);
}
#define CHILD_CHECK(condition) ((condition) ? void() : child_failed(__LINE__, #condition))

std::string trace_path(const std::string& dir) {
  return base_dir() + dir + "/quarry_0.trc";
}

quarry_handle* open_child_buffer(const char* process, const char* buffer = "buf") {
  struct rlimit no_core = {0, 0};
  setrlimit(RLIMIT_CORE, &no_core);
  if (process != nullptr) quarry_set_process_name(process);
  quarry_handle* h = open_handle(buffer);
  QUARRY_TRACE(h, 1, "d", 0x1234);
  return h;
}

// The dump of open_child_buffer's buffer for signo: the reason, a sender and the one record.
trace_file expect_dump_for(int signo, const std::string& process, const std::string& buffer) {
  trace_file file = read_trace(trace_path(process + "/" + buffer));
  EXPECT_EQ(std::to_string(signo), file.value("SIGNAL"));
  EXPECT_EQ(1u, file.items.count("SIGNALING_PID"));
  const std::vector<uint32_t> w = file.data();
  EXPECT_TRUE(w.size() == 5 && (w[0] & 0xFF00FFFFu) == 0xFF000001u && w[4] == 0x1234u);
  return file;
}

std::string signal_name(const ::testing::TestParamInfo<int>& info) {
  return sigabbrev_np(info.param);
}

// A child with one buffer, killed by signo from its real cause (an instruction for a fault).
void open_then_cause(int signo, const std::string& process) {
  open_child_buffer(process.c_str());
  switch (signo) {
    case SIGILL:
      __builtin_trap();
    case SIGABRT:
      abort();
    case SIGFPE:
      asm volatile("xorl %%ecx, %%ecx; movl $1, %%eax; cltd; idivl %%ecx" ::: "eax", "ecx", "edx");
      break;
    case SIGSEGV:
      *static_cast<volatile int*>(
          mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)) = 1;
      break;
    case SIGTERM:  // from another process, which leaves its pid for the parent to compare
      if (fork() == 0) {
        write_file(base_dir() + "sender", std::to_string(getpid()));
        kill(getppid(), SIGTERM);
        _exit(0);
      }
      for (;;) pause();
    default:
      raise(signo);
  }
}

constexpr int kCrashSignals[] = {SIGINT, SIGQUIT, SIGILL, SIGABRT, SIGFPE, SIGSEGV, SIGTERM};

class CrashSignalTest : public ::testing::TestWithParam<int> {};

TEST_P(CrashSignalTest, DumpsThenTakesTheUsualCourse) {
  const int signo = GetParam();
  const std::string process = std::string("sig") + sigabbrev_np(signo);
  EXPECT_EXIT(open_then_cause(signo, process), ::testing::KilledBySignal(signo), "");

  const trace_file file = expect_dump_for(signo, process, "buf");
  // For a fault the sender field overlaps the fault address: its value is not checked.
  if (signo == SIGTERM) {
    EXPECT_EQ(read_file(base_dir() + "sender"), file.value("SIGNALING_PID"));
  } else if (signo == SIGINT || signo == SIGQUIT || signo == SIGABRT) {
    EXPECT_EQ(file.value("QUARRY_PROCESS_ID"), file.value("SIGNALING_PID"));
  }
}

INSTANTIATE_TEST_SUITE_P(EverySignal, CrashSignalTest, testing::ValuesIn(kCrashSignals),
                         signal_name);

std::atomic<int> g_host_calls{0};
int g_host_signo, g_host_errno;
siginfo_t g_host_info;
void* g_host_context;

void host_handler(int signo, siginfo_t* info, void* context) {
  ++g_host_calls;
  g_host_signo = signo;
  g_host_errno = errno;
  if (info != nullptr) g_host_info = *info;
  g_host_context = context;
}

// The host's action (SIGINT: 3 arguments; SIGQUIT: 1; SIGTERM: ignored), kept through a retried
// installation, is taken after the dump; the process lives on with the host's actions back.
class PreviousActionTest : public ::testing::TestWithParam<int> {};

TEST_P(PreviousActionTest, IsTakenAfterTheDumpAndTheProcessLivesOn) {
  const int signo = GetParam();
  const std::string process = std::string("host") + sigabbrev_np(signo);
  const std::string path = trace_path(process + "/buf");
  EXPECT_EXIT(
      {
        struct sigaction host = {};
        host.sa_sigaction = host_handler;
        host.sa_flags = signo == SIGINT ? SA_SIGINFO : 0;
        if (signo == SIGQUIT) host.sa_handler = [](int s) { host_handler(s, nullptr, nullptr); };
        if (signo == SIGTERM) host.sa_handler = SIG_IGN;
        sigaction(signo, &host, nullptr);
        pthread_mutex_lock(&circular_buffer_list_mutex);
        dump_signal = 0;  // not a signal: the last step of the installation fails
        CHILD_CHECK(register_circular_buffer(make_buffer(make_dir(process + "_failed"))) == 1);
        dump_signal = SIGRTMAX - 2;
        pthread_mutex_unlock(&circular_buffer_list_mutex);
        open_child_buffer(process.c_str());  // installs again
        // A buffer whose dump fails part-way: errno changes inside the handler.
        CHILD_CHECK(make_unwritable(open_handle("unwritable")->cb));
        struct sigaction current;
        for (int crash : kCrashSignals) {
          sigaction(crash, nullptr, &current);
          CHILD_CHECK(current.sa_sigaction == quarry_abort_handler);
          CHILD_CHECK((current.sa_flags & (SA_SIGINFO | SA_RESTART | SA_RESETHAND | SA_NODEFER |
                                           SA_ONSTACK)) == SA_SIGINFO);
        }
        sigaction(dump_signal, nullptr, &current);
        CHILD_CHECK(current.sa_sigaction == dump_signal_handler);
        CHILD_CHECK((current.sa_flags & SA_RESTART) == 0);

        errno = EDOM;
        raise(signo);
        const int calls = signo == SIGTERM ? 0 : 1;
        CHILD_CHECK(errno == EDOM && g_host_calls == calls && g_host_signo == calls * signo);
#if !defined(__SANITIZE_THREAD__)  // whose handlers run with an errno of their own
        CHILD_CHECK(calls == 0 || g_host_errno == EDOM);
#endif
        if (signo == SIGINT) {
          CHILD_CHECK(g_host_context != nullptr && g_host_info.si_pid == getpid());
          CHILD_CHECK(memcmp(&g_host_info, &crash_siginfo, sizeof g_host_info) == 0);
          CHILD_CHECK(read_file("/proc/self/cmdline").c_str() == std::string(crash_sender_cmdline));
        }
        CHILD_CHECK(read_trace(path).value("SIGNAL") == std::to_string(signo));

        sigaction(signo, nullptr, &current);
        CHILD_CHECK(current.sa_handler == host.sa_handler);
        sigaction(SIGSEGV, nullptr, &current);
        CHILD_CHECK(current.sa_handler == SIG_DFL);
        raise(signo);  // reaches the host's action alone
        CHILD_CHECK(g_host_calls == 2 * calls);
        unlink(path.c_str());
        CHILD_CHECK(quarry_dump_all() == -1);
        _exit(0);
      },
      ::testing::ExitedWithCode(0), "^sigaction\\(0\\): Invalid argument\n$");
  expect_dump_for(signo, process, "buf");
  EXPECT_EQ(std::to_string(signo), read_trace(trace_path(process + "_failed")).value("SIGNAL"));
}

INSTANTIATE_TEST_SUITE_P(ThreeKinds, PreviousActionTest, testing::Values(SIGINT, SIGQUIT, SIGTERM),
                         signal_name);

// A fault inside the crash dump meets the default action: no second dump (which shows 11).
TEST(CrashDump, FaultDuringTheDumpEndsTheProcess) {
  EXPECT_EXIT(
      {
        quarry_handle* broken = open_child_buffer("fault", "broken");  // older: dumped last
        open_child_buffer(nullptr, "good");
        broken->decode_ref =
            static_cast<char*>(mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        raise(SIGTERM);
        _exit(0);
      },
      ::testing::KilledBySignal(SIGSEGV), "");
  expect_dump_for(SIGTERM, "fault", "good");
  const std::string broken = read_file(trace_path("fault/broken"));
  EXPECT_NE(std::string::npos, broken.find("PROG_NAME fault\n"));
  EXPECT_EQ(std::string::npos, broken.find("QUARRY_DECODE_REF"));
}

// Writers run during the dump signal: errno kept, every record completed before it intact.
[[noreturn]] void run_writers_and_dump() {
  quarry_set_process_name("writers");
  quarry_handle* h = open_handle("busy", 1 << 21);
  CHILD_CHECK(make_unwritable(open_handle("unwritable")->cb));
  std::atomic<uint32_t> done[3] = {};
  std::vector<std::thread> writers;
  for (uint32_t tp = 0; tp < 3; ++tp) {
    writers.emplace_back([&, tp] {
      for (uint32_t i = 0; i < 10000; ++i) {  // 6 words each: the ring never wraps
        QUARRY_TRACE(h, tp, "dd", i, i ^ 0x5a5a5a5au);
        done[tp].store(i + 1);
      }
    });
  }
  uint32_t completed[3];
  for (uint32_t tp = 0; tp < 3; ++tp)
    while ((completed[tp] = done[tp].load()) < 200) std::this_thread::yield();
  errno = EDOM;
  raise(SIGRTMAX - 2);
  CHILD_CHECK(errno == EDOM);
  for (auto& w : writers) w.join();

  trace_file file = read_trace(trace_path("writers/busy"));
  CHILD_CHECK(file.complete && file.items.count("SIGNAL") + file.items.count("SIGNALING_PID") == 0);
  const std::vector<uint32_t> words = file.data();
  CHILD_CHECK(words.size() >= file.hex("WORD_COUNT"));
  std::set<uint32_t> seen[3];
  for (size_t p = 0; p < words.size(); ++p) {
    if ((words[p] >> 24) != 0xFF) continue;  // only header words carry 0xFF in the top byte
    CHILD_CHECK((words[p] & 0xFFFF) < 3 && p + 6 <= words.size());
    CHILD_CHECK((words[p + 4] ^ 0x5a5a5a5au) == words[p + 5]);
    seen[words[p] & 0xFFFF].insert(words[p + 4]);
  }
  for (uint32_t tp = 0; tp < 3; ++tp)
    for (uint32_t i = 0; i < completed[tp]; ++i) CHILD_CHECK(seen[tp].count(i) == 1);
  _exit(0);
}

TEST(DumpSignal, DumpsWhileWritersRun) {
  EXPECT_EXIT(run_writers_and_dump(), ::testing::ExitedWithCode(0), "^$");
}

}  // namespace

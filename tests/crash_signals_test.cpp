// Crash and dump signals, each in a child process: every crash signal from its real cause
// dumps all buffers with the termination reason and then takes its usual course; previous
// host actions are chained; the dump signal dumps a live process; writers running during a
// dump leave a file whose records decode. The parent reopens and checks what the child wrote.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "crash_signals.h"
#include "trace_file.h"
#include "trace_fixture.h"

#if defined(__SANITIZE_ADDRESS__)
// The crash handler must meet the process's own actions, not the sanitizer's reporters.
extern "C" const char* __asan_default_options() {
  return "handle_segv=0:handle_abort=0:handle_sigill=0:handle_sigfpe=0:allow_user_segv_handler=1";
}
#endif
#if defined(__SANITIZE_THREAD__)
// The crash handler must meet the process's own actions; the dump's intended read of ring
// words that writers are storing is suppressed (tests/tsan.supp explains why it is benign).
extern "C" const char* __tsan_default_options() {
  return "handle_segv=0:handle_sigbus=0:handle_abort=0:handle_sigill=0:handle_sigfpe=0"
         ":suppressions=" QUARRY_TSAN_SUPPRESSIONS;
}
#endif

namespace {

// ThreadSanitizer delivers signals from its own deferred context, where errno is its own: a
// handler cannot see the interrupted code's errno there (the sanitizer restores it itself).
#if defined(__SANITIZE_THREAD__)
constexpr bool kHandlerSeesInterruptedErrno = false;
#else
constexpr bool kHandlerSeesInterruptedErrno = true;
#endif

using quarry_test::base_dir;
using quarry_test::read_file;
using quarry_test::read_trace;
using quarry_test::trace_file;

// A failed check inside a child: the message goes to the parent through the death test's
// captured standard error, the exit code through its status.
#define CHILD_CHECK(condition)                            \
  do {                                                    \
    if (!(condition)) child_failed(__LINE__, #condition); \
  } while (0)

[[noreturn]] void child_failed(int line, const char* condition) {
  std::string text = "child check failed at line " + std::to_string(line) + ": " + condition;
  ssize_t ignored = write(STDERR_FILENO, text.data(), text.size());
  (void)ignored;
  _exit(100);
}

std::string trace_path(const std::string& process, const std::string& buffer) {
  return base_dir() + process + "/" + buffer + "/quarry_0.trc";
}

// Child start: no core files, a process name of our own, one buffer with one record.
quarry_handle* open_child_buffer(const char* process, const char* buffer = "buf") {
  struct rlimit no_core = {0, 0};
  setrlimit(RLIMIT_CORE, &no_core);
  if (process != nullptr) quarry_set_process_name(process);
  quarry_handle* h = nullptr;
  CHILD_CHECK(quarry_open_internal(&h, buffer, 4096, 4, "crash.dec", "t", nullptr) == 0);
  QUARRY_TRACE(h, 1, "d", 0x1234);
  return h;
}

// A second buffer whose trace file cannot be opened (its directory replaced by a regular
// file), so that a dump fails part-way and leaves errno changed.
void open_unwritable_buffer(const char* process) {
  quarry_handle* h = nullptr;
  CHILD_CHECK(quarry_open_internal(&h, "unwritable", 4096, 1, "u.dec", "u", nullptr) == 0);
  std::string dir = base_dir() + process + "/unwritable";
  CHILD_CHECK(system(("rm -rf '" + dir + "'").c_str()) == 0);
  quarry_test::write_file(dir, "");
}

void expect_one_record(const trace_file& file) {
  ASSERT_EQ(5u * 4, file.data_bytes.size());
  EXPECT_EQ(0xFF000001u, file.data()[0] & 0xFF00FFFFu);
  EXPECT_EQ(0x1234u, file.data()[4]);
}

// ---- Every crash signal, from its real cause --------------------------------------------------

struct crash_case {
  int signo;
  const char* process;
  void (*trigger)();
  enum { kSelf, kOtherProcess, kFault } sender;
};

void PrintTo(const crash_case& c, std::ostream* os) {
  *os << c.process;
}

void raise_it(int signo) {
  raise(signo);
}
void trigger_int() {
  raise_it(SIGINT);
}
void trigger_quit() {
  raise_it(SIGQUIT);
}
void trigger_ill() {
  __builtin_trap();
}
void trigger_abrt() {
  abort();
}
// The faults are made by instructions, not by undefined behaviour that a sanitizer would
// catch first.
void trigger_fpe() {
  asm volatile("xorl %%ecx, %%ecx\n\tmovl $1, %%eax\n\tcltd\n\tidivl %%ecx" ::
                   : "eax", "ecx", "edx");
}
void trigger_segv() {
  void* page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  *static_cast<volatile int*>(page) = 1;
}
// Another process sends SIGTERM; its pid goes to a file first, for the parent to compare.
void trigger_term_from_other_process() {
  int go[2];
  CHILD_CHECK(pipe(go) == 0);
  pid_t sender = fork();
  CHILD_CHECK(sender >= 0);
  if (sender == 0) {
    char c;
    if (read(go[0], &c, 1) == 1) kill(getppid(), SIGTERM);
    _exit(0);
  }
  quarry_test::write_file(base_dir() + "sender.pid", std::to_string(sender));
  CHILD_CHECK(write(go[1], "g", 1) == 1);
  for (;;) pause();
}

class CrashSignalTest : public ::testing::TestWithParam<crash_case> {};

TEST_P(CrashSignalTest, DumpsThenTakesTheUsualCourse) {
  const crash_case& c = GetParam();
  EXPECT_EXIT(
      {
        open_child_buffer(c.process);
        c.trigger();
      },
      ::testing::KilledBySignal(c.signo), "");

  trace_file file = read_trace(trace_path(c.process, "buf"));
  ASSERT_TRUE(file.complete);
  EXPECT_EQ(std::to_string(c.signo), file.value("SIGNAL"));
  ASSERT_TRUE(file.has("SIGNALING_PID"));
  if (c.sender == crash_case::kSelf) {
    EXPECT_EQ(file.value("QUARRY_PROCESS_ID"), file.value("SIGNALING_PID"));
  } else if (c.sender == crash_case::kOtherProcess) {
    EXPECT_EQ(read_file(base_dir() + "sender.pid"), file.value("SIGNALING_PID"));
    EXPECT_NE(file.value("QUARRY_PROCESS_ID"), file.value("SIGNALING_PID"));
  }
  expect_one_record(file);
}

INSTANTIATE_TEST_SUITE_P(
    EverySignal, CrashSignalTest,
    ::testing::Values(crash_case{SIGINT, "sigint", trigger_int, crash_case::kSelf},
                      crash_case{SIGQUIT, "sigquit", trigger_quit, crash_case::kSelf},
                      crash_case{SIGILL, "sigill", trigger_ill, crash_case::kFault},
                      crash_case{SIGABRT, "sigabrt", trigger_abrt, crash_case::kSelf},
                      crash_case{SIGFPE, "sigfpe", trigger_fpe, crash_case::kFault},
                      crash_case{SIGSEGV, "sigsegv", trigger_segv, crash_case::kFault},
                      crash_case{SIGTERM, "sigterm", trigger_term_from_other_process,
                                 crash_case::kOtherProcess}),
    [](const ::testing::TestParamInfo<crash_case>& info) { return info.param.process; });

// ---- Previous actions of the host -------------------------------------------------------------

std::atomic<int> g_host_calls{0};
int g_host_signo;
int g_host_errno;
siginfo_t g_host_info;
void* g_host_context;

void host_three_argument_handler(int signo, siginfo_t* info, void* context) {
  ++g_host_calls;
  g_host_signo = signo;
  g_host_errno = errno;
  g_host_info = *info;
  g_host_context = context;
}

void host_one_argument_handler(int signo) {
  ++g_host_calls;
  g_host_signo = signo;
  g_host_errno = errno;
}

TEST(PreviousAction, HostHandlerIsCalledWithTheSameArgumentsAndTheProcessLivesOn) {
  EXPECT_EXIT(
      {
        struct sigaction host = {};
        host.sa_sigaction = host_three_argument_handler;
        host.sa_flags = SA_SIGINFO;
        sigaction(SIGINT, &host, nullptr);
        open_child_buffer("host");
        open_unwritable_buffer("host");  // its failing dump changes errno inside the handler

        errno = EDOM;
        raise(SIGINT);
        CHILD_CHECK(errno == EDOM);
        CHILD_CHECK(g_host_calls == 1);
        CHILD_CHECK(g_host_signo == SIGINT);
        CHILD_CHECK(g_host_errno == EDOM || !kHandlerSeesInterruptedErrno);
        CHILD_CHECK(g_host_context != nullptr);
        CHILD_CHECK(g_host_info.si_signo == SIGINT && g_host_info.si_pid == getpid());
        CHILD_CHECK(memcmp(&g_host_info, &crash_siginfo, sizeof g_host_info) == 0);
        char own_cmdline[256] = {};
        int fd = open("/proc/self/cmdline", O_RDONLY);
        CHILD_CHECK(fd >= 0 && read(fd, own_cmdline, 255) > 0);
        close(fd);
        CHILD_CHECK(strcmp(own_cmdline, crash_sender_cmdline) == 0);

        // The library stepped aside on all seven signals: the host's action is back, and a
        // second SIGINT reaches the host alone.
        struct sigaction current;
        sigaction(SIGINT, nullptr, &current);
        CHILD_CHECK(current.sa_sigaction == host_three_argument_handler);
        sigaction(SIGSEGV, nullptr, &current);
        CHILD_CHECK(current.sa_handler == SIG_DFL);
        raise(SIGINT);
        CHILD_CHECK(g_host_calls == 2);
        _exit(0);
      },
      ::testing::ExitedWithCode(0), "^$");
  trace_file file = read_trace(trace_path("host", "buf"));
  EXPECT_EQ("2", file.value("SIGNAL"));
  EXPECT_EQ(file.value("QUARRY_PROCESS_ID"), file.value("SIGNALING_PID"));
  expect_one_record(file);
}

TEST(PreviousAction, OneArgumentHandlerGetsTheSignalNumber) {
  EXPECT_EXIT(
      {
        signal(SIGQUIT, host_one_argument_handler);
        open_child_buffer("onearg");
        errno = ERANGE;
        raise(SIGQUIT);
        CHILD_CHECK(g_host_calls == 1 && g_host_signo == SIGQUIT);
        CHILD_CHECK(g_host_errno == ERANGE || !kHandlerSeesInterruptedErrno);
        _exit(0);
      },
      ::testing::ExitedWithCode(0), "^$");
  EXPECT_EQ("3", read_trace(trace_path("onearg", "buf")).value("SIGNAL"));
}

TEST(PreviousAction, IgnoredSignalIsDumpedThenIgnored) {
  EXPECT_EXIT(
      {
        signal(SIGTERM, SIG_IGN);
        open_child_buffer("ignored");
        raise(SIGTERM);
        // Still alive, and a later dump carries the termination reason too.
        CHILD_CHECK(quarry_dump_all() == 0);
        _exit(0);
      },
      ::testing::ExitedWithCode(0), "^$");
  trace_file file = read_trace(trace_path("ignored", "buf"));
  EXPECT_EQ("15", file.value("SIGNAL"));
  expect_one_record(file);
}

// ---- Installation ----------------------------------------------------------------------------

TEST(Installation, OnlyWithTheFirstBuffer) {
  EXPECT_EXIT(
      {
        struct sigaction current;
        for (int signo : {SIGINT, SIGQUIT, SIGILL, SIGABRT, SIGFPE, SIGSEGV, SIGTERM}) {
          sigaction(signo, nullptr, &current);
          CHILD_CHECK(current.sa_handler == SIG_DFL);
        }
        open_child_buffer("install");
        for (int signo : {SIGINT, SIGQUIT, SIGILL, SIGABRT, SIGFPE, SIGSEGV, SIGTERM}) {
          sigaction(signo, nullptr, &current);
          CHILD_CHECK((current.sa_flags & SA_SIGINFO) != 0);
          CHILD_CHECK(current.sa_sigaction == quarry_abort_handler);
          CHILD_CHECK((current.sa_flags & (SA_RESTART | SA_RESETHAND | SA_NODEFER)) == 0);
        }
        CHILD_CHECK(dump_signal == SIGRTMAX - 2);
        sigaction(dump_signal, nullptr, &current);
        CHILD_CHECK(current.sa_sigaction == dump_signal_handler);
        CHILD_CHECK((current.sa_flags & SA_RESTART) == 0);
        _exit(0);
      },
      ::testing::ExitedWithCode(0), "^$");
}

// An installation that failed part-way is retried with the next buffer; the retry must keep
// the host's action as the previous one and never save the library's own handler, which would
// make the crash handler call itself.
TEST(Installation, RetryAfterFailureKeepsTheTrulyPreviousAction) {
  const std::string dir = base_dir() + "retry/";
  EXPECT_EXIT(
      {
        struct sigaction host = {};
        host.sa_sigaction = host_three_argument_handler;
        host.sa_flags = SA_SIGINFO;
        sigaction(SIGINT, &host, nullptr);
        mkdir(dir.c_str(), 0777);
        dump_signal = 0;  // not a signal: the last step of the installation fails
        pthread_mutex_lock(&circular_buffer_list_mutex);
        int first = register_circular_buffer(quarry_test::make_buffer(dir + "a_"));
        pthread_mutex_unlock(&circular_buffer_list_mutex);
        CHILD_CHECK(first == 1);
        dump_signal = SIGRTMAX - 2;
        pthread_mutex_lock(&circular_buffer_list_mutex);
        int second = register_circular_buffer(quarry_test::make_buffer(dir + "b_"));
        pthread_mutex_unlock(&circular_buffer_list_mutex);
        CHILD_CHECK(second == 0);

        raise(SIGINT);
        CHILD_CHECK(g_host_calls == 1);
        _exit(0);
      },
      ::testing::ExitedWithCode(0), "^sigaction\\(0\\): Invalid argument\n$");
  EXPECT_EQ("2", read_trace(dir + "a_quarry_0.trc").value("SIGNAL"));
  EXPECT_EQ("2", read_trace(dir + "b_quarry_0.trc").value("SIGNAL"));
}

// A fault inside the crash dump meets the action the process had before (here the default),
// so the process dies of it; it is not dumped a second time.
TEST(CrashDump, FaultDuringTheDumpEndsTheProcess) {
  EXPECT_EXIT(
      {
        quarry_handle* broken = open_child_buffer("fault", "broken");  // older: dumped last
        open_child_buffer(nullptr, "good");
        void* page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        CHILD_CHECK(page != MAP_FAILED);
        broken->decode_ref = static_cast<char*>(page);
        raise(SIGTERM);
        _exit(0);
      },
      ::testing::KilledBySignal(SIGSEGV), "");
  // The good buffer was dumped once, for SIGTERM; a second dump would show signal 11.
  trace_file good = read_trace(trace_path("fault", "good"));
  EXPECT_EQ("15", good.value("SIGNAL"));
  expect_one_record(good);
  // The broken one stopped at its decode reference line.
  std::string broken = read_file(trace_path("fault", "broken"));
  EXPECT_NE(std::string::npos, broken.find("PROG_NAME fault\n"));
  EXPECT_EQ(std::string::npos, broken.find("QUARRY_DECODE_REF"));
}

// ---- The dump signal -------------------------------------------------------------------------

TEST(DumpSignal, EveryRequestDumpsAndTheProcessGoesOn) {
  const std::string path = trace_path("dumpsig", "buf");
  EXPECT_EXIT(
      {
        open_child_buffer("dumpsig");
        open_unwritable_buffer("dumpsig");
        for (int round = 0; round < 2; ++round) {
          unlink(path.c_str());
          errno = EDOM;
          raise(SIGRTMAX - 2);
          CHILD_CHECK(errno == EDOM);
          trace_file file = read_trace(path);
          CHILD_CHECK(file.complete && file.data_bytes.size() == 20);
          CHILD_CHECK(!file.has("SIGNAL") && !file.has("SIGNALING_PID"));
        }
        CHILD_CHECK(crash_handled == 0);
        _exit(0);
      },
      ::testing::ExitedWithCode(0), "");
}

// Three threads write records that check themselves while the dump signal arrives: every
// record completed before the signal is in the file, and every record found decodes.
constexpr uint32_t kRecordsPerWriter = 4000;  // 3 x 4000 records of at most 9 words: no wrap

void write_records(quarry_handle* h, uint32_t tp, std::atomic<uint32_t>* done,
                   std::atomic<bool>* stop) {
  for (uint32_t i = 0; i < kRecordsPerWriter && !stop->load(); ++i) {
    if (tp == 0) QUARRY_TRACE(h, 0, "dd", i, ~i);
    if (tp == 1) {
      std::string text(i % 13, 'x');
      QUARRY_TRACE(h, 1, "ds", i, text.c_str());
    }
    if (tp == 2) QUARRY_TRACE(h, 2, "D", (static_cast<uint64_t>(i) << 32) | (i ^ 0x5a5a5a5au));
    done->store(i + 1, std::memory_order_release);
  }
}

[[noreturn]] void run_writers_and_dump() {
  quarry_set_process_name("writers");
  quarry_handle* h = nullptr;
  CHILD_CHECK(quarry_open_internal(&h, "busy", 1 << 20, 3, "w.dec", "w", nullptr) == 0);
  std::atomic<uint32_t> done[3] = {};
  std::atomic<bool> stop{false};
  std::vector<std::thread> writers;
  for (uint32_t tp = 0; tp < 3; ++tp) writers.emplace_back(write_records, h, tp, &done[tp], &stop);
  for (auto& d : done) {
    while (d.load(std::memory_order_acquire) < 200) std::this_thread::yield();
  }
  std::string completed;
  for (auto& d : done) completed += std::to_string(d.load(std::memory_order_acquire)) + " ";
  raise(SIGRTMAX - 2);
  stop = true;
  for (auto& w : writers) w.join();
  quarry_test::write_file(base_dir() + "completed", completed);
  _exit(0);
}

uint32_t restore(uint32_t word, uint32_t flags, int bit) {
  return (flags >> bit) & 1 ? word ^ 0x80000000u : word;
}

TEST(DumpSignal, WritersRunningDuringTheDumpLeaveDecodableRecords) {
  EXPECT_EXIT(run_writers_and_dump(), ::testing::ExitedWithCode(0), "");
  trace_file file = read_trace(trace_path("writers", "busy"));
  ASSERT_TRUE(file.complete);
  std::vector<uint32_t> words = file.data();
  ASSERT_EQ(0u, file.data_bytes.size() % 4);
  ASSERT_LE(words.size(), 1u << 18);
  ASSERT_GE(words.size(), file.hex("WORD_COUNT"));

  std::set<uint32_t> seen[3];
  for (size_t p = 0; p < words.size(); ++p) {
    if ((words[p] >> 24) != 0xFF) continue;  // only header words carry 0xFF in these records
    const uint32_t id = words[p] & 0xFFFF, flags = (words[p] >> 16) & 0xFF;
    ASSERT_LT(id, 3u) << "position " << p;
    ASSERT_LE(p + 6, words.size()) << "record cut at the end of the data";
    const uint32_t a = restore(words[p + 4], flags, 3);
    if (id == 0) {
      EXPECT_EQ(~a, restore(words[p + 5], flags, 4)) << "position " << p;
    } else if (id == 1) {
      const uint32_t length = a % 13;
      ASSERT_LE(p + 5 + (length + 4) / 4, words.size());
      std::string bytes(reinterpret_cast<const char*>(&words[p + 5]), (length + 4) / 4 * 4);
      EXPECT_EQ(std::string(length, 'x') + std::string(bytes.size() - length, '\0'), bytes)
          << "position " << p;
    } else {
      EXPECT_EQ(a ^ 0x5a5a5a5au, restore(words[p + 5], flags, 4)) << "position " << p;
    }
    seen[id].insert(a);
  }
  std::istringstream completed(read_file(base_dir() + "completed"));
  for (uint32_t tp = 0; tp < 3; ++tp) {
    uint32_t count = 0;
    completed >> count;
    ASSERT_GE(count, 200u);
    for (uint32_t i = 0; i < count; ++i) {
      ASSERT_TRUE(seen[tp].count(i)) << "trace point " << tp << " record " << i << " missing";
    }
  }
}

}  // namespace

// The registry link of new buffers, and the crash and dump signal handlers installed with the
// first buffer. Thread contract: registration runs under circular_buffer_list_mutex and
// prepares everything the handlers need; the handlers take no lock, allocate nothing and call
// only async-signal-safe functions (sigaction, raise, open, read, close, atomic operations and
// the dump path).
#include "crash_signals.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "ring.h"
#include "trace_file.h"

siginfo_t crash_siginfo;
char crash_sender_cmdline[256];

namespace {

constexpr int kCrashSignalCount = 7;
// SIGBUS is deliberately absent: hosts map files and handle it themselves.
constexpr int crash_signals[kCrashSignalCount] = {SIGINT, SIGQUIT, SIGILL, SIGABRT,
                                                  SIGFPE, SIGSEGV, SIGTERM};
// Entry i: the action signal crash_signals[i] had before the library installed its own.
// Written only by installation (under the registry lock), read by the crash handler.
struct sigaction saved_crash_actions[kCrashSignalCount];
// Set once all eight actions are in place; written under the registry lock only.
int signal_handlers_installed;

bool is_library_crash_action(const struct sigaction& action) {
  return (action.sa_flags & SA_SIGINFO) != 0 && action.sa_sigaction == quarry_abort_handler;
}

void report_sigaction_failure(int signo) {
  char text[32];
  snprintf(text, sizeof text, "sigaction(%d)", signo);
  perror(text);
}

int install_signal_handlers() {
  if (signal_handlers_installed) return 0;

  // Plain actions: no SA_RESTART (a dump request may interrupt a blocking call with EINTR),
  // no SA_RESETHAND or SA_NODEFER (the handler restores the previous actions itself and keeps
  // the handled signal blocked until it returns), no SA_ONSTACK.
  struct sigaction crash_action;
  memset(&crash_action, 0, sizeof crash_action);
  crash_action.sa_sigaction = quarry_abort_handler;
  crash_action.sa_flags = SA_SIGINFO;
  sigemptyset(&crash_action.sa_mask);
  struct sigaction dump_action = crash_action;
  dump_action.sa_sigaction = dump_signal_handler;

  for (int i = 0; i < kCrashSignalCount; ++i) {
    // After an attempt that failed part-way, the entries it installed already carry the
    // library's action and their saved slot holds the truly previous one: saving again would
    // record the library's own handler and make the crash handler chain to itself.
    struct sigaction current;
    if (sigaction(crash_signals[i], nullptr, &current) == 0 && is_library_crash_action(current)) {
      continue;
    }
    // The kernel swaps the actions and fills the saved slot before any signal can be
    // delivered to this thread, so the handler never reads a slot that is still empty here.
    if (sigaction(crash_signals[i], &crash_action, &saved_crash_actions[i]) != 0) {
      report_sigaction_failure(crash_signals[i]);
      return 1;
    }
  }
  if (sigaction(dump_signal, &dump_action, nullptr) != 0) {
    report_sigaction_failure(dump_signal);
    return 1;
  }
  signal_handlers_installed = 1;
  return 0;
}

// Fills crash_sender_cmdline from /proc/<pid>/<file>; returns the byte count read (0 or less
// when nothing was read).
ssize_t read_sender_file(int32_t pid, const char* file) {
  char path[256];
  sigsafe_text text(path, sizeof path);
  text.append("/proc/");
  text.append_signed(pid);
  text.append("/");
  text.append(file);
  ssize_t got = -1;
  int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd >= 0) {
    got = read(fd, crash_sender_cmdline, sizeof crash_sender_cmdline);
    close(fd);
  }
  crash_sender_cmdline[sizeof crash_sender_cmdline - 1] = '\0';
  return got;
}

// Lets the signal take the course it had before the library: the saved handler is called as
// a function (its own mask and flags are not applied), SIG_IGN drops the signal, and SIG_DFL,
// in force again since the handler's first step, is raised; the signal stays blocked until
// this handler returns, and then the default action ends the process.
void chain_to_previous(int slot, int signo, siginfo_t* info, void* context) {
  if (slot < 0) {
    raise(signo);
    return;
  }
  const struct sigaction& previous = saved_crash_actions[slot];
  if (previous.sa_handler == SIG_DFL) {
    raise(signo);
  } else if (previous.sa_handler == SIG_IGN) {
    return;
  } else if ((previous.sa_flags & SA_SIGINFO) != 0) {
    previous.sa_sigaction(signo, info, context);
  } else {
    previous.sa_handler(signo);
  }
}

// Walks the registry without a lock, as the dumps do: the head's acquire load pairs with the
// release store in register_circular_buffer, so every buffer reached is complete.
void for_each_buffer(void (*action)(circular_buffer*)) {
  for (circular_buffer* cb = circular_buffer_list.load(std::memory_order_acquire); cb != nullptr;
       cb = cb->next.load(std::memory_order_acquire)) {
    action(cb);
  }
}

}  // namespace

int register_circular_buffer(circular_buffer* cb) {
  // The registry lock is held: nobody else changes the head, so a relaxed load suffices. The
  // release store publishes the complete buffer and its `next` to lock-free readers, which
  // load the head with acquire.
  cb->next.store(circular_buffer_list.load(std::memory_order_relaxed), std::memory_order_relaxed);
  circular_buffer_list.store(cb, std::memory_order_release);
  return install_signal_handlers();
}

// Steps in order of risk: first put the previous actions back, so that anything going wrong
// later (a fault inside the dump, a second crash signal) meets the process's own course
// instead of this handler again; then note what happened; then dump; then chain.
extern "C" void quarry_abort_handler(int signo, siginfo_t* info, void* context) {
  const int saved_errno = errno;
  int slot = -1;
  for (int i = 0; i < kCrashSignalCount; ++i) {
    sigaction(crash_signals[i], &saved_crash_actions[i], nullptr);
    if (crash_signals[i] == signo) slot = i;
  }

  // A second run (two threads crashing at once): let the signal go its way once this one
  // returns; the dump below is repeated with the newer signal.
  if (crash_handled) raise(signo);

  // The sender and signal are stored before the flag: a dump in another thread that sees the
  // flag (volatile accesses keep their order) prints this signal, not a stale one.
  crash_sender_pid = info != nullptr ? info->si_pid : 0;
  crash_signal = signo;
  if (info != nullptr) crash_siginfo = *info;
  crash_handled = 1;

  if (read_sender_file(crash_sender_pid, "cmdline") <= 0)
    read_sender_file(crash_sender_pid, "comm");

  // Other threads keep writing while the files are written: every buffer is held first (its
  // new records go to the scratch ring, ring.h), so the files hold whole records except at
  // most the one each writer had in flight. Released before chaining: a host handler that lets
  // the process go on (or shuts down gracefully) traces into the real rings again.
  for_each_buffer(hold_ring);
  // No pause for writers in flight to finish: one preempted for longer than a pass over the
  // ring would then store its record over newer ones; the crash soak showed more damage so.
  quarry_dump_all();
  for_each_buffer(release_ring);

  // The previous handler and the interrupted code see the errno of the moment of the signal,
  // not what the dump left behind.
  errno = saved_errno;
  chain_to_previous(slot, signo, info, context);
  errno = saved_errno;
}

extern "C" void dump_signal_handler(int signo, siginfo_t* info, void* context) {
  (void)signo;
  (void)info;
  (void)context;
  const int saved_errno = errno;
  quarry_dump_all();
  errno = saved_errno;
}

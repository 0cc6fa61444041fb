// Finding the processes behind the process directories and deciding whether a PID is really a
// quarry host that may be sent the dump signal. Thread contract: reads /proc and the file tree
// only; no shared state.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "quarry_layout/tree.h"

namespace quarryctl {

// What /proc says about one process.
struct ProcInfo {
  bool exists = false;
  bool zombie = false;
  bool catches = false;  // SigCgt has the dump signal
  std::string comm;
  std::string argv0_name;  // its first argument with '/' replaced by '_' (the default name)
  uid_t uid = 0;
  int ppid = 0;
};
ProcInfo read_proc(int pid, int dump_signal);

enum class HostState {
  kRunning,     // alive and catching the dump signal
  kStale,       // nobody alive owns the directory
  kNotCatching  // the PID is alive but does not catch the dump signal (a reused PID)
};

struct ProcessEntry {
  std::string name;  // directory name
  std::string dir;   // with a trailing '/'
  quarry_layout::InfoFile info;
  int pid = 0;  // the host's PID when running, else the PID the info file names (or 0)
  int dump_signal = 0;
  HostState state = HostState::kStale;
  std::string how;          // how the PID was found: "quarry.info", "/proc: ..."
  std::vector<int> others;  // further live hosts that claim the same directory
  std::string parent;       // forked child: the parent's process name
  int child_pid = 0;        // forked child: the pid in the directory name
};

// Examines one process directory below `base`.
ProcessEntry examine_process(const std::string& base, const std::string& name);

// Every process directory below `base`, sorted by name.
std::vector<ProcessEntry> list_processes(const std::string& base);

// TARGET: a process directory name or a PID. Throws Failure naming what is missing.
ProcessEntry resolve_target(const std::string& base, const std::string& target);

// Throws Failure unless the entry is a running host that catches the dump signal; the message
// says why it is not (gone, reused PID, several hosts in one directory).
void require_running(const ProcessEntry& entry);

// The inode numbers (with their device) that inotify descriptors of `pid` watch; empty when
// /proc/PID/fd cannot be read.
struct WatchedInode {
  dev_t dev;
  ino_t ino;
};
std::vector<WatchedInode> watched_inodes(int pid);
bool is_watched(const std::vector<WatchedInode>& watched, const std::string& path);

// Seconds since the epoch at which `pid` started; 0 when unknown.
double process_start_time(int pid);

// Sends the dump signal to `pid` after checking once more, through a pidfd where the kernel
// has one, that it is the process that catches it. Throws Failure.
void send_dump_signal(const ProcessEntry& entry);

// A descriptor that becomes readable when `pid` exits (pidfd), or -1 where there is none.
int open_pid_watch(int pid);

}  // namespace quarryctl

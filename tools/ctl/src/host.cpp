// Which process owns a process directory, and whether it is a live quarry host.
//
// The rule: a PID is a quarry host only when /proc/PID exists, is not a zombie, and its SigCgt
// mask has the dump signal (SIGRTMAX - 2 is fatal to a process that does not catch it). It owns
// the directory `<name>` when any of these holds, strongest first:
//   1. one of its descriptors or memory mappings is a file below the directory, or one of its
//      inotify descriptors watches a control file there (live configuration);
//   2. it is the PID of quarry.info, or the PID in a forked child's name "<parent>.<pid>";
//   3. its comm or its first argument (with '/' made '_', the library's default process name)
//      is the directory name; this counts only when nothing of 1 or 2 is found, since the same
//      program may trace below another base directory.
// Processes that own a child directory "<name>.<pid>" of their own, or whose parent is a
// candidate (forked children, which inherit descriptors and handlers), are not counted.
// Several owners tied by 1, or several by 3 alone, are reported: naming a PID chooses one.
// Reads /proc and the file tree; the catcher scan is cached for the run (one thread).
#include "host.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <set>
#include <sstream>

#include "common.h"

namespace quarryctl {
namespace {

using quarry_layout::join;
using quarry_layout::read_text;

std::string proc_path(int pid, const char* what) {
  return "/proc/" + std::to_string(pid) + "/" + what;
}

bool starts_with(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

// A live process that catches the dump signal, with what ties it to files.
struct Catcher {
  int pid;
  ProcInfo proc;
  std::vector<std::string> open_paths;  // descriptor targets and mapped files
  std::vector<WatchedInode> watched;
};

std::vector<std::string> open_paths_of(int pid) {
  std::vector<std::string> paths;
  std::string fd_dir = proc_path(pid, "fd");
  if (DIR* d = opendir(fd_dir.c_str())) {
    while (struct dirent* entry = readdir(d)) {
      if (entry->d_name[0] == '.') continue;
      char target[4096];
      ssize_t n = readlink(join(fd_dir, entry->d_name).c_str(), target, sizeof target - 1);
      if (n > 0 && target[0] == '/') paths.emplace_back(target, static_cast<size_t>(n));
    }
    closedir(d);
  }
  std::string maps;
  if (read_text(proc_path(pid, "maps"), &maps)) {
    std::istringstream lines(maps);
    std::string line;
    while (std::getline(lines, line)) {
      size_t slash = line.find('/');
      if (slash != std::string::npos) paths.push_back(line.substr(slash));
    }
  }
  return paths;
}

const std::vector<Catcher>& catchers(int dump_signal) {
  static std::unique_ptr<std::vector<Catcher>> cached;
  static int cached_signal = 0;
  if (cached && cached_signal == dump_signal) return *cached;
  cached = std::make_unique<std::vector<Catcher>>();
  cached_signal = dump_signal;
  DIR* d = opendir("/proc");
  if (d == nullptr) return *cached;
  const int self = getpid();
  while (struct dirent* entry = readdir(d)) {
    char* end = nullptr;
    long pid = strtol(entry->d_name, &end, 10);
    if (pid <= 0 || *end != '\0' || pid == self) continue;
    ProcInfo proc = read_proc(static_cast<int>(pid), dump_signal);
    if (!proc.exists || proc.zombie || !proc.catches) continue;
    Catcher catcher{static_cast<int>(pid), proc, open_paths_of(static_cast<int>(pid)),
                    watched_inodes(static_cast<int>(pid))};
    cached->push_back(std::move(catcher));
  }
  closedir(d);
  return *cached;
}

bool name_matches(const ProcInfo& proc, const std::string& name) {
  if (name == proc.argv0_name || name == proc.comm) return true;
  // comm keeps at most 15 characters.
  return proc.comm.size() == 15 && starts_with(name, proc.comm);
}

// Strong tie: a descriptor, a mapping or a watch inside the directory.
bool strongly_tied(const Catcher& catcher, const std::string& dir) {
  for (const std::string& path : catcher.open_paths) {
    if (starts_with(path, dir)) return true;
  }
  if (catcher.watched.empty()) return false;
  for (const std::string& buffer : quarry_layout::sub_dirs(dir)) {
    if (is_watched(catcher.watched, join(join(dir, buffer), "quarry.ctrl"))) return true;
  }
  return false;
}

bool has_own_child_dir(const std::string& base, const std::string& name, int pid) {
  struct stat st;
  return stat(join(base, name + "." + std::to_string(pid)).c_str(), &st) == 0;
}

}  // namespace

ProcInfo read_proc(int pid, int dump_signal) {
  ProcInfo info;
  std::string status;
  if (pid <= 0 || !read_text(proc_path(pid, "status"), &status)) return info;
  info.exists = true;
  std::istringstream lines(status);
  std::string line;
  while (std::getline(lines, line)) {
    if (starts_with(line, "State:")) {
      info.zombie = line.find('Z') != std::string::npos || line.find('X') != std::string::npos;
    } else if (starts_with(line, "SigCgt:")) {
      unsigned long long mask = strtoull(line.c_str() + 7, nullptr, 16);
      info.catches = dump_signal > 0 && dump_signal <= 64 && ((mask >> (dump_signal - 1)) & 1u);
    } else if (starts_with(line, "PPid:")) {
      info.ppid = atoi(line.c_str() + 5);
    } else if (starts_with(line, "Uid:")) {
      info.uid = static_cast<uid_t>(strtoul(line.c_str() + 4, nullptr, 10));
    }
  }
  if (read_text(proc_path(pid, "comm"), &info.comm) && !info.comm.empty() &&
      info.comm.back() == '\n') {
    info.comm.pop_back();
  }
  std::string cmdline;
  if (read_text(proc_path(pid, "cmdline"), &cmdline)) {
    info.argv0_name = cmdline.substr(0, cmdline.find('\0'));
    std::replace(info.argv0_name.begin(), info.argv0_name.end(), '/', '_');
  }
  return info;
}

std::vector<WatchedInode> watched_inodes(int pid) {
  std::vector<WatchedInode> watched;
  std::string fd_dir = proc_path(pid, "fd");
  DIR* d = opendir(fd_dir.c_str());
  if (d == nullptr) return watched;
  while (struct dirent* entry = readdir(d)) {
    if (entry->d_name[0] == '.') continue;
    char target[64];
    ssize_t n = readlink(join(fd_dir, entry->d_name).c_str(), target, sizeof target - 1);
    if (n <= 0) continue;
    target[n] = '\0';
    if (strcmp(target, "anon_inode:inotify") != 0) continue;
    // Lines "inotify wd:1 ino:2a sdev:2d mask:8 ...": hex inode and the kernel's device number
    // (major << 20 | minor).
    std::string fdinfo;
    if (!read_text(join(proc_path(pid, "fdinfo"), entry->d_name), &fdinfo)) continue;
    std::istringstream lines(fdinfo);
    std::string line;
    while (std::getline(lines, line)) {
      size_t ino = line.find(" ino:"), sdev = line.find(" sdev:");
      if (!starts_with(line, "inotify") || ino == std::string::npos || sdev == std::string::npos)
        continue;
      unsigned long long kdev = strtoull(line.c_str() + sdev + 6, nullptr, 16);
      WatchedInode w;
      w.ino = static_cast<ino_t>(strtoull(line.c_str() + ino + 5, nullptr, 16));
      w.dev = makedev(static_cast<unsigned>(kdev >> 20), static_cast<unsigned>(kdev & 0xfffff));
      watched.push_back(w);
    }
  }
  closedir(d);
  return watched;
}

bool is_watched(const std::vector<WatchedInode>& watched, const std::string& path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return false;
  for (const WatchedInode& w : watched) {
    if (w.ino == st.st_ino && w.dev == st.st_dev) return true;
  }
  return false;
}

double process_start_time(int pid) {
  std::string stat_text, system_stat;
  if (!read_text(proc_path(pid, "stat"), &stat_text)) return 0;
  // Field 22 (starttime, in clock ticks since boot) counts from after the ")" of the comm,
  // which may itself hold spaces.
  size_t close = stat_text.rfind(')');
  if (close == std::string::npos) return 0;
  std::istringstream fields(stat_text.substr(close + 2));
  std::string field;
  for (int i = 3; i <= 22 && fields >> field; ++i) {
  }
  double ticks = strtod(field.c_str(), nullptr);
  if (!read_text("/proc/stat", &system_stat)) return 0;
  size_t btime = system_stat.find("\nbtime ");
  if (btime == std::string::npos) return 0;
  return strtod(system_stat.c_str() + btime + 7, nullptr) + ticks / sysconf(_SC_CLK_TCK);
}

ProcessEntry examine_process(const std::string& base, const std::string& name) {
  ProcessEntry entry;
  entry.name = name;
  entry.dir = join(join(base, name), "");
  entry.info = quarry_layout::read_info_file(entry.dir);
  entry.dump_signal = entry.info.valid ? entry.info.dump_signal : SIGRTMAX - 2;
  quarry_layout::split_child_name(name, &entry.parent, &entry.child_pid);
  if (!entry.parent.empty()) {
    struct stat st;  // "<name>.<digits>" is a child only when its parent's directory is there
    if (stat(join(base, entry.parent).c_str(), &st) != 0) entry.parent.clear();
  }
  if (entry.parent.empty()) entry.child_pid = 0;

  const int info_pid = entry.info.present ? entry.info.pid : 0;
  const int named_pid = entry.child_pid != 0 ? entry.child_pid : info_pid;
  // Rank every catcher by its tie to the directory; 0 means none.
  std::vector<std::pair<int, int>> ranked;  // rank, pid
  for (const Catcher& c : catchers(entry.dump_signal)) {
    int rank = 0;
    // A forked child inherits its parent's descriptors and name; it has a directory of its own.
    if (c.pid != named_pid && has_own_child_dir(base, name, c.pid)) continue;
    if (strongly_tied(c, entry.dir)) {
      rank = 3;
    } else if (c.pid == named_pid) {
      rank = 2;
    } else if (entry.child_pid == 0 && name_matches(c.proc, name)) {
      rank = 1;
    }
    if (rank > 0) ranked.emplace_back(rank, c.pid);
  }
  // A forked child inherits its parent's descriptors, watches and signal handlers; it is no
  // second owner of the directory (it traces into "<name>.<pid>" once it opens a buffer).
  std::vector<int> candidate_pids;
  for (const auto& r : ranked) candidate_pids.push_back(r.second);
  ranked.erase(std::remove_if(ranked.begin(), ranked.end(),
                              [&](const std::pair<int, int>& r) {
                                if (r.second == named_pid) return false;
                                int ppid = read_proc(r.second, entry.dump_signal).ppid;
                                return std::find(candidate_pids.begin(), candidate_pids.end(),
                                                 ppid) != candidate_pids.end();
                              }),
               ranked.end());
  // Among equals, the PID that quarry.info or the directory name gives comes first.
  std::sort(ranked.begin(), ranked.end(), [&](auto& a, auto& b) {
    if (a.first != b.first) return a.first > b.first;
    return (a.second == named_pid) > (b.second == named_pid);
  });
  // A name alone is weak evidence (the same program may trace below another base directory):
  // it counts only when nothing stronger points anywhere, and only strong ties flag a
  // directory as shared.
  if (!ranked.empty() && ranked[0].first >= 2) {
    ranked.erase(std::remove_if(ranked.begin() + 1, ranked.end(),
                                [](const std::pair<int, int>& r) { return r.first < 3; }),
                 ranked.end());
  }
  if (!ranked.empty()) {
    entry.state = HostState::kRunning;
    entry.pid = ranked[0].second;
    static const char* const kHow[] = {"", "/proc: name", "quarry.info", "/proc: open files"};
    entry.how = entry.pid == named_pid ? (entry.child_pid ? "directory name" : "quarry.info")
                                       : kHow[ranked[0].first];
    for (size_t i = 1; i < ranked.size(); ++i) entry.others.push_back(ranked[i].second);
    // quarry.info alone, without a matching name, may be a reused PID of another process
    // that happens to catch the signal: harmless to signal, but worth saying.
    if (ranked[0].first == 2 && entry.child_pid == 0 &&
        !name_matches(read_proc(entry.pid, entry.dump_signal), name)) {
      entry.how += ", name not confirmed";
    }
    return entry;
  }
  entry.pid = named_pid;
  ProcInfo named = read_proc(named_pid, entry.dump_signal);
  entry.state = named.exists && !named.zombie ? HostState::kNotCatching : HostState::kStale;
  return entry;
}

std::vector<ProcessEntry> list_processes(const std::string& base) {
  std::vector<ProcessEntry> entries;
  for (const std::string& name : quarry_layout::sub_dirs(base)) {
    entries.push_back(examine_process(base, name));
  }
  return entries;
}

ProcessEntry resolve_target(const std::string& base, const std::string& target) {
  struct stat st;
  if (stat(base.c_str(), &st) != 0) {
    throw Failure(base + ": no trace base directory (" + strerror(errno) + ")");
  }
  if (!target.empty() && target.find('/') == std::string::npos &&
      stat(join(base, target).c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
    return examine_process(base, target);
  }
  char* end = nullptr;
  long pid = strtol(target.c_str(), &end, 10);
  if (!target.empty() && *end == '\0' && pid > 0) {
    for (ProcessEntry& entry : list_processes(base)) {
      if (entry.pid == pid || entry.child_pid == pid) return entry;
      // Named among several candidates: the operator has chosen.
      if (std::find(entry.others.begin(), entry.others.end(), pid) != entry.others.end()) {
        entry.pid = static_cast<int>(pid);
        entry.others.clear();
        return entry;
      }
    }
    throw Failure("no process directory below " + base + " belongs to PID " + target);
  }
  throw Failure(join(base, target) + ": no such process directory");
}

void require_running(const ProcessEntry& entry) {
  switch (entry.state) {
    case HostState::kRunning:
      break;
    case HostState::kStale:
      throw Failure("process " + entry.name + ": not running" +
                    (entry.pid > 0
                         ? " (PID " + std::to_string(entry.pid) + " of " +
                               join(entry.dir, "quarry.info") + " is gone)"
                         : " (no quarry.info, and no live process owns " + entry.dir + ")"));
    case HostState::kNotCatching:
      throw Failure("process " + entry.name + ": PID " + std::to_string(entry.pid) +
                    " is alive but does not catch signal " + std::to_string(entry.dump_signal) +
                    " (a reused PID?); not signalling it, the signal would kill it");
  }
  if (!entry.others.empty()) {
    std::string pids;
    for (int pid : entry.others) pids += " " + std::to_string(pid);
    throw Failure("process " + entry.name + ": PID " + std::to_string(entry.pid) + " and also" +
                  pids + " write to " + entry.dir +
                  "; their files overwrite each other, name a PID instead");
  }
}

int open_pid_watch(int pid) {
#ifdef SYS_pidfd_open
  return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
#else
  (void)pid;
  return -1;
#endif
}

void send_dump_signal(const ProcessEntry& entry) {
  require_running(entry);
  int pidfd = open_pid_watch(entry.pid);
  // With a pidfd the check below and the signal reach the same process, even if the PID is
  // reused in between.
  ProcInfo proc = read_proc(entry.pid, entry.dump_signal);
  if (!proc.exists || proc.zombie || !proc.catches) {
    if (pidfd >= 0) close(pidfd);
    throw Failure("process " + entry.name + ": PID " + std::to_string(entry.pid) +
                  " no longer catches signal " + std::to_string(entry.dump_signal));
  }
  int rc;
#ifdef SYS_pidfd_send_signal
  if (pidfd >= 0) {
    rc = static_cast<int>(syscall(SYS_pidfd_send_signal, pidfd, entry.dump_signal, nullptr, 0));
  } else {
    rc = kill(entry.pid, entry.dump_signal);
  }
#else
  rc = kill(entry.pid, entry.dump_signal);
#endif
  int saved = errno;
  if (pidfd >= 0) close(pidfd);
  if (rc != 0) {
    throw Failure("process " + entry.name + ": cannot signal PID " + std::to_string(entry.pid) +
                  ": " + strerror(saved));
  }
}

}  // namespace quarryctl

// quarryctl dump and show: asking a live host for trace files (the dump signal, or a buffer's
// control file when the host watches it), waiting until they are complete, and decoding them.
// One thread; waits are bounded polls.
#include <errno.h>
#include <signal.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

#include "buffers.h"
#include "common.h"
#include "quarry_decode/cli.h"
#include "quarry_decode/recover.h"

namespace quarryctl {
namespace {

double now_coarse() {
  struct timespec ts;
  clock_gettime(CLOCK_REALTIME_COARSE, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

double seconds_of(const struct timespec& ts) {
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

double mtime_of(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? seconds_of(st.st_mtim) : 0;
}

// Waits `ms` milliseconds; false when SIGINT, SIGTERM or SIGHUP arrived (they are blocked
// while a dump request sits in a control file, so that it is always taken out again).
bool pause_ms(int ms) {
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGINT);
  sigaddset(&stop, SIGTERM);
  sigaddset(&stop, SIGHUP);
  struct timespec ts = {0, ms * 1000000L};
  return sigtimedwait(&stop, nullptr, &ts) < 0;
}

// A trace file the dump has finished: its header is whole and its data hold at least the
// words the header announces (the dump writes the header, then min(WORD_COUNT, BUFFER_SIZE)
// words or more).
bool complete(const quarry_layout::TraceFile& file) {
  quarry_decode::TraceHeader header;
  size_t offset = 0;
  if (!read_header(file.path, &header, &offset)) return false;
  uint64_t words = std::min(header.word_count, header.buffer_size);
  return static_cast<uint64_t>(file.size) >= offset + 4 * words;
}

// The newest complete trace file of `dir` written at or after `since`, or "".
std::string fresh_file(const std::string& dir, double since) {
  for (const quarry_layout::TraceFile& file : quarry_layout::trace_files(dir)) {
    if (seconds_of(file.mtime) < since) break;  // newest first
    if (complete(file)) return file.path;
  }
  return "";
}

// Whether a buffer directory is one of the running process's: anything in it changed since the
// process started, or it has no trace file yet. Buffers left by an earlier run of the same name
// are not waited for.
bool belongs(const BufferView& buffer, double start) {
  if (buffer.files.empty() || start <= 0) return true;
  double newest = std::max(
      {mtime_of(buffer.dir), mtime_of(buffer.ctrl_path), seconds_of(buffer.files[0].mtime)});
  return newest >= start - 1;  // the start time is known to a clock tick; btime to a second
}

// The buffers to wait for: those named, else every buffer of the running process. Named
// buffers that the host watches are dumped alone through their control files (`by_control`);
// otherwise the dump signal writes every buffer.
std::vector<BufferView> dump_targets(const Context& ctx, const Args& args,
                                     const ProcessEntry& entry,
                                     const std::vector<WatchedInode>& watched, bool* by_control) {
  std::vector<BufferView> wanted;
  for (size_t i = 1; i < args.positional.size(); ++i)
    wanted.push_back(buffer_of(entry, args.positional[i], watched));
  *by_control = !wanted.empty();
  for (const BufferView& b : wanted) *by_control = *by_control && b.live;
  if (!wanted.empty() && !*by_control) {
    fprintf(ctx.err,
            "quarryctl: PID %d does not watch every named buffer's control file; the "
            "dump signal writes all of its buffers\n",
            entry.pid);
  }
  if (wanted.empty()) {
    double start = process_start_time(entry.pid);
    for (BufferView& b : buffers_of(entry, watched)) {
      if (belongs(b, start)) wanted.push_back(std::move(b));
    }
    if (wanted.empty())
      throw Failure("process " + entry.name + ": no buffer directory in " + entry.dir);
  }

  return wanted;
}

// Polls until every buffer has a complete trace file written at or after `request`, the
// timeout passes, or a stop signal arrives (`interrupted`). Paths per buffer, "" for none.
std::vector<std::string> wait_for_files(const std::vector<BufferView>& wanted, double request,
                                        double timeout, int* interrupted) {
  std::vector<std::string> fresh(wanted.size());
  const double deadline = now_coarse() + timeout;
  for (;;) {
    bool all = true;
    for (size_t i = 0; i < wanted.size(); ++i) {
      if (fresh[i].empty()) fresh[i] = fresh_file(wanted[i].dir, request);
      all = all && !fresh[i].empty();
    }
    if (all || now_coarse() > deadline) break;
    if (!pause_ms(10)) {
      *interrupted = 1;
      break;
    }
  }
  return fresh;
}

}  // namespace

int decode_paths(const Context& ctx, const Args& args, const std::vector<std::string>& inputs) {
  std::vector<std::string> argv = {"quarry-decode"};
  std::string format = args.has("format") ? args.get("format") : args.get("decode");
  if (!format.empty()) argv.push_back("--format=" + format);
  auto dirs = args.options.equal_range("decode-dir");
  for (auto it = dirs.first; it != dirs.second; ++it) argv.push_back("--decode-dir=" + it->second);
  argv.push_back("--");
  argv.insert(argv.end(), inputs.begin(), inputs.end());
  std::vector<const char*> raw;
  for (const std::string& arg : argv) raw.push_back(arg.c_str());
  raw.push_back(nullptr);
  fflush(ctx.out);
  int status = quarry_decode::run_cli(static_cast<int>(argv.size()), raw.data(), ctx.out, ctx.err);
  return status == quarry_decode::kExitOk ? kExitOk : kExitFailed;
}

int cmd_dump(const Context& ctx, const Args& args) {
  if (args.positional.empty()) throw usage_error("expected TARGET [BUFFER...]");
  double timeout = 10;
  if (args.has("timeout")) {
    char* end = nullptr;
    timeout = strtod(args.get("timeout").c_str(), &end);
    if (*end != '\0' || !(timeout > 0)) throw usage_error("--timeout: expected seconds above 0");
  }
  ProcessEntry entry = resolve_target(ctx.base, args.positional[0]);
  require_running(entry);
  std::vector<WatchedInode> watched = watched_inodes(entry.pid);

  bool by_control = false;
  std::vector<BufferView> wanted = dump_targets(ctx, args, entry, watched, &by_control);

  // Every new file must be told apart from the old ones by its time: wait (a clock tick at
  // most) until the file system's clock has passed the newest existing file.
  double newest = 0;
  for (const BufferView& b : wanted) {
    if (!b.files.empty()) newest = std::max(newest, seconds_of(b.files[0].mtime));
  }
  for (int i = 0; i < 200 && now_coarse() <= newest; ++i) pause_ms(1);
  const double request = now_coarse();

  sigset_t stop, previous;
  sigemptyset(&stop);
  sigaddset(&stop, SIGINT);
  sigaddset(&stop, SIGTERM);
  sigaddset(&stop, SIGHUP);
  sigprocmask(SIG_BLOCK, &stop, &previous);
  int interrupted = 0;
  if (by_control) {
    for (const BufferView& b : wanted) {
      quarry_layout::ControlState state = clean_state(b);
      state.dump = true;
      write_control(entry, b, state, ctx.err);
    }
  } else {
    send_dump_signal(entry);
  }

  std::vector<std::string> fresh = wait_for_files(wanted, request, timeout, &interrupted);
  // The request must not stay in the file: the library would dump again at every later change.
  if (by_control) {
    for (const BufferView& b : wanted) {
      BufferView now = buffer_of(entry, b.name, watched);
      write_control(entry, now, clean_state(now), ctx.err);
    }
  }
  sigprocmask(SIG_SETMASK, &previous, nullptr);
  if (interrupted) throw Failure("process " + entry.name + ": interrupted while waiting");

  std::vector<std::string> paths;
  int status = kExitOk;
  for (size_t i = 0; i < wanted.size(); ++i) {
    if (fresh[i].empty()) {
      fprintf(ctx.err, "quarryctl: %s: no new trace file within %gs (PID %d)\n",
              wanted[i].dir.c_str(), timeout, entry.pid);
      status = kExitFailed;
    } else {
      paths.push_back(fresh[i]);
    }
  }
  if (args.has("decode")) {
    if (!paths.empty() && decode_paths(ctx, args, paths) != kExitOk) status = kExitFailed;
  } else {
    for (const std::string& path : paths) fprintf(ctx.out, "%s\n", path.c_str());
  }
  return status;
}

// The directory that "TARGET [BUFFER]" names: the process directory, or one buffer's. The
// process need not be running.
static std::string target_dir(const Context& ctx, const Args& args) {
  if (args.positional.empty() || args.positional.size() > 2)
    throw usage_error("expected TARGET [BUFFER]");
  ProcessEntry entry = resolve_target(ctx.base, args.positional[0]);
  if (args.positional.size() == 2) return buffer_of(entry, args.positional[1], {}).dir;
  return entry.dir;
}

int cmd_show(const Context& ctx, const Args& args) {
  return decode_paths(ctx, args, {target_dir(ctx, args)});
}

// Recovery itself refuses the rings of a live process.
int cmd_recover(const Context& ctx, const Args& args) {
  const std::string input = target_dir(ctx, args);
  std::vector<std::string> decode_dirs;
  for (auto it = args.options.lower_bound("decode-dir");
       it != args.options.upper_bound("decode-dir"); ++it) {
    decode_dirs.push_back(it->second);
  }
  return quarry_decode::run_recover({input}, decode_dirs, ctx.out, ctx.err);
}

}  // namespace quarryctl

// quarryctl stream: live records of chosen handles on standard output. Creates the buffer's
// named pipe when absent, switches the handles to PIPE, decodes until interrupted, the host
// exits or the output closes, then restores the handles' pipe switches and removes the pipe it
// created. One thread; SIGINT, SIGTERM and SIGHUP arrive through a signalfd.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <memory>

#include "buffers.h"
#include "common.h"
#include "quarry_decode/decode_file.h"
#include "quarry_decode/error.h"
#include "quarry_decode/output.h"
#include "quarry_decode/stream_reader.h"

namespace quarryctl {
namespace {

struct Pipe {
  size_t buffer = 0;  // index into the buffers
  std::string path;
  bool created = false;
  int reader = -1;
  int keeper = -1;  // our own writer end: the stream never sees an end while we read it
  std::vector<std::string> handles;
  std::vector<bool> was_piped;
  std::unique_ptr<quarry_decode::StreamDecoder> decoder;
};

// Creates the named pipe unless one is there. A host of another user opens it for writing and
// refuses a pipe it does not own, so root hands it to the owner of the buffer directory.
bool make_pipe(const std::string& path, const std::string& dir) {
  struct stat st;
  if (lstat(path.c_str(), &st) == 0) {
    if (!S_ISFIFO(st.st_mode)) throw Failure(path + ": exists and is not a named pipe");
    return false;
  }
  if (mkfifo(path.c_str(), 0600) != 0) {
    throw Failure(path + ": cannot create the named pipe: " + strerror(errno));
  }
  if (geteuid() == 0 && stat(dir.c_str(), &st) == 0 && st.st_uid != 0 &&
      chown(path.c_str(), st.st_uid, st.st_gid) != 0) {
    int saved = errno;
    unlink(path.c_str());
    throw Failure(path + ": cannot hand the pipe to the host's user: " + strerror(saved));
  }
  return true;
}

quarry_decode::OutputOptions output_options(const Args& args) {
  quarry_decode::OutputOptions options;
  std::string format = args.get("format", "text");
  if (format == "json") {
    options.format = quarry_decode::OutputFormat::kJson;
  } else if (format == "chrome") {
    options.format = quarry_decode::OutputFormat::kChrome;
  } else if (format != "text") {
    throw usage_error("unknown format '" + format + "' (text, json or chrome)");
  }
  return options;
}

// One stream session. The destructor undoes what the session did, on every way out.
class Session {
 public:
  Session(const Context& ctx, const Args& args, ProcessEntry entry)
      : ctx_(ctx),
        entry_(std::move(entry)),
        cache_(quarry_decode::decode_search_path(decode_dirs(args))),
        output_(ctx.out),
        formatter_(quarry_decode::make_formatter(output_options(args), output_)) {}

  ~Session() { restore(); }

  // Creates and opens the pipes of the buffers that hold the chosen handles.
  void open_pipes(const std::vector<BufferView>& buffers,
                  const std::map<size_t, std::vector<std::string>>& chosen) {
    buffers_ = buffers;
    for (auto& [index, handles] : chosen) {
      if (!buffers_[index].live) {
        throw Failure(buffers_[index].ctrl_path + ": PID " + std::to_string(entry_.pid) +
                      " does not watch it; live configuration is off for buffer " +
                      buffers_[index].name);
      }
    }
    for (auto& [index, handles] : chosen) {
      pipes_.emplace_back();
      Pipe& p = pipes_.back();
      p.buffer = index;
      p.path = buffers_[index].dir + "quarry.pipe";
      p.handles = handles;
      for (const std::string& h : handles) {
        const quarry_layout::ControlHandle* c = buffers_[index].ctrl.find(h);
        p.was_piped.push_back(c != nullptr && c->pipe);
      }
      p.created = make_pipe(p.path, buffers_[index].dir);
      p.reader = open(p.path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
      if (p.reader >= 0) p.keeper = open(p.path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
      if (p.reader < 0 || p.keeper < 0) throw Failure(p.path + ": cannot open: " + strerror(errno));
      p.decoder = std::make_unique<quarry_decode::StreamDecoder>(
          p.path, cache_, *formatter_, [this](quarry_decode::SourceInfo& source) {
            report_diagnostics();
            formatter_->begin_source(source);
          });
    }
  }

  // Switches the chosen handles to PIPE; the reader is already there for the first record.
  void switch_on() {
    for (Pipe& p : pipes_) {
      quarry_layout::ControlState state = clean_state(buffers_[p.buffer]);
      for (const std::string& h : p.handles) {
        quarry_layout::ControlHandle* c = state.find(h);
        if (c == nullptr) {
          state.handles.push_back(quarry_layout::ControlHandle{h});
          c = &state.handles.back();
        }
        c->pipe = true;
      }
      switched_ = true;
      write_control(entry_, buffers_[p.buffer], state, ctx_.err);
    }
  }

  // Decodes until a stop signal arrives on `signal_fd`, the host exits or the output closes.
  void pump(int signal_fd) {
    int pid_fd = open_pid_watch(entry_.pid);
    struct stat out_st;
    bool watch_output = fstat(fileno(ctx_.out), &out_st) == 0 &&
                        (S_ISFIFO(out_st.st_mode) || S_ISSOCK(out_st.st_mode));
    std::vector<char> chunk(64 * 1024);
    const size_t n = pipes_.size();
    for (bool running = true; running;) {
      std::vector<struct pollfd> fds;
      for (const Pipe& p : pipes_) fds.push_back({p.reader, POLLIN, 0});
      fds.push_back({signal_fd, POLLIN, 0});
      fds.push_back({pid_fd, POLLIN, 0});
      // A reader that went away shows as POLLERR on our end of the output pipe.
      fds.push_back({watch_output ? fileno(ctx_.out) : -1, 0, 0});
      // Without a pidfd the host's exit is polled for through /proc.
      if (poll(fds.data(), fds.size(), pid_fd >= 0 ? -1 : 250) < 0 && errno != EINTR) break;
      bool host_gone =
          pid_fd >= 0 ? fds[n + 1].revents != 0 : !read_proc(entry_.pid, entry_.dump_signal).exists;
      for (Pipe& p : pipes_) {
        // Drain: on the host's exit, what it wrote last is still in the pipe.
        for (ssize_t got; (got = read(p.reader, chunk.data(), chunk.size())) > 0;)
          p.decoder->feed(chunk.data(), static_cast<size_t>(got));
      }
      output_.flush();
      if (output_.failed()) break;  // the output was closed (| head): end quietly
      if (fds[n].revents != 0 || fds[n + 2].revents != 0) running = false;
      if (host_gone) {
        fprintf(ctx_.err, "quarryctl: process %s (PID %d) has exited\n", entry_.name.c_str(),
                entry_.pid);
        entry_.state = HostState::kStale;
        running = false;
      }
    }
    if (pid_fd >= 0) close(pid_fd);
    for (Pipe& p : pipes_) {
      p.decoder->finish();
      for (const std::string& problem : p.decoder->problems())
        fprintf(ctx_.err, "quarryctl: %s: %s\n", p.path.c_str(), problem.c_str());
    }
    formatter_->end();
    output_.flush();
    report_diagnostics();
  }

 private:
  static std::vector<std::string> decode_dirs(const Args& args) {
    std::vector<std::string> dirs;
    auto range = args.options.equal_range("decode-dir");
    for (auto it = range.first; it != range.second; ++it) dirs.push_back(it->second);
    return dirs;
  }

  void report_diagnostics() {
    for (; reported_ < cache_.diagnostics().size(); ++reported_)
      fprintf(ctx_.err, "quarryctl: %s\n", cache_.diagnostics()[reported_].c_str());
  }

  // Puts the pipe switches back as they were (re-reading the file: others may have changed
  // it meanwhile) and removes the pipes this session created.
  void restore() {
    for (Pipe& pipe : pipes_) {
      if (switched_) {
        try {
          BufferView now =
              buffer_of(entry_, buffers_[pipe.buffer].name,
                        entry_.state == HostState::kRunning ? watched_inodes(entry_.pid)
                                                            : std::vector<WatchedInode>{});
          quarry_layout::ControlState state = clean_state(now);
          for (size_t i = 0; i < pipe.handles.size(); ++i) {
            if (quarry_layout::ControlHandle* h = state.find(pipe.handles[i]))
              h->pipe = pipe.was_piped[i];
          }
          if (!quarry_layout::write_in_place(now.ctrl_path, quarry_layout::format_control(state)))
            fprintf(ctx_.err, "quarryctl: %s: cannot write: %s\n", now.ctrl_path.c_str(),
                    strerror(errno));
        } catch (const Failure& e) {
          fprintf(ctx_.err, "quarryctl: %s\n", e.what());
        }
      }
      if (pipe.keeper >= 0) close(pipe.keeper);
      if (pipe.reader >= 0) close(pipe.reader);
      if (pipe.created) unlink(pipe.path.c_str());
    }
  }

  const Context& ctx_;
  ProcessEntry entry_;
  std::vector<BufferView> buffers_;
  quarry_decode::DecodeFileCache cache_;
  quarry_decode::OutputBuffer output_;
  std::unique_ptr<quarry_decode::Formatter> formatter_;
  std::vector<Pipe> pipes_;
  bool switched_ = false;
  size_t reported_ = 0;
};

}  // namespace

int cmd_stream(const Context& ctx, const Args& args) {
  if (args.positional.size() < 2) throw usage_error("expected TARGET HANDLE...");
  output_options(args);  // a bad format is a usage error before anything happens
  // Signals first, so that an interruption at any later point still cleans up.
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGINT);
  sigaddset(&stop_signals, SIGTERM);
  sigaddset(&stop_signals, SIGHUP);
  sigprocmask(SIG_BLOCK, &stop_signals, nullptr);
  signal(SIGPIPE, SIG_IGN);  // a closed output shows up as EPIPE and ends the stream quietly
  int signal_fd = signalfd(-1, &stop_signals, SFD_CLOEXEC | SFD_NONBLOCK);

  ProcessEntry entry = resolve_target(ctx.base, args.positional[0]);
  require_running(entry);
  std::vector<BufferView> buffers = buffers_of(entry, watched_inodes(entry.pid));
  auto chosen =
      select_handles(entry, buffers, {args.positional.begin() + 1, args.positional.end()});
  int status = kExitOk;
  {
    Session session(ctx, args, entry);
    session.open_pipes(buffers, chosen);
    session.switch_on();
    try {
      session.pump(signal_fd);
    } catch (const quarry_decode::DecodeError& e) {
      fprintf(ctx.err, "quarryctl: stream of process %s: %s\n", entry.name.c_str(), e.what());
      status = kExitFailed;
    }
  }
  if (signal_fd >= 0) close(signal_fd);
  return status;
}

}  // namespace quarryctl

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

// Puts the pipe switches back as they were and removes what we created. Runs on every way out.
void restore(const Context& ctx, const ProcessEntry& entry, std::vector<Pipe>& pipes,
             const std::vector<BufferView>& buffers, bool switched) {
  for (Pipe& pipe : pipes) {
    if (switched) {
      try {
        BufferView now =
            buffer_of(entry, buffers[pipe.buffer].name,
                      entry.state == HostState::kRunning ? watched_inodes(entry.pid)
                                                         : std::vector<WatchedInode>{});
        quarry_layout::ControlState state = clean_state(now);
        for (size_t i = 0; i < pipe.handles.size(); ++i) {
          if (quarry_layout::ControlHandle* h = state.find(pipe.handles[i]))
            h->pipe = pipe.was_piped[i];
        }
        quarry_layout::write_in_place(now.ctrl_path, quarry_layout::format_control(state));
      } catch (const Failure& e) {
        fprintf(ctx.err, "quarryctl: %s\n", e.what());
      }
    }
    if (pipe.keeper >= 0) close(pipe.keeper);
    if (pipe.reader >= 0) close(pipe.reader);
    if (pipe.created) unlink(pipe.path.c_str());
  }
}

}  // namespace

int cmd_stream(const Context& ctx, const Args& args) {
  if (args.positional.size() < 2) throw usage_error("expected TARGET HANDLE...");
  quarry_decode::OutputOptions options = output_options(args);
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
  std::vector<WatchedInode> watched = watched_inodes(entry.pid);
  std::vector<BufferView> buffers = buffers_of(entry, watched);
  auto chosen =
      select_handles(entry, buffers, {args.positional.begin() + 1, args.positional.end()});
  for (auto& [index, handles] : chosen) {
    if (!buffers[index].live) {
      throw Failure(buffers[index].ctrl_path + ": PID " + std::to_string(entry.pid) +
                    " does not watch it; live configuration is off for buffer " +
                    buffers[index].name);
    }
  }

  std::vector<std::string> dec_dirs;
  auto dirs = args.options.equal_range("decode-dir");
  for (auto it = dirs.first; it != dirs.second; ++it) dec_dirs.push_back(it->second);
  quarry_decode::DecodeFileCache cache(quarry_decode::decode_search_path(dec_dirs));
  quarry_decode::OutputBuffer output(ctx.out);
  std::unique_ptr<quarry_decode::Formatter> formatter =
      quarry_decode::make_formatter(options, output);
  size_t reported = 0;
  auto report_diagnostics = [&] {
    for (; reported < cache.diagnostics().size(); ++reported)
      fprintf(ctx.err, "quarryctl: %s\n", cache.diagnostics()[reported].c_str());
  };

  std::vector<Pipe> pipes;
  bool switched = false;
  int status = kExitOk;
  int pid_fd = -1;
  try {
    for (auto& [index, handles] : chosen) {
      Pipe pipe;
      pipe.buffer = index;
      pipe.path = buffers[index].dir + "quarry.pipe";
      pipe.handles = handles;
      for (const std::string& h : handles) {
        const quarry_layout::ControlHandle* c = buffers[index].ctrl.find(h);
        pipe.was_piped.push_back(c != nullptr && c->pipe);
      }
      pipes.push_back(std::move(pipe));
      Pipe& p = pipes.back();
      p.created = make_pipe(p.path, buffers[index].dir);
      p.reader = open(p.path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
      if (p.reader >= 0) p.keeper = open(p.path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
      if (p.reader < 0 || p.keeper < 0) throw Failure(p.path + ": cannot open: " + strerror(errno));
      p.decoder = std::make_unique<quarry_decode::StreamDecoder>(
          p.path, cache, *formatter, [&](quarry_decode::SourceInfo& source) {
            report_diagnostics();
            formatter->begin_source(source);
          });
    }
    for (Pipe& p : pipes) {
      quarry_layout::ControlState state = clean_state(buffers[p.buffer]);
      for (const std::string& h : p.handles) {
        quarry_layout::ControlHandle* c = state.find(h);
        if (c == nullptr) {
          state.handles.push_back(quarry_layout::ControlHandle{h});
          c = &state.handles.back();
        }
        c->pipe = true;
      }
      switched = true;
      write_control(entry, buffers[p.buffer], state, ctx.err);
    }

    pid_fd = open_pid_watch(entry.pid);
    struct stat out_st;
    bool watch_output = fstat(fileno(ctx.out), &out_st) == 0 &&
                        (S_ISFIFO(out_st.st_mode) || S_ISSOCK(out_st.st_mode));
    std::vector<char> chunk(64 * 1024);
    bool running = true;
    while (running) {
      std::vector<struct pollfd> fds;
      for (const Pipe& p : pipes) fds.push_back({p.reader, POLLIN, 0});
      fds.push_back({signal_fd, POLLIN, 0});
      fds.push_back({pid_fd, POLLIN, 0});
      // A reader that went away shows as POLLERR on our end of the output pipe.
      fds.push_back({watch_output ? fileno(ctx.out) : -1, 0, 0});
      int ready = poll(fds.data(), fds.size(), pid_fd >= 0 ? -1 : 250);
      if (ready < 0 && errno != EINTR) throw Failure(std::string("poll: ") + strerror(errno));
      bool host_gone = pid_fd >= 0 ? fds[pipes.size() + 1].revents != 0
                                   : !read_proc(entry.pid, entry.dump_signal).exists;
      for (size_t i = 0; i < pipes.size(); ++i) {
        // Drain: on the host's exit, what it wrote last is still in the pipe.
        for (;;) {
          ssize_t got = read(pipes[i].reader, chunk.data(), chunk.size());
          if (got <= 0) break;
          pipes[i].decoder->feed(chunk.data(), static_cast<size_t>(got));
        }
      }
      output.flush();
      if (output.failed()) break;  // the output was closed (| head): end quietly
      if (fds[pipes.size()].revents != 0 || fds[pipes.size() + 2].revents != 0) running = false;
      if (host_gone) {
        fprintf(ctx.err, "quarryctl: process %s (PID %d) has exited\n", entry.name.c_str(),
                entry.pid);
        entry.state = HostState::kStale;
        running = false;
      }
    }
    for (Pipe& p : pipes) {
      p.decoder->finish();
      for (const std::string& problem : p.decoder->problems())
        fprintf(ctx.err, "quarryctl: %s: %s\n", p.path.c_str(), problem.c_str());
    }
    formatter->end();
    output.flush();
  } catch (const quarry_decode::DecodeError& e) {
    fprintf(ctx.err, "quarryctl: stream of process %s: %s\n", entry.name.c_str(), e.what());
    status = kExitFailed;
  } catch (...) {
    restore(ctx, entry, pipes, buffers, switched);
    throw;
  }
  restore(ctx, entry, pipes, buffers, switched);
  if (pid_fd >= 0) close(pid_fd);
  if (signal_fd >= 0) close(signal_fd);
  report_diagnostics();
  return status;
}

}  // namespace quarryctl

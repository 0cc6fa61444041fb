// quarryctl ls: every process directory with its host's state, its buffers, their handles and
// switches, and what the library ignores in their control files; as text or JSON. One thread.
#include <fnmatch.h>
#include <time.h>

#include <algorithm>

#include "buffers.h"
#include "common.h"

namespace quarryctl {
namespace {

const char* state_name(HostState state) {
  switch (state) {
    case HostState::kRunning:
      return "running";
    case HostState::kStale:
      return "stale";
    case HostState::kNotCatching:
      return "not-a-host";
  }
  return "?";
}

std::string json_string(const std::string& text) {
  std::string out = "\"";
  for (unsigned char c : text) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20) {
      char escaped[8];
      snprintf(escaped, sizeof escaped, "\\u%04x", c);
      out += escaped;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out + "\"";
}

std::string human_size(unsigned long long bytes) {
  if (bytes >= (1ull << 20) && bytes % (1ull << 20) == 0) return std::to_string(bytes >> 20) + "M";
  if (bytes >= (1ull << 10) && bytes % (1ull << 10) == 0) return std::to_string(bytes >> 10) + "K";
  return std::to_string(bytes);
}

double age_seconds(const struct timespec& mtime) {
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<double>(now.tv_sec - mtime.tv_sec) +
         static_cast<double>(now.tv_nsec - mtime.tv_nsec) / 1e9;
}

unsigned long long buffer_bytes(const BufferView& buffer) {
  if (buffer.has_ctrl && buffer.ctrl.has_max_size) return buffer.ctrl.max_size;
  return buffer.has_header ? 4ull * buffer.header.buffer_size : 0;
}

// What the library skips in the control file: unknown lines and names it does not know.
std::vector<std::string> ignored_lines(const BufferView& buffer) {
  std::vector<std::string> ignored = buffer.ctrl.ignored;
  for (const quarry_layout::ControlHandle& handle : buffer.ctrl.handles) {
    if (std::find(buffer.handles.begin(), buffer.handles.end(), handle.name) ==
        buffer.handles.end())
      ignored.push_back("unknown handle " + handle.name);
  }
  return ignored;
}

struct Listed {
  ProcessEntry entry;
  std::vector<BufferView> buffers;
};

void print_text(FILE* out, const Listed& listed, const char* indent) {
  const ProcessEntry& e = listed.entry;
  fprintf(out, "%s%s  PID %s  %s", indent, e.name.c_str(),
          e.pid > 0 ? std::to_string(e.pid).c_str() : "-", state_name(e.state));
  if (e.state == HostState::kRunning) fprintf(out, " (found by %s)", e.how.c_str());
  if (e.state == HostState::kStale) fprintf(out, " (process gone)");
  if (e.state == HostState::kNotCatching)
    fprintf(out, " (PID alive but does not catch signal %d)", e.dump_signal);
  if (!e.parent.empty()) fprintf(out, "  forked child of %s", e.parent.c_str());
  fputc('\n', out);
  if (!e.others.empty()) {
    fprintf(out, "%s  WARNING: shared with live PID", indent);
    for (int pid : e.others) fprintf(out, " %d", pid);
    fprintf(out, ": their trace files overwrite each other\n");
  }
  for (const BufferView& b : listed.buffers) {
    unsigned long long bytes = buffer_bytes(b);
    fprintf(out, "%s  %s  %s  %s", indent, b.name.c_str(),
            bytes ? human_size(bytes).c_str() : "size unknown",
            b.live       ? "live"
            : b.has_ctrl ? "control file (not watched)"
                         : "no control file");
    if (b.ctrl.has_loop_count) fprintf(out, "  rotate %d", b.ctrl.loop_count);
    if (b.has_header) {
      fprintf(out, "  words %u  entries %u", b.header.word_count, b.header.entry_count);
    }
    if (!b.files.empty()) {
      std::string file = b.files[0].path.substr(b.dir.size());
      fprintf(out, "  newest %s (%.0fs ago)", file.c_str(), age_seconds(b.files[0].mtime));
    }
    fputc('\n', out);
    for (const std::string& name : b.handles) {
      const quarry_layout::ControlHandle* h = b.ctrl.find(name);
      fprintf(out, "%s    %-8s %-7s %s\n", indent, h ? (h->trace ? "TRACE" : "NOTRACE") : "-",
              h ? (h->pipe ? "PIPE" : "NOPIPE") : "-", name.c_str());
    }
    for (const std::string& line : ignored_lines(b)) {
      fprintf(out, "%s    ignored by the library: %s\n", indent, line.c_str());
    }
  }
}

void print_json(FILE* out, const Listed& listed, bool first) {
  const ProcessEntry& e = listed.entry;
  fprintf(out, "%s\n  {\"name\": %s, \"dir\": %s, \"pid\": %d, \"state\": \"%s\", ",
          first ? "" : ",", json_string(e.name).c_str(), json_string(e.dir).c_str(), e.pid,
          state_name(e.state));
  fprintf(out, "\"found_by\": %s, \"dump_signal\": %d, \"parent\": %s, \"shared_with\": [",
          json_string(e.how).c_str(), e.dump_signal,
          e.parent.empty() ? "null" : json_string(e.parent).c_str());
  for (size_t i = 0; i < e.others.size(); ++i) fprintf(out, "%s%d", i ? ", " : "", e.others[i]);
  fprintf(out, "], \"buffers\": [");
  for (size_t i = 0; i < listed.buffers.size(); ++i) {
    const BufferView& b = listed.buffers[i];
    fprintf(out,
            "%s\n    {\"name\": %s, \"dir\": %s, \"size\": %llu, \"control_file\": %s, "
            "\"live\": %s, ",
            i ? "," : "", json_string(b.name).c_str(), json_string(b.dir).c_str(), buffer_bytes(b),
            b.has_ctrl ? "true" : "false", b.live ? "true" : "false");
    if (b.ctrl.has_loop_count) fprintf(out, "\"file_loop_count\": %d, ", b.ctrl.loop_count);
    if (b.has_header) {
      fprintf(out, "\"word_count\": %u, \"entry_count\": %u, ", b.header.word_count,
              b.header.entry_count);
    }
    if (!b.files.empty()) {
      fprintf(out, "\"newest_file\": %s, \"newest_age_s\": %.3f, ",
              json_string(b.files[0].path).c_str(), age_seconds(b.files[0].mtime));
    }
    fprintf(out, "\"handles\": [");
    for (size_t h = 0; h < b.handles.size(); ++h) {
      const quarry_layout::ControlHandle* c = b.ctrl.find(b.handles[h]);
      fprintf(out, "%s{\"name\": %s, \"trace\": %s, \"pipe\": %s}", h ? ", " : "",
              json_string(b.handles[h]).c_str(), c ? (c->trace ? "true" : "false") : "null",
              c ? (c->pipe ? "true" : "false") : "null");
    }
    fprintf(out, "], \"ignored\": [");
    std::vector<std::string> ignored = ignored_lines(b);
    for (size_t l = 0; l < ignored.size(); ++l)
      fprintf(out, "%s%s", l ? ", " : "", json_string(ignored[l]).c_str());
    fprintf(out, "]}");
  }
  fprintf(out, "%s]}", listed.buffers.empty() ? "" : "\n  ");
}

// A process and, indented below it, its forked children and theirs.
void print_tree(FILE* out, const std::vector<Listed>& listed, const Listed& l,
                const std::string& indent) {
  print_text(out, l, indent.c_str());
  for (const Listed& child : listed) {
    if (child.entry.parent == l.entry.name) print_tree(out, listed, child, indent + "  ");
  }
}

bool selected(const ProcessEntry& entry, const std::vector<std::string>& filters) {
  if (filters.empty()) return true;
  for (const std::string& f : filters) {
    if (fnmatch(f.c_str(), entry.name.c_str(), 0) == 0) return true;
    if (!f.empty() && f.find_first_not_of("0123456789") == std::string::npos &&
        (std::to_string(entry.pid) == f || std::to_string(entry.child_pid) == f))
      return true;
  }
  return false;
}

}  // namespace

int cmd_ls(const Context& ctx, const Args& args) {
  std::vector<ProcessEntry> all = list_processes(ctx.base);
  // A selected parent brings its forked children along.
  std::vector<Listed> listed;
  for (const ProcessEntry& entry : all) {
    bool wanted = selected(entry, args.positional);
    for (const ProcessEntry& parent : all) {
      if (!wanted && !entry.parent.empty() && parent.name == entry.parent)
        wanted = selected(parent, args.positional);
    }
    if (!wanted) continue;
    std::vector<WatchedInode> watched;
    if (entry.state == HostState::kRunning) watched = watched_inodes(entry.pid);
    listed.push_back(Listed{entry, buffers_of(entry, watched)});
  }
  if (!args.positional.empty() && listed.empty()) {
    throw Failure("no process directory below " + ctx.base + " matches the names given");
  }
  if (args.has("json")) {
    fprintf(ctx.out, "{\"base\": %s, \"processes\": [", json_string(ctx.base).c_str());
    for (size_t i = 0; i < listed.size(); ++i) print_json(ctx.out, listed[i], i == 0);
    fprintf(ctx.out, "%s]}\n", listed.empty() ? "" : "\n");
    return kExitOk;
  }
  if (listed.empty()) fprintf(ctx.out, "no process directories below %s\n", ctx.base.c_str());
  // Children under their parent when it is listed too, else on their own.
  for (const Listed& l : listed) {
    bool has_parent = false;
    for (const Listed& p : listed)
      has_parent |= !l.entry.parent.empty() && p.entry.name == l.entry.parent;
    if (!has_parent) print_tree(ctx.out, listed, l, "");
  }
  return kExitOk;
}

}  // namespace quarryctl

// Reading a buffer directory for the operator: control file, trace files, newest header, and
// writing its control file back. Thread contract: reads and writes files only; one thread.
#include "buffers.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <fnmatch.h>

#include <algorithm>

#include "common.h"
#include "quarry_decode/error.h"

namespace quarryctl {

bool read_header(const std::string& path, quarry_decode::TraceHeader* header, size_t* data_offset) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  std::string bytes;
  quarry_decode::HeaderScanner scanner;
  bool ok = false;
  try {
    char chunk[16384];
    for (;;) {
      ssize_t got = read(fd, chunk, sizeof chunk);
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) break;
      bytes.append(chunk, static_cast<size_t>(got));
      quarry_decode::HeaderExtent extent = scanner.scan(bytes);
      if (extent.complete) {
        *header =
            quarry_decode::parse_trace_header(std::string_view(bytes).substr(0, extent.text_end));
        *data_offset = extent.data_offset;
        ok = true;
        break;
      }
    }
  } catch (const quarry_decode::DecodeError&) {
    ok = false;  // not a trace header (yet): a dump may be writing it right now
  }
  close(fd);
  return ok;
}

namespace {

BufferView view(const ProcessEntry& entry, const std::string& name,
                const std::vector<WatchedInode>& watched) {
  BufferView buffer;
  buffer.name = name;
  buffer.dir = quarry_layout::join(quarry_layout::join(entry.dir, name), "");
  buffer.ctrl_path = buffer.dir + "quarry.ctrl";
  std::string text;
  if (quarry_layout::read_text(buffer.ctrl_path, &text)) {
    buffer.has_ctrl = true;
    buffer.ctrl = quarry_layout::parse_control(text);
    buffer.live = is_watched(watched, buffer.ctrl_path);
  }
  buffer.files = quarry_layout::trace_files(buffer.dir);
  size_t offset = 0;
  if (!buffer.files.empty()) {
    buffer.has_header = read_header(buffer.files[0].path, &buffer.header, &offset);
  }
  auto add = [&](const std::string& handle) {
    if (std::find(buffer.handles.begin(), buffer.handles.end(), handle) == buffer.handles.end())
      buffer.handles.push_back(handle);
  };
  for (const quarry_layout::ControlHandle& handle : buffer.ctrl.handles) {
    if (handle.seen_trace && handle.seen_pipe) add(handle.name);
  }
  // A trace file of an earlier run may name handles the running host does not have.
  if (buffer.has_header &&
      (entry.state != HostState::kRunning || buffer.header.process_id == entry.pid)) {
    for (const quarry_decode::DecodeRef& ref : buffer.header.decode_refs) add(ref.handle);
  }
  return buffer;
}

}  // namespace

std::vector<BufferView> buffers_of(const ProcessEntry& entry,
                                   const std::vector<WatchedInode>& watched) {
  std::vector<BufferView> buffers;
  for (const std::string& name : quarry_layout::sub_dirs(entry.dir)) {
    buffers.push_back(view(entry, name, watched));
  }
  return buffers;
}

BufferView buffer_of(const ProcessEntry& entry, const std::string& name,
                     const std::vector<WatchedInode>& watched) {
  std::vector<std::string> names = quarry_layout::sub_dirs(entry.dir);
  if (std::find(names.begin(), names.end(), name) == names.end()) {
    std::string known;
    for (const std::string& n : names) known += (known.empty() ? "" : ", ") + n;
    throw Failure(quarry_layout::join(entry.dir, name) +
                  ": no such buffer (buffers: " + (known.empty() ? "none" : known) + ")");
  }
  return view(entry, name, watched);
}

const BufferView* buffer_with_handle(const std::vector<BufferView>& buffers,
                                     const std::string& handle) {
  for (const BufferView& buffer : buffers) {
    if (std::find(buffer.handles.begin(), buffer.handles.end(), handle) != buffer.handles.end())
      return &buffer;
  }
  return nullptr;
}

}  // namespace quarryctl

namespace quarryctl {

quarry_layout::ControlState clean_state(const BufferView& buffer) {
  quarry_layout::ControlState state = buffer.ctrl;
  state.ignored.clear();
  state.dump = false;
  state.handles.clear();
  for (const quarry_layout::ControlHandle& handle : buffer.ctrl.handles) {
    if (std::find(buffer.handles.begin(), buffer.handles.end(), handle.name) !=
        buffer.handles.end())
      state.handles.push_back(handle);
  }
  return state;
}

void write_control(const ProcessEntry& entry, const BufferView& buffer,
                   const quarry_layout::ControlState& state, FILE* err) {
  if (!buffer.has_ctrl) {
    throw Failure(buffer.ctrl_path +
                  ": no control file: live configuration was never enabled for buffer " +
                  buffer.name + " of process " + entry.name);
  }
  if (!quarry_layout::write_in_place(buffer.ctrl_path, quarry_layout::format_control(state))) {
    throw Failure(buffer.ctrl_path + ": cannot write: " + strerror(errno));
  }
  if (entry.state != HostState::kRunning) {
    fprintf(err,
            "quarryctl: note: process %s is not running; %s applies when it next enables "
            "live configuration\n",
            entry.name.c_str(), buffer.ctrl_path.c_str());
  } else if (!buffer.live) {
    fprintf(err, "quarryctl: note: PID %d does not watch %s (live configuration is off)\n",
            entry.pid, buffer.ctrl_path.c_str());
  }
}

}  // namespace quarryctl

namespace quarryctl {
namespace {

bool is_pattern(const std::string& text) {
  return text.find_first_of("*?[") != std::string::npos;
}

std::string known_list(const std::vector<BufferView>& buffers) {
  std::string known;
  for (const BufferView& buffer : buffers) {
    for (const std::string& handle : buffer.handles) known += (known.empty() ? "" : ", ") + handle;
  }
  return known.empty() ? "none" : known;
}

}  // namespace

std::map<size_t, std::vector<std::string>> select_handles(const ProcessEntry& entry,
                                                          const std::vector<BufferView>& buffers,
                                                          const std::vector<std::string>& wanted) {
  std::map<size_t, std::vector<std::string>> chosen;
  for (const std::string& name : wanted) {
    bool matched = false;
    for (size_t b = 0; b < buffers.size(); ++b) {
      for (const std::string& handle : buffers[b].handles) {
        bool hit =
            is_pattern(name) ? fnmatch(name.c_str(), handle.c_str(), 0) == 0 : name == handle;
        if (!hit) continue;
        matched = true;
        std::vector<std::string>& list = chosen[b];
        if (std::find(list.begin(), list.end(), handle) == list.end()) list.push_back(handle);
      }
    }
    if (!matched) {
      throw Failure("process " + entry.name + ": " +
                    (is_pattern(name) ? "no handle matches '" : "unknown handle '") + name +
                    "' (handles: " + known_list(buffers) + ")");
    }
  }
  return chosen;
}

}  // namespace quarryctl

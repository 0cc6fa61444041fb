// quarryctl on, off, resize and rotate: edits of control files. Each reads the current file,
// changes only what was asked, and writes the full state back in place with no dump request.
// Values that the library would misread are refused before anything is written. One thread.
#include <fnmatch.h>
#include <limits.h>
#include <stdlib.h>

#include <algorithm>
#include <map>

#include "buffers.h"
#include "common.h"

namespace quarryctl {
namespace {

// The buffer view for `name`, with the host's watches.
BufferView one_buffer(const ProcessEntry& entry, const std::string& name) {
  std::vector<WatchedInode> watched;
  if (entry.state == HostState::kRunning) watched = watched_inodes(entry.pid);
  return buffer_of(entry, name, watched);
}

void need_positionals(const Args& args, size_t count, const char* what) {
  if (args.positional.size() != count) throw usage_error(std::string("expected ") + what);
}

}  // namespace

int cmd_switch(const Context& ctx, const Args& args, bool on) {
  if (args.positional.size() < 2) throw usage_error("expected TARGET HANDLE...");
  ProcessEntry entry = resolve_target(ctx.base, args.positional[0]);
  std::vector<WatchedInode> watched;
  if (entry.state == HostState::kRunning) watched = watched_inodes(entry.pid);
  std::vector<BufferView> buffers = buffers_of(entry, watched);

  std::map<size_t, std::vector<std::string>> chosen =
      select_handles(entry, buffers, {args.positional.begin() + 1, args.positional.end()});
  for (auto& [index, handles] : chosen) {
    const BufferView& buffer = buffers[index];
    quarry_layout::ControlState state = clean_state(buffer);
    for (const std::string& name : handles) {
      quarry_layout::ControlHandle* handle = state.find(name);
      if (handle == nullptr) {  // known from the trace file only: the library has it enabled
        state.handles.push_back(quarry_layout::ControlHandle{name});
        handle = &state.handles.back();
      }
      handle->trace = on;
    }
    write_control(entry, buffer, state, ctx.err);
    for (const std::string& name : handles) {
      fprintf(ctx.out, "%s %s %s\n", on ? "TRACE" : "NOTRACE", name.c_str(),
              buffer.ctrl_path.c_str());
    }
  }
  return kExitOk;
}

// "65536", "64K", "64k", "1M", "1G", optionally followed by "B" or "iB"; bytes.
bool parse_size(const std::string& text, unsigned long long* bytes) {
  if (text.empty() || text[0] < '0' || text[0] > '9') return false;
  char* end = nullptr;
  errno = 0;
  unsigned long long value = strtoull(text.c_str(), &end, 10);
  if (errno != 0) return false;
  std::string unit = end;
  unsigned shift = 0;
  if (!unit.empty()) {
    switch (unit[0]) {
      case 'k':
      case 'K':
        shift = 10;
        break;
      case 'm':
      case 'M':
        shift = 20;
        break;
      case 'g':
      case 'G':
        shift = 30;
        break;
      default:
        return false;
    }
    unit.erase(0, 1);
    if (unit != "" && unit != "B" && unit != "iB") return false;
  }
  if (value > (1ull << 40) >> shift) return false;
  *bytes = value << shift;
  return true;
}

int cmd_resize(const Context& ctx, const Args& args) {
  need_positionals(args, 3, "TARGET BUFFER SIZE");
  unsigned long long requested = 0;
  if (!parse_size(args.positional[2], &requested)) {
    throw usage_error("size '" + args.positional[2] + "': expected bytes such as 65536, 64K, 1M");
  }
  // The library reads MAX_SIZE into 32 bits; above 2 GiB it would read a different number.
  if (requested > (1ull << 31)) {
    throw Failure("size " + args.positional[2] + ": more than 2G, which the library cannot read");
  }
  ProcessEntry entry = resolve_target(ctx.base, args.positional[0]);
  BufferView buffer = one_buffer(entry, args.positional[1]);
  unsigned long long target = 4096;  // the library's rounding: at least 4K, a power of two
  while (target < requested) target <<= 1;
  unsigned long long current = buffer.has_ctrl ? buffer.ctrl.max_size : 0;
  if (buffer.has_header && static_cast<int>(buffer.header.process_id) == entry.pid)
    current = std::max<unsigned long long>(current, 4ull * buffer.header.buffer_size);
  const std::string where = "buffer " + buffer.name + " of process " + entry.name;
  if (target < current) {
    throw Failure(where + " has " + std::to_string(current) +
                  " bytes; the library never shrinks a buffer");
  }
  if (target != requested) {
    fprintf(ctx.err,
            "quarryctl: the library rounds %llu up to %llu bytes (a power of two, at "
            "least 4096)\n",
            requested, target);
  }
  if (target == current) {
    fprintf(ctx.out, "%s already has %llu bytes\n", where.c_str(), current);
    return kExitOk;
  }
  quarry_layout::ControlState state = clean_state(buffer);
  state.has_max_size = true;
  state.max_size = static_cast<uint32_t>(target);
  write_control(entry, buffer, state, ctx.err);
  fprintf(ctx.out, "MAX_SIZE %llu %s\n", target, buffer.ctrl_path.c_str());
  return kExitOk;
}

int cmd_rotate(const Context& ctx, const Args& args) {
  need_positionals(args, 3, "TARGET BUFFER COUNT");
  const std::string& text = args.positional[2];
  char* end = nullptr;
  errno = 0;
  long long count = strtoll(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0' || errno != 0) {
    throw usage_error("count '" + text + "': expected a whole number of trace files");
  }
  // 0 reads as 2 in the library and a negative count turns rotation into one quarry.trc:
  // neither is what the operator typed.
  if (count < 1 || count > INT_MAX) {
    throw Failure("count " + text + ": the library keeps between 1 and " + std::to_string(INT_MAX) +
                  " trace files");
  }
  ProcessEntry entry = resolve_target(ctx.base, args.positional[0]);
  BufferView buffer = one_buffer(entry, args.positional[1]);
  quarry_layout::ControlState state = clean_state(buffer);
  state.has_loop_count = true;
  state.loop_count = static_cast<int32_t>(count);
  write_control(entry, buffer, state, ctx.err);
  fprintf(ctx.out, "FILE_LOOP_COUNT %lld %s\n", count, buffer.ctrl_path.c_str());
  return kExitOk;
}

}  // namespace quarryctl

// A buffer directory as the operator sees it: its control file (state, known handles), its
// trace files and the header of the newest one, and whether the host watches the control
// file. Thread contract: reads files only; one thread.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "host.h"
#include "quarry_decode/trace_header.h"
#include "quarry_layout/control.h"
#include "quarry_layout/tree.h"

namespace quarryctl {

struct BufferView {
  std::string name;
  std::string dir;        // with a trailing '/'
  std::string ctrl_path;  // dir + "quarry.ctrl"
  bool has_ctrl = false;
  quarry_layout::ControlState ctrl;
  bool live = false;                            // the running host watches the control file
  std::vector<quarry_layout::TraceFile> files;  // newest first
  bool has_header = false;
  quarry_decode::TraceHeader header;  // of files[0]
  // Handle names the library knows for this buffer: those the library itself wrote into the
  // control file (a TRACE-kind and a PIPE-kind line each) and those of the newest trace file.
  std::vector<std::string> handles;
};

// The buffers of a process directory, sorted by name. `watched` are the host's inotify
// watches (empty when it is not running).
std::vector<BufferView> buffers_of(const ProcessEntry& entry,
                                   const std::vector<WatchedInode>& watched);

// One named buffer; throws Failure naming the directory and listing the buffers there.
BufferView buffer_of(const ProcessEntry& entry, const std::string& name,
                     const std::vector<WatchedInode>& watched);

// The header of a trace file and where its data begin; false when it cannot be read.
bool read_header(const std::string& path, quarry_decode::TraceHeader* header, size_t* data_offset);

// The buffer whose handles include `handle` (or whose name is `handle`), or null.
const BufferView* buffer_with_handle(const std::vector<BufferView>& buffers,
                                     const std::string& handle);

}  // namespace quarryctl

namespace quarryctl {

// The control state to write back: the file's settings and the handles the library knows,
// without a dump request; lines the library ignores are dropped.
quarry_layout::ControlState clean_state(const BufferView& buffer);

// Writes `state` into the buffer's control file in place. Throws Failure naming the file.
// Says on `err` when nobody will apply it now (host gone, or not watching the file).
void write_control(const ProcessEntry& entry, const BufferView& buffer,
                   const quarry_layout::ControlState& state, FILE* err);

}  // namespace quarryctl

namespace quarryctl {

// Handle names or shell patterns ("net/*") resolved to known handles, per buffer index. Throws
// Failure for a name that is unknown or a pattern that matches nothing, listing the handles.
std::map<size_t, std::vector<std::string>> select_handles(const ProcessEntry& entry,
                                                          const std::vector<BufferView>& buffers,
                                                          const std::vector<std::string>& wanted);

}  // namespace quarryctl

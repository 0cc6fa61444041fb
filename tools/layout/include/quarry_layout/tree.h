// The file tree below the trace base directory, as the library lays it out: the base directory
// itself, process directories (forked children as "<name>.<pid>" siblings), buffer directories,
// their trace files and the info file. Thread contract: reads the file system only; no shared
// state.
#pragma once

#include <sys/types.h>
#include <time.h>

#include <string>
#include <vector>

namespace quarry_layout {

// The trace base directory, ending in '/': `override_dir` when not empty, else where the
// library puts its files (QUARRY_PATH, else the setup file's, else /dev/shm/quarry/).
std::string base_dir(const std::string& override_dir = "");

// `dir` + `name` with exactly one '/' between them.
std::string join(const std::string& dir, const std::string& name);

// Names of the sub-directories of `dir`, sorted; empty when it cannot be read.
std::vector<std::string> sub_dirs(const std::string& dir);

// A forked child's process directory is named "<parent name>.<child pid>". True when `name`
// has that form; fills the parent's name and the pid.
bool split_child_name(const std::string& name, std::string* parent, int* pid);

// "quarry.trc" or "quarry_<digits>.trc".
bool is_trace_file_name(const std::string& name);

struct TraceFile {
  std::string path;
  struct timespec mtime {};
  off_t size = 0;
};
// The trace files of a buffer directory, newest first.
std::vector<TraceFile> trace_files(const std::string& buffer_dir);

// The info file "<process dir>/quarry.info": two lines "PROCESS_PID <n>" and "DUMP_SIGNAL <n>".
struct InfoFile {
  bool present = false;  // the file exists
  bool valid = false;    // both keys were read
  int pid = 0;
  int dump_signal = 0;
};
InfoFile read_info_file(const std::string& process_dir);

// Whole-file reading; false with errno set when it cannot be read.
bool read_text(const std::string& path, std::string* text);

// Replaces the contents of an existing file without replacing the file: same inode, so an
// inotify watch on it survives (truncate and write, then one close: one IN_CLOSE_WRITE).
// Never creates the file and never follows a symbolic link. False with errno set on failure.
bool write_in_place(const std::string& path, const std::string& text);

}  // namespace quarry_layout

// The file tree below the trace base directory: base directory resolution, directory listings,
// trace files, the info file, and in-place rewriting. Thread contract: reads and
// writes files only, no shared state; any thread.
#include "quarry_layout/tree.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>

#include "env.h"
#include "quarry/quarry.h"

namespace quarry_layout {

std::string base_dir(const std::string& override_dir) {
  if (!override_dir.empty()) return join(override_dir, "");
  // The library's own reader, with the library's fallback: a malformed setup file has been
  // reported by quarry_get_env, and the process then goes on with the defaults and the
  // environment, so the tools must look there too.
  quarry_env* env = quarry_get_env();
  if (env == nullptr || quarry_env_get_quarry_path(env) == nullptr) {
    quarry_free_env(env);
    env = quarry_env_from_defaults();
  }
  const char* path = quarry_env_get_quarry_path(env);
  std::string result = path != nullptr ? path : "/dev/shm/quarry/";
  quarry_free_env(env);
  return result;
}

std::string join(const std::string& dir, const std::string& name) {
  if (dir.empty()) return name;
  std::string result = dir.back() == '/' ? dir : dir + "/";
  size_t skip = 0;
  while (skip < name.size() && name[skip] == '/') ++skip;
  return result + name.substr(skip);
}

std::vector<std::string> sub_dirs(const std::string& dir) {
  std::vector<std::string> names;
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) return names;
  while (struct dirent* entry = readdir(d)) {
    std::string name = entry->d_name;
    if (name == "." || name == "..") continue;
    struct stat st;
    if (stat(join(dir, name).c_str(), &st) == 0 && S_ISDIR(st.st_mode)) names.push_back(name);
  }
  closedir(d);
  std::sort(names.begin(), names.end());
  return names;
}

bool split_child_name(const std::string& name, std::string* parent, int* pid) {
  size_t dot = name.rfind('.');
  if (dot == std::string::npos || dot == 0 || dot + 1 == name.size()) return false;
  if (name.size() - dot - 1 > 9) return false;  // a pid fits in nine digits
  for (size_t i = dot + 1; i < name.size(); ++i) {
    if (name[i] < '0' || name[i] > '9') return false;
  }
  *parent = name.substr(0, dot);
  *pid = atoi(name.c_str() + dot + 1);
  return *pid > 0;
}

bool is_trace_file_name(const std::string& name) {
  if (name == "quarry.trc") return true;
  static const std::string kPrefix = "quarry_", kSuffix = ".trc";
  if (name.size() <= kPrefix.size() + kSuffix.size()) return false;
  if (name.compare(0, kPrefix.size(), kPrefix) != 0) return false;
  if (name.compare(name.size() - kSuffix.size(), kSuffix.size(), kSuffix) != 0) return false;
  for (size_t i = kPrefix.size(); i < name.size() - kSuffix.size(); ++i) {
    if (name[i] < '0' || name[i] > '9') return false;
  }
  return true;
}

std::vector<TraceFile> trace_files(const std::string& buffer_dir) {
  std::vector<TraceFile> files;
  DIR* d = opendir(buffer_dir.c_str());
  if (d == nullptr) return files;
  while (struct dirent* entry = readdir(d)) {
    if (!is_trace_file_name(entry->d_name)) continue;
    TraceFile file;
    file.path = join(buffer_dir, entry->d_name);
    struct stat st;
    if (stat(file.path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
    file.mtime = st.st_mtim;
    file.size = st.st_size;
    files.push_back(file);
  }
  closedir(d);
  std::sort(files.begin(), files.end(), [](const TraceFile& a, const TraceFile& b) {
    if (a.mtime.tv_sec != b.mtime.tv_sec) return a.mtime.tv_sec > b.mtime.tv_sec;
    if (a.mtime.tv_nsec != b.mtime.tv_nsec) return a.mtime.tv_nsec > b.mtime.tv_nsec;
    return a.path < b.path;
  });
  return files;
}

InfoFile read_info_file(const std::string& process_dir) {
  InfoFile info;
  std::string text;
  if (!read_text(join(process_dir, "quarry.info"), &text)) return info;
  info.present = true;
  std::istringstream lines(text);
  std::string key;
  long value = 0;
  bool have_pid = false, have_signal = false;
  while (lines >> key >> value) {
    if (key == "PROCESS_PID" && value > 0 && value < 1000000000) {
      info.pid = static_cast<int>(value);
      have_pid = true;
    } else if (key == "DUMP_SIGNAL" && value > 0 && value < 128) {
      info.dump_signal = static_cast<int>(value);
      have_signal = true;
    }
  }
  info.valid = have_pid && have_signal;
  return info;
}

bool read_text(const std::string& path, std::string* text) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  if (fd < 0) return false;
  text->clear();
  char chunk[4096];
  for (;;) {
    ssize_t got = read(fd, chunk, sizeof chunk);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) {
      int saved = errno;
      close(fd);
      errno = saved;
      return false;
    }
    if (got == 0) break;
    text->append(chunk, static_cast<size_t>(got));
  }
  close(fd);
  return true;
}

bool write_in_place(const std::string& path, const std::string& text) {
  // O_TRUNC at open rather than ftruncate: the watch listens for IN_CLOSE_WRITE, so whatever
  // the order, the library reads the file once, at our close, when it is complete.
  int fd = open(path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC | O_NOFOLLOW);
  if (fd < 0) return false;
  size_t done = 0;
  while (done < text.size()) {
    ssize_t put = write(fd, text.data() + done, text.size() - done);
    if (put < 0 && errno == EINTR) continue;
    if (put < 0) {
      int saved = errno;
      close(fd);
      errno = saved;
      return false;
    }
    done += static_cast<size_t>(put);
  }
  return close(fd) == 0;
}

}  // namespace quarry_layout

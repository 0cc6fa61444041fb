// Finding trace files in buffer and process directories. Reads directories only.
#include "quarry_decode/inputs.h"

#include <dirent.h>
#include <errno.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>

#include "quarry_decode/error.h"
#include "quarry_layout/tree.h"

namespace quarry_decode {
namespace {

std::vector<std::string> list_dir(const std::string& dir) {
  std::vector<std::string> names;
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) return names;
  while (struct dirent* entry = readdir(d)) {
    std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  closedir(d);
  std::sort(names.begin(), names.end());
  return names;
}

std::string with_slash(const std::string& dir) {
  return !dir.empty() && dir.back() == '/' ? dir : dir + "/";
}

}  // namespace

std::string newest_trace_file(const std::string& dir) {
  std::string best;
  struct timespec best_time {};
  for (const std::string& name : list_dir(dir)) {
    if (!quarry_layout::is_trace_file_name(name)) continue;
    std::string path = with_slash(dir) + name;
    struct stat st;
    if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
    if (best.empty() || st.st_mtim.tv_sec > best_time.tv_sec ||
        (st.st_mtim.tv_sec == best_time.tv_sec && st.st_mtim.tv_nsec > best_time.tv_nsec)) {
      best = path;
      best_time = st.st_mtim;
    }
  }
  return best;
}

std::vector<InputSpec> expand_input(const std::string& arg, bool as_stream) {
  if (arg == "-") return {InputSpec{arg, true}};
  struct stat st;
  if (stat(arg.c_str(), &st) != 0)
    throw DecodeError(std::string("cannot access: ") + strerror(errno));
  if (S_ISFIFO(st.st_mode) || S_ISCHR(st.st_mode) || S_ISSOCK(st.st_mode))
    return {InputSpec{arg, true}};
  if (!S_ISDIR(st.st_mode)) return {InputSpec{arg, as_stream}};

  // A buffer directory holds trace files; a process directory holds buffer directories.
  std::string own = newest_trace_file(arg);
  if (!own.empty()) return {InputSpec{own, false}};
  std::vector<InputSpec> inputs;
  for (const std::string& name : list_dir(arg)) {
    std::string sub = with_slash(arg) + name;
    struct stat sub_st;
    if (stat(sub.c_str(), &sub_st) != 0 || !S_ISDIR(sub_st.st_mode)) continue;
    std::string newest = newest_trace_file(sub);
    if (!newest.empty()) inputs.push_back(InputSpec{newest, false});
  }
  if (inputs.empty()) {
    throw DecodeError(
        "no trace files (quarry.trc or quarry_<n>.trc) in this directory or its subdirectories");
  }
  return inputs;
}

}  // namespace quarry_decode

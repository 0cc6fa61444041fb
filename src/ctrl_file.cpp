// The per-buffer control file: writing it from the buffer's state, its tokenizer and parser,
// and the scan that finds where the trace-file rotation stopped.
// Thread contract: write_ctrl_file and parse_ctrl_file hold the buffer's recursive mutex while
// they read or change the buffer; not for signal handlers (stdio, allocation, locks).
#include "ctrl_file.h"

#include <ctype.h>
#include <dirent.h>
#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include "fork_handlers.h"
#include "ring.h"
#include "safe_files.h"
#include "trace_file.h"

namespace {

constexpr int kLineBytes = 1024;

// atoi without its undefined behaviour: an optional sign and leading digits, else 0. A value
// outside the int range keeps its low 32 bits, as glibc's atoi does (strtol, then truncation),
// so "2147483648" arrives at set_circular_buffer_size as 2^31 bytes and "-1" as 2^32 - 1.
int ctrl_atoi(const char* text) {
  long long value = strtoll(text, nullptr, 10);
  return static_cast<int>(static_cast<uint32_t>(static_cast<unsigned long long>(value)));
}

// The loop index in a rotated file name: the digits right after the '_'. Accumulated
// saturating at INT_MAX, so no name, however long its number, overflows the count.
int loop_index_of(const char* name) {
  int index = 0;
  for (const char* c = name + 7; *c >= '0' && *c <= '9'; ++c) {
    int digit = *c - '0';
    index = index > (INT_MAX - digit) / 10 ? INT_MAX : index * 10 + digit;
  }
  return index;
}

// (latest + 1) mod count as a signed 32-bit remainder, computed in 64 bits: latest may be
// INT_MAX (a saturated name) and count may be negative, -1 or INT_MIN, none of which may
// overflow or trap. The dividend is at least 0, so the result lies in [0, |count|).
int next_loop_index(int latest, int count) {
  int64_t dividend = static_cast<int64_t>(latest) + 1;
  return static_cast<int>(dividend % static_cast<int64_t>(count));
}

void apply_switch(circular_buffer* cb, const char* name, bool pipe_switch, uint8_t on) {
  quarry_handle* handle = static_cast<quarry_handle*>(_quarry_hashtable_get(cb->handles, name));
  if (handle == nullptr) return;  // not a handle of this buffer
  (pipe_switch ? handle->pipe : handle->enabled).store(on, std::memory_order_relaxed);
}

}  // namespace

int write_ctrl_file(circular_buffer* cb) {
  // Created by the umask as before (0600 in private mode); never written through a link or
  // into a file another user planted (safe_files.h).
  bool exact = private_file_mode();
  int fd = open_for_writing(cb->ctrl_file_name, exact ? 0600 : 0666, exact);
  FILE* file = fd >= 0 ? fdopen(fd, "w") : nullptr;
  if (file == nullptr) {
    if (fd >= 0) close(fd);
    return 1;
  }
  // The lock is taken before the first line (rather than after the third) so that the size
  // and loop count are read under it too; on a failed lock the file still gets the three
  // settings lines, read without it.
  bool locked = pthread_mutex_lock(&cb->mutex) == 0;
  // Printed unsigned: identical to a signed print for every size below 2 GiB, and a 2 GiB
  // buffer shows its size rather than a negative number (reading it back asks for 2^31 bytes
  // either way).
  fprintf(file, "MAX_SIZE %u\n", load_ring(cb).size_words * 4u);
  fputs("DUMP on\n", file);
  fprintf(file, "FILE_LOOP_COUNT %d\n", cb->file_loop_count);
  if (!locked) {
    fclose(file);
    return -1;
  }
  // A stack iterator: initialising it cannot fail, so there is never a missing iterator to
  // walk. The open changes the table only while holding this mutex.
  quarry_hashtable_iterator iterator;
  _quarry_hashtable_iterator_init(cb->handles, &iterator);
  const char* key;
  void* value;
  while (_quarry_hashtable_iterator_next(&iterator, &key, &value) == 1) {
    quarry_handle* handle = static_cast<quarry_handle*>(value);
    fprintf(file, "%s %s\n", handle->enabled.load(std::memory_order_relaxed) ? "TRACE" : "NOTRACE",
            handle->name);
    fprintf(file, "%s %s\n", handle->pipe.load(std::memory_order_relaxed) ? "PIPE" : "NOPIPE",
            handle->name);
  }
  QUARRY_UNLOCK_CB(cb);
  fclose(file);
  return 0;
}

int next_ctrl_token(char* line, int* position, char* saved) {
  int i = *position;
  if (*saved != '\0') {
    line[i] = *saved;
    *saved = '\0';
  }
  while (line[i] != '\0' && isspace(static_cast<unsigned char>(line[i]))) ++i;
  if (line[i] == '\0') return -1;
  *position = i;
  int end = i;
  if (line[i] == '"') {
    // Runs to the next quote that no backslash precedes; backslashes stay in the token.
    ++end;
    while (line[end] != '\0' && !(line[end] == '"' && line[end - 1] != '\\')) ++end;
    if (line[end] == '\0') return -2;
    ++end;  // the closing quote belongs to the token
  } else {
    while (line[end] != '\0' && !isspace(static_cast<unsigned char>(line[end]))) ++end;
  }
  *saved = line[end];
  line[end] = '\0';
  return end - i;
}

int parse_ctrl_file(circular_buffer* cb, int allow_dump) {
  // Only a regular file of this process's user is applied: in the shared directory anybody may
  // plant a control file (a huge MAX_SIZE, a PIPE line) before the host enables live
  // configuration. A refused file is reported once and treated like a missing one.
  struct stat refused;
  refused.st_mode = 0;
  int fd = open_own_file_for_reading(cb->ctrl_file_name, &refused);
  if (fd < 0 && errno == EPERM && refused.st_mode != 0) {
    report_refused_file_once("quarry_enable_configuration(): ", cb->ctrl_file_name, refused,
                             "is not a regular file of this user or root; not applied");
  }
  FILE* file = fd >= 0 ? fdopen(fd, "r") : nullptr;
  if (file == nullptr) {
    if (fd >= 0) close(fd);
    return 1;
  }
  if (pthread_mutex_lock(&cb->mutex) != 0) {
    fclose(file);
    return -1;
  }
  bool dump_requested = false;
  char line[kLineBytes];
  char keyword[kLineBytes];
  while (fgets(line, sizeof line, file) != nullptr) {
    if (line[0] == '#') continue;  // comments start in the first column only
    size_t length = strlen(line);
    if (length > 0 && line[length - 1] == '\n') line[length - 1] = '\0';

    int position = 0;
    char saved = '\0';
    int token_length = next_ctrl_token(line, &position, &saved);
    if (token_length < 0) continue;
    memcpy(keyword, line + position, static_cast<size_t>(token_length) + 1);
    position += token_length;
    if (next_ctrl_token(line, &position, &saved) < 0) continue;
    const char* value = line + position;

    if (strcmp(keyword, "TRACE") == 0) {
      apply_switch(cb, value, false, 1);
    } else if (strcmp(keyword, "NOTRACE") == 0) {
      apply_switch(cb, value, false, 0);
    } else if (strcmp(keyword, "PIPE") == 0) {
      apply_switch(cb, value, true, 1);
    } else if (strcmp(keyword, "NOPIPE") == 0) {
      apply_switch(cb, value, true, 0);
    } else if (strcmp(keyword, "MAX_SIZE") == 0) {
      int result = set_circular_buffer_size(cb, static_cast<unsigned int>(ctrl_atoi(value)));
      if (result != 0) {
        // Earlier lines stay applied; the rest of the file and any dump request are dropped.
        fclose(file);
        QUARRY_UNLOCK_CB(cb);
        return result;
      }
    } else if (strcmp(keyword, "DUMP") == 0) {
      if (strcasecmp(value, "on") == 0) dump_requested = true;
    } else if (strcmp(keyword, "FILE_LOOP_COUNT") == 0) {
      int count = ctrl_atoi(value);
      if (count == 0) count = 2;
      cb->file_loop_count = count;
      char own_base[PATH_MAX];  // a forked child looks at its own files (fork_handlers.h)
      size_t base_length;
      const char* base = own_file_base(cb, own_base, sizeof own_base, &base_length);
      cb->file_loop_index = next_loop_index(latest_file_loop_index(base), count);
    }
  }
  if (allow_dump && dump_requested) {
    take_time_sample(&time_omega);
    dump_circular_buffer(cb);
  }
  QUARRY_UNLOCK_CB(cb);
  fclose(file);
  return 0;
}

int latest_file_loop_index(const char* path) {
  const char* slash = strrchr(path, '/');
  if (slash == nullptr || slash == path) return -1;
  size_t dir_length = static_cast<size_t>(slash - path) + 1;
  char dir[PATH_MAX];
  // A directory name longer than any path cannot be examined, like one that stat refuses.
  if (dir_length >= sizeof dir) return 0;
  memcpy(dir, path, dir_length);
  dir[dir_length] = '\0';

  struct stat st;
  if (stat(dir, &st) != 0) return 0;
  DIR* directory = opendir(dir);
  if (directory == nullptr) return 0;

  bool have_entry = false;
  time_t latest_time = 0;
  int latest_index = 0;
  char entry_path[PATH_MAX];
  while (struct dirent* entry = readdir(directory)) {
    const char* name = entry->d_name;
    if (strncmp(name, "quarry", 6) != 0 || name[6] != '_') continue;
    // dir ends in '/', so this is the directory, a '/' and the name.
    int length = snprintf(entry_path, sizeof entry_path, "%s%s", dir, name);
    if (length < 0 || static_cast<size_t>(length) >= sizeof entry_path) continue;
    if (stat(entry_path, &st) != 0) continue;
    // Only a strictly later time replaces the entry kept: among equal times the first stays.
    if (!have_entry || st.st_mtime > latest_time) {
      have_entry = true;
      latest_time = st.st_mtime;
      latest_index = loop_index_of(name);
    }
  }
  closedir(directory);
  return latest_index;
}

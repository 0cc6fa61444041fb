// Persistent rings: run directories, words files mapped shared, header files replaced whole,
// the clean-exit removal and the fork detach. Thread contract: runs under the open's registry
// lock or a buffer's mutex, with header_mutex innermost for header files; the record path never
// enters here, and persistent_rings_after_fork only makes raw system calls.
#include "persistent_ring.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "env.h"
#include "ring.h"
#include "safe_files.h"
#include "trace_file.h"

namespace {

int mode_override = -1;
// Serialises header files: growth (a buffer's mutex), opens (the registry lock) and thread
// naming (no lock) may each rewrite one. Always the innermost lock.
pthread_mutex_t header_mutex = PTHREAD_MUTEX_INITIALIZER;
bool exit_handler_registered = false;  // guarded by the registry lock (attach runs under it)

constexpr char kRunPrefix[] = "quarry.ring.";
constexpr size_t kRunPrefixLength = sizeof kRunPrefix - 1;

// A growing heap text; `failed` once memory ran out, after which appends do nothing.
struct text_buffer {
  char* data = nullptr;
  size_t length = 0, capacity = 0;
  bool failed = false;
  void append(const char* text, size_t n) {
    if (failed) return;
    if (length + n + 1 > capacity) {
      size_t wanted = (length + n + 1) * 2;
      char* grown = static_cast<char*>(realloc(data, wanted));
      if (grown == nullptr) {
        failed = true;
        return;
      }
      data = grown;
      capacity = wanted;
    }
    memcpy(data + length, text, n);
    length += n;
    data[length] = '\0';
  }
  void append(const char* text) { append(text, strlen(text)); }
  __attribute__((format(printf, 2, 3))) void appendf(const char* format, ...) {
    char line[512];
    va_list args;
    va_start(args, format);
    int n = vsnprintf(line, sizeof line, format, args);
    va_end(args);
    if (n > 0) append(line, static_cast<size_t>(n) < sizeof line ? n : sizeof line - 1);
  }
  ~text_buffer() { free(data); }
};

// Formats a path into PATH_MAX bytes; false (with ENAMETOOLONG) when it does not fit, and
// callers then skip the step rather than act on a cut path.
__attribute__((format(printf, 2, 3))) bool format_path(char* out, const char* format, ...) {
  va_list args;
  va_start(args, format);
  int n = vsnprintf(out, PATH_MAX, format, args);
  va_end(args);
  if (n >= 0 && n < PATH_MAX) return true;
  errno = ENAMETOOLONG;
  return false;
}

// Reads up to capacity - 1 bytes of a small file (a /proc entry, a header); -1 when unreadable.
ssize_t read_small_file(const char* path, char* out, size_t capacity) {
  int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return -1;
  size_t total = 0;
  while (total + 1 < capacity) {
    ssize_t got = read(fd, out + total, capacity - 1 - total);
    if (got <= 0) break;
    total += static_cast<size_t>(got);
  }
  close(fd);
  out[total] = '\0';
  return static_cast<ssize_t>(total);
}

// The boot id without its line end; empty when unreadable.
const char* boot_id() {
  static char id[64];
  if (id[0] == '\0' && read_small_file("/proc/sys/kernel/random/boot_id", id, sizeof id) > 0) {
    id[strcspn(id, "\n")] = '\0';
  }
  return id;
}

// The value text of "KEY value" in a header text, copied into out; false when absent.
bool header_value(const char* text, const char* key, char* out, size_t capacity) {
  size_t key_length = strlen(key);
  for (const char* line = text; *line != '\0';) {
    const char* end = strchr(line, '\n');
    size_t length = end != nullptr ? static_cast<size_t>(end - line) : strlen(line);
    if (length > key_length && strncmp(line, key, key_length) == 0 && line[key_length] == ' ') {
      size_t n = length - key_length - 1;
      if (n >= capacity) n = capacity - 1;
      memcpy(out, line + key_length + 1, n);
      out[n] = '\0';
      return true;
    }
    if (end == nullptr) break;
    line = end + 1;
  }
  return false;
}

// A run is live when its header names a process that still runs: same boot, the pid exists and
// started at the recorded time. A run without a readable header is not live (it died before its
// first header, or is not ours).
bool run_is_live(const char* run_dir) {
  char path[PATH_MAX];
  char text[4096];
  if (!format_path(path, "%s/header", run_dir) || read_small_file(path, text, sizeof text) <= 0)
    return false;
  char pid[32], start[32], boot[64];
  if (!header_value(text, "RING_PID", pid, sizeof pid) ||
      !header_value(text, "RING_START_TIME", start, sizeof start) ||
      !header_value(text, "RING_BOOT_ID", boot, sizeof boot)) {
    return false;
  }
  if (strcmp(boot, boot_id()) != 0) return false;
  unsigned long long now = process_start_time(static_cast<pid_t>(atol(pid)));
  return now != 0 && now == strtoull(start, nullptr, 10);
}

// Removes a run directory and the files in it (no deeper levels exist).
void remove_run(const char* run_dir) {
  DIR* dir = opendir(run_dir);
  if (dir != nullptr) {
    while (struct dirent* entry = readdir(dir)) {
      if (entry->d_name[0] == '.') continue;
      unlinkat(dirfd(dir), entry->d_name, 0);
    }
    closedir(dir);
  }
  rmdir(run_dir);
}

bool newer(const struct timespec& a, const struct timespec& b) {
  return a.tv_sec != b.tv_sec ? a.tv_sec > b.tv_sec : a.tv_nsec > b.tv_nsec;
}

struct previous_run {
  char name[256];
  struct timespec mtime;
};

// Keeps the newest kKeptPreviousRuns - 1 dead runs of the buffer directory (the run being
// created becomes the next previous one), removing older ones. Live runs are left alone.
void prune_previous_runs(const char* buffer_dir) {
  DIR* dir = opendir(buffer_dir);
  if (dir == nullptr) return;
  previous_run runs[64];
  int count = 0;
  while (struct dirent* entry = readdir(dir)) {
    if (strncmp(entry->d_name, kRunPrefix, kRunPrefixLength) != 0) continue;
    char path[PATH_MAX];
    struct stat st;
    if (!format_path(path, "%s%s", buffer_dir, entry->d_name) || lstat(path, &st) != 0 ||
        !S_ISDIR(st.st_mode) || run_is_live(path))
      continue;
    previous_run run;
    snprintf(run.name, sizeof run.name, "%s", entry->d_name);
    run.mtime = st.st_mtim;
    // With more than the array holds, the oldest entry seen so far is dropped at once.
    if (count == 64) {
      int oldest = 0;
      for (int i = 1; i < count; ++i) {
        if (newer(runs[oldest].mtime, runs[i].mtime)) oldest = i;
      }
      if (format_path(path, "%s%s", buffer_dir, runs[oldest].name)) remove_run(path);
      runs[oldest] = run;
    } else {
      runs[count++] = run;
    }
  }
  closedir(dir);
  // Newest first (a handful of entries: insertion sort).
  for (int i = 1; i < count; ++i) {
    for (int j = i; j > 0 && newer(runs[j].mtime, runs[j - 1].mtime); --j) {
      previous_run t = runs[j];
      runs[j] = runs[j - 1];
      runs[j - 1] = t;
    }
  }
  for (int i = kKeptPreviousRuns - 1; i < count; ++i) {
    char path[PATH_MAX];
    if (format_path(path, "%s%s", buffer_dir, runs[i].name)) remove_run(path);
  }
}

// A dead run with this process's pid (pids repeat, in containers at every restart) is renamed
// to quarry.ring.<pid>.<n> rather than reused. Returns false when no free name was found.
bool move_aside(const char* run_path) {
  for (int n = 1; n < 1000; ++n) {
    char target[PATH_MAX];
    if (!format_path(target, "%s.%d", run_path, n)) return false;
    if (renameat2(AT_FDCWD, run_path, AT_FDCWD, target, RENAME_NOREPLACE) == 0) return true;
    if (errno != EEXIST) return errno == ENOENT;
  }
  return false;
}

// Maps `bytes` of a new words file of the given generation; zeroed and written once so that
// the record path meets neither a page fault nor a disk allocation. Null with errno on failure.
void* map_words_file(const char* run_dir, uint32_t generation, uint32_t bytes) {
  char path[PATH_MAX];
  if (!format_path(path, "%swords.%u", run_dir, generation)) return nullptr;
  // The run directory is new and ours; the process's umask applies, narrowed further in
  // private mode (safe_files.h).
  int fd = open(path, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, trace_file_mode());
  if (fd < 0) return nullptr;
  int error = posix_fallocate(fd, 0, bytes);
  void* memory = MAP_FAILED;
  if (error == 0) {
    memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, fd, 0);
    if (memory == MAP_FAILED) error = errno;
  }
  close(fd);
  if (memory == MAP_FAILED) {
    unlink(path);
    errno = error;
    return nullptr;
  }
  // Populating a shared mapping maps pages for reading; one write makes them writable and
  // dirty now instead of at a writer's first store.
  memset(memory, 0, bytes);
  return memory;
}

void unlink_words_file(const char* run_dir, uint32_t generation) {
  char path[PATH_MAX];
  if (format_path(path, "%swords.%u", run_dir, generation)) unlink(path);
}

// Builds and installs the header of cb (caller holds header_mutex). Returns 0, else an errno.
int write_header_locked(circular_buffer* cb) {
  persistent_ring* pr = cb->persistent;
  text_buffer text;
  if (cb->output_header != nullptr) {
    text.append(cb->output_header);
  } else {
    char block[768];
    text.append(block, format_open_block(block, sizeof block));
  }
  text.appendf("CREATION_TIME %lx\n", static_cast<unsigned long>(cb->creation_time));
  text.appendf("RING_GENERATION %u\nRING_PID %d\nRING_START_TIME %llu\nRING_BOOT_ID %s\n",
               pr->generation, static_cast<int>(pr->owner), process_start_time(pr->owner),
               boot_id());
  if (process_name[0] != '\0') text.appendf("PROG_NAME %.255s\n", process_name);
  // The same lock-free walks as the dump: at most handle_count complete nodes.
  uint32_t handles = cb->handle_count.load(std::memory_order_acquire);
  const handle_node* node = cb->handle_list.load(std::memory_order_acquire);
  for (uint32_t i = 0; i < handles && node != nullptr; ++i) {
    if (node->handle->decode_ref != nullptr) text.append(node->handle->decode_ref);
    node = node->next.load(std::memory_order_acquire);
  }
  for (const thread_name_entry* entry = thread_name_list.load(std::memory_order_acquire);
       entry != nullptr; entry = entry->next.load(std::memory_order_acquire)) {
    text.append(entry->text, strnlen(entry->text, sizeof entry->text));
  }
  text.append("\n");
  if (text.failed) return ENOMEM;

  char temporary[PATH_MAX], final_path[PATH_MAX];
  if (!format_path(temporary, "%sheader.tmp", pr->run_dir) ||
      !format_path(final_path, "%sheader", pr->run_dir)) {
    return ENAMETOOLONG;
  }
  int fd =
      open(temporary, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, trace_file_mode());
  if (fd < 0) return errno;
  size_t offset = 0;
  while (offset < text.length) {
    ssize_t written = write(fd, text.data + offset, text.length - offset);
    if (written < 0) {
      int error = errno;
      close(fd);
      unlink(temporary);
      return error;
    }
    offset += static_cast<size_t>(written);
  }
  close(fd);
  return rename(temporary, final_path) == 0 ? 0 : errno;
}

// Files are only ever touched by the process that created them: a forked child that was never
// detached (the fork hook not wired) must still not rewrite or remove its parent's run.
bool owns_files(const persistent_ring* pr) {
  return pr != nullptr && pr->detached == 0 && pr->owner == getpid();
}

void write_header(circular_buffer* cb) {
  if (!owns_files(cb->persistent)) return;
  if (pthread_mutex_lock(&header_mutex) != 0) return;
  int error = write_header_locked(cb);
  pthread_mutex_unlock(&header_mutex);
  if (error != 0) {
    fprintf(stderr, "QUARRY ERROR: unable to write ring header in %s (%s)\n",
            cb->persistent->run_dir, strerror(error));
  }
}

}  // namespace

bool persistent_mode_enabled() {
  if (mode_override >= 0) return mode_override != 0;
  return process_env != nullptr && process_env->persist != 0;
}

void set_persistent_mode_override(int mode) {
  mode_override = mode;
}

unsigned long long process_start_time(pid_t pid) {
  char path[64], text[1024];
  if (!format_path(path, "/proc/%d/stat", static_cast<int>(pid)) ||
      read_small_file(path, text, sizeof text) <= 0)
    return 0;
  // The command name (field 2) may hold spaces and ')': fields are counted after the last ')'.
  const char* p = strrchr(text, ')');
  if (p == nullptr) return 0;
  for (int field = 2; field < 22 && p != nullptr; ++field) p = strchr(p + 1, ' ');
  return p != nullptr ? strtoull(p + 1, nullptr, 10) : 0;
}

void persistent_ring_attach(circular_buffer* cb) {
  if (!persistent_mode_enabled() || cb->output_file_name == nullptr) return;
  const ring_view heap = load_ring(cb);
  const uint32_t bytes = heap.size_words * 4;
  // The buffer directory is output_file_name without its final "quarry".
  char buffer_dir[PATH_MAX], run_dir[PATH_MAX];
  size_t dir_length = strlen(cb->output_file_name) - strlen("quarry");
  if (dir_length + 40 >= sizeof buffer_dir) return;
  memcpy(buffer_dir, cb->output_file_name, dir_length);
  buffer_dir[dir_length] = '\0';
  const pid_t pid = getpid();
  if (!format_path(run_dir, "%s%s%d", buffer_dir, kRunPrefix, static_cast<int>(pid))) return;

  const char* failed_step = nullptr;
  persistent_ring* pr = nullptr;
  void* memory = nullptr;
  if (!move_aside(run_dir)) {
    failed_step = "move aside an earlier run";
  } else {
    prune_previous_runs(buffer_dir);
    if (mkdir(run_dir, directory_mode()) != 0) failed_step = "create";
  }
  if (failed_step == nullptr) {
    strcat(run_dir, "/");
    pr = static_cast<persistent_ring*>(calloc(1, sizeof(persistent_ring)));
    if (pr != nullptr) pr->run_dir = strdup(run_dir);
    if (pr == nullptr || pr->run_dir == nullptr) {
      errno = ENOMEM;
      failed_step = "remember";
    }
  }
  if (failed_step == nullptr) {
    memory = map_words_file(run_dir, 0, bytes);
    if (memory == nullptr) failed_step = "map the words file of";
  }
  if (failed_step != nullptr) {
    fprintf(stderr, "quarry_open(): unable to %s persistent ring %s (%s); using process memory\n",
            failed_step, run_dir, strerror(errno));
    rmdir(run_dir);  // nothing when it was not created
    if (pr != nullptr) free(pr->run_dir);
    free(pr);
    return;
  }
  // Nobody can reach the buffer yet (it is published later): its heap array can go.
  memcpy(memory, heap.buffer, bytes);
  cb->ring.store(
      reinterpret_cast<uint64_t>(memory) | static_cast<uint32_t>(__builtin_ctz(heap.size_words)),
      std::memory_order_relaxed);
  free(heap.buffer);
  pr->owner = pid;
  cb->persistent = pr;
  write_header(cb);
  if (!exit_handler_registered) {
    exit_handler_registered = true;
    atexit(persistent_rings_at_exit);
  }
}

bool persistent_ring_active(const circular_buffer* cb) {
  return owns_files(cb->persistent);
}

void* persistent_ring_allocate(circular_buffer* cb, uint32_t bytes) {
  persistent_ring* pr = cb->persistent;
  void* memory = map_words_file(pr->run_dir, pr->generation + 1, bytes);
  if (memory == nullptr) {
    fprintf(stderr, "QUARRY ERROR: unable to map words.%u in %s (%s)\n", pr->generation + 1,
            pr->run_dir, strerror(errno));
  }
  return memory;
}

void persistent_ring_published(circular_buffer* cb) {
  persistent_ring* pr = cb->persistent;
  // The header moves to the new generation before the old file goes: a death in between leaves
  // a header naming a file that exists.
  ++pr->generation;
  write_header(cb);
  unlink_words_file(pr->run_dir, pr->generation - 1);
}

void persistent_ring_update_header(circular_buffer* cb) {
  if (cb->persistent != nullptr) write_header(cb);
}

void persistent_rings_update_headers() {
  for (circular_buffer* cb = circular_buffer_list.load(std::memory_order_acquire); cb != nullptr;
       cb = cb->next.load(std::memory_order_acquire)) {
    persistent_ring_update_header(cb);
  }
}

// At a normal exit nothing needs recovering: each persistent buffer gets its exit dump here
// (atexit runs this before the library's own exit dump, which then skips it), and its run is
// removed once that dump is on disk. A failed dump leaves the run for recovery.
void persistent_rings_at_exit() {
  take_time_sample(&time_omega);
  for (circular_buffer* cb = circular_buffer_list.load(std::memory_order_acquire); cb != nullptr;
       cb = cb->next.load(std::memory_order_acquire)) {
    if (!owns_files(cb->persistent)) continue;
    if (cb->dump_on_exit.load(std::memory_order_relaxed) != 0) {
      if (dump_circular_buffer(cb) != 0) continue;
      cb->dump_on_exit.store(0, std::memory_order_relaxed);
    }
    remove_run(cb->persistent->run_dir);
  }
}

extern "C" void persistent_rings_after_fork(void) {
  // Another thread of the parent may have held header_mutex at the fork; the child's only
  // thread starts it afresh (initialisation only stores into the mutex).
  pthread_mutex_init(&header_mutex, nullptr);
  for (circular_buffer* cb = circular_buffer_list.load(std::memory_order_acquire); cb != nullptr;
       cb = cb->next.load(std::memory_order_acquire)) {
    persistent_ring* pr = cb->persistent;
    if (pr == nullptr || pr->detached != 0) continue;
    pr->detached = 1;
    const ring_view ring = load_ring(cb);
    const size_t bytes = static_cast<size_t>(ring.size_words) * 4;
    void* copy = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (copy == MAP_FAILED) continue;  // out of memory: the child shares the ring (documented)
    memcpy(copy, ring.buffer, bytes);
    // Moves the copy over the shared mapping in one step: the address, and so the ring word,
    // stays the same; the shared pages leave this process.
    if (mremap(copy, bytes, bytes, MREMAP_MAYMOVE | MREMAP_FIXED, ring.buffer) == MAP_FAILED) {
      munmap(copy, bytes);
    }
  }
}

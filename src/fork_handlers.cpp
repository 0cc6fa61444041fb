// Forked children: the pthread_atfork handlers, and the child's own directory, info file and
// file paths. Thread contract: prepare_fork takes circular_buffer_list_mutex, then every
// buffer's mutex (the library's lock order), so the child never inherits a change frozen
// half-way nor a lock it cannot take; child_after_fork runs in the child's only thread and,
// like the path helpers, calls only async-signal-safe functions (no allocation, no stdio).
#include "fork_handlers.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "env.h"
#include "persistent_ring.h"
#include "safe_files.h"
#include "trace_file.h"

int32_t parent_process_id;

namespace {

// "<trace base directory><process name>" of this child, fixed at the fork: inherited buffers'
// files go below it. The uncut length is kept: one that does not fit the area names no file,
// and callers that see it refuse rather than write into a cut (and so foreign) path.
char own_process_dir[PATH_MAX];
size_t own_process_dir_length;
// 1 from the fork until the child's process directory and info file exist.
std::atomic<int> own_directory_pending{0};

pthread_once_t registration = PTHREAD_ONCE_INIT;
// Built at registration, so that the child handler only initialises mutexes with it.
pthread_mutexattr_t recursive_attr;
// Whether prepare_fork holds every lock; read by the handlers that run after it in the same
// thread of the same fork (two forks at once are serialised by the registry lock).
bool fork_locked;

size_t length_of(const char* text) {
  size_t length = 0;
  while (text[length] != '\0') ++length;
  return length;
}

// The tail "/<buffer>/<file>" of a buffer's path "<base><process>/<buffer>/<file>": from the
// second '/' counted from the end. Buffer names never contain '/', so this is the buffer's part.
const char* buffer_tail(const char* path) {
  int slashes = 0;
  for (const char* p = path + length_of(path); p > path;) {
    if (*--p == '/' && ++slashes == 2) return p;
  }
  return path;
}

// The path `creator_path` (one of a buffer's file paths as the process that created the buffer
// named it) has in this process: own_process_dir followed by its buffer tail. Cut to the area;
// returns the uncut length.
size_t compose_own_path(const char* creator_path, char* area, size_t capacity) {
  sigsafe_text text(area, static_cast<uint32_t>(capacity));
  text.append(own_process_dir);
  const char* tail = buffer_tail(creator_path);
  text.append(tail);
  return own_process_dir_length + length_of(tail);
}

// Directories are made the way the open makes them (safe_files.h: the library's mode, set
// exactly, no umask change). True when a directory of ours (or root's) is there afterwards,
// never a link another user planted.
bool make_own_directory(const char* path) {
  make_directory(path);
  struct stat st;
  if (fstatat(AT_FDCWD, path, &st, AT_SYMLINK_NOFOLLOW) != 0) return false;
  return S_ISDIR(st.st_mode) && (st.st_uid == geteuid() || st.st_uid == 0);
}

// The two lines of the initialisation's info file, for this process, with write(2).
bool write_own_info_file() {
  char path[PATH_MAX];
  sigsafe_text path_text(path, sizeof path);
  path_text.append(own_process_dir);
  path_text.append("/quarry.info");
  if (own_process_dir_length + 12 >= sizeof path) return false;
  // Made as the initialisation makes it: by the umask (0600 in private mode), never through a
  // link or into somebody else's file (safe_files.h).
  const bool exact = private_file_mode();
  int fd = open_for_writing(path, exact ? 0600 : 0666, exact);
  if (fd < 0) return false;
  char area[64];
  sigsafe_text info(area, sizeof area);
  info.append("PROCESS_PID ");
  info.append_signed(process_id);
  info.append("\nDUMP_SIGNAL ");
  info.append_signed(dump_signal);
  info.append("\n");
  bool written = write(fd, info.c_str(), info.length()) == static_cast<ssize_t>(info.length());
  close(fd);
  return written;
}

void prepare_fork() {
  // May wait for another thread to finish an open, a growth or a control-file change: the
  // child then starts from complete state. (A fork from a signal handler that interrupted this
  // library while it held the registry lock would wait forever; fork is not for such places.)
  if (pthread_mutex_lock(&circular_buffer_list_mutex) != 0) return;
  circular_buffer* head = circular_buffer_list.load(std::memory_order_acquire);
  for (circular_buffer* cb = head; cb != nullptr; cb = cb->next.load(std::memory_order_acquire)) {
    if (pthread_mutex_lock(&cb->mutex) == 0) continue;
    // A recursive mutex refuses only when its count overflows. Fork without the locks then:
    // the child initialises them anyway, it merely might see that buffer's change half-done.
    for (circular_buffer* held = head; held != cb; held = held->next.load()) {
      QUARRY_UNLOCK_CB(held);
    }
    QUARRY_UNLOCK_LIST();
    return;
  }
  fork_locked = true;
}

void parent_after_fork() {
  if (!fork_locked) return;
  fork_locked = false;
  for (circular_buffer* cb = circular_buffer_list.load(std::memory_order_acquire); cb != nullptr;
       cb = cb->next.load(std::memory_order_acquire)) {
    QUARRY_UNLOCK_CB(cb);
  }
  QUARRY_UNLOCK_LIST();
}

// The process name becomes "<parent's name>.<pid>", the parent's name cut when both would not
// fit in 255 characters: the pid is what keeps siblings apart, so it is never the part cut.
void take_own_name() {
  char digits_area[32];
  sigsafe_text digits(digits_area, sizeof digits_area);
  digits.append(".");
  digits.append_signed(process_id);
  size_t keep = strnlen(process_name, sizeof process_name - 1);
  size_t room = sizeof process_name - 1 - digits.length();
  if (keep > room) keep = room;
  memcpy(process_name + keep, digits.c_str(), digits.length() + 1);

  const char* base = quarry_env_get_quarry_path(process_env);
  sigsafe_text dir(own_process_dir, sizeof own_process_dir);
  if (base != nullptr) dir.append(base);
  dir.append(process_name);
  own_process_dir_length = (base != nullptr ? length_of(base) : 0) + length_of(process_name);
}

// Leaves the parent's live configuration to the parent: its inotify descriptors and pipe are
// closed in the child (close(2) affects only the child's copies) and marked unset, and no
// handle pipes any more, since the parent's control file asked for that. A child that wants
// live configuration enables it for itself; its control file then lives in its own directory.
void drop_parent_live_config(circular_buffer* cb) {
  int pipe_fd = cb->pipe_fd.exchange(-1, std::memory_order_relaxed);
  if (pipe_fd != -1) close(pipe_fd);
  if (cb->pipe_inotify_fd != -1) close(cb->pipe_inotify_fd);
  if (cb->ctrl_inotify_fd != -1) close(cb->ctrl_inotify_fd);
  cb->pipe_inotify_fd = cb->pipe_watch = -1;
  cb->ctrl_inotify_fd = cb->ctrl_watch = -1;
  cb->ctrl_write_pending.store(0, std::memory_order_relaxed);
  uint32_t handles = cb->handle_count.load(std::memory_order_acquire);
  handle_node* node = cb->handle_list.load(std::memory_order_acquire);
  for (uint32_t i = 0; i < handles && node != nullptr; ++i) {
    node->handle->pipe.store(0, std::memory_order_relaxed);
    node = node->next.load(std::memory_order_acquire);
  }
}

// Runs in the child's only thread, before fork() returns there: async-signal-safe calls only.
// The child keeps every buffer with the records written before the fork; what changes is
// whose they are. Directories and the info file appear with the child's first file
// (ensure_own_process_directory), so a child that execs at once leaves nothing behind.
void child_after_fork() {
  // The child's thread is the one that took every lock in prepare_fork, but under a new
  // thread id, and a recursive mutex refuses an unlock from another id (EPERM). So the locks
  // are initialised afresh instead of released; what they guard is complete, since
  // prepare_fork held them all. (glibc's mutex initialisation only stores into the mutex.)
  fork_locked = false;
  pthread_mutex_init(&circular_buffer_list_mutex, nullptr);
  for (circular_buffer* cb = circular_buffer_list.load(std::memory_order_acquire); cb != nullptr;
       cb = cb->next.load(std::memory_order_acquire)) {
    pthread_mutex_init(&cb->mutex, &recursive_attr);
  }
  // Forked before the initialisation got as far as a trace base directory: no buffer exists
  // and the child starts from scratch, like any process.
  if (process_env == nullptr) return;

  parent_process_id = process_id;
  process_id = static_cast<int32_t>(getpid());
  take_own_name();
  own_directory_pending.store(1, std::memory_order_release);

  // A crash the parent survived is not this process's termination reason.
  crash_handled = 0;
  crash_signal = 0;
  crash_sender_pid = 0;

  for (circular_buffer* cb = circular_buffer_list.load(std::memory_order_acquire); cb != nullptr;
       cb = cb->next.load(std::memory_order_acquire)) {
    // From now on its files are named below own_process_dir (own_file_base), and its open
    // block, built with the parent's pid, is formatted at each dump instead.
    cb->inherited.store(kInheritedNoDirectory, std::memory_order_release);
    drop_parent_live_config(cb);
  }
  // File-backed rings are shared with the parent: the child's records go to private copies.
  persistent_rings_after_fork();
}

}  // namespace

void register_fork_handlers() {
  // Without the handlers (pthread_atfork out of memory) children write their parent's files,
  // as before this library knew about fork; there is no one to tell.
  pthread_once(&registration, [] {
    pthread_mutexattr_init(&recursive_attr);
    pthread_mutexattr_settype(&recursive_attr, PTHREAD_MUTEX_RECURSIVE);
    pthread_atfork(prepare_fork, parent_after_fork, child_after_fork);
  });
}

const char* own_file_base(const circular_buffer* cb, char* area, size_t capacity, size_t* length) {
  if (cb->inherited.load(std::memory_order_acquire) == kOwnBuffer) {
    *length = length_of(cb->output_file_name);
    return cb->output_file_name;
  }
  *length = compose_own_path(cb->output_file_name, area, capacity);
  return area;
}

void ensure_own_process_directory() {
  if (own_directory_pending.load(std::memory_order_acquire) == 0) return;
  if (own_process_dir_length >= sizeof own_process_dir) return;
  // Two threads may both get here; each makes the same directory and writes the same lines.
  if (make_own_directory(own_process_dir) && write_own_info_file()) {
    own_directory_pending.store(0, std::memory_order_release);
  }
}

void ensure_inherited_buffer_directory(circular_buffer* cb, const char* file_path) {
  if (cb->inherited.load(std::memory_order_acquire) != kInheritedNoDirectory) return;
  ensure_own_process_directory();
  char dir[PATH_MAX];
  sigsafe_text text(dir, sizeof dir);
  size_t end = length_of(file_path);
  while (end > 0 && file_path[end - 1] != '/') --end;
  if (end == 0 || end >= sizeof dir) return;
  text.append(file_path, static_cast<uint32_t>(end));
  // Failing here leaves the state as it was: the file's open then reports the missing
  // directory, and the next file tries again.
  if (make_own_directory(dir))
    cb->inherited.store(kInheritedWithDirectory, std::memory_order_release);
}

int adopt_inherited_ctrl_file(circular_buffer* cb) {
  if (cb->inherited.load(std::memory_order_acquire) == kOwnBuffer) return 0;
  char own[PATH_MAX];
  size_t length = compose_own_path(cb->ctrl_file_name, own, sizeof own);
  if (length >= sizeof own) return 1;
  if (strcmp(own, cb->ctrl_file_name) == 0) return 0;  // adopted earlier in this process
  char* name = strdup(own);
  if (name == nullptr) return 1;
  ensure_inherited_buffer_directory(cb, own);
  // The old name is the parent's. Nothing else holds it: the control-file code reads the
  // name under this mutex, or from the watch callback, which only runs once this process has
  // set up its own watch, after this.
  free(cb->ctrl_file_name);
  cb->ctrl_file_name = name;
  return 0;
}

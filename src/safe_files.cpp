// Creating and opening the library's files and directories below the trace base directory.
// The trace base directory is shared by every user's processes (mode 0777), so anybody may
// plant a symbolic link, a file or a pipe where the library is about to write. Every open here
// refuses to follow a link in the last path component (O_NOFOLLOW) and checks what it opened
// with fstat before writing or applying anything. Thread contract: open_for_writing and the
// mode getters are async-signal-safe; the others print and run on ordinary threads.
#include "safe_files.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <atomic>

#include "buffer.h"
#include "env.h"

namespace {

// Device and inode of the last refused file, so that a planted file met by every piped record
// (or every control-file change) is reported once. Relaxed: a duplicate report in a race is
// harmless.
std::atomic<uint64_t> last_refused_dev{0};
std::atomic<uint64_t> last_refused_ino{0};

// Refuses an existing file unless it is a regular file of the effective user with a single
// link: a hard link planted in a shared directory would otherwise make the library truncate
// the linked file.
bool is_own_regular_file(const struct stat& st) {
  return S_ISREG(st.st_mode) && st.st_uid == geteuid() && st.st_nlink == 1;
}

// Files the library only reads or writes into (the control file, the reader's pipe) may also
// belong to root: an operator editing with sudo makes them so, and root could write anywhere
// anyway, so trusting root adds nobody.
bool owned_by_user_or_root(const struct stat& st) {
  return st.st_uid == geteuid() || st.st_uid == 0;
}

}  // namespace

bool private_file_mode() {
  // process_env is set once, before the first buffer exists, and never changes afterwards; a
  // signal handler reading it sees either null (no buffer yet, nothing to create) or the record.
  return process_env != nullptr && process_env->private_files != 0;
}

mode_t directory_mode() {
  return private_file_mode() ? 0700 : 0777;
}

mode_t trace_file_mode() {
  return private_file_mode() ? 0600 : 0666;
}

int open_for_writing(const char* path, mode_t mode, bool exact) {
  // First try to create the file: O_EXCL with O_NOFOLLOW fails on anything already there,
  // links included, so a file made here is new and ours.
  int fd = open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
  if (fd >= 0) {
    // The library used to clear the process-wide umask around this open to get its modes; a
    // file another host thread created in that window was then world-writable. fchmod on the
    // new descriptor gives the same resulting mode and touches nothing else in the process.
    if (exact) fchmod(fd, mode);
    return fd;
  }
  if (errno != EEXIST) return -1;
  // An existing file: opened without truncating and without blocking (a FIFO planted here
  // would otherwise stall a crash dump until somebody reads it), then checked, and only then
  // truncated. Its mode is left as it is, as before.
  fd = open(path, O_WRONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return -1;  // ELOOP for a symbolic link
  struct stat st;
  if (fstat(fd, &st) != 0 || !is_own_regular_file(st)) {
    close(fd);
    errno = EPERM;
    return -1;
  }
  // Back to blocking writes for a regular file (the flag changes nothing there, but the
  // descriptor then behaves as one opened plainly), and empty it.
  int flags = fcntl(fd, F_GETFL);
  if (flags != -1) fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
  if (ftruncate(fd, 0) != 0) {
    int error = errno;
    close(fd);
    errno = error;
    return -1;
  }
  return fd;
}

int open_own_file_for_reading(const char* path, struct stat* status) {
  int fd = open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) {
    if (errno == ELOOP && status != nullptr) lstat(path, status);
    if (errno == ELOOP) errno = EPERM;
    return -1;
  }
  struct stat st;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || !owned_by_user_or_root(st)) {
    if (status != nullptr) *status = st;
    close(fd);
    errno = EPERM;
    return -1;
  }
  return fd;
}

void report_refused_file_once(const char* prefix, const char* path, const struct stat& status,
                              const char* what) {
  uint64_t dev = static_cast<uint64_t>(status.st_dev);
  uint64_t ino = static_cast<uint64_t>(status.st_ino);
  uint64_t previous_dev = last_refused_dev.exchange(dev, std::memory_order_relaxed);
  uint64_t previous_ino = last_refused_ino.exchange(ino, std::memory_order_relaxed);
  if (previous_dev == dev && previous_ino == ino) return;
  fprintf(stderr, "%s%s %s\n", prefix, path, what);
}

int open_reader_pipe(const char* path) {
  // Non-blocking: a pipe without a reader refuses the open (ENXIO) instead of stalling the
  // writer. No O_CREAT: the reader creates the pipe.
  int fd = open(path, O_WRONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
  struct stat st;
  if (fd < 0) {
    // A symbolic link is the one failure worth a word; a missing pipe or one without a reader
    // is the normal state between readers.
    if (errno == ELOOP && lstat(path, &st) == 0) {
      report_refused_file_once("QUARRY ERROR: ", path, st,
                               "is a symbolic link, not a named pipe; not used");
    }
    return -1;
  }
  if (fstat(fd, &st) != 0) {
    close(fd);
    return -1;
  }
  if (!S_ISFIFO(st.st_mode) || !owned_by_user_or_root(st)) {
    close(fd);
    report_refused_file_once("QUARRY ERROR: ", path, st,
                             S_ISFIFO(st.st_mode) ? "is a named pipe of another user; not used"
                                                  : "is not a named pipe; not used");
    return -1;
  }
  return fd;
}

int check_owned_directory(const char* path, const char* shown) {
  struct stat st;
  if (lstat(path, &st) != 0) return 0;
  if (shown == nullptr) shown = path;
  if (S_ISLNK(st.st_mode)) {
    fprintf(stderr, "QUARRY ERROR: %s is a symbolic link, not a directory\n", shown);
    return 1;
  }
  if (!S_ISDIR(st.st_mode)) {
    fprintf(stderr, "QUARRY ERROR: %s exists but it's not a directory\n", shown);
    return 1;
  }
  if (st.st_uid != geteuid() && st.st_uid != 0) {
    fprintf(stderr, "QUARRY ERROR: %s belongs to uid %u, neither this user nor root\n", shown,
            static_cast<unsigned>(st.st_uid));
    return 1;
  }
  return 0;
}

void make_directory(const char* path) {
  mode_t mode = directory_mode();
  if (mkdir(path, mode) != 0) return;  // "exists" and every other error are left to the caller
  // Created here: the umask narrowed the mode, so it is set exactly on the directory just made
  // (opened without following a link, in case it was swapped meanwhile). The same modes as the
  // cleared umask gave, without exposing files other host threads create meanwhile.
  int fd = open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return;
  struct stat st;
  if (fstat(fd, &st) == 0 && st.st_uid == geteuid()) fchmod(fd, mode);
  close(fd);
}

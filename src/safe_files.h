// Creating and opening the library's files and directories below the trace base directory so
// that no symbolic link is followed and no file planted by another user is written or applied,
// with the library's permission bits set without touching the process-wide umask.
// Thread contract: open_for_writing and the mode getters are async-signal-safe (open, fstat,
// fchmod, ftruncate, close, geteuid only); the rest runs on ordinary threads.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

// Modes of what the library creates: shared (the default: directories 0777, trace files 0666,
// info and control files by the umask) or private (QUARRY_FILE_MODE=private: directories 0700,
// every file 0600).
bool private_file_mode();
mode_t directory_mode();
mode_t trace_file_mode();

// Opens path for writing, truncated, creating it when missing. A new file gets `mode`: exactly
// (fchmod after the open) when `exact` is set, else as the umask leaves it. An existing file is
// used only when it is a regular file of the effective user with one link; a symbolic link
// fails with ELOOP, anything else with EPERM, and neither is truncated. Returns the descriptor
// (close-on-exec) or -1 with errno set. Async-signal-safe.
int open_for_writing(const char* path, mode_t mode, bool exact);

// Opens path for reading when it is a regular file of the effective user or root. Returns the
// descriptor, or -1 with errno set (EPERM: the file exists but belongs to someone else or is not
// a regular file; *status then describes it when not null).
int open_own_file_for_reading(const char* path, struct stat* status);

// Opens the named pipe a reader created, for writing without blocking. Only a FIFO of the
// effective user (or root) is used; anything else (a symbolic link, a regular file, another user's
// pipe) is closed again and reported once per planted file with a "QUARRY ERROR: " line. Returns
// the descriptor or -1 (no reader, no file, or refused). A root-owned FIFO is accepted too.
int open_reader_pipe(const char* path);

// Reports a refused file once per file (device and inode): the same planted file is not
// reported again, whichever buffer meets it. `prefix` begins the line (an operation prefix or
// "QUARRY ERROR: "), `what` says why after the path.
void report_refused_file_once(const char* prefix, const char* path, const struct stat& status,
                              const char* what);

// Checks an existing directory the library keeps files in: a directory (not a symbolic link),
// owned by the effective user or root. A missing path passes (creating it is someone else's
// step). Returns 0, or 1 after printing one "QUARRY ERROR: " line naming `shown` (the path
// when null).
int check_owned_directory(const char* path, const char* shown = nullptr);

// mkdir with the library's directory mode, set exactly (fchmod) when this call created it.
void make_directory(const char* path);

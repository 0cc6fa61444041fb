// The trace file: its text header (built once at open, copied at dump) and the signal-safe
// dump writer. Thread contract: everything except build_output_header takes no lock,
// allocates nothing and uses only async-signal-safe calls (write, open, close, umask, clocks,
// the string functions and the conversions of sigsafe_format.h).
#pragma once

#include <stdint.h>

#include "buffer.h"

// Formats the open block (VERSION ... TS_RES) into cb->output_header; leaves it null and
// reports when memory runs out. Called once at buffer creation (allocates; not signal-safe).
void build_output_header(circular_buffer* cb);

// Formats the same open block from the current identity and clock state into out (at most
// capacity - 1 characters, always terminated) without allocating; returns its length. Used by
// the dump for a buffer whose output_header could not be built.
uint32_t format_open_block(char* out, uint32_t capacity);

// Builds the trace file path of the buffer's next dump into out (256 bytes): output_file_name
// (in a forked child, own_file_base of fork_handlers.h), "_<file_loop_index>" when rotation is
// on and the path stays within 255 characters, ".trc".
// Returns the path's length, or -1 when even "<output_file_name>.trc" exceeds 255 characters;
// out then holds output_file_name cut to 255 characters.
int trace_file_path(const circular_buffer* cb, char out[256]);

// Writes `length` bytes whole; on failure reports "<message><path> (<error text>)" on standard
// output and returns 1. Returns 0 when done.
int write_all_or_report(int fd, const char* text, uint32_t length, const char* message,
                        const char* path);
// Returns the length written, or -1 after a reported failure.
int write_decode_ref(int fd, const quarry_handle* handle, const char* path);
// Adds the entry's length to *count. Returns 0, or 1 after a reported failure.
int write_thread_name_entry(const thread_name_entry* entry, uint32_t* count, int fd,
                            const char* path);
// Writes "SIGNALING_PID <pid>\nSIGNAL <signo>\n", adding its length to *count. 0, or 1.
int write_termination_reason(uint32_t* count, int fd, const char* path);
// Sections 1 to 7 of the trace file (also the head of a pipe stream). Results: 0; 1 open,
// omega or program-name block not written; -2 a decode reference; -3 a thread line.
int write_trace_header(circular_buffer* cb, int fd, const char* path);
// The same with BUFFER_SIZE given by the caller, so that a dump announces the size of exactly
// the ring it then writes (one load_ring per dump).
int write_trace_header_sized(circular_buffer* cb, uint32_t size_words, int fd, const char* path);
// Writes the buffer's trace file. Callers take time_omega first. Results as write_trace_header,
// and 1 when the file cannot be opened or the data not written.
int dump_circular_buffer(circular_buffer* cb);
// The exit handler: dumps every buffer whose dump_on_exit is set.
void dump_at_exit(void);

// Test seam: the failure report's error text. Async-signal-safe (a table lookup).
const char* sigsafe_strerror(int errnum);

// Writes "<message><path>" and, when errnum is not negative, " (<error text>)" to standard
// output in one write(2), cut to 255 characters, without line end. Async-signal-safe.
void report_dump_failure(const char* message, const char* path, int errnum);

// A text assembled in a fixed area owned by the caller (usually on its stack). Every append
// is cut at capacity - 1 characters and the text stays terminated, so callers never overrun.
// Async-signal-safe: no allocation, no locale, no formatted printing.
class sigsafe_text {
 public:
  sigsafe_text(char* area, uint32_t capacity) : area_(area), capacity_(capacity) {
    area_[0] = '\0';
  }
  void append(const char* text);
  void append(const char* text, uint32_t length);
  void append_hex(uint64_t value);       // lower-case, no prefix, no leading zeros
  void append_unsigned(uint64_t value);  // decimal
  void append_signed(int64_t value);     // decimal with '-' when negative
  const char* c_str() const { return area_; }
  uint32_t length() const { return length_; }

 private:
  char* area_;
  uint32_t capacity_;  // bytes of area_, the terminator included
  uint32_t length_ = 0;
};

// The trace file's text header: the open block built once at buffer creation, the file path,
// and the writers of sections 1 to 7 shared by dumps and the pipe stream. Thread contract:
// build_output_header allocates and runs under the open's lock; everything else here takes no
// lock, allocates nothing and calls only write(2) and string functions, so it is safe inside
// signal handlers and concurrent with record writers.
#include "trace_file.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "fork_handlers.h"
#include "ring.h"
#include "sigsafe_format.h"

namespace {

constexpr char kOpenBlockFormat[] =
    "VERSION 1.0\nWALL_TIME_SEC %lx\nWALL_TIME_USEC %lx\nCLOCK_TIME_SEC %lx\n"
    "CLOCK_TIME_NSEC %lx\nQUARRY_NODE_ID %x\nQUARRY_PROCESS_ID %d\nQUARRY_ARGV0 %s\n"
    "TS_IDX_MSK %lx\nTS_RES %lx\n";

constexpr char kHeaderFailed[] = "quarry abort handler: unable to write header to trace file ";
constexpr char kOmegaFailed[] = "quarry abort handler: unable to write omega time to trace file ";
constexpr char kProgNameFailed[] =
    "quarry abort handler: unable to write program name to trace file ";
constexpr char kDecodeRefFailed[] =
    "quarry abort handler: unable to write base offsets to trace file ";
// These two have no space before the path; readers of old logs match them as they are.
constexpr char kThreadFailed[] = "quarry abort handler: unable to write thread id-to-name mapping";
constexpr char kReasonFailed[] =
    "quarry abort handler: unable to write termination reason to header";
constexpr char kEndOfHeaderFailed[] = "QUARRY_HEADER_DUMP: write failed";

// The digit area handed to the conversions; 32 bytes hold any 64-bit value in either base.
constexpr uint32_t kDigitArea = 32;

// Writes the whole text with as many write(2) calls as the kernel needs; a zero-length text
// still makes one call. No retry on EINTR: a dump interrupted by a signal reports and stops.
// Returns 0, or the errno of the failed call.
int write_whole(int fd, const char* text, size_t length) {
  size_t offset = 0;
  do {
    ssize_t written = write(fd, text + offset, length - offset);
    if (written < 0) return errno;
    offset += static_cast<size_t>(written);
  } while (offset < length);
  return 0;
}

}  // namespace

// ---- Fixed-area text -------------------------------------------------------------------------

void sigsafe_text::append(const char* text, uint32_t length) {
  uint32_t room = capacity_ - 1 - length_;
  if (length > room) length = room;
  memcpy(area_ + length_, text, length);
  length_ += length;
  area_[length_] = '\0';
}

void sigsafe_text::append(const char* text) {
  // Never measure further than the room left: a long source is cut, not read to its end.
  uint32_t room = capacity_ - 1 - length_;
  append(text, static_cast<uint32_t>(strnlen(text, room)));
}

void sigsafe_text::append_hex(uint64_t value) {
  char digits[kDigitArea];
  append(uint64_2_xstr(value, digits, sizeof digits));
}

void sigsafe_text::append_unsigned(uint64_t value) {
  char digits[kDigitArea];
  append(uint64_2_dstr(value, digits, sizeof digits));
}

void sigsafe_text::append_signed(int64_t value) {
  if (value < 0) {
    append("-", 1);
    // Negate in unsigned arithmetic so that the smallest value has a magnitude too.
    append_unsigned(0 - static_cast<uint64_t>(value));
  } else {
    append_unsigned(static_cast<uint64_t>(value));
  }
}

// ---- Error text and reports ------------------------------------------------------------------

// strerror may format into a static or thread-local buffer and, for unknown numbers, allocate;
// strerrordesc_np only looks the number up in the C library's constant table.
const char* sigsafe_strerror(int errnum) {
  const char* text = strerrordesc_np(errnum);
  return text != nullptr ? text : "Unknown error";
}

void report_dump_failure(const char* message, const char* path, int errnum) {
  char area[256];
  sigsafe_text report(area, sizeof area);
  report.append(message);
  report.append(path);
  if (errnum >= 0) {
    report.append(" (");
    report.append(sigsafe_strerror(errnum));
    report.append(")");
  }
  ssize_t ignored = write(STDOUT_FILENO, report.c_str(), report.length());
  (void)ignored;  // nowhere left to report a failed report
}

// ---- Open block ------------------------------------------------------------------------------

void build_output_header(circular_buffer* cb) {
  size_t size = 300;
  for (;;) {
    char* text = static_cast<char*>(calloc(size, 1));
    if (text == nullptr) {
      fputs("QUARRY ERROR: out of memory while allocating output buffer header\n", stderr);
      cb->output_header = nullptr;
      return;
    }
    int length =
        snprintf(text, size, kOpenBlockFormat, static_cast<unsigned long>(time_alpha.wall_sec),
                 static_cast<unsigned long>(time_alpha.wall_usec),
                 static_cast<unsigned long>(time_alpha.mono_sec),
                 static_cast<unsigned long>(time_alpha.mono_nsec), node_id, process_id, argv0,
                 static_cast<unsigned long>(ts_idx_mask), static_cast<unsigned long>(ts_res));
    if (length >= 0 && static_cast<size_t>(length) < size) {
      cb->output_header = text;
      return;
    }
    free(text);
    if (length < 0) {  // an encoding error cannot come from these arguments; keep no header
      cb->output_header = nullptr;
      return;
    }
    size = static_cast<size_t>(length) + 1;
  }
}

uint32_t format_open_block(char* out, uint32_t capacity) {
  sigsafe_text block(out, capacity);
  block.append("VERSION 1.0\nWALL_TIME_SEC ");
  block.append_hex(static_cast<uint64_t>(time_alpha.wall_sec));
  block.append("\nWALL_TIME_USEC ");
  block.append_hex(static_cast<uint64_t>(time_alpha.wall_usec));
  block.append("\nCLOCK_TIME_SEC ");
  block.append_hex(static_cast<uint64_t>(time_alpha.mono_sec));
  block.append("\nCLOCK_TIME_NSEC ");
  block.append_hex(static_cast<uint64_t>(time_alpha.mono_nsec));
  block.append("\nQUARRY_NODE_ID ");
  block.append_hex(node_id);
  block.append("\nQUARRY_PROCESS_ID ");
  block.append_signed(process_id);
  block.append("\nQUARRY_ARGV0 ");
  block.append(argv0, static_cast<uint32_t>(strnlen(argv0, sizeof argv0 - 1)));
  block.append("\nTS_IDX_MSK ");
  block.append_hex(ts_idx_mask);
  block.append("\nTS_RES ");
  block.append_hex(ts_res);
  block.append("\n");
  return block.length();
}

// ---- Path ------------------------------------------------------------------------------------

int trace_file_path(const circular_buffer* cb, char out[256]) {
  constexpr uint32_t kMaxPath = 255;
  constexpr char kExtension[] = ".trc";
  constexpr uint32_t kExtensionLength = sizeof kExtension - 1;
  // The suffix test uses the full length of the base, not the copy cut to 255. In a forked
  // child an inherited buffer's base is composed in its own directory (fork_handlers.h).
  char own_base[256];
  size_t base_length;
  const char* base = own_file_base(cb, own_base, sizeof own_base, &base_length);

  char index_area[kDigitArea];
  sigsafe_text index(index_area, sizeof index_area);
  index.append("_");
  index.append_signed(cb->file_loop_index);

  sigsafe_text path(out, 256);
  path.append(base);  // cut to 255 characters
  if (cb->file_loop_count > 0 && base_length + index.length() + kExtensionLength <= kMaxPath) {
    path.append(index.c_str(), index.length());
  }
  // A name too long even for ".trc" alone is refused rather than shortened: a shortened name
  // could land on another buffer's file, and the caller reports the cut path with
  // ENAMETOOLONG's text.
  if (base_length + kExtensionLength > kMaxPath) return -1;
  path.append(kExtension, kExtensionLength);
  return static_cast<int>(path.length());
}

// ---- Header writers --------------------------------------------------------------------------

int write_all_or_report(int fd, const char* text, uint32_t length, const char* message,
                        const char* path) {
  int error = write_whole(fd, text, length);
  if (error == 0) return 0;
  report_dump_failure(message, path, error);
  return 1;
}

int write_decode_ref(int fd, const quarry_handle* handle, const char* path) {
  const char* line = handle->decode_ref != nullptr ? handle->decode_ref : "";
  uint32_t length = static_cast<uint32_t>(strlen(line));
  if (write_all_or_report(fd, line, length, kDecodeRefFailed, path) != 0) return -1;
  return static_cast<int>(length);
}

int write_thread_name_entry(const thread_name_entry* entry, uint32_t* count, int fd,
                            const char* path) {
  // The text is terminated within its 64 bytes by its writer; strnlen keeps the read inside
  // the field even if it were not.
  uint32_t length = static_cast<uint32_t>(strnlen(entry->text, sizeof entry->text));
  if (write_all_or_report(fd, entry->text, length, kThreadFailed, path) != 0) return 1;
  *count += length;
  return 0;
}

int write_termination_reason(uint32_t* count, int fd, const char* path) {
  char area[256];
  sigsafe_text reason(area, sizeof area);
  // Widened with sign and printed unsigned: a negative value shows as its 20-digit
  // two's-complement image, as decoders of existing files expect.
  reason.append("SIGNALING_PID ");
  reason.append_unsigned(static_cast<uint64_t>(static_cast<int64_t>(crash_sender_pid)));
  reason.append("\nSIGNAL ");
  reason.append_unsigned(static_cast<uint64_t>(static_cast<int64_t>(crash_signal)));
  reason.append("\n");
  if (write_all_or_report(fd, reason.c_str(), reason.length(), kReasonFailed, path) != 0) {
    return 1;
  }
  *count += reason.length();
  return 0;
}

int write_trace_header(circular_buffer* cb, int fd, const char* path) {
  return write_trace_header_sized(cb, load_ring(cb).size_words, fd, path);
}

int write_trace_header_sized(circular_buffer* cb, uint32_t size_words, int fd, const char* path) {
  uint32_t header_bytes = 0;  // every header byte written so far, for the end-of-header fill

  // Section 1. A buffer whose open block could not be allocated at creation gets one
  // formatted now from the current identity and clock state, so that its file stays
  // decodable; only values changed since creation (a later node id) can differ. A forked
  // child does the same for the buffers it inherited: their block names the parent's pid.
  const char* open_block =
      cb->inherited.load(std::memory_order_relaxed) == kOwnBuffer ? cb->output_header : nullptr;
  char fallback[768];  // ten keys, six 16-digit numbers, a pid and up to 255 bytes of argv0
  uint32_t open_length;
  if (open_block != nullptr) {
    open_length = static_cast<uint32_t>(strlen(open_block));
  } else {
    open_length = format_open_block(fallback, sizeof fallback);
    open_block = fallback;
  }
  if (write_all_or_report(fd, open_block, open_length, kHeaderFailed, path) != 0) return 1;
  header_bytes += open_length;

  // Section 2. Counters are read without a lock while writers run: each value is atomic on
  // its own, and together they describe the buffer at some instant during the dump.
  char omega_area[1024];
  sigsafe_text omega(omega_area, sizeof omega_area);
  const time_sample sample = time_omega;
  const struct {
    const char* key;
    uint64_t value;
  } items[] = {
      {"WALL_TIME_Z_SEC ", static_cast<uint64_t>(sample.wall_sec)},
      {"WALL_TIME_Z_USEC ", static_cast<uint64_t>(sample.wall_usec)},
      {"CLOCK_TIME_Z_SEC ", static_cast<uint64_t>(sample.mono_sec)},
      {"CLOCK_TIME_Z_NSEC ", static_cast<uint64_t>(sample.mono_nsec)},
      {"CREATION_TIME ", cb->creation_time},
      {"WRAPAROUND_TIME ", cb->wraparound_time.load(std::memory_order_relaxed)},
      {"WRAPAROUND_COUNT ", cb->wraparound_count.load(std::memory_order_relaxed)},
      {"ENTRY_COUNT ", cb->entry_count.load(std::memory_order_relaxed)},
      {"BUFFER_SIZE ", size_words},
      {"WORD_COUNT ", dump_word_count(cb)},
      {"MIN_WRAPAROUND_TIME ", cb->min_wraparound_time.load(std::memory_order_relaxed)},
      {"MAX_WRAPAROUND_TIME ", cb->max_wraparound_time.load(std::memory_order_relaxed)},
  };
  for (const auto& item : items) {
    omega.append(item.key);
    omega.append_hex(item.value);
    omega.append("\n");
  }
  if (write_all_or_report(fd, omega.c_str(), omega.length(), kOmegaFailed, path) != 0) return 1;
  header_bytes += omega.length();

  // Section 3, and in a forked child the parent's pid right after it (both fit the area:
  // 266 characters at most, then at most 23).
  if (process_name[0] != '\0' || parent_process_id != 0) {
    char name_area[300];
    sigsafe_text name_line(name_area, sizeof name_area);
    if (process_name[0] != '\0') {
      name_line.append("PROG_NAME ");
      name_line.append(process_name, static_cast<uint32_t>(strnlen(process_name, 255)));
      name_line.append("\n");
    }
    if (parent_process_id != 0) {
      name_line.append("PARENT_PID ");
      name_line.append_signed(parent_process_id);
      name_line.append("\n");
    }
    if (write_all_or_report(fd, name_line.c_str(), name_line.length(), kProgNameFailed, path) !=
        0) {
      return 1;
    }
    header_bytes += name_line.length();
  }

  // Section 4. handle_count is loaded (acquire) before the walk and pairs with the open's
  // release increment, which follows the link of a complete node: at most that many nodes are
  // visited, each complete. A handle added meanwhile is left out whole.
  uint32_t handles = cb->handle_count.load(std::memory_order_acquire);
  const handle_node* node = cb->handle_list.load(std::memory_order_acquire);
  for (uint32_t i = 0; i < handles && node != nullptr; ++i) {
    int length = write_decode_ref(fd, node->handle, path);
    if (length < 0) return -2;
    header_bytes += static_cast<uint32_t>(length);
    node = node->next.load(std::memory_order_acquire);
  }

  // Section 5. Entries are complete before the release store that links them.
  for (const thread_name_entry* entry = thread_name_list.load(std::memory_order_acquire);
       entry != nullptr; entry = entry->next.load(std::memory_order_acquire)) {
    if (write_thread_name_entry(entry, &header_bytes, fd, path) != 0) return -3;
  }

  // Section 6. A failure here is reported and leaves the rest of the file to be written.
  if (crash_handled) write_termination_reason(&header_bytes, fd, path);

  // Section 7. The report of a failed end-of-header goes to standard error, as decoders'
  // operators have always looked for it there; write(2) keeps it signal-safe.
  if (write(fd, "\n", 1) == -1) {
    ssize_t ignored = write(STDERR_FILENO, kEndOfHeaderFailed, sizeof kEndOfHeaderFailed - 1);
    (void)ignored;
  }
  uint32_t residue = (header_bytes + 1) % 4;
  if (residue != 0) {
    ssize_t ignored = write(fd, "   ", 4 - residue);
    (void)ignored;  // a short fill shows up as a misaligned data section; nothing to do here
  }
  return 0;
}

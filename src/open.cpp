// Opening handles: new buffers with their directories and file names, child handles, twins
// with derived names, decode reference lines. Thread contract: every open runs under
// circular_buffer_list_mutex from its first look-up to its end, and changes a buffer's handle
// table only while it holds the buffer's mutex too; lock-free readers (record writers, dumps in
// signal handlers) only ever reach complete records.
#include "open.h"

#include <libgen.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/stat.h>

#include <new>

#include "crash_signals.h"
#include "ctrl_file.h"
#include "env.h"
#include "fork_handlers.h"
#include "heap.h"
#include "persistent_ring.h"
#include "process_init.h"
#include "ring.h"
#include "safe_files.h"
#include "trace_file.h"

namespace {

constexpr unsigned int kMinBufferSize = 4096;
constexpr unsigned int kMaxBufferSize = 4194304;
constexpr uint64_t kTracePointIds = 0x10000;  // IDs 0 to 65535 per buffer
constexpr int kHandleTableBuckets = 32;
constexpr int kTwinAttempts = 199;
// Spare bytes behind a full name for a twin's suffix: '_' and up to seven hexadecimal digits.
constexpr size_t kNameSpare = 10;
constexpr size_t kTwinSuffixChars = 8;

// A handle node that a failed open unlinked after it had been published. A dump may still be
// walking it, so it is never freed; it stays reachable from here, which also tells leak
// checkers that it is kept on purpose. Guarded by circular_buffer_list_mutex.
struct retired_node {
  handle_node* node;
  retired_node* next;
};
retired_node* retired_nodes;

// What one open has built so far, for its failure exit.
struct open_state {
  quarry_handle** out;
  char* full_name;
  quarry_handle* handle;
  char* decode_ref;
  handle_node* node;
  char* directory;
  circular_buffer* cb;     // the handle's buffer, once known
  bool new_buffer;         // cb was created by this open and is not in the registry
  bool mutex_initialised;  // cb->mutex of a new buffer
  bool cb_locked;          // this open holds cb->mutex
  bool published;          // the handle is in cb's table and handle list
};

bool is_name_separator(char c) {
  // The characters that isspace accepts in the C locale, listed so that a host's locale never
  // changes which names are valid directory names.
  return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r' || c == '/';
}

char* concat(const char* a, const char* b) {
  size_t la = strlen(a);
  size_t lb = strlen(b);
  char* s = static_cast<char*>(malloc(la + lb + 1));
  if (s == nullptr) return nullptr;
  memcpy(s, a, la);
  memcpy(s + la, b, lb + 1);
  return s;
}

// Unlinks the tail node of cb's handle list, which the caller appended in this same open (the
// list mutex has been held since, so nothing followed it). handle_count drops first, so readers
// that load it from now on stop before the node; a reader that loaded the old count may still
// reach the node or find the link already null, and both are safe since the node is not freed.
void unlink_tail_node(circular_buffer* cb, handle_node* node) {
  cb->handle_count.fetch_sub(1, std::memory_order_release);
  handle_node* head = cb->handle_list.load(std::memory_order_relaxed);
  if (head == node) {
    cb->handle_list.store(nullptr, std::memory_order_release);
    return;
  }
  for (handle_node* p = head; p != nullptr; p = p->next.load(std::memory_order_relaxed)) {
    if (p->next.load(std::memory_order_relaxed) == node) {
      p->next.store(nullptr, std::memory_order_release);
      return;
    }
  }
}

void retire(handle_node* node) {
  retired_node* entry = static_cast<retired_node*>(malloc(sizeof(retired_node)));
  if (entry == nullptr) return;  // then it is merely unreachable, still never freed
  entry->node = node;
  entry->next = retired_nodes;
  retired_nodes = entry;
}

// Frees a buffer that this open created and never linked into the registry.
void destroy_unpublished_buffer(open_state* st) {
  circular_buffer* cb = st->cb;
  _quarry_hashtable_destroy(cb->handles);
  free(load_ring(cb).buffer);
  free(cb->output_file_name);
  free(cb->ctrl_file_name);
  free(cb->output_header);
  if (st->mutex_initialised) pthread_mutex_destroy(&cb->mutex);
  delete_record(cb);
}

// Releases what the failed open built, unlocks, and only then reports. Only memory that no
// lock-free reader could ever reach is freed: a handle that was published (the control-file
// watch failed after the handle was listed) is unlinked and kept. The message is formatted into
// 256 bytes first, since it may quote strings this exit frees.
__attribute__((format(printf, 3, 4))) int fail_open(open_state* st, int result, const char* format,
                                                    ...) {
  char message[256];
  message[0] = '\0';
  if (format != nullptr) {
    va_list args;
    va_start(args, format);
    vsnprintf(message, sizeof message, format, args);
    va_end(args);
  }
  if (st->published) {
    // The buffer stays; so do the trace point IDs the handle took, since its decode reference
    // may already have gone into a trace file.
    _quarry_hashtable_remove(st->cb->handles, st->handle->name);
    unlink_tail_node(st->cb, st->node);
    retire(st->node);
  } else {
    free(st->decode_ref);
    delete_record(st->node);
    free(st->full_name);
    free(st->handle);
    if (st->new_buffer) destroy_unpublished_buffer(st);
  }
  free(st->directory);
  if (st->cb_locked) QUARRY_UNLOCK_CB(st->cb);
  *st->out = nullptr;
  QUARRY_UNLOCK_LIST();
  if (message[0] != '\0') fputs(message, stderr);
  return result;
}

// Creates the buffer of a handle without a parent: record, table, mutex, memory, directory,
// file names and header. Returns 0, or the result of fail_open. The buffer is not linked.
int create_buffer(open_state* st, const char* name, unsigned int size) {
  // The initialisation may have stopped before it had a trace base directory (clock unreadable,
  // or no memory even for the defaults). A buffer without one would put its files anywhere, so
  // the open fails like a buffer that cannot be allocated, and a later open tries again.
  const char* base = process_env != nullptr ? quarry_env_get_quarry_path(process_env) : nullptr;
  if (base == nullptr) {
    return fail_open(st, 8,
                     "quarry_open(): unable to allocate memory for quarry circular_buffer\n");
  }
  circular_buffer* cb = new_record<circular_buffer>();  // zero-filled
  if (cb == nullptr) {
    return fail_open(st, 8,
                     "quarry_open(): unable to allocate memory for quarry circular_buffer\n");
  }
  st->cb = cb;
  st->new_buffer = true;
  st->handle->cb = cb;
  st->handle->first_trace_point_id = 0;
  cb->ctrl_inotify_fd = -1;
  cb->ctrl_watch = -1;
  cb->pipe_inotify_fd = -1;
  cb->pipe_watch = -1;
  cb->pipe_fd.store(-1, std::memory_order_relaxed);
  cb->dump_on_exit.store(1, std::memory_order_relaxed);
  cb->file_loop_count = 2;
  cb->file_loop_index = 0;
  cb->min_wraparound_time.store(UINT64_MAX, std::memory_order_relaxed);
  cb->creation_time = monotonic_ns();

  cb->handles = _quarry_hashtable_create(kHandleTableBuckets);
  if (cb->handles == nullptr) {
    return fail_open(st, 14, "quarry_open(): unable to create circular buffer handle hashtable.");
  }
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
  pthread_mutex_init(&cb->mutex, &attr);
  pthread_mutexattr_destroy(&attr);
  st->mutex_initialised = true;
  if (set_circular_buffer_size(cb, size) != 0) {
    return fail_open(st, 9, "quarry_open(): unable to set circular buffer size\n");
  }
  cb->word_count.store(0, std::memory_order_relaxed);
  cb->next_trace_point_id = st->handle->trace_point_count;

  if (asprintf(&st->directory, "%s%s/%s/", base, process_name, name) < 0) {
    // Out of memory for the directory path: reported like the file name built from it.
    st->directory = nullptr;
    fputs("QUARRY ERROR: out of memory\n", stderr);
    return fail_open(
        st, 11, "quarry_open(): unable to initialize output file name. name=%s base_dir = %s\n",
        name, base);
  }
  if (ensure_directory(st->directory) != 0) {
    return fail_open(st, 10, "quarry_open(): unable to create quarry directory %s\n",
                     st->directory);
  }
  cb->output_file_name = concat(st->directory, "quarry");
  if (cb->output_file_name == nullptr) {
    fputs("QUARRY ERROR: out of memory\n", stderr);
    return fail_open(
        st, 11, "quarry_open(): unable to initialize output file name. name=%s base_dir = %s\n",
        name, st->directory);
  }
  cb->ctrl_file_name = concat(st->directory, "quarry.ctrl");
  if (cb->ctrl_file_name == nullptr) {
    fputs("QUARRY ERROR: out of memory\n", stderr);
    return fail_open(
        st, 12, "quarry_open(): unable to initialize control file name. name=%s base_dir = %s\n",
        name, st->directory);
  }
  free(st->directory);
  st->directory = nullptr;
  build_output_header(cb);  // a missing header is reported there and does not fail the open
  return 0;
}

// Re-arms the control-file watch of a watched buffer after rewriting the file so that it lists
// the new handle. The pending flag goes up before the watch is removed: the removal queues an
// event, and the event-loop thread must already see the flag when that event wakes it. Caller
// holds cb->mutex. Returns 0, or the result of fail_open.
int rewrite_watched_ctrl_file(open_state* st) {
  circular_buffer* cb = st->cb;
  if (cb->ctrl_watch < 0) return 0;
  cb->ctrl_write_pending.store(1, std::memory_order_release);
  inotify_rm_watch(cb->ctrl_inotify_fd, cb->ctrl_watch);
  write_ctrl_file(cb);  // a control file that cannot be written is seen at the next change
  cb->ctrl_watch =
      inotify_add_watch(cb->ctrl_inotify_fd, cb->ctrl_file_name, IN_CLOSE_WRITE | IN_ATTRIB);
  if (cb->ctrl_watch < 0) {
    return fail_open(st, 7, "quarry_open(): unable to re-add inotify watch for control file\n");
  }
  return 0;
}

}  // namespace

quarry_handle* find_handle_by_name(const char* full_name) {
  for (circular_buffer* cb = circular_buffer_list.load(std::memory_order_acquire); cb != nullptr;
       cb = cb->next.load(std::memory_order_acquire)) {
    void* found = _quarry_hashtable_get(cb->handles, full_name);
    if (found != nullptr) return static_cast<quarry_handle*>(found);
  }
  return nullptr;
}

void append_handle_node(circular_buffer* cb, handle_node* node) {
  if (cb == nullptr || node == nullptr) return;
  // The node is complete before the release store that links it; readers follow the links with
  // acquire loads. Writers hold circular_buffer_list_mutex, so relaxed loads find the tail.
  node->next.store(nullptr, std::memory_order_relaxed);
  handle_node* tail = cb->handle_list.load(std::memory_order_relaxed);
  if (tail == nullptr) {
    cb->handle_list.store(node, std::memory_order_release);
    return;
  }
  while (handle_node* next = tail->next.load(std::memory_order_relaxed)) tail = next;
  tail->next.store(node, std::memory_order_release);
}

int ensure_directory(const char* path) {
  // Buffer directory paths end in '/', and stat of "file/" fails with ENOTDIR rather than
  // reporting the file; the status is taken of the path without its trailing '/' instead.
  size_t length = strlen(path);
  while (length > 1 && path[length - 1] == '/') --length;
  char* bare = strndup(path, length);
  if (bare == nullptr) return 1;
  struct stat st;
  // Failures to create show later, when the buffer's files cannot be created.
  if (lstat(bare, &st) != 0) make_directory_tree(path);
  // The trace base directory is shared by all users, so the buffer directory and the process
  // directory above it may have been made by somebody else: both must be real directories
  // (not links) of this user or root. The base directory itself may be anybody's.
  int result = check_owned_directory(bare, path);
  if (result == 0) result = check_owned_directory(dirname(bare));
  free(bare);
  return result;
}

void make_directory_tree(const char* path) {
  char* copy = strdup(path);
  if (copy != nullptr) {
    const char* parent = dirname(copy);  // drops a trailing '/' as well
    if (strlen(parent) > 1) make_directory_tree(parent);
  }
  // Directories are shared by every process of the host's users: mode 0777 (0700 in private
  // mode), set exactly without clearing the umask (safe_files.cpp).
  make_directory(path);
  free(copy);
}

extern "C" QUARRY_EXPORT int quarry_open_internal(quarry_handle** out, const char* name,
                                                  unsigned int size, unsigned int trace_point_count,
                                                  const char* decode_file, const char* decode_tag,
                                                  quarry_handle* parent) {
  // Its result is not needed here: a failed run is repeated by the next open, and a buffer is
  // only created once there is a trace base directory (create_buffer).
  quarry_global_init_once();
  // A forked child that opens is tracing as itself: its directory and info file appear now.
  ensure_own_process_directory();

  if (parent == nullptr) {
    unsigned int clamped = size < kMinBufferSize   ? kMinBufferSize
                           : size > kMaxBufferSize ? kMaxBufferSize
                                                   : size;
    if (clamped != size) {
      fprintf(stderr,
              "quarry_open(): Process %s: Buffer %s: Size %d not in valid range [%d...%d]. "
              "Adjusting to %d\n",
              process_name, name != nullptr ? name : "(null)", static_cast<int>(size),
              static_cast<int>(kMinBufferSize), static_cast<int>(kMaxBufferSize),
              static_cast<int>(clamped));
      size = clamped;
    }
  }
  if (name == nullptr) {
    fputs("quarry_open(): Invalid NULL quarry handle name\n", stderr);
    return 2;
  }
  for (const char* p = name; *p != '\0'; ++p) {
    if (is_name_separator(*p)) {
      fputs("quarry_open(): Invalid quarry handle name. Name must not contain spaces or '/'\n",
            stderr);
      return 3;
    }
  }
  // Null decode strings are taken as empty rather than crashing the host.
  if (decode_file == nullptr) decode_file = "";
  if (decode_tag == nullptr) decode_tag = "";

  size_t name_bytes =
      parent != nullptr ? strlen(parent->name) + strlen(name) + 2 : strlen(name) + 1;
  char* full_name = static_cast<char*>(malloc(name_bytes + kNameSpare));
  if (full_name == nullptr) {
    fputs("quarry_open(): Unable to allocate memory for handle name\n", stderr);
    return 4;
  }
  if (parent != nullptr) {
    snprintf(full_name, name_bytes, "%s/%s", parent->name, name);
  } else {
    memcpy(full_name, name, name_bytes);
  }

  if (pthread_mutex_lock(&circular_buffer_list_mutex) != 0) {
    free(full_name);
    return -1;
  }
  open_state st{};
  st.out = out;
  st.full_name = full_name;

  quarry_handle* found = find_handle_by_name(full_name);
  *out = found;
  if (found != nullptr) {
    if (strcmp(found->decode_file, decode_file) == 0) {
      free(full_name);
      QUARRY_UNLOCK_LIST();
      return 0;
    }
    // A twin: the same full name with other decode information. It gets a free derived name
    // and joins the buffer of the handle it clashed with.
    size_t base_length = name_bytes - 1;
    bool free_name = false;
    for (int attempt = 0; attempt < kTwinAttempts && !free_name; ++attempt) {
      char suffix[16];
      snprintf(suffix, sizeof suffix, "_%x", static_cast<unsigned int>(rand()));
      suffix[kTwinSuffixChars] = '\0';
      memcpy(full_name + base_length, suffix, strlen(suffix) + 1);
      free_name = find_handle_by_name(full_name) == nullptr;
    }
    if (!free_name) {
      free(full_name);
      *out = nullptr;
      QUARRY_UNLOCK_LIST();
      return 15;
    }
    parent = found;
  }

  size_t decode_file_bytes = strlen(decode_file) + 1;
  void* block = malloc(sizeof(quarry_handle) + decode_file_bytes);
  if (block == nullptr) {
    return fail_open(&st, 5, "quarry_open(): unable to allocate memory for quarry handle\n");
  }
  quarry_handle* handle = new (block) quarry_handle();
  memcpy(handle->decode_file, decode_file, decode_file_bytes);
  handle->name = full_name;
  handle->trace_point_count = trace_point_count;
  handle->enabled.store(1, std::memory_order_relaxed);
  handle->pipe.store(0, std::memory_order_relaxed);
  st.handle = handle;
  *out = handle;

  uint32_t first_id = 0;
  if (parent != nullptr) {
    st.cb = parent->cb;
    handle->cb = st.cb;
    if (st.cb->next_trace_point_id + static_cast<uint64_t>(trace_point_count) > kTracePointIds) {
      return fail_open(&st, 6,
                       "quarry_open(): too many handles created on same buffer. Run out of "
                       "dynamic tracepoint IDs.\n");
    }
    first_id = st.cb->next_trace_point_id;
  }
  handle->first_trace_point_id = first_id;

  // The decode reference and the list node are allocated before anything becomes reachable, so
  // that running out of memory never leaves a half-registered handle behind.
  static const char kDecodeRefFormat[] = "%s %s \"%s\" %d.%d.%s\n";
  int last_id = static_cast<int>(first_id + trace_point_count - 1);
  int ref_length = snprintf(nullptr, 0, kDecodeRefFormat, "QUARRY_DECODE_REF", full_name,
                            decode_file, static_cast<int>(first_id), last_id, decode_tag);
  st.decode_ref = ref_length < 0 ? nullptr : static_cast<char*>(malloc(ref_length + 1u));
  if (st.decode_ref == nullptr) {
    return fail_open(&st, 13, "quarry_open(): unable to allocate memory for decode_ref\n");
  }
  snprintf(st.decode_ref, ref_length + 1u, kDecodeRefFormat, "QUARRY_DECODE_REF", full_name,
           decode_file, static_cast<int>(first_id), last_id, decode_tag);
  handle->decode_ref = st.decode_ref;
  st.node = new_record<handle_node>();
  if (st.node == nullptr) {
    return fail_open(&st, 5, "quarry_open(): unable to allocate mem for hdl elem\n");
  }
  st.node->handle = handle;

  if (parent == nullptr) {
    int result = create_buffer(&st, name, size);
    if (result != 0) return result;
    // The new buffer is unreachable until register_circular_buffer, so its first handle goes
    // in before: a dump that finds the buffer finds it with its handle.
    _quarry_hashtable_put(st.cb->handles, handle->name, handle, nullptr);
    append_handle_node(st.cb, st.node);
    st.cb->handle_count.fetch_add(1, std::memory_order_release);
    persistent_ring_attach(st.cb);    // QUARRY_PERSIST: memory into a file mapping; never fails
    register_circular_buffer(st.cb);  // a handler that could not be installed is reported there
    QUARRY_UNLOCK_LIST();
    return 0;
  }

  // Control-file code reads the table under the buffer's mutex alone, so the table changes
  // under that mutex too (order: circular_buffer_list_mutex, then the buffer's mutex). A buffer
  // mutex that cannot be locked fails the open like the registry lock: -1, no message, and
  // nothing has been published yet.
  if (pthread_mutex_lock(&st.cb->mutex) != 0) return fail_open(&st, -1, nullptr);
  st.cb_locked = true;
  st.cb->next_trace_point_id = first_id + trace_point_count;
  _quarry_hashtable_put(st.cb->handles, handle->name, handle, nullptr);
  append_handle_node(st.cb, st.node);
  st.cb->handle_count.fetch_add(1, std::memory_order_release);
  st.published = true;
  int result = rewrite_watched_ctrl_file(&st);
  if (result != 0) return result;
  persistent_ring_update_header(st.cb);  // the new decode reference
  QUARRY_UNLOCK_CB(st.cb);
  QUARRY_UNLOCK_LIST();
  return 0;
}

/*
 * quarry: an in-process flight recorder for Linux processes.
 *
 * The public C ABI. Plain C99, usable from C and C++; it includes only system headers. A host
 * opens named trace handles, writes records through them from any thread without locks, and
 * gets its buffers on disk as ".trc" files on request, at exit, on the dump signal and on a
 * crash. Every handle, buffer and setting lives until the process ends.
 *
 * Result conventions: 0 is success, -1 a mutex that could not be locked, 1 a file that could
 * not be opened, other positive codes name the failed step. Diagnostics are single lines on
 * standard error (the dump path alone reports on standard output). Nothing here throws.
 */
#ifndef QUARRY_QUARRY_H
#define QUARRY_QUARRY_H

#include <pthread.h>
#include <stdbool.h>
#include <stdint.h>

/* The version of this header; the build checks that it matches the project's version. The
 * shared library's SONAME carries the major version, its exported names the node QUARRY_1.0. */
#define QUARRY_VERSION_MAJOR 1
#define QUARRY_VERSION_MINOR 0
#define QUARRY_VERSION_PATCH 0
/* One comparable number: QUARRY_VERSION >= QUARRY_VERSION_NUMBER(1, 2, 0). */
#define QUARRY_VERSION_NUMBER(major, minor, patch) ((major)*10000 + (minor)*100 + (patch))
#define QUARRY_VERSION \
  QUARRY_VERSION_NUMBER(QUARRY_VERSION_MAJOR, QUARRY_VERSION_MINOR, QUARRY_VERSION_PATCH)

#if defined(__GNUC__)
#define QUARRY_EXPORT __attribute__((visibility("default")))
#else
#define QUARRY_EXPORT
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------------------------ */
/* Opaque records                                                                             */
/* ------------------------------------------------------------------------------------------ */

/* One opened trace name: its buffer, full name, trace point ID range and switches. */
typedef struct quarry_handle quarry_handle;
/* One circular buffer of 32-bit record words, shared by one or more handles. */
struct circular_buffer;
/* Where the library keeps its files: trace base directory and decode directory. */
typedef struct quarry_env quarry_env;

#ifndef QUARRY_BUILDING_LIBRARY
/* The registry of all buffers, newest first, chained through each buffer's `next`. A buffer
 * appears here only when complete. Inside the library this object is a std::atomic pointer of
 * the same size and representation; outside it is read-only. */
extern QUARRY_EXPORT struct circular_buffer* circular_buffer_list;
#endif

/* ------------------------------------------------------------------------------------------ */
/* Opening and handles                                                                        */
/* ------------------------------------------------------------------------------------------ */

/* Opens the handle `name` (no whitespace, no '/'). With `parent` null, creates a buffer of
 * `size` bytes (clamped to 4096..4194304, raised to a power of two) in the directory
 * QUARRY_PATH/<process name>/<name>/; with a parent, adds the handle to the parent's buffer
 * under the full name "<parent>/<name>". `trace_point_count` IDs are reserved in the buffer.
 * Opening an existing full name with the same `decode_file` returns that handle; with another
 * `decode_file`, a twin with a derived name is added to the same buffer.
 *
 * Results: 0 opened (*out set); 2 `name` null; 3 `name` has whitespace or '/'; 4 no memory for
 * the name; -1 registry lock failed; 15 no free derived name; 5 no memory for the handle or its
 * list node; 6 trace point IDs of the buffer exhausted (more than 65536); 7 control-file watch
 * not re-added; 8 no memory for the buffer; 9 buffer memory not allocated; 10 buffer directory
 * path is not a directory; 11/12 no memory for the file names; 13 no memory for the decode
 * reference; 14 handle table not created. On results 5..15 *out is null and nothing of the failed
 * open remains reachable. */
QUARRY_EXPORT int quarry_open_internal(quarry_handle** out, const char* name, unsigned int size,
                                       unsigned int trace_point_count, const char* decode_file,
                                       const char* decode_tag, quarry_handle* parent);

/* Returns 0 and does nothing: handles live until the process ends and keep working. */
QUARRY_EXPORT int quarry_close(quarry_handle* hdl);

/* The handle's full name (owned by the handle, not a copy). `hdl` must not be null. */
QUARRY_EXPORT const char* quarry_handle_get_name(quarry_handle* hdl);

/* ------------------------------------------------------------------------------------------ */
/* Process and thread identity                                                                */
/* ------------------------------------------------------------------------------------------ */

/* Sets the process name used for directories and headers (at most 255 characters, spaces
 * become '_'). Call before the first open. */
QUARRY_EXPORT void quarry_set_process_name(const char* name);
/* Deprecated spelling of quarry_set_process_name; prints a warning. */
QUARRY_EXPORT void quarry_set_process_prefix(const char* name);
/* The process name (the library's own array). */
QUARRY_EXPORT char* quarry_get_process_prefix(void);
QUARRY_EXPORT void quarry_set_node_id(unsigned int id);
QUARRY_EXPORT unsigned int quarry_get_node_id(void);
/* Caches getpid() and returns it. */
QUARRY_EXPORT int quarry_init_process_id(void);
/* The cached process ID, 0 before the first open or quarry_init_process_id. */
QUARRY_EXPORT int quarry_get_process_id(void);
/* The program's first argument from /proc/self/cmdline; empty when unreadable. */
QUARRY_EXPORT char* quarry_get_argv0(void);
/* Names the calling thread in every trace file. Results: 0 done; 1 no memory; -1 lock failed. */
QUARRY_EXPORT int quarry_set_current_thread_name(const char* name);
/* Deprecated when `thread` is not zero (prints a warning); always names the calling thread.
 * Results as quarry_set_current_thread_name. */
QUARRY_EXPORT int quarry_set_thread_name(pthread_t thread, const char* name);

/* ------------------------------------------------------------------------------------------ */
/* Writing records                                                                            */
/* ------------------------------------------------------------------------------------------ */

/* Bit 0 of `flags`: the signature holds at least one 's'. */
#define QUARRY_FLAG_HAS_STRINGS 0x1u

/* Writes one record for trace point `trace_point` (an index below the handle's count) without
 * taking a lock. `signature` lists the variable arguments: 'd' a 32-bit integer, 'D' a 64-bit
 * integer, 's' a NUL-terminated string (null allowed); other characters take no argument.
 * `fixed_words` is 4 + N (+1 when N >= 6), N counting 'd' once and 'D' twice; `flags` carries
 * QUARRY_FLAG_HAS_STRINGS. `spare` is ignored. A null or disabled handle writes nothing.
 * Never fails, never blocks (except the short buffer lock of a piped handle), never prints.
 * QUARRY_TRACE below computes `fixed_words` and `flags` from a literal signature. */
QUARRY_EXPORT void quarry_internal(quarry_handle* handle, uint32_t trace_point,
                                   uint32_t fixed_words, uint32_t flags, const char* signature,
                                   uint64_t spare, ...);

/* The fixed word count of a signature. For a literal signature the compiler folds it. */
static inline uint32_t quarry_signature_fixed_words(const char* signature) {
  uint32_t numeric = 0;
  for (; *signature; ++signature) {
    if (*signature == 'd') numeric += 1;
    if (*signature == 'D') numeric += 2;
  }
  return 4 + numeric + (numeric >= 6 ? 1 : 0);
}

/* The `flags` argument of a signature. */
static inline uint32_t quarry_signature_flags(const char* signature) {
  for (; *signature; ++signature) {
    if (*signature == 's') return QUARRY_FLAG_HAS_STRINGS;
  }
  return 0;
}

/* QUARRY_TRACE(handle, trace_point, "ds", 7, "up"), or QUARRY_TRACE(handle, trace_point, "")
 * for a record without arguments. Plain C99 and C++: no GNU comma extension. The signature is
 * the first of the variable arguments; QUARRY_TRACE_PICK_ counts them (up to 62 values after the
 * signature) and selects the form without or with values, because `spare` must come between
 * the signature and the values. */
#define QUARRY_TRACE(handle, trace_point, ...)                      \
  QUARRY_TRACE_CAT_(QUARRY_TRACE_, QUARRY_TRACE_PICK_(__VA_ARGS__)) \
  (handle, trace_point, __VA_ARGS__)
#define QUARRY_TRACE_S(handle, trace_point, signature)                              \
  quarry_internal((handle), (trace_point), quarry_signature_fixed_words(signature), \
                  quarry_signature_flags(signature), (signature), 0)
#define QUARRY_TRACE_V(handle, trace_point, signature, ...)                         \
  quarry_internal((handle), (trace_point), quarry_signature_fixed_words(signature), \
                  quarry_signature_flags(signature), (signature), 0, __VA_ARGS__)
#define QUARRY_TRACE_CAT_(a, b) QUARRY_TRACE_CAT2_(a, b)
#define QUARRY_TRACE_CAT2_(a, b) a##b
/* S for a signature alone, V when values follow; the trailing ~ keeps `...` non-empty. */
#define QUARRY_TRACE_PICK_(...)                                                                    \
  QUARRY_TRACE_64TH_(__VA_ARGS__, V, V, V, V, V, V, V, V, V, V, V, V, V, V, V, V, V, V, V, V, V,   \
                     V, V, V, V, V, V, V, V, V, V, V, V, V, V, V, V, V, V, V, V, V, V, V, V, V, V, \
                     V, V, V, V, V, V, V, V, V, V, V, V, V, V, V, S, ~)
#define QUARRY_TRACE_64TH_(a1, a2, a3, a4, a5, a6, a7, a8, a9, a10, a11, a12, a13, a14, a15, a16, \
                           a17, a18, a19, a20, a21, a22, a23, a24, a25, a26, a27, a28, a29, a30,  \
                           a31, a32, a33, a34, a35, a36, a37, a38, a39, a40, a41, a42, a43, a44,  \
                           a45, a46, a47, a48, a49, a50, a51, a52, a53, a54, a55, a56, a57, a58,  \
                           a59, a60, a61, a62, a63, a64, ...)                                     \
  a64

/* ------------------------------------------------------------------------------------------ */
/* Switches                                                                                   */
/* ------------------------------------------------------------------------------------------ */

/* Tracing on or off for one handle; takes effect from the writer's next call. */
QUARRY_EXPORT void quarry_set_enabled(quarry_handle* hdl, bool on);
QUARRY_EXPORT bool quarry_is_enabled(quarry_handle* hdl);
/* Whether the exit handler dumps the handle's buffer (shared by all its handles). */
QUARRY_EXPORT void quarry_set_dump_on_exit(quarry_handle* hdl, bool on);
QUARRY_EXPORT bool quarry_get_dump_on_exit(quarry_handle* hdl);

/* ------------------------------------------------------------------------------------------ */
/* Dumps                                                                                      */
/* ------------------------------------------------------------------------------------------ */

/* Writes the handle's buffer to its trace file. Results: 0 complete; 1 the file could not be
 * opened or its header or data not written; -2 a decode reference line not written; -3 a
 * thread line not written. Failures are reported on standard output. Takes no lock. */
QUARRY_EXPORT int quarry_dump(quarry_handle* hdl);
/* Dumps every buffer, newest first, going on after failures. Results: 0 all complete; -1 at
 * least one dump failed. Safe in signal handlers. */
QUARRY_EXPORT int quarry_dump_all(void);

/* ------------------------------------------------------------------------------------------ */
/* Live configuration                                                                         */
/* ------------------------------------------------------------------------------------------ */

/* Applies the buffer's control file, rewrites it and watches it with inotify, then attaches
 * the watch to the host's event loop with kelp_attach_fd. Results: 0 done; the non-zero
 * result of quarry_enable_configuration2; 6 kelp_attach_fd failed or is not linked.
 * event_loop is what the host's kelp_attach_fd takes: a kelp loop, or the pointer given by an
 * adapter's start (<quarry/uv.h>, event.h, sdevent.h, glib.h); contract in kelp/kelp.h. */
QUARRY_EXPORT int quarry_enable_configuration(quarry_handle* hdl, void* event_loop);
/* The same set-up without an event loop. Results: 0 set up (now or earlier); -2 `hdl` null;
 * -1 buffer lock failed; 2 inotify_init failed; 3 F_GETFL failed; 4 F_SETFL failed;
 * 5 inotify_add_watch on the control file failed. */
QUARRY_EXPORT int quarry_enable_configuration2(quarry_handle* hdl);

/* ------------------------------------------------------------------------------------------ */
/* Environment                                                                                */
/* ------------------------------------------------------------------------------------------ */

/* Reads defaults, then "/etc/quarry.setup" (else "/pkg/etc/quarry.setup"), then QUARRY_PATH
 * and QUARRY_DEC_PATH from the environment. Returns a new record, or null when memory runs out
 * or the setup file is malformed (a message names the line's variable and the file). */
QUARRY_EXPORT quarry_env* quarry_get_env(void);
/* Frees a record of quarry_get_env; null is accepted. */
QUARRY_EXPORT void quarry_free_env(quarry_env* env);
/* Trace base directory, ending in '/'. Borrowed from the record. */
QUARRY_EXPORT const char* quarry_env_get_quarry_path(const quarry_env* env);
/* Decode directory, ending in '/'. Borrowed from the record. */
QUARRY_EXPORT const char* quarry_env_get_quarry_dec_path(const quarry_env* env);

/* ------------------------------------------------------------------------------------------ */
/* String-keyed hash table (fixed bucket count, keys not copied, values not owned, no lock)    */
/* ------------------------------------------------------------------------------------------ */

typedef struct quarry_hashtable quarry_hashtable;
typedef struct quarry_hashtable_entry quarry_hashtable_entry;

/* An iterator; may live on the caller's stack (see _quarry_hashtable_iterator_init). */
typedef struct quarry_hashtable_iterator {
  quarry_hashtable* table;
  uint64_t bucket_index;
  uint64_t returned_count;
  quarry_hashtable_entry* last_entry;
  quarry_hashtable_entry* next_entry;
} quarry_hashtable_iterator;

/* New table, or null when `bucket_count` is below 1, above 268435455, or memory runs out. */
QUARRY_EXPORT quarry_hashtable* _quarry_hashtable_create(int bucket_count);
/* Frees the entries and the table, never a key or a value. */
QUARRY_EXPORT void _quarry_hashtable_destroy(quarry_hashtable* table);
/* The value under `key`, or null when absent or `table` is null. */
QUARRY_EXPORT void* _quarry_hashtable_get(quarry_hashtable* table, const char* key);
/* Stores `value` (not null) under `key` (kept, not copied). Results: 0 stored; -1 `table` or
 * `value` null, or no memory. `previous`, when given, receives the replaced value or null. */
QUARRY_EXPORT int _quarry_hashtable_put(quarry_hashtable* table, const char* key, void* value,
                                        void** previous);
/* Removes `key`; returns its value, or null when absent or `table` is null. */
QUARRY_EXPORT void* _quarry_hashtable_remove(quarry_hashtable* table, const char* key);
QUARRY_EXPORT uint64_t _quarry_hashtable_get_size(quarry_hashtable* table);
/* New iterator at the start, or null when memory runs out. */
QUARRY_EXPORT quarry_hashtable_iterator* _quarry_hashtable_iterator_create(quarry_hashtable* table);
/* Resets `iterator` to the start of `table`. Results: 0; -1 `iterator` null. */
QUARRY_EXPORT int _quarry_hashtable_iterator_init(quarry_hashtable* table,
                                                  quarry_hashtable_iterator* iterator);
QUARRY_EXPORT void _quarry_hashtable_iterator_destroy(quarry_hashtable_iterator* iterator);
/* Produces the next entry: 1 with *key and *value set, 0 at the end (out-pointers untouched).
 * Order: buckets upward, each bucket newest first. */
QUARRY_EXPORT int _quarry_hashtable_iterator_next(quarry_hashtable_iterator* iterator,
                                                  const char** key, void** value);
/* Removes the entry produced last. Results: 1 removed; 0 nothing to remove. */
QUARRY_EXPORT int _quarry_hashtable_iterator_remove(quarry_hashtable_iterator* iterator);

/* ------------------------------------------------------------------------------------------ */
/* Signal-safe conversions (no allocation, no lock, no shared state)                           */
/* ------------------------------------------------------------------------------------------ */

/* Lower-case hexadecimal of `value`, right-aligned and terminated at the end of `buf`; returns
 * the first digit, or null when `size` is below 3 or the digits do not fit. */
QUARRY_EXPORT char* uint64_2_xstr(uint64_t value, char* buf, uint32_t size);
/* Decimal of `value`, the same way; null when `size` is below 22. */
QUARRY_EXPORT char* uint64_2_dstr(uint64_t value, char* buf, int32_t size);

/* ========================================================================================== */
/* Typed records: the handle's read-only view, the non-variadic record entries, QUARRY_RECORD  */
/* (C11) and C provider declarations. quarry.hpp builds the C++ front-end on this section.     */
/* ========================================================================================== */

/* The leading fields of every handle, in the library's own order, for reading `enabled` at the
 * call site without a call. Read-only: the library changes `enabled` with single-byte stores, a
 * reader sees a change from a later load. The library checks this layout against its own
 * definition at compile time; nothing else of a handle is public. */
typedef struct quarry_handle_view {
  const void* cb;
  const char* name;
  const char* decode_ref;
  uint32_t first_trace_point_id;
  uint32_t trace_point_count;
  unsigned char enabled;
  unsigned char pipe;
} quarry_handle_view;

/* Byte offset of `enabled` in a handle: 3 pointers and 2 32-bit fields. */
#define QUARRY_HANDLE_ENABLED_OFFSET (3 * sizeof(void*) + 2 * sizeof(uint32_t))

/* Whether a record through `handle` would be written: not null and enabled. One load and a
 * compare; read through a character pointer, so no aliasing rule is involved. */
static inline int quarry_handle_enabled(const quarry_handle* handle) {
  const unsigned char* bytes = (const unsigned char*)handle;
  if (handle == 0) return 0;
#if defined(__GNUC__)
  return __atomic_load_n(bytes + QUARRY_HANDLE_ENABLED_OFFSET, __ATOMIC_RELAXED) != 0;
#else
  return *(const volatile unsigned char*)(bytes + QUARRY_HANDLE_ENABLED_OFFSET) != 0;
#endif
}

/* A string argument of quarry_record_strings: `text` (null records "(null)"), its length in
 * bytes without a NUL (the bytes need not be NUL-terminated; the record adds the NUL), and how
 * many of the record's numeric words come before it in the signature. */
typedef struct quarry_string {
  const char* text;
  uint32_t length;
  uint32_t words_before;
} quarry_string;

/* Non-variadic record entries. Each writes through `handle` the record that quarry_internal
 * writes for the same trace point and values, word for word: the numeric words are given in
 * signature order, 'd' as one word, 'D' as two (bits 63..32 first), so quarry_record2(h, 3,
 * 7, 9) equals QUARRY_TRACE(h, 3, "dd", 7, 9) and also QUARRY_TRACE(h, 3, "D", 0x700000009).
 * Like quarry_internal they are lock-free, never fail, never print, and write nothing through a
 * null or disabled handle; `trace_point` must be below the handle's trace_point_count. */
QUARRY_EXPORT void quarry_record0(quarry_handle* handle, uint32_t trace_point);
QUARRY_EXPORT void quarry_record1(quarry_handle* handle, uint32_t trace_point, uint32_t w0);
QUARRY_EXPORT void quarry_record2(quarry_handle* handle, uint32_t trace_point, uint32_t w0,
                                  uint32_t w1);
QUARRY_EXPORT void quarry_record3(quarry_handle* handle, uint32_t trace_point, uint32_t w0,
                                  uint32_t w1, uint32_t w2);
QUARRY_EXPORT void quarry_record4(quarry_handle* handle, uint32_t trace_point, uint32_t w0,
                                  uint32_t w1, uint32_t w2, uint32_t w3);
/* `count` numeric words (at most 29 per record; more are cut at 64). */
QUARRY_EXPORT void quarry_record_words(quarry_handle* handle, uint32_t trace_point,
                                       const uint32_t* words, uint32_t count);
/* Numeric words and `string_count` strings (at most 32), in order of `words_before`. */
QUARRY_EXPORT void quarry_record_strings(quarry_handle* handle, uint32_t trace_point,
                                         const uint32_t* words, uint32_t count,
                                         const quarry_string* strings, uint32_t string_count);

/* Preprocessor helpers of QUARRY_RECORD and of the provider declarations (quarry.hpp). */
#define QUARRY_CAT_(a, b) QUARRY_CAT2_(a, b)
#define QUARRY_CAT2_(a, b) a##b
#define QUARRY_COUNT_(...) QUARRY_COUNT2_(__VA_ARGS__, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0)
#define QUARRY_COUNT2_(_1, _2, _3, _4, _5, _6, _7, _8, _9, _10, n, ...) n

#if defined(__STDC_VERSION__) && __STDC_VERSION__ >= 201112L && !defined(__cplusplus)
#include <string.h>

/* QUARRY_RECORD(handle, trace_point, args...): 0 to 8 arguments whose signature comes from
 * their types: integers of up to 32 bits record 'd', 64-bit integers 'D', char* and const
 * char* 's' (null records "(null)"). Floating point, structures and other pointers do not
 * compile. A disabled or null handle costs a load and a branch; arguments are evaluated once,
 * and only when the record is written. */
typedef struct quarry_arg_ {
  char code;
  uint64_t value;
  const char* text;
} quarry_arg_;

static inline quarry_arg_ quarry_arg_d_(uint32_t v) {
  quarry_arg_ a = {'d', v, 0};
  return a;
}
static inline quarry_arg_ quarry_arg_D_(uint64_t v) {
  quarry_arg_ a = {'D', v, 0};
  return a;
}
static inline quarry_arg_ quarry_arg_s_(const char* text) {
  quarry_arg_ a = {'s', 0, text};
  return a;
}

#if defined(__SIZEOF_LONG__) && __SIZEOF_LONG__ == 8
#define QUARRY_LONG_ARG_ quarry_arg_D_
#else
#define QUARRY_LONG_ARG_ quarry_arg_d_
#endif

/* No default association: any other type stops the compilation here. */
/* clang-format off */
#define QUARRY_ARG_(x)                                                                    \
  _Generic((x),                                                                           \
      _Bool: quarry_arg_d_, char: quarry_arg_d_, signed char: quarry_arg_d_,              \
      unsigned char: quarry_arg_d_, short: quarry_arg_d_, unsigned short: quarry_arg_d_,  \
      int: quarry_arg_d_, unsigned int: quarry_arg_d_, long: QUARRY_LONG_ARG_,            \
      unsigned long: QUARRY_LONG_ARG_, long long: quarry_arg_D_,                          \
      unsigned long long: quarry_arg_D_, char*: quarry_arg_s_, const char*: quarry_arg_s_)(x)
/* clang-format on */

/* Lays the arguments out as numeric words and strings and calls the matching entry. Written
 * without a loop: inlined with a constant count and constant codes, it folds to the stores and
 * the one call of the record's shape, with any compiler that inlines. */
#define QUARRY_LAYOUT_(i)                                                    \
  if ((i) < count) {                                                         \
    if (args[i].code == 's') {                                               \
      strings[s].text = args[i].text;                                        \
      strings[s].length = args[i].text ? (uint32_t)strlen(args[i].text) : 0; \
      strings[s].words_before = n;                                           \
      ++s;                                                                   \
    } else {                                                                 \
      if (args[i].code == 'D') words[n++] = (uint32_t)(args[i].value >> 32); \
      words[n++] = (uint32_t)args[i].value;                                  \
    }                                                                        \
  }
#if defined(__GNUC__)
__attribute__((always_inline))
#endif
static inline void
quarry_record_args_(quarry_handle* handle, uint32_t trace_point, const quarry_arg_* args,
                    unsigned count) {
  uint32_t words[16];
  quarry_string strings[8];
  unsigned n = 0, s = 0;
  QUARRY_LAYOUT_(0)
  QUARRY_LAYOUT_(1)
  QUARRY_LAYOUT_(2)
  QUARRY_LAYOUT_(3)
  QUARRY_LAYOUT_(4)
  QUARRY_LAYOUT_(5)
  QUARRY_LAYOUT_(6)
  QUARRY_LAYOUT_(7)
  if (s != 0) {
    quarry_record_strings(handle, trace_point, words, n, strings, s);
    return;
  }
  switch (n) {
    case 0:
      quarry_record0(handle, trace_point);
      break;
    case 1:
      quarry_record1(handle, trace_point, words[0]);
      break;
    case 2:
      quarry_record2(handle, trace_point, words[0], words[1]);
      break;
    case 3:
      quarry_record3(handle, trace_point, words[0], words[1], words[2]);
      break;
    case 4:
      quarry_record4(handle, trace_point, words[0], words[1], words[2], words[3]);
      break;
    default:
      quarry_record_words(handle, trace_point, words, n);
      break;
  }
}
#undef QUARRY_LAYOUT_

#define QUARRY_RECORD(...) QUARRY_CAT_(QUARRY_RECORD_, QUARRY_COUNT_(__VA_ARGS__))(__VA_ARGS__)
#define QUARRY_RECORD_WITH_(h, tp, n, ...)                          \
  do {                                                              \
    quarry_handle* const quarry_h_ = (h);                           \
    if (quarry_handle_enabled(quarry_h_)) {                         \
      const quarry_arg_ quarry_a_[n] = {__VA_ARGS__};               \
      quarry_record_args_(quarry_h_, (uint32_t)(tp), quarry_a_, n); \
    }                                                               \
  } while (0)
#define QUARRY_RECORD_2(h, tp)                                             \
  do {                                                                     \
    quarry_handle* const quarry_h_ = (h);                                  \
    if (quarry_handle_enabled(quarry_h_)) quarry_record0(quarry_h_, (tp)); \
  } while (0)
#define QUARRY_RECORD_3(h, tp, a) QUARRY_RECORD_WITH_(h, tp, 1, QUARRY_ARG_(a))
#define QUARRY_RECORD_4(h, tp, a, b) QUARRY_RECORD_WITH_(h, tp, 2, QUARRY_ARG_(a), QUARRY_ARG_(b))
#define QUARRY_RECORD_5(h, tp, a, b, c) \
  QUARRY_RECORD_WITH_(h, tp, 3, QUARRY_ARG_(a), QUARRY_ARG_(b), QUARRY_ARG_(c))
#define QUARRY_RECORD_6(h, tp, a, b, c, d) \
  QUARRY_RECORD_WITH_(h, tp, 4, QUARRY_ARG_(a), QUARRY_ARG_(b), QUARRY_ARG_(c), QUARRY_ARG_(d))
#define QUARRY_RECORD_7(h, tp, a, b, c, d, e)                                                   \
  QUARRY_RECORD_WITH_(h, tp, 5, QUARRY_ARG_(a), QUARRY_ARG_(b), QUARRY_ARG_(c), QUARRY_ARG_(d), \
                      QUARRY_ARG_(e))
#define QUARRY_RECORD_8(h, tp, a, b, c, d, e, f)                                                \
  QUARRY_RECORD_WITH_(h, tp, 6, QUARRY_ARG_(a), QUARRY_ARG_(b), QUARRY_ARG_(c), QUARRY_ARG_(d), \
                      QUARRY_ARG_(e), QUARRY_ARG_(f))
#define QUARRY_RECORD_9(h, tp, a, b, c, d, e, f, g)                                             \
  QUARRY_RECORD_WITH_(h, tp, 7, QUARRY_ARG_(a), QUARRY_ARG_(b), QUARRY_ARG_(c), QUARRY_ARG_(d), \
                      QUARRY_ARG_(e), QUARRY_ARG_(f), QUARRY_ARG_(g))
#define QUARRY_RECORD_10(h, tp, a, b, c, d, e, f, g, i)                                         \
  QUARRY_RECORD_WITH_(h, tp, 8, QUARRY_ARG_(a), QUARRY_ARG_(b), QUARRY_ARG_(c), QUARRY_ARG_(d), \
                      QUARRY_ARG_(e), QUARRY_ARG_(f), QUARRY_ARG_(g), QUARRY_ARG_(i))

#endif /* C11 */

#ifdef __cplusplus
}
#endif

#endif /* QUARRY_QUARRY_H */

// Process and thread identity: process name, node id, process id, argv0 and the thread names.
// Thread contract: the process-name and node-id setters take no lock (hosts call them at
// start-up); thread naming appends under circular_buffer_list_mutex, and a dump may walk the
// thread-name list from a signal handler at any moment.
#include "identity.h"

#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <new>

#include "buffer.h"
#include "heap.h"
#include "persistent_ring.h"
#include "sigsafe_format.h"

namespace {

// The 32-bit thread word that the record writer stores, printed as a signed decimal.
int32_t current_thread_id() {
  return static_cast<int32_t>(static_cast<uint32_t>(pthread_self()));
}

void set_process_name(const char* name) {
  // A null name leaves the current name as it is; the setters have no way to report.
  if (name == nullptr) return;
  bounded_copy(process_name, name, sizeof process_name);
  for (char* p = process_name; *p != '\0'; ++p) {
    if (*p == ' ') *p = '_';
  }
}

}  // namespace

char* read_cmdline(char* buf, int size) {
  char path[128];
  snprintf(path, sizeof path, "/proc/%d/cmdline", static_cast<int>(getpid()));
  int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return nullptr;
  memset(buf, 0, static_cast<size_t>(size));
  int total = 0;
  while (total < size - 1) {
    ssize_t got = read(fd, buf + total, static_cast<size_t>(size - 1 - total));
    if (got <= 0) break;
    total += static_cast<int>(got);
  }
  buf[total] = '\0';
  close(fd);
  return buf;
}

extern "C" QUARRY_EXPORT void quarry_set_process_name(const char* name) {
  set_process_name(name);
}

extern "C" QUARRY_EXPORT void quarry_set_process_prefix(const char* name) {
  fputs(
      "WARNING: deprecated quarry_set_process_prefix() API invoked. Please, use "
      "quarry_set_process_name() instead.\n",
      stderr);
  set_process_name(name);
}

extern "C" QUARRY_EXPORT char* quarry_get_process_prefix(void) {
  return process_name;
}

extern "C" QUARRY_EXPORT void quarry_set_node_id(unsigned int id) {
  node_id = id;
}

extern "C" QUARRY_EXPORT unsigned int quarry_get_node_id(void) {
  return node_id;
}

extern "C" QUARRY_EXPORT int quarry_init_process_id(void) {
  process_id = static_cast<int32_t>(getpid());
  return process_id;
}

extern "C" QUARRY_EXPORT int quarry_get_process_id(void) {
  return process_id;
}

extern "C" QUARRY_EXPORT char* quarry_get_argv0(void) {
  // An unreadable command line leaves argv0 empty, so the next call tries again.
  if (argv0[0] == '\0') read_cmdline(argv0, sizeof argv0);
  return argv0;
}

extern "C" QUARRY_EXPORT int quarry_set_current_thread_name(const char* name) {
  return quarry_set_thread_name(0, name);
}

extern "C" QUARRY_EXPORT int quarry_set_thread_name(pthread_t thread, const char* name) {
  int32_t tid = current_thread_id();
  thread_name_entry* entry = new_record<thread_name_entry>();
  if (entry == nullptr) return 1;
  snprintf(entry->text, sizeof entry->text, "THREAD %s %d\n", name != nullptr ? name : "(null)",
           tid);
  if (thread != 0) {
    fputs(
        "WARNING: deprecated quarry_set_thread_name() API invoked. Please, use "
        "quarry_set_current_thread_name() instead.\n",
        stderr);
  }
  if (pthread_mutex_lock(&circular_buffer_list_mutex) != 0) {
    delete_record(entry);
    return -1;
  }
  // The entry is complete (text, null next) before the release store that links it, so a dump
  // in a signal handler that follows the links with acquire loads sees it whole or not at all.
  entry->next.store(nullptr, std::memory_order_relaxed);
  thread_name_entry* tail = thread_name_list.load(std::memory_order_relaxed);
  if (tail == nullptr) {
    thread_name_list.store(entry, std::memory_order_release);
  } else {
    while (thread_name_entry* next = tail->next.load(std::memory_order_relaxed)) tail = next;
    tail->next.store(entry, std::memory_order_release);
  }
  QUARRY_UNLOCK_LIST();
  persistent_rings_update_headers();  // persistent rings keep their thread names on disk
  return 0;
}

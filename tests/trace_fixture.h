// Buffers built by hand the way the open builds them, process-state isolation for tests that
// change the library's globals, and a reader that splits a trace file into its header items,
// fill and data words as a decoder does.
#pragma once

#include <gtest/gtest.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <utility>
#include <vector>

#include "buffer.h"
#include "ring.h"
#include "test_support.h"

namespace quarry_test {

// Everything built here lives until the process ends, like the library's own records; the
// list (never destroyed, so it outlives the exit-time leak check) keeps it reachable.
inline std::vector<void*>& kept_alive() {
  static auto* records = new std::vector<void*>();
  return *records;
}

// A complete, unlinked buffer whose trace files go to `dir` (ending in '/').
inline circular_buffer* make_buffer(const std::string& dir, uint32_t bytes = 4096) {
  circular_buffer* cb = new circular_buffer();
  kept_alive().push_back(cb);
  cb->output_file_name = strdup((dir + "quarry").c_str());
  cb->ctrl_file_name = strdup((dir + "quarry.ctrl").c_str());
  kept_alive().push_back(cb->output_file_name);  // tests may replace the names
  kept_alive().push_back(cb->ctrl_file_name);
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
  pthread_mutex_init(&cb->mutex, &attr);
  pthread_mutexattr_destroy(&attr);
  cb->ctrl_inotify_fd = cb->ctrl_watch = cb->pipe_inotify_fd = cb->pipe_watch = -1;
  cb->pipe_fd = -1;
  cb->dump_on_exit = 1;
  cb->file_loop_count = 2;
  cb->min_wraparound_time = ~0ull;
  EXPECT_EQ(0, set_circular_buffer_size(cb, bytes));
  return cb;
}

// Appends a handle with the given decode reference line, as the open does: node complete,
// then linked, then counted.
inline quarry_handle* add_handle(circular_buffer* cb, const char* name, const char* decode_ref) {
  auto* h = static_cast<quarry_handle*>(calloc(1, sizeof(quarry_handle) + 1));
  kept_alive().push_back(h);
  h->cb = cb;
  h->name = strdup(name);
  h->decode_ref = strdup(decode_ref);
  h->enabled = 1;
  auto* node = new handle_node{h, {nullptr}};
  kept_alive().push_back(node);
  std::atomic<handle_node*>* link = &cb->handle_list;
  while (link->load() != nullptr) link = &link->load()->next;
  link->store(node, std::memory_order_release);
  cb->handle_count.fetch_add(1, std::memory_order_release);
  return h;
}

// Appends a thread line (cut to 63 characters like the library's own entries).
inline void add_thread_line(const char* text) {
  auto* entry = new thread_name_entry();
  kept_alive().push_back(entry);
  strncpy(entry->text, text, sizeof entry->text - 1);
  std::atomic<thread_name_entry*>* link = &thread_name_list;
  while (link->load() != nullptr) link = &link->load()->next;
  link->store(entry, std::memory_order_release);
}

// Links a buffer at the head of the registry without installing any signal handler.
inline void publish(circular_buffer* cb) {
  cb->next.store(circular_buffer_list.load());
  circular_buffer_list.store(cb, std::memory_order_release);
}

inline void set_words(circular_buffer* cb, uint32_t from, const std::vector<uint32_t>& words) {
  ring_view ring = load_ring(cb);
  for (size_t i = 0; i < words.size(); ++i) {
    ring.buffer[(from + i) & (ring.size_words - 1)].store(words[i]);
  }
}

inline std::vector<uint32_t> ring_contents(circular_buffer* cb, uint32_t count) {
  ring_view ring = load_ring(cb);
  std::vector<uint32_t> out;
  for (uint32_t i = 0; i < count; ++i) out.push_back(ring.buffer[i].load());
  return out;
}

// Saves the process-wide state that these tests change and restores it afterwards, so that
// cases stay independent when the whole binary runs in one process.
class LibraryStateTest : public ::testing::Test {
 protected:
  void SetUp() override {
    saved_list_ = circular_buffer_list.load();
    saved_threads_ = thread_name_list.load();
    memcpy(saved_name_, process_name, sizeof saved_name_);
    memcpy(saved_argv0_, argv0, sizeof saved_argv0_);
    saved_alpha_ = time_alpha;
    saved_omega_ = time_omega;
    saved_node_ = node_id;
    saved_pid_ = process_id;
    saved_mask_ = ts_idx_mask;
    saved_res_ = ts_res;
    circular_buffer_list.store(nullptr);
    thread_name_list.store(nullptr);
    process_name[0] = '\0';
  }
  void TearDown() override {
    circular_buffer_list.store(saved_list_);
    thread_name_list.store(saved_threads_);
    memcpy(process_name, saved_name_, sizeof saved_name_);
    memcpy(argv0, saved_argv0_, sizeof saved_argv0_);
    time_alpha = saved_alpha_;
    time_omega = saved_omega_;
    node_id = saved_node_;
    process_id = saved_pid_;
    ts_idx_mask = saved_mask_;
    ts_res = saved_res_;
    crash_handled = 0;
    crash_signal = 0;
    crash_sender_pid = 0;
  }

 private:
  circular_buffer* saved_list_ = nullptr;
  thread_name_entry* saved_threads_ = nullptr;
  char saved_name_[256];
  char saved_argv0_[256];
  time_sample saved_alpha_{}, saved_omega_{};
  uint32_t saved_node_ = 0;
  int32_t saved_pid_ = 0;
  uint64_t saved_mask_ = 0, saved_res_ = 0;
};

// A trace file as a decoder reads it: key/value lines up to the first empty line, the fill
// up to the next multiple of 4, then words.
struct trace_file {
  std::string header;  // up to and including the empty line
  std::string fill;
  std::string data_bytes;
  std::vector<std::pair<std::string, std::string>> items;
  bool complete = false;  // an empty line was found

  std::vector<uint32_t> data() const {
    if (data_bytes.size() < 4) return {};
    return words_of(data_bytes.substr(0, data_bytes.size() & ~size_t{3}));
  }
  std::string value(const std::string& key) const {
    for (const auto& item : items) {
      if (item.first == key) return item.second;
    }
    return "<missing " + key + ">";
  }
  bool has(const std::string& key) const {
    for (const auto& item : items) {
      if (item.first == key) return true;
    }
    return false;
  }
  uint64_t hex(const std::string& key) const { return strtoull(value(key).c_str(), nullptr, 16); }
};

inline trace_file parse_trace(const std::string& bytes) {
  trace_file file;
  size_t end = bytes.find("\n\n");
  if (end == std::string::npos) {
    file.header = bytes;
    return file;
  }
  file.complete = true;
  file.header = bytes.substr(0, end + 2);
  size_t data_start = (end + 2 + 3) & ~size_t{3};
  if (data_start > bytes.size()) data_start = bytes.size();
  file.fill = bytes.substr(end + 2, data_start - (end + 2));
  file.data_bytes = bytes.substr(data_start);
  size_t start = 0;
  while (start <= end) {
    size_t line_end = bytes.find('\n', start);
    std::string line = bytes.substr(start, line_end - start);
    size_t space = line.find(' ');
    file.items.emplace_back(line.substr(0, space),
                            space == std::string::npos ? "" : line.substr(space + 1));
    start = line_end + 1;
  }
  return file;
}

inline trace_file read_trace(const std::string& path) {
  return parse_trace(read_file(path));
}

}  // namespace quarry_test

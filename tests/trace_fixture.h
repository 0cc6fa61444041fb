// Buffers built by hand the way the open builds them, isolation for tests that change the
// library's globals, and a reader that splits a trace file as a decoder does.
#pragma once

#include <gtest/gtest.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "buffer.h"
#include "ring.h"
#include "test_support.h"

namespace quarry_test {

// Keeps `p` reachable until the process ends, like the library's own records.
inline void* kept(void* p) {
  static auto* records = new std::vector<void*>();
  records->push_back(p);
  return p;
}
inline char* kept_string(const std::string& s) {
  return static_cast<char*>(kept(strdup(s.c_str())));
}

// An unlinked buffer writing to `dir` (ending in '/') with the open's settings.
inline circular_buffer* make_buffer(const std::string& dir) {
  auto* cb = static_cast<circular_buffer*>(kept(new circular_buffer()));
  cb->output_file_name = kept_string(dir + "quarry");
  cb->ctrl_inotify_fd = cb->ctrl_watch = cb->pipe_inotify_fd = cb->pipe_watch = cb->pipe_fd = -1;
  cb->dump_on_exit = 1;
  cb->file_loop_count = 2;
  cb->min_wraparound_time = ~0ull;
  EXPECT_EQ(0, set_circular_buffer_size(cb, 4096));
  return cb;
}

// Appends a handle as the open does: node complete, then linked, then counted.
inline quarry_handle* add_handle(circular_buffer* cb, const char* name, const char* decode_ref) {
  auto* h = static_cast<quarry_handle*>(kept(calloc(1, sizeof(quarry_handle) + 1)));
  h->cb = cb;
  h->name = kept_string(name);
  h->decode_ref = kept_string(decode_ref);
  h->enabled = 1;
  auto* node = static_cast<handle_node*>(kept(new handle_node{h, {nullptr}}));
  std::atomic<handle_node*>* link = &cb->handle_list;
  while (link->load() != nullptr) link = &link->load()->next;
  link->store(node, std::memory_order_release);
  cb->handle_count.fetch_add(1, std::memory_order_release);
  return h;
}

// Appends a thread line (cut to 63 characters like the library's own entries).
inline void add_thread_line(const char* text) {
  auto* entry = static_cast<thread_name_entry*>(kept(new thread_name_entry()));
  strncpy(entry->text, text, sizeof entry->text - 1);
  std::atomic<thread_name_entry*>* link = &thread_name_list;
  while (link->load() != nullptr) link = &link->load()->next;
  link->store(entry, std::memory_order_release);
}

inline void set_words(circular_buffer* cb, const std::vector<uint32_t>& words) {
  ring_view ring = load_ring(cb);
  for (size_t i = 0; i < words.size(); ++i) ring.buffer[i & (ring.size_words - 1)].store(words[i]);
}

// Replaces the buffer's directory by a regular file (opening a trace file fails); false if not.
inline bool make_unwritable(const circular_buffer* cb) {
  std::string dir = cb->output_file_name;
  dir.resize(dir.rfind('/'));
  if (system(("rm -rf '" + dir + "'").c_str()) != 0) return false;
  write_file(dir, "");
  return true;
}

// Saves the process-wide state these tests change and restores it byte for byte afterwards.
class LibraryStateTest : public ::testing::Test {
 protected:
  void SetUp() override {
    keep(circular_buffer_list, thread_name_list, process_name, argv0, time_alpha, time_omega,
         node_id, process_id, ts_idx_mask, ts_res, crash_handled, crash_signal, crash_sender_pid);
    circular_buffer_list.store(nullptr);
    thread_name_list.store(nullptr);
    process_name[0] = '\0';
  }
  void TearDown() override {
    for (const auto& s : saved_) memcpy(s.first, s.second.data(), s.second.size());
  }

 private:
  template <typename... T>
  void keep(T&... vars) {
    (saved_.emplace_back((void*)&vars, std::string((const char*)&vars, sizeof vars)), ...);
  }
  std::vector<std::pair<void*, std::string>> saved_;
};

// A trace file: key/value lines up to the first empty line, fill to a multiple of 4, words.
struct trace_file {
  std::string header;  // up to and including the empty line
  std::string fill;
  std::string data_bytes;
  std::multimap<std::string, std::string> items;
  bool complete = false;  // an empty line was found

  std::vector<uint32_t> data() const {
    return words_of(data_bytes.substr(0, data_bytes.size() & ~size_t{3}));
  }
  std::string value(const std::string& key) const {
    auto item = items.find(key);
    return item != items.end() ? item->second : "<missing " + key + ">";
  }
  uint64_t hex(const std::string& key) const { return strtoull(value(key).c_str(), nullptr, 16); }
};

inline trace_file read_trace(const std::string& path) {
  const std::string bytes = read_file(path);
  trace_file file;
  const size_t end = bytes.find("\n\n");
  file.complete = end != std::string::npos;
  file.header = bytes.substr(0, file.complete ? end + 2 : end);
  if (!file.complete) return file;
  const size_t data_start = std::min(bytes.size(), (end + 2 + 3) & ~size_t{3});
  file.fill = bytes.substr(end + 2, data_start - (end + 2));
  file.data_bytes = bytes.substr(data_start);
  std::istringstream lines(bytes.substr(0, end + 1));
  for (std::string line; std::getline(lines, line);) {
    const size_t space = line.find(' ');
    file.items.emplace(line.substr(0, space),
                       space == std::string::npos ? "" : line.substr(space + 1));
  }
  return file;
}

}  // namespace quarry_test

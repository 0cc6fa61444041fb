// Helpers for the control-file, live-configuration and pipe tests: opening handles, the
// buffer's directory and size, counting dumps, bounded waiting.
#pragma once

#include <string.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <functional>
#include <string>

#include "gtest/gtest.h"
#include "ring.h"
#include "test_support.h"

namespace quarry_test {

inline quarry_handle* open_handle(const char* name, unsigned size = 4096,
                                  quarry_handle* parent = nullptr) {
  quarry_handle* handle = nullptr;
  EXPECT_EQ(0, quarry_open_internal(&handle, name, size, 4, "test.dec", "1", parent)) << name;
  return handle;
}

// The buffer's directory, with its trailing '/'.
inline std::string buffer_dir(const quarry_handle* handle) {
  std::string ctrl = handle->cb->ctrl_file_name;
  return ctrl.substr(0, ctrl.size() - strlen("quarry.ctrl"));
}

inline uint32_t size_bytes(const quarry_handle* handle) {
  return load_ring(handle->cb).size_words * 4;
}

// Counts the dumps of a buffer, as closes of its trace files (opens keep inotify from merging).
class dump_counter {
 public:
  explicit dump_counter(const std::string& dir) : fd_(inotify_init1(IN_NONBLOCK)) {
    EXPECT_GE(inotify_add_watch(fd_, dir.c_str(), IN_OPEN | IN_CLOSE_WRITE), 0);
  }
  ~dump_counter() { close(fd_); }
  dump_counter(const dump_counter&) = delete;
  int count() {
    alignas(struct inotify_event) char events[4096];
    for (ssize_t length; (length = read(fd_, events, sizeof events)) > 0;) {
      for (ssize_t at = 0; at < length;) {
        auto* event = reinterpret_cast<const struct inotify_event*>(events + at);
        if ((event->mask & IN_CLOSE_WRITE) && strstr(event->name, ".trc")) ++count_;
        at += static_cast<ssize_t>(sizeof *event + event->len);
      }
    }
    return count_;
  }

 private:
  int fd_;
  int count_ = 0;
};

// Polls until the condition holds; false after about ten seconds.
inline bool wait_until(const std::function<bool()>& condition) {
  for (int i = 0; i < 1000 && !condition(); ++i) usleep(10000);
  return condition();
}

}  // namespace quarry_test

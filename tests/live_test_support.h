// Helpers for the control-file, live-configuration and pipe tests: opening handles, the
// buffer's directory, counting dumps, capturing standard error, bounded waiting.
#pragma once

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "ring.h"
#include "test_support.h"

namespace quarry_test {

inline quarry_handle* open_handle(const char* name, unsigned size = 4096,
                                  quarry_handle* parent = nullptr) {
  quarry_handle* handle = nullptr;
  EXPECT_EQ(0, quarry_open_internal(&handle, name, size, 4, "test.dec", "1", parent));
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

// Counts the dumps of a buffer: each one closes a trace file of its directory after writing.
class dump_counter {
 public:
  explicit dump_counter(const std::string& dir) : fd_(inotify_init1(IN_NONBLOCK)) {
    // Opens are watched too, only so that the closes of successive dumps of the same file are
    // not merged into one event (inotify merges identical events at the tail of its queue).
    EXPECT_GE(inotify_add_watch(fd_, dir.c_str(), IN_OPEN | IN_CLOSE_WRITE), 0);
  }
  ~dump_counter() { close(fd_); }
  dump_counter(const dump_counter&) = delete;
  dump_counter& operator=(const dump_counter&) = delete;
  int count() {
    alignas(struct inotify_event) char events[4096];
    ssize_t length;
    while ((length = read(fd_, events, sizeof events)) > 0) {
      for (ssize_t offset = 0; offset < length;) {
        const struct inotify_event* event =
            reinterpret_cast<const struct inotify_event*>(events + offset);
        if ((event->mask & IN_CLOSE_WRITE) && event->len > 0 &&
            strstr(event->name, ".trc") != nullptr) {
          ++count_;
        }
        offset += static_cast<ssize_t>(sizeof *event + event->len);
      }
    }
    return count_;
  }

 private:
  int fd_;
  int count_ = 0;
};

// Standard error of the calls made between construction and text().
class stderr_capture {
 public:
  stderr_capture() {
    fflush(stderr);
    std::string pattern = base_dir() + "stderr_XXXXXX";
    path_.assign(pattern.begin(), pattern.end());
    path_.push_back('\0');
    int fd = mkstemp(path_.data());
    saved_ = dup(2);
    dup2(fd, 2);
    close(fd);
  }
  std::string text() {
    fflush(stderr);
    dup2(saved_, 2);
    close(saved_);
    return read_file(path_.data());
  }

 private:
  std::vector<char> path_;
  int saved_ = -1;
};

// Polls until the condition holds; false after about ten seconds.
inline bool wait_until(const std::function<bool()>& condition) {
  for (int i = 0; i < 1000; ++i) {
    if (condition()) return true;
    usleep(10000);
  }
  return condition();
}

}  // namespace quarry_test

// Live control and pipe streaming through a real event loop that runs on a thread of its own,
// as a daemon runs it: built once per loop (kelp, and each event-loop adapter that was built),
// QUARRY_TEST_LOOP_<NAME> says which.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "kelp/kelp.h"
#include "live_test_support.h"
#include "test_support.h"

#if defined(QUARRY_TEST_LOOP_UV)
#include "quarry/uv.h"
#elif defined(QUARRY_TEST_LOOP_EVENT)
#include "quarry/event.h"
#elif defined(QUARRY_TEST_LOOP_SDEVENT)
#include "quarry/sdevent.h"
#elif defined(QUARRY_TEST_LOOP_GLIB)
#include <glib-unix.h>

#include "quarry/glib.h"
#endif

#if defined(__SANITIZE_THREAD__) && defined(QUARRY_TSAN_SUPPRESSIONS)
// kelp's re-arm after a callback meets the library's closes (tests/tsan.supp says why).
extern "C" const char* __tsan_default_options() {
  return "suppressions=" QUARRY_TSAN_SUPPRESSIONS;
}
#endif

namespace {

using namespace quarry_test;

// The host's own descriptor, which it watches through its loop besides the library's.
std::atomic<int> host_fd{-1};
std::atomic<int> host_calls{0};
void host_ready() {
  uint64_t value;
  if (read(host_fd, &value, sizeof value) > 0) ++host_calls;
}

// The loop under test, made, turned and ended on the loop's thread: open gives the library's
// event_loop pointer, close says whether the loop let go of everything, watch and unwatch are
// the host's own use of the loop for host_fd. first_use makes what a loop library keeps for the
// whole process, before descriptors are counted.
struct test_loop {
#if defined(QUARRY_TEST_LOOP_UV)
  uv_loop_t loop;
  uv_async_t keep_alive;  // the adapter's handles are unreferenced; a host has handles of its own
  uv_poll_t host;
  static void first_use() {
    uv_loop_t first;
    uv_loop_init(&first);
    uv_loop_close(&first);
  }
  void* open() {
    uv_loop_init(&loop);
    uv_async_init(&loop, &keep_alive, nullptr);
    return quarry_uv_start(&loop);
  }
  void turn() {
    uv_run(&loop, UV_RUN_ONCE);
  }
  bool watch() {
    return uv_poll_init(&loop, &host, host_fd) == 0 &&
           uv_poll_start(&host, UV_READABLE, [](uv_poll_t*, int, int) { host_ready(); }) == 0;
  }
  void unwatch() {
    uv_close(reinterpret_cast<uv_handle_t*>(&host), nullptr);
  }
  bool close(void* adapter) {
    quarry_uv_stop(adapter);
    uv_close(reinterpret_cast<uv_handle_t*>(&keep_alive), nullptr);
    uv_run(&loop, UV_RUN_NOWAIT);
    return uv_loop_close(&loop) == 0;
  }
#elif defined(QUARRY_TEST_LOOP_EVENT)
  event_base* base = event_base_new();
  event* host = nullptr;
  static void first_use() {}
  void* open() {
    return quarry_event_start(base);
  }
  void turn() {
    event_base_loop(base, EVLOOP_ONCE);
  }
  bool watch() {
    auto ready = [](evutil_socket_t, short, void*) { host_ready(); };
    host = event_new(base, host_fd, EV_READ | EV_PERSIST, ready, nullptr);
    return event_add(host, nullptr) == 0;
  }
  void unwatch() {
    event_free(host);
  }
  bool close(void* adapter) {
    quarry_event_stop(adapter);
    bool empty = event_base_get_num_events(base, EVENT_BASE_COUNT_ADDED) == 0;
    event_base_free(base);
    return empty;
  }
#elif defined(QUARRY_TEST_LOOP_SDEVENT)
  sd_event* event = nullptr;
  sd_event_source* host = nullptr;
  static void first_use() {}
  void* open() {
    return sd_event_new(&event) < 0 ? nullptr : quarry_sdevent_start(event);
  }
  void turn() {
    sd_event_run(event, UINT64_MAX);
  }
  bool watch() {
    auto ready = [](sd_event_source*, int, uint32_t, void*) { return host_ready(), 0; };
    return sd_event_add_io(event, &host, host_fd, EPOLLIN, ready, nullptr) >= 0;
  }
  void unwatch() {
    sd_event_source_disable_unref(host);
  }
  bool close(void* adapter) {
    quarry_sdevent_stop(adapter);
    sd_event_unref(event);  // the final count sees whether the adapter gave its reference back
    return true;
  }
#elif defined(QUARRY_TEST_LOOP_GLIB)
  guint host = 0;
  // The default context (a null one given to the adapter) lives as long as the process.
  static void first_use() {
    g_main_context_default();
  }
  void* open() {
    return quarry_glib_start(nullptr);
  }
  void turn() {
    g_main_context_iteration(nullptr, TRUE);
  }
  bool watch() {
    auto ready = [](int, GIOCondition, void*) { return host_ready(), gboolean{G_SOURCE_CONTINUE}; };
    return (host = g_unix_fd_add(host_fd, G_IO_IN, ready, nullptr)) != 0;
  }
  void unwatch() {
    g_source_remove(host);
  }
  bool close(void* adapter) {
    quarry_glib_stop(adapter);
    return true;
  }
#else
  kelp_loop* loop = kelp_create();
  static void first_use() {}
  void* open() {
    return loop;
  }
  void turn() {
    kelp_run_once(loop, -1);
  }
  bool watch() {
    auto ready = [](int, uint16_t, void*) { host_ready(); };
    return kelp_attach_fd(loop, host_fd, 0, ready, KELP_EVENT_READ, 0, nullptr, 0) == 0;
  }
  void unwatch() {
    kelp_forget_fd(loop, host_fd);
  }
  bool close(void*) {
    kelp_destroy(loop);
    return true;
  }
#endif
};

size_t open_descriptors() {
  size_t count = 0;
  DIR* dir = opendir("/proc/self/fd");
  while (dir != nullptr && readdir(dir) != nullptr) ++count;
  if (dir != nullptr) closedir(dir);
  return count;
}

// Runs the loop on a thread of its own. call runs a function there and waits for it; it reaches
// the loop through the loop's kelp_attach_fd from this thread, as the library's attachments do.
class loop_thread {
 public:
  loop_thread() {
    std::promise<void*> started;
    thread_ = std::thread([this, &started] {
      test_loop loop;
      loop_ = &loop;
      void* adapter = loop.open();
      started.set_value(adapter);
      while (adapter != nullptr && !stopping_) loop.turn();
      if (adapter != nullptr) closed_cleanly_ = loop.close(adapter);
    });
    adapter_ = started.get_future().get();
    if (adapter_ != nullptr) {
      EXPECT_EQ(0, kelp_attach_fd(adapter_, call_fd_, 0, on_call, KELP_EVENT_READ, 0, this, 0));
    }
  }
  ~loop_thread() { close(call_fd_); }
  void* adapter() const { return adapter_; }
  void call(const std::function<void(test_loop&)>& function) {
    std::promise<void> done;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      function_ = [&] {
        function(*loop_);
        done.set_value();
      };
    }
    uint64_t one = 1;
    EXPECT_EQ(8, write(call_fd_, &one, sizeof one));
    done.get_future().get();
  }
  bool stop() {
    call([this](test_loop&) { stopping_ = true; });
    thread_.join();
    return closed_cleanly_;
  }

 private:
  static void on_call(int fd, uint16_t, void* arg) {
    uint64_t count;
    auto* self = static_cast<loop_thread*>(arg);
    std::lock_guard<std::mutex> lock(self->mutex_);
    if (read(fd, &count, sizeof count) > 0) self->function_();
  }
  int call_fd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  std::mutex mutex_;
  std::function<void()> function_;
  test_loop* loop_ = nullptr;
  bool stopping_ = false;  // the loop's thread only
  bool closed_cleanly_ = false;
  void* adapter_ = nullptr;
  std::thread thread_;
};

// The library closes descriptors it attached without a word, and their numbers come back at
// once; here as one of the host's own, which the host watches through its loop as usual. The
// host must get its events, and the library's callback none of them.
TEST(EventLoop, ANumberTheLibraryClosedServesTheHostOnceReused) {
  loop_thread loop;
  ASSERT_NE(nullptr, loop.adapter());
  std::string file = make_dir("reused") + "watched";
  write_file(file, "");
  int library_fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  ASSERT_GE(inotify_add_watch(library_fd, file.c_str(), IN_CLOSE_WRITE), 0);
  static std::atomic<int> library_calls{0};
  auto drain = [](int fd, uint16_t, void*) {
    char events[4096];
    int reads = 0;
    while (read(fd, events, sizeof events) > 0) ++reads;
    library_calls += reads;  // after the last read: the test closes fd once it sees the count
  };
  ASSERT_EQ(0, kelp_attach_fd(loop.adapter(), library_fd, 0, drain, 2, 0, nullptr, 0));
  write_file(file, "x");
  ASSERT_TRUE(wait_until([] { return library_calls.load() == 1; }));
  close(library_fd);

  bool watching = false;
  loop.call([&](test_loop& host) {
    host_fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    watching = host.watch();
  });
  ASSERT_EQ(library_fd, host_fd.load());  // the number came back
  EXPECT_TRUE(watching);
  uint64_t one = 1;
  // Twice, with another attachment in between: dropping what was attached under the number
  // must not drop the host's watch of it.
  for (int round = 1; round <= 2; ++round) {
    EXPECT_EQ(8, write(host_fd, &one, sizeof one));
    EXPECT_TRUE(wait_until([&] { return host_calls.load() == round; })) << round;
    int other = eventfd(1, EFD_NONBLOCK | EFD_CLOEXEC);  // readable: one call shows it attached
    EXPECT_EQ(0, kelp_attach_fd(loop.adapter(), other, 0, drain, 2, 0, nullptr, 0));
    EXPECT_TRUE(wait_until([&] { return library_calls.load() == 1 + round; })) << round;
    close(other);
  }
  EXPECT_EQ(3, library_calls.load());
  loop.call([](test_loop& host) { host.unwatch(); });
  close(host_fd);
  EXPECT_TRUE(loop.stop());
}

TEST(EventLoop, ControlFileAndPipeChurnOnTheLoopThread) {
  quarry_handle* handle = open_handle("looped");
  quarry_handle* aux = open_handle("aux", 4096, handle);
  const std::string ctrl = handle->cb->ctrl_file_name;
  const std::string fifo = buffer_dir(handle) + "quarry.pipe";
  test_loop::first_use();
  const size_t fds_at_start = open_descriptors();
  {
    loop_thread loop;
    ASSERT_NE(nullptr, loop.adapter());
    ASSERT_EQ(0, quarry_enable_configuration(handle, loop.adapter()));
    write_file(ctrl, "NOTRACE looped\n");
    ASSERT_TRUE(wait_until([&] { return !quarry_is_enabled(handle); }));
    write_file(ctrl, "TRACE looped\nPIPE looped\n");
    ASSERT_TRUE(wait_until([&] { return quarry_is_enabled(handle) && handle->pipe.load(); }));
    const size_t fds_idle = open_descriptors();

    std::atomic<bool> done{false};
    std::vector<std::thread> writers;
    for (int i = 0; i < 2; ++i) {
      writers.emplace_back([&] {
        for (uint32_t n = 0; !done.load(); ++n) {
          QUARRY_TRACE(handle, 0, "ds", n, "a record that readers cut short");
          usleep(100);
        }
      });
    }
    // Each session: a reader opens the pipe, takes a few bytes (not a whole record) and leaves,
    // so a writer's next record meets EPIPE; every third one also deletes the pipe file, which
    // the loop's pipe watch answers. Control changes keep arriving meanwhile; each must apply.
    for (int session = 0; session < 120; ++session) {
      ASSERT_TRUE(mkfifo(fifo.c_str(), 0600) == 0 || errno == EEXIST);
      int fd = open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
      ASSERT_GE(fd, 0);
      char bytes[37];
      EXPECT_TRUE(wait_until([&] { return read(fd, bytes, sizeof bytes) > 0; })) << session;
      close(fd);
      if (session % 3 == 0) unlink(fifo.c_str());
      if (session % 10 == 0) {
        bool on = session % 20 != 0;
        write_file(ctrl, std::string("TRACE looped\nPIPE looped\n") + (on ? "" : "NO") +
                             "TRACE looped/aux\n");
        ASSERT_TRUE(wait_until([&] { return quarry_is_enabled(aux) == on; })) << session;
      }
    }
    done = true;
    for (std::thread& writer : writers) writer.join();
    // The last reader's end goes through the pipe watch; then every descriptor of the churn,
    // the library's and the loop's, is gone.
    unlink(fifo.c_str());
    EXPECT_TRUE(wait_until([&] { return open_descriptors() == fds_idle; }))
        << open_descriptors() << " open, " << fds_idle << " before the churn";
    write_file(ctrl, "NOTRACE looped\n");
    EXPECT_TRUE(wait_until([&] { return !quarry_is_enabled(handle); }));
    EXPECT_TRUE(loop.stop());
  }
  // The loop and the adapter let go of all their descriptors; the control file's watch stays.
  EXPECT_EQ(fds_at_start + 1, open_descriptors());
}

}  // namespace

// Live control and pipe streaming through a real event loop that runs on a thread of its own,
// as a daemon runs it: built once per loop (kelp, and each event-loop adapter that was built),
// QUARRY_TEST_LOOP_<NAME> says which.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <future>
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
#include "quarry/glib.h"
#endif

namespace {

using namespace quarry_test;

// The loop under test, made, turned and ended on the loop's thread. open gives the event_loop
// pointer for the library; close reports whether the loop let go of everything.
struct test_loop {
#if defined(QUARRY_TEST_LOOP_UV)
  uv_loop_t loop;
  uv_async_t keep_alive;  // the adapter's handles are unreferenced; a host has handles of its own
  void* open() {
    uv_loop_init(&loop);
    uv_async_init(&loop, &keep_alive, nullptr);
    return quarry_uv_start(&loop);
  }
  void turn() {
    uv_run(&loop, UV_RUN_ONCE);
  }
  // libuv keeps a pipe for the whole process from its first loop on.
  static void first_use() {
    uv_loop_t first;
    uv_loop_init(&first);
    uv_loop_close(&first);
  }
  bool close(void* adapter) {
    quarry_uv_stop(adapter);
    uv_close(reinterpret_cast<uv_handle_t*>(&keep_alive), nullptr);
    uv_run(&loop, UV_RUN_NOWAIT);
    return uv_loop_close(&loop) == 0;
  }
#elif defined(QUARRY_TEST_LOOP_EVENT)
  event_base* base = event_base_new();
  void* open() {
    return quarry_event_start(base);
  }
  void turn() {
    event_base_loop(base, EVLOOP_ONCE);
  }
  bool close(void* adapter) {
    quarry_event_stop(adapter);
    bool empty = event_base_get_num_events(base, EVENT_BASE_COUNT_ADDED) == 0;
    event_base_free(base);
    return empty;
  }
#elif defined(QUARRY_TEST_LOOP_SDEVENT)
  sd_event* event = nullptr;
  void* open() {
    return sd_event_new(&event) < 0 ? nullptr : quarry_sdevent_start(event);
  }
  void turn() {
    sd_event_run(event, UINT64_MAX);
  }
  bool close(void* adapter) {
    quarry_sdevent_stop(adapter);
    sd_event_unref(event);  // its descriptors are gone only if the adapter gave its reference back
    return true;
  }
#elif defined(QUARRY_TEST_LOOP_GLIB)
  GMainContext* context = g_main_context_new();
  void* open() {
    return quarry_glib_start(context);
  }
  void turn() {
    g_main_context_iteration(context, TRUE);
  }
  bool close(void* adapter) {
    quarry_glib_stop(adapter);
    g_main_context_unref(context);  // likewise
    return true;
  }
#else
  kelp_loop* loop = kelp_create();
  void* open() {
    return loop;
  }
  void turn() {
    kelp_run_once(loop, -1);
  }
  bool close(void*) {
    kelp_destroy(loop);
    return true;
  }
#endif
#if !defined(QUARRY_TEST_LOOP_UV)
  static void first_use() {}
#endif
};

size_t open_descriptors() {
  size_t count = 0;
  DIR* dir = opendir("/proc/self/fd");
  while (dir != nullptr && readdir(dir) != nullptr) ++count;
  if (dir != nullptr) closedir(dir);
  return count;
}

// Runs the loop on its own thread until stop, which reaches it through the loop's own
// kelp_attach_fd from this thread, as the library's attachments do.
class loop_thread {
 public:
  loop_thread() {
    std::promise<void*> started;
    thread_ = std::thread([this, &started] {
      test_loop loop;
      void* adapter = loop.open();
      started.set_value(adapter);
      if (adapter == nullptr) return;
      while (!stopping_.load()) loop.turn();
      closed_cleanly_ = loop.close(adapter);
    });
    adapter_ = started.get_future().get();
    if (adapter_ == nullptr) return;
    EXPECT_EQ(0, kelp_attach_fd(adapter_, stop_fd_, 0, on_stop, KELP_EVENT_READ, 0, this, 0));
  }
  ~loop_thread() { close(stop_fd_); }
  void* adapter() const { return adapter_; }
  bool stop() {
    uint64_t one = 1;
    EXPECT_EQ(8, write(stop_fd_, &one, sizeof one));
    thread_.join();
    return closed_cleanly_;
  }

 private:
  static void on_stop(int, uint16_t, void* arg) {
    static_cast<loop_thread*>(arg)->stopping_ = true;
  }
  int stop_fd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  std::atomic<bool> stopping_{false};
  bool closed_cleanly_ = false;
  void* adapter_ = nullptr;
  std::thread thread_;
};

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

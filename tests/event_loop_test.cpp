// Live control and pipe streaming through a real event loop on a thread of its own, as a daemon
// runs it: built once per loop (kelp and each adapter), QUARRY_TEST_LOOP_<NAME> says which.
#include <errno.h>
#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <thread>

#include "gtest/gtest.h"
#include "kelp/kelp.h"
#include "live_test_support.h"

#if defined(__SANITIZE_THREAD__) && defined(QUARRY_TSAN_SUPPRESSIONS)
// kelp's re-arm after a callback meets the library's closes (tests/tsan.supp says why).
extern "C" const char* __tsan_default_options() {
  return "suppressions=" QUARRY_TSAN_SUPPRESSIONS;
}
#endif

// The host's own descriptor, which it watches through its loop besides the library's.
static std::atomic<int> host_fd{-1};
static std::atomic<int> host_calls{0};
static void host_ready() {
  eventfd_t value;
  if (eventfd_read(host_fd, &value) == 0) ++host_calls;
}

// The loop under test: open gives the library's event_loop, close says whether the loop let go
// of everything, watch and unwatch are the host's own use of the loop for host_fd.
#if defined(QUARRY_TEST_LOOP_UV)
#include "quarry/uv.h"
struct test_loop {
  uv_loop_t loop;
  uv_async_t keep_alive;  // the adapter's handles are unreferenced; a host has handles of its own
  uv_poll_t host;
  void* open() {
    uv_loop_init(&loop);
    uv_async_init(&loop, &keep_alive, nullptr);
    return quarry_uv_start(&loop);
  }
  void turn() { uv_run(&loop, UV_RUN_ONCE); }
  bool watch() {
    return uv_poll_init(&loop, &host, host_fd) == 0 &&
           uv_poll_start(&host, UV_READABLE, [](uv_poll_t*, int, int) { host_ready(); }) == 0;
  }
  void unwatch() { uv_close(reinterpret_cast<uv_handle_t*>(&host), nullptr); }
  bool close(void* adapter) {
    quarry_uv_stop(adapter);
    uv_close(reinterpret_cast<uv_handle_t*>(&keep_alive), nullptr);
    uv_run(&loop, UV_RUN_NOWAIT);
    return uv_loop_close(&loop) == 0;
  }
};
#elif defined(QUARRY_TEST_LOOP_EVENT)
#include "quarry/event.h"
struct test_loop {
  event_base* base = event_base_new();
  event* host = nullptr;
  void* open() { return quarry_event_start(base); }
  void turn() { event_base_loop(base, EVLOOP_ONCE); }
  bool watch() {
    auto ready = [](evutil_socket_t, short, void*) { host_ready(); };
    host = event_new(base, host_fd, EV_READ | EV_PERSIST, ready, nullptr);
    return event_add(host, nullptr) == 0;
  }
  void unwatch() { event_free(host); }
  bool close(void* adapter) {
    quarry_event_stop(adapter);
    bool empty = event_base_get_num_events(base, EVENT_BASE_COUNT_ADDED) == 0;
    event_base_free(base);
    return empty;
  }
};
#elif defined(QUARRY_TEST_LOOP_SDEVENT)
#include <sys/epoll.h>

#include "quarry/sdevent.h"
struct test_loop {
  sd_event* event = nullptr;
  sd_event_source* host = nullptr;
  void* open() { return sd_event_new(&event) < 0 ? nullptr : quarry_sdevent_start(event); }
  void turn() { sd_event_run(event, UINT64_MAX); }
  bool watch() {
    auto ready = [](sd_event_source*, int, uint32_t, void*) { return host_ready(), 0; };
    return sd_event_add_io(event, &host, host_fd, EPOLLIN, ready, nullptr) >= 0;
  }
  void unwatch() { sd_event_source_disable_unref(host); }
  bool close(void* adapter) {
    quarry_sdevent_stop(adapter);
    sd_event_unref(event);  // the final count sees whether the adapter gave its reference back
    return true;
  }
};
#elif defined(QUARRY_TEST_LOOP_GLIB)
#include <glib-unix.h>

#include "quarry/glib.h"
struct test_loop {
  guint host = 0;
  void* open() { return quarry_glib_start(nullptr); }
  void turn() { g_main_context_iteration(nullptr, TRUE); }
  bool watch() {
    auto ready = [](int, GIOCondition, void*) { return host_ready(), gboolean{G_SOURCE_CONTINUE}; };
    return (host = g_unix_fd_add(host_fd, G_IO_IN, ready, nullptr)) != 0;
  }
  void unwatch() { g_source_remove(host); }
  bool close(void* adapter) {
    quarry_glib_stop(adapter);
    return true;
  }
};
#else
struct test_loop {
  kelp_loop* loop = kelp_create();
  void* open() { return loop; }
  void turn() { kelp_run_once(loop, -1); }
  bool watch() {
    auto ready = [](int, uint16_t, void*) { host_ready(); };
    return kelp_attach_fd(loop, host_fd, 0, ready, KELP_EVENT_READ, 0, nullptr, 0) == 0;
  }
  void unwatch() { kelp_forget_fd(loop, host_fd); }
  bool close(void*) {
    kelp_destroy(loop);
    return true;
  }
};
#endif

namespace {

using namespace quarry_test;

// Open descriptors but for those of `except`, a file the loop thread may be reading at any moment.
size_t open_descriptors(const std::filesystem::path& except = {}) {
  size_t open = 0;
  for (const auto& fd : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code closed;
    open += std::filesystem::read_symlink(fd.path(), closed) != except && !closed;
  }
  return open;
}

std::atomic<int> library_calls{0};
void library_ready(int fd, uint16_t, void*) {
  eventfd_t value;
  EXPECT_EQ(0, eventfd_read(fd, &value));
  ++library_calls;
}

int attach(void* adapter, int fd) {
  return kelp_attach_fd(adapter, fd, 0, library_ready, KELP_EVENT_READ, 0, nullptr, 0);
}

// A number the library closed without a word comes back as the host's own, watched through the
// host's loop: the host gets its events, the library's callback none, also after other attaches.
TEST(EventLoop, ANumberTheLibraryClosedServesTheHostOnceReused) {
  test_loop loop;
  void* adapter = loop.open();
  ASSERT_NE(nullptr, adapter);
  auto attach_readable = [&](int fd) {  // one call of library_ready shows it attached
    const int calls = library_calls + 1;
    EXPECT_EQ(0, attach(adapter, fd));
    while (library_calls < calls) loop.turn();
    return fd;
  };
  int library_fd = eventfd(1, EFD_NONBLOCK | EFD_CLOEXEC);
  ASSERT_EQ(0, attach(adapter, library_fd));  // replaced by the next attachment
  attach_readable(library_fd);
  const size_t fds_attached = open_descriptors();
  close(library_fd);
  host_fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  ASSERT_EQ(library_fd, host_fd.load());  // the number came back
  ASSERT_TRUE(loop.watch());
  for (int round = 1; round <= 2; ++round) {
    EXPECT_EQ(0, eventfd_write(host_fd, 1));
    while (host_calls < round) loop.turn();
    int other = attach_readable(eventfd(1, EFD_NONBLOCK | EFD_CLOEXEC));
    // Attaching let go of what was attached under closed descriptors; the host's is new.
    EXPECT_EQ(fds_attached + 1, open_descriptors()) << round;
    close(other);
  }
  EXPECT_EQ(3, library_calls.load());
  loop.unwatch();
  close(host_fd);
  EXPECT_TRUE(loop.close(adapter));
}

TEST(EventLoop, ControlFileAndPipeChurnOnTheLoopThread) {
  quarry_handle* handle = open_handle("looped");
  quarry_handle* aux = open_handle("aux", 4096, handle);
  const std::string ctrl = handle->cb->ctrl_file_name;
  const std::string fifo = buffer_dir(handle) + "quarry.pipe";
  {  // a first loop makes what its library keeps for the whole process
    test_loop first;
    first.close(first.open());
  }
  const size_t fds_at_start = open_descriptors();
  test_loop loop;
  void* adapter = loop.open();
  ASSERT_NE(nullptr, adapter);
  std::atomic<bool> stopping{false};
  std::thread runner([&] {
    while (!stopping) loop.turn();
  });
  ASSERT_EQ(0, quarry_enable_configuration(handle, adapter));
  write_file(ctrl, "TRACE looped\nPIPE looped\n");
  ASSERT_TRUE(wait_until([&] { return handle->pipe.load(); }));
  const std::filesystem::path ctrl_path = std::filesystem::canonical(ctrl);
  const size_t fds_idle = open_descriptors(ctrl_path);
  std::atomic<bool> done{false};
  auto write_records = [&] {
    for (uint32_t n = 0; !done; ++n) {
      QUARRY_TRACE(handle, 0, "ds", n, "a record that readers cut short");
      usleep(100);
    }
  };
  std::thread writers[] = {std::thread(write_records), std::thread(write_records)};
  // Each reader takes part of a record and leaves (the next write meets EPIPE); every third also
  // deletes the pipe, which the loop's pipe watch answers; each control change must apply.
  for (int session = 0; session < 120; ++session) {
    ASSERT_TRUE(mkfifo(fifo.c_str(), 0600) == 0 || errno == EEXIST);
    int fd = open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
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
  // Once the last pipe is gone, so is every descriptor of the churn, the library's and the loop's.
  unlink(fifo.c_str());
  EXPECT_TRUE(wait_until([&] { return open_descriptors(ctrl_path) == fds_idle; }));
  stopping = true;
  int wake = eventfd(1, EFD_NONBLOCK | EFD_CLOEXEC);
  EXPECT_EQ(0, attach(adapter, wake));  // wakes the loop to stop it
  runner.join();
  close(wake);
  EXPECT_TRUE(loop.close(adapter));
  // The loop and the adapter let go of all their descriptors; the control file's watch stays.
  EXPECT_EQ(fds_at_start + 1, open_descriptors());
}

}  // namespace

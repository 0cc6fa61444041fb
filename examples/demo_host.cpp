// demo_host: a small host process that shows quarry's whole life through the typed front-end
// (quarry.hpp; its trace points are declared in demo_trace.h). It names itself and its threads,
// opens a buffer "net" with a child handle "net/io" and a second, small buffer "app" (which
// wraps), writes records and spans from several threads, dumps every buffer and says where the
// trace files are.
//
//   demo_host            trace, dump, exit (the exit handler dumps once more)
//   demo_host --live     also run kelp, our event loop, with live configuration enabled, and keep
//                        tracing until SIGINT/SIGTERM (the crash handler dumps, then the signal
//                        takes its usual course) or --seconds N have passed
#include <pthread.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "demo_trace.h"
#include "kelp/kelp.h"

static quarry_handle* net;
static quarry_handle* app;

static const char* const paths[] = {"/index.html", "/api/v1/items", "/health", "/static/app.js"};

static void trace_some(unsigned worker, unsigned round) {
  uint32_t id = worker * 100000 + round;
  net_trace::request(id, paths[round % 4]);
  {
    // handle_begin now, handle_end when the scope ends: the decoder shows the duration.
    auto span = net_trace::handle(id);
    io_trace::read(7 + worker, 512 + round % 1024);
    net_trace::reply(round % 7 == 0 ? 404 : 200, 5000000000ull + 1000ull * id);
    io_trace::write(7 + worker, 2048u);
  }
  app_trace::tick(round);
}

static void* worker_main(void* arg) {
  unsigned worker = static_cast<unsigned>(reinterpret_cast<uintptr_t>(arg));
  char name[32];
  snprintf(name, sizeof name, "worker-%u", worker);
  quarry_set_current_thread_name(name);
  for (unsigned round = 0; round < 200; ++round) trace_some(worker, round);
  return nullptr;
}

// Exits when a provider's handle could not be opened.
template <class P>
static quarry_handle* opened(const quarry::provider<P>& provider) {
  if (provider.result() != 0) {
    fprintf(stderr, "demo_host: opening %s failed with %d\n", P::handle_name, provider.result());
    exit(1);
  }
  return provider.handle();
}

static int run_live(unsigned seconds) {
  kelp_loop* loop = kelp_create();
  if (loop == nullptr) return 1;
  if (quarry_enable_configuration(net, loop) != 0 || quarry_enable_configuration(app, loop) != 0) {
    return 1;
  }
  const char* base = getenv("QUARRY_PATH");
  if (base == nullptr) base = "/dev/shm/quarry/";
  printf("\nLive configuration is on. From another shell, in %sdemo_host/net/:\n", base);
  printf("  echo \"NOTRACE net/io\" >> quarry.ctrl     # switch a handle off\n");
  printf("  echo \"MAX_SIZE 1048576\" >> quarry.ctrl   # grow the buffer\n");
  printf("  mkfifo quarry.pipe; echo \"PIPE net\" >> quarry.ctrl; quarry-decode quarry.pipe\n");
  printf("  kill -%d %d                          # dump every buffer now\n", SIGRTMAX - 2,
         static_cast<int>(getpid()));
  printf("Ctrl-C dumps every buffer and ends the process.\n");
  fflush(stdout);
  for (unsigned tick = 0; seconds == 0 || tick < seconds * 10; ++tick) {
    kelp_run_once(loop, 100);
    trace_some(9, tick);
    app_trace::state(tick % 50 == 0 ? "checkpoint" : "running");
  }
  return 0;
}

int main(int argc, char** argv) {
  int live = argc > 1 && strcmp(argv[1], "--live") == 0;
  unsigned seconds = 0;
  if (live && argc > 3 && strcmp(argv[2], "--seconds") == 0)
    seconds = static_cast<unsigned>(atoi(argv[3]));

  quarry_set_process_name("demo_host");
  quarry_set_current_thread_name("main");
  // Each provider opens its handle with the trace point count of its declaration.
  static quarry::provider<net_trace> net_provider(65536);
  net = opened(net_provider);
  static quarry::provider<io_trace> io_provider(0, net);
  quarry_handle* net_io = opened(io_provider);
  static quarry::provider<app_trace> app_provider(4096);
  app = opened(app_provider);

  app_trace::state("starting");
  pthread_t threads[3];
  for (unsigned i = 0; i < 3; ++i) {
    pthread_create(&threads[i], nullptr, worker_main, reinterpret_cast<void*>(uintptr_t{i}));
  }
  for (unsigned i = 0; i < 3; ++i) pthread_join(threads[i], nullptr);
  app_trace::state("workers done");

  const char* base = getenv("QUARRY_PATH");
  printf("process %d traced 3 workers through %s, %s and %s\n", quarry_get_process_id(),
         quarry_handle_get_name(net), quarry_handle_get_name(net_io), quarry_handle_get_name(app));
  printf("buffer directories: %sdemo_host/net/ and %sdemo_host/app/\n",
         base ? base : "/dev/shm/quarry/", base ? base : "/dev/shm/quarry/");
  printf("dump signal: see %sdemo_host/quarry.info\n", base ? base : "/dev/shm/quarry/");
  int rc = quarry_dump_all();
  printf("quarry_dump_all() = %d: trace files quarry_0.trc in each buffer directory\n", rc);
  fflush(stdout);

  if (live) return run_live(seconds);
  return rc == 0 ? 0 : 1;
}

/*
 * demo_host: a small host process that shows quarry's whole life through the public C ABI.
 * It names itself and its threads, opens a buffer "net" with a child handle "net/io" and a
 * second, small buffer "app" (which wraps), writes records from several threads, dumps every
 * buffer and says where the trace files are.
 *
 *   demo_host            trace, dump, exit (the exit handler dumps once more)
 *   demo_host --live     also run kelp, our event loop, with live configuration enabled, and keep
 *                        tracing until SIGINT/SIGTERM (the crash handler dumps, then the signal
 *                        takes its usual course) or --seconds N have passed
 */
#include <pthread.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "kelp/kelp.h"
#include "quarry/quarry.h"

static quarry_handle* net;
static quarry_handle* net_io;
static quarry_handle* app;

/* Trace point indexes per handle; examples/net.dec, io.dec and app.dec describe them. */
enum { NET_REQUEST = 0, NET_REPLY = 1 };
enum { IO_READ = 0, IO_WRITE = 1 };
enum { APP_TICK = 0, APP_STATE = 1 };

static const char* const paths[] = {"/index.html", "/api/v1/items", "/health", "/static/app.js"};

static void trace_some(unsigned worker, unsigned round) {
  unsigned id = worker * 100000 + round;
  QUARRY_TRACE(net, NET_REQUEST, "ds", id, paths[round % 4]);
  QUARRY_TRACE(net_io, IO_READ, "dd", 7 + worker, 512 + round % 1024);
  QUARRY_TRACE(net, NET_REPLY, "dD", round % 7 == 0 ? 404 : 200, 5000000000ull + 1000ull * id);
  QUARRY_TRACE(net_io, IO_WRITE, "dd", 7 + worker, 2048);
  QUARRY_TRACE(app, APP_TICK, "d", round);
}

static void* worker_main(void* arg) {
  unsigned worker = (unsigned)(uintptr_t)arg;
  char name[32];
  snprintf(name, sizeof name, "worker-%u", worker);
  quarry_set_current_thread_name(name);
  for (unsigned round = 0; round < 200; ++round) trace_some(worker, round);
  return NULL;
}

static quarry_handle* open_or_die(const char* name, unsigned size, unsigned count,
                                  const char* decode_file, quarry_handle* parent) {
  quarry_handle* h = NULL;
  int rc = quarry_open_internal(&h, name, size, count, decode_file, "1", parent);
  if (rc != 0) {
    fprintf(stderr, "demo_host: opening %s failed with %d\n", name, rc);
    exit(1);
  }
  return h;
}

static int run_live(unsigned seconds) {
  kelp_loop* loop = kelp_create();
  if (loop == NULL) return 1;
  if (quarry_enable_configuration(net, loop) != 0 || quarry_enable_configuration(app, loop) != 0) {
    return 1;
  }
  const char* base = getenv("QUARRY_PATH");
  if (base == NULL) base = "/dev/shm/quarry/";
  printf("\nLive configuration is on. From another shell, in %sdemo_host/net/:\n", base);
  printf("  echo \"NOTRACE net/io\" >> quarry.ctrl     # switch a handle off\n");
  printf("  echo \"MAX_SIZE 1048576\" >> quarry.ctrl   # grow the buffer\n");
  printf("  mkfifo quarry.pipe; echo \"PIPE net\" >> quarry.ctrl; quarry-decode quarry.pipe\n");
  printf("  kill -%d %d                          # dump every buffer now\n", SIGRTMAX - 2,
         (int)getpid());
  printf("Ctrl-C dumps every buffer and ends the process.\n");
  fflush(stdout);
  for (unsigned tick = 0; seconds == 0 || tick < seconds * 10; ++tick) {
    kelp_run_once(loop, 100);
    trace_some(9, tick);
    QUARRY_TRACE(app, APP_STATE, "s", tick % 50 == 0 ? "checkpoint" : "running");
  }
  return 0;
}

int main(int argc, char** argv) {
  int live = argc > 1 && strcmp(argv[1], "--live") == 0;
  unsigned seconds = 0;
  if (live && argc > 3 && strcmp(argv[2], "--seconds") == 0) seconds = (unsigned)atoi(argv[3]);

  quarry_set_process_name("demo_host");
  quarry_set_current_thread_name("main");
  net = open_or_die("net", 65536, 2, "net.dec", NULL);
  net_io = open_or_die("io", 0, 2, "io.dec", net);
  app = open_or_die("app", 4096, 2, "app.dec", NULL);

  QUARRY_TRACE(app, APP_STATE, "s", "starting");
  pthread_t threads[3];
  for (unsigned i = 0; i < 3; ++i) {
    pthread_create(&threads[i], NULL, worker_main, (void*)(uintptr_t)i);
  }
  for (unsigned i = 0; i < 3; ++i) pthread_join(threads[i], NULL);
  QUARRY_TRACE(app, APP_STATE, "s", "workers done");

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

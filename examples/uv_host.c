/*
 * uv_host: a libuv daemon with quarry's live control. It traces from a worker thread and from a
 * timer on the loop, and serves its control file and pipe through quarry::uv.
 *
 *   uv_host                 run until killed (SIGINT/SIGTERM dump every buffer, then end it)
 *   uv_host --seconds N     stop after N seconds, shutting the adapter and the loop down cleanly
 *
 * While it runs, steer it through BASE/uv_host/app/quarry.ctrl (BASE: QUARRY_PATH or
 * /dev/shm/quarry/), as it prints.
 */
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "quarry/quarry.h"
#include "quarry/uv.h"

static quarry_handle* app;
static volatile int running = 1;

enum { APP_TICK = 0, APP_STATE = 1 }; /* examples/app.dec */

static void* worker_main(void* arg) {
  (void)arg;
  quarry_set_current_thread_name("worker");
  for (unsigned round = 0; running; ++round) {
    QUARRY_TRACE(app, APP_TICK, "d", round);
    usleep(10000);
  }
  return NULL;
}

static void on_tick(uv_timer_t* timer) {
  unsigned* ticks = timer->data;
  QUARRY_TRACE(app, APP_STATE, "s", ++*ticks % 50 == 0 ? "checkpoint" : "running");
}

static void on_deadline(uv_timer_t* timer) {
  uv_stop(timer->loop);
}

int main(int argc, char** argv) {
  unsigned seconds = argc > 2 && strcmp(argv[1], "--seconds") == 0 ? (unsigned)atoi(argv[2]) : 0;
  quarry_set_process_name("uv_host");
  quarry_set_current_thread_name("loop");
  if (quarry_open_internal(&app, "app", 65536, 2, "app.dec", "1", NULL) != 0) return 1;

  uv_loop_t* loop = uv_default_loop();
  void* quarry_loop = quarry_uv_start(loop);
  if (quarry_loop == NULL || quarry_enable_configuration(app, quarry_loop) != 0) {
    fprintf(stderr, "uv_host: live configuration is not available\n");
    return 1;
  }
  const char* base = getenv("QUARRY_PATH");
  printf("Live configuration is on. From another shell, in %suv_host/app/:\n",
         base ? base : "/dev/shm/quarry/");
  printf("  echo \"NOTRACE app\" >> quarry.ctrl     # switch tracing off (TRACE: on)\n");
  printf("  mkfifo quarry.pipe; echo \"PIPE app\" >> quarry.ctrl; quarry-decode quarry.pipe\n");
  fflush(stdout);

  unsigned ticks = 0;
  uv_timer_t tick, deadline;
  uv_timer_init(loop, &tick);
  tick.data = &ticks;
  uv_timer_start(&tick, on_tick, 100, 100);
  uv_timer_init(loop, &deadline);
  if (seconds > 0) uv_timer_start(&deadline, on_deadline, seconds * 1000ull, 0);
  pthread_t worker;
  pthread_create(&worker, NULL, worker_main, NULL);

  uv_run(loop, UV_RUN_DEFAULT);

  /* Clean shutdown: the adapter first, on this thread, then the host's own handles. */
  running = 0;
  pthread_join(worker, NULL);
  quarry_uv_stop(quarry_loop);
  uv_close((uv_handle_t*)&tick, NULL);
  uv_close((uv_handle_t*)&deadline, NULL);
  uv_run(loop, UV_RUN_NOWAIT);
  int closed = uv_loop_close(loop);
  printf("uv_host: stopped after %u ticks, loop closed: %s\n", ticks, closed == 0 ? "yes" : "no");
  return closed == 0 ? 0 : 1;
}

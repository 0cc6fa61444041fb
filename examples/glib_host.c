/*
 * glib_host: a GLib daemon with quarry's live control. It traces from a worker thread and from a
 * timeout on the default main context, and serves its control file and pipe through
 * quarry::glib.
 *
 *   glib_host               run until killed (SIGINT/SIGTERM dump every buffer, then end it)
 *   glib_host --seconds N   stop after N seconds, shutting the adapter down cleanly
 *
 * While it runs, steer it through BASE/glib_host/app/quarry.ctrl (BASE: QUARRY_PATH or
 * /dev/shm/quarry/), as it prints.
 */
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "quarry/glib.h"
#include "quarry/quarry.h"

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

static gboolean on_tick(gpointer data) {
  unsigned* ticks = data;
  QUARRY_TRACE(app, APP_STATE, "s", ++*ticks % 50 == 0 ? "checkpoint" : "running");
  return G_SOURCE_CONTINUE;
}

static gboolean on_deadline(gpointer data) {
  g_main_loop_quit(data);
  return G_SOURCE_REMOVE;
}

int main(int argc, char** argv) {
  unsigned seconds = argc > 2 && strcmp(argv[1], "--seconds") == 0 ? (unsigned)atoi(argv[2]) : 0;
  quarry_set_process_name("glib_host");
  quarry_set_current_thread_name("loop");
  if (quarry_open_internal(&app, "app", 65536, 2, "app.dec", "1", NULL) != 0) return 1;

  void* quarry_loop = quarry_glib_start(NULL); /* the default main context */
  if (quarry_loop == NULL || quarry_enable_configuration(app, quarry_loop) != 0) {
    fprintf(stderr, "glib_host: live configuration is not available\n");
    return 1;
  }
  const char* base = getenv("QUARRY_PATH");
  printf("Live configuration is on. From another shell, in %sglib_host/app/:\n",
         base ? base : "/dev/shm/quarry/");
  printf("  echo \"NOTRACE app\" >> quarry.ctrl     # switch tracing off (TRACE: on)\n");
  printf("  mkfifo quarry.pipe; echo \"PIPE app\" >> quarry.ctrl; quarry-decode quarry.pipe\n");
  fflush(stdout);

  GMainLoop* main_loop = g_main_loop_new(NULL, FALSE);
  unsigned ticks = 0;
  g_timeout_add(100, on_tick, &ticks);
  if (seconds > 0) g_timeout_add_seconds(seconds, on_deadline, main_loop);
  pthread_t worker;
  pthread_create(&worker, NULL, worker_main, NULL);

  g_main_loop_run(main_loop);

  running = 0;
  pthread_join(worker, NULL);
  quarry_glib_stop(quarry_loop); /* on this thread, now that the context is not iterated */
  g_main_loop_unref(main_loop);
  printf("glib_host: stopped after %u ticks\n", ticks);
  return 0;
}

/* quarry_glib_start/stop: the shared adapter over GLib unix-fd sources.
 * Thread contract: watches are made and destroyed on the thread that iterates the context;
 * other threads reach it through the adapter's eventfd. */
#include "quarry/glib.h"

#include <glib-unix.h>
#include <stdlib.h>

#include "loop_adapter.h"

struct glib_watch {
  GSource* source;
  quarry_adapter_ready ready;
  void* token;
};

static gboolean on_fd(gint fd, GIOCondition condition, gpointer data) {
  (void)fd;
  (void)condition;
  struct glib_watch* watch = data;
  watch->ready(watch->token);
  /* Kept even when ready ended the watch: its g_source_destroy already removed the source. */
  return G_SOURCE_CONTINUE;
}

static void* watch_fd(void* context, int fd, quarry_adapter_ready ready, void* token) {
  struct glib_watch* watch = calloc(1, sizeof *watch);
  if (watch == NULL) return NULL;
  watch->ready = ready;
  watch->token = token;
  watch->source = g_unix_fd_source_new(fd, G_IO_IN);
  g_source_set_callback(watch->source, G_SOURCE_FUNC(on_fd), watch, NULL);
  g_source_attach(watch->source, context);
  return watch;
}

/* Safe from the source's own dispatch: GLib holds a reference on it while dispatching, and the
 * destroyed source is never polled again. */
static void unwatch_fd(void* context, void* watch) {
  (void)context;
  struct glib_watch* glib_watch = watch;
  g_source_destroy(glib_watch->source);
  g_source_unref(glib_watch->source);
  free(glib_watch);
}

static const struct quarry_adapter_ops glib_ops = {watch_fd, unwatch_fd};

void* quarry_glib_start(GMainContext* context) {
  if (context == NULL) context = g_main_context_default();
  g_main_context_ref(context);
  void* adapter = quarry_adapter_start(context, &glib_ops);
  if (adapter == NULL) g_main_context_unref(context);
  return adapter;
}

void quarry_glib_stop(void* adapter) {
  if (adapter == NULL) return;
  GMainContext* context = quarry_adapter_loop(adapter);
  quarry_adapter_stop(adapter);
  g_main_context_unref(context);
}

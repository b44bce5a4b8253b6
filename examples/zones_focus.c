/* zones_focus: fetches the zone list and walks it, reads the focused zone,
 * sets the audio focus, then prints the audio focus changes it receives.
 *
 * usage: zones_focus [focus-zone [seconds [events]]]
 *   focus-zone  zone id to give the audio focus (default: the focused zone)
 *   seconds     how long to listen for focus changes (default 10)
 *   events      stop after this many changes (default 5)
 */
#include <glib.h>
#include <stdio.h>
#include <stdlib.h>

#include "kova_api.h"

typedef struct {
  GMainLoop *loop;
  int events;
  int max_events;
} listener;

static const char *text(const char *s) { return s != NULL ? s : "-"; }

static void count_event(listener *l) {
  if (++l->events >= l->max_events) g_main_loop_quit(l->loop);
}

static void on_focus_changed(int zone_id, void *user_data) {
  printf("focus changed: zone %d\n", zone_id);
  count_event(user_data);
}

/* The zone lives only during this call. */
static void on_focus_zone_changed(kova_zone *zone, void *user_data) {
  (void)user_data;
  printf("focus zone changed: zone %d scaler %d app %s\n", kova_zone_get_id(zone), kova_zone_get_scaler_id(zone),
         text(kova_zone_get_app_id(zone)));
}

static gboolean on_timeout(gpointer user_data) {
  g_main_loop_quit(((listener *)user_data)->loop);
  return G_SOURCE_REMOVE;
}

static void walk_zones(void) {
  void *list = NULL;
  if (kova_get_zone_list(&list) != 0) {
    printf("no zone list\n");
    return;
  }
  kova_zone *zone = NULL;
  int n = 0;
  while (kova_get_next_zone(list, &zone) == 0) {
    printf("zone %d: id %d scaler %d app %s\n", n++, kova_zone_get_id(zone), kova_zone_get_scaler_id(zone),
           text(kova_zone_get_app_id(zone)));
  }
  /* The walk stays on the last zone: walk back to the first. */
  while (kova_get_prev_zone(list, &zone) == 0) printf("back to zone %d\n", kova_zone_get_id(zone));
  kova_free_zone_list(list);
}

int main(int argc, char **argv) {
  int focus = argc > 1 ? atoi(argv[1]) : -1;
  int seconds = argc > 2 ? atoi(argv[2]) : 10;
  listener l = {NULL, 0, argc > 3 ? atoi(argv[3]) : 5};

  walk_zones();

  kova_zone *focused = NULL;
  if (kova_get_focused_zone(&focused) == 0) {
    printf("focused zone: id %d scaler %d app %s\n", kova_zone_get_id(focused), kova_zone_get_scaler_id(focused),
           text(kova_zone_get_app_id(focused)));
    if (focus < 0) focus = kova_zone_get_id(focused);
    kova_zone_free(focused);
  } else {
    printf("no focused zone\n");
  }

  /* Subscribe before changing the focus, so that our own change is seen. */
  l.loop = g_main_loop_new(NULL, FALSE);
  unsigned int focus_id = kova_register_audio_focus_changed_callback(on_focus_changed, &l);
  unsigned int zone_id = kova_subscribe_audio_focus_zone_changed(on_focus_zone_changed, NULL);
  if (focus_id == 0 || focus_id == (unsigned int)-1 || zone_id == 0) printf("cannot subscribe to focus changes\n");

  if (focus >= 0) printf("set audio focus %d: %d\n", focus, kova_set_audio_focus(focus));
  int current = 0;
  if (kova_get_audio_focus(&current) == 0) printf("audio focus: %d\n", current);

  printf("listening for %d s or %d changes\n", seconds, l.max_events);
  g_timeout_add_seconds((guint)(seconds > 0 ? seconds : 1), on_timeout, &l);
  g_main_loop_run(l.loop);
  printf("%d focus changes\n", l.events);

  kova_unsubscribe_audio_focus_zone_changed(zone_id);
  kova_unregister_audio_focus_changed_callback(focus_id);
  g_main_loop_unref(l.loop);
  return 0;
}

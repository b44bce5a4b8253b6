/* A player's whole life against the kova service: register callbacks,
 * register, request play, answer the service's start request with its done
 * call, request stop, answer the stop request, unregister.
 *
 * Usage: player_life [player-id] [seconds to wait for each request] */
#include <glib.h>
#include <stdio.h>
#include <stdlib.h>

#include "kova_api.h"

typedef struct {
  GMainLoop *loop;
  int player;
  const char *awaited; /* "start" or "stop" */
  gboolean answered;
} player_t;

static void on_video_request(int player_id, void *user_data, const char *kind) {
  player_t *p = user_data;
  if (player_id != p->player) {
    printf("  (a %s request for player %d, not ours)\n", kind, player_id);
    return;
  }
  printf("<- the service asks player %d to %s its video\n", player_id, kind);
  int result = g_str_equal(kind, "start") ? kova_player_video_start_done(player_id)
                                          : kova_player_video_stop_done(player_id);
  printf("-> video %s done: the service answered %d\n", kind, result);
  if (g_str_equal(kind, p->awaited)) {
    p->answered = TRUE;
    g_main_loop_quit(p->loop);
  }
}

static void on_video_start(int player_id, void *user_data) { on_video_request(player_id, user_data, "start"); }
static void on_video_stop(int player_id, void *user_data) { on_video_request(player_id, user_data, "stop"); }

static void on_audio_request(int player_id, void *user_data) {
  player_t *p = user_data;
  if (player_id != p->player) return;
  printf("<- the service asks player %d to start its audio\n", player_id);
  printf("-> audio start done: the service answered %d\n", kova_player_audio_start_done(player_id));
}

static gboolean on_timeout(gpointer user_data) {
  g_main_loop_quit(((player_t *)user_data)->loop);
  return G_SOURCE_REMOVE;
}

/* Runs the main loop until the awaited request was answered or time runs out. */
static gboolean await_request(player_t *p, const char *kind, int seconds) {
  p->awaited = kind;
  p->answered = FALSE;
  guint timer = g_timeout_add_seconds((guint)seconds, on_timeout, p);
  g_main_loop_run(p->loop);
  if (!p->answered) {
    printf("   no %s request within %d s\n", kind, seconds);
  } else {
    g_source_remove(timer);
  }
  return p->answered;
}

int main(int argc, char **argv) {
  player_t p = {g_main_loop_new(NULL, FALSE), argc > 1 ? atoi(argv[1]) : 1, "", FALSE};
  int wait_s = argc > 2 ? atoi(argv[2]) : 5;

  unsigned int start_id = kova_register_player_video_start_request_callback(on_video_start, &p);
  unsigned int stop_id = kova_register_player_video_stop_request_callback(on_video_stop, &p);
  unsigned int audio_id = kova_register_player_audio_start_request_callback(on_audio_request, &p);
  printf("registered request callbacks: video start %u, video stop %u, audio start %u\n", start_id, stop_id,
         audio_id);
  if (start_id == 0 || start_id == (unsigned int)-1) {
    fprintf(stderr, "cannot subscribe to the service's requests (is the bus there?)\n");
    return 1;
  }

  int registered = kova_player_register(p.player, 0);
  printf("-> register player %d: %d\n", p.player, registered);
  if (registered != p.player) {
    fprintf(stderr, "registration failed: is the service running and ready?\n");
    return 1;
  }

  kova_audio_out_e out = 0;
  int play = kova_player_request_play(p.player, &out);
  printf("-> request play: %d, granted audio output %d\n", play, (int)out);
  int ok = play == 0;
  if (ok) ok = await_request(&p, "start", wait_s);

  printf("-> request stop: %d\n", kova_player_request_stop(p.player));
  if (ok) ok = await_request(&p, "stop", wait_s);

  printf("-> unregister player %d: %d\n", p.player, kova_player_unregister(p.player));
  kova_unregister_player_video_start_request_callback(start_id);
  kova_unregister_player_video_stop_request_callback(stop_id);
  kova_unregister_player_audio_start_request_callback(audio_id);
  g_main_loop_unref(p.loop);
  printf("player %d: %s\n", p.player, ok ? "a whole life lived" : "the service did not answer as expected");
  return ok ? 0 : 1;
}

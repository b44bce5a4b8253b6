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
  int awaited; /* requests still to answer before the next step */
} player_t;

static void answered(player_t *p) {
  if (p->awaited > 0 && --p->awaited == 0) g_main_loop_quit(p->loop);
}

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
  answered(p);
}

static void on_video_start(int player_id, void *user_data) { on_video_request(player_id, user_data, "start"); }
static void on_video_stop(int player_id, void *user_data) { on_video_request(player_id, user_data, "stop"); }

static void on_audio_request(int player_id, void *user_data, const char *kind) {
  player_t *p = user_data;
  if (player_id != p->player) return;
  printf("<- the service asks player %d to %s its audio\n", player_id, kind);
  int result = g_str_equal(kind, "start") ? kova_player_audio_start_done(player_id)
                                          : kova_player_audio_stop_done(player_id);
  printf("-> audio %s done: the service answered %d\n", kind, result);
  answered(p);
}

static void on_audio_start(int player_id, void *user_data) { on_audio_request(player_id, user_data, "start"); }
static void on_audio_stop(int player_id, void *user_data) { on_audio_request(player_id, user_data, "stop"); }

static gboolean on_timeout(gpointer user_data) {
  g_main_loop_quit(((player_t *)user_data)->loop);
  return G_SOURCE_REMOVE;
}

/* Runs the main loop until `count` requests were answered or time runs out. */
static gboolean await_requests(player_t *p, int count, int seconds) {
  p->awaited = count;
  guint timer = g_timeout_add_seconds((guint)seconds, on_timeout, p);
  g_main_loop_run(p->loop);
  if (p->awaited > 0) {
    printf("   %d request(s) still missing after %d s\n", p->awaited, seconds);
    return FALSE;
  }
  g_source_remove(timer);
  return TRUE;
}

int main(int argc, char **argv) {
  player_t p = {g_main_loop_new(NULL, FALSE), argc > 1 ? atoi(argv[1]) : 1, 0};
  int wait_s = argc > 2 ? atoi(argv[2]) : 5;

  unsigned int start_id = kova_register_player_video_start_request_callback(on_video_start, &p);
  unsigned int stop_id = kova_register_player_video_stop_request_callback(on_video_stop, &p);
  unsigned int audio_start_id = kova_register_player_audio_start_request_callback(on_audio_start, &p);
  unsigned int audio_stop_id = kova_register_player_audio_stop_request_callback(on_audio_stop, &p);
  printf("registered request callbacks: video start %u, video stop %u, audio start %u, audio stop %u\n",
         start_id, stop_id, audio_start_id, audio_stop_id);
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
  /* The service asks for a video start, and an audio start when it granted an output. */
  int requests = out > 0 ? 2 : 1;
  int ok = play == 0;
  if (ok) ok = await_requests(&p, requests, wait_s);

  printf("-> request stop: %d\n", kova_player_request_stop(p.player));
  if (ok) ok = await_requests(&p, requests, wait_s);

  printf("-> unregister player %d: %d\n", p.player, kova_player_unregister(p.player));
  kova_unregister_player_video_start_request_callback(start_id);
  kova_unregister_player_video_stop_request_callback(stop_id);
  kova_unregister_player_audio_start_request_callback(audio_start_id);
  kova_unregister_player_audio_stop_request_callback(audio_stop_id);
  g_main_loop_unref(p.loop);
  printf("player %d: %s\n", p.player, ok ? "a whole life lived" : "the service did not answer as expected");
  return ok ? 0 : 1;
}

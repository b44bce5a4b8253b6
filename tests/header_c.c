/* The public header as a C program uses it; that every function is exported is check_exports.sh's job. */
#include "kova_api.h"

#include <stddef.h>

/* Enumerations take an int in C as in C++, so both sides agree on records and calls. */
_Static_assert(sizeof(kova_layout_state_e) == sizeof(int) && KOVA_LAYOUT_STATE_FORCE_INT_MIN < 0, "enum size");
_Static_assert(sizeof(kova_rsc_policy_e) == sizeof(int) && sizeof(kova_video_codec_e) == sizeof(int), "enum size");
_Static_assert(sizeof(kova_audio_out_e) == sizeof(int) && sizeof(kova_player_audio_out_e) == sizeof(int), "enum size");

static void on_player(int player_id, void *data) { (void)player_id, (void)data; }
static void on_zone(kova_zone *zone, void *data) { (void)zone->app_id, (void)data; }
static void on_resource(const char *id, kova_resource *res, void *data) { (void)id, (void)res->framerate, (void)data; }
static void on_policy(kova_policy_info *info, void *data) { (void)info->app_list->count, (void)data; }

/* A prototype or callback type that differs from what a C caller writes does not compile. */
const struct {
  int (*request_play)(int, kova_audio_out_e *);
  unsigned int (*on_video_start)(kova_player_video_request_cb, void *);
  int (*zone_list)(void **);
  unsigned int (*on_focus_zone)(kova_audio_focus_zone_changed_cb, void *);
  int (*on_resource)(const char *, kova_resource_change_cb, void *);
  int (*max_resolution)(kova_rsc_policy_e, kova_video_codec_e, int *, int *, int *);
  kova_app *(*first_app)(kova_app_list_h);
  int (*remove_all)(kova_policy_info *, bool);
  kova_player_video_request_cb player_cb;
  kova_audio_focus_zone_changed_cb zone_cb;
  kova_resource_change_cb resource_cb;
  kova_policy_changed_cb policy_cb;
} kova_c_api = {
    kova_player_request_play, kova_register_player_video_start_request_callback, kova_get_zone_list,
    kova_subscribe_audio_focus_zone_changed, kova_register_resource_change_callback, kova_policy_get_max_resolution,
    kova_app_list_get_first, kova_policy_info_set_option_remove_all_current_apps, on_player, on_zone, on_resource,
    on_policy,
};
const size_t kova_c_api_count = sizeof kova_c_api / sizeof kova_c_api.zone_list;

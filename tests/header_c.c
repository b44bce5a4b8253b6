/* The public header as a C program uses it: records, enumerations, callback
 * types and prototypes. That every declared function is exported is the job
 * of check_exports.sh. */
#include "kova_api.h"

#include <stddef.h>

/* Enumerations take an int in C as in C++, so both sides agree on records and calls. */
_Static_assert(sizeof(kova_layout_state_e) == sizeof(int) && KOVA_LAYOUT_STATE_FORCE_INT_MIN < 0, "enum size");
_Static_assert(sizeof(kova_rsc_policy_e) == sizeof(int) && sizeof(kova_video_codec_e) == sizeof(int), "enum size");
_Static_assert(sizeof(kova_audio_out_e) == sizeof(int) && sizeof(kova_player_audio_out_e) == sizeof(int), "enum size");

static void on_player(int player_id, void *user_data) { (void)player_id, (void)user_data; }
static void on_zone(kova_zone *zone, void *user_data) { (void)zone->app_id, (void)user_data; }
static void on_resource(const char *app_id, kova_resource *resource, void *user_data) {
  (void)app_id, (void)resource->framerate, (void)user_data;
}
static void on_policy(kova_policy_info *info, void *user_data) {
  (void)info->app_list->count, (void)info->remove_all_current_apps, (void)user_data;
}

/* Each member has the type a C caller writes: a prototype or callback type
 * that differs does not compile. */
const struct {
  int (*request_play)(int, kova_audio_out_e *);
  int (*player_audio_out)(int, kova_player_audio_out_e *);
  unsigned int (*on_video_start)(kova_player_video_request_cb, void *);
  int (*zone_list)(void **);
  int (*layout)(kova_layout_state_e);
  unsigned int (*on_focus_zone)(kova_audio_focus_zone_changed_cb, void *);
  int (*on_resource)(const char *, kova_resource_change_cb, void *);
  int (*max_resolution)(kova_rsc_policy_e, kova_video_codec_e, int *, int *, int *);
  kova_app *(*first_app)(kova_app_list_h);
  int (*remove_all)(kova_policy_info *, bool);
  unsigned int (*on_policy)(kova_policy_changed_cb, void *);
  kova_player_video_request_cb player_cb;
  kova_audio_focus_zone_changed_cb zone_cb;
  kova_resource_change_cb resource_cb;
  kova_policy_changed_cb policy_cb;
} kova_c_api = {
    kova_player_request_play, kova_get_player_audio_out, kova_register_player_video_start_request_callback,
    kova_get_zone_list, kova_notify_layout_state, kova_subscribe_audio_focus_zone_changed,
    kova_register_resource_change_callback, kova_policy_get_max_resolution, kova_app_list_get_first,
    kova_policy_info_set_option_remove_all_current_apps, kova_register_resource_policy_changed_callback,
    on_player, on_zone, on_resource, on_policy,
};
const size_t kova_c_api_count = sizeof kova_c_api / sizeof kova_c_api.layout;

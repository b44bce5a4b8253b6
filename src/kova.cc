// Entry points of request callbacks, zones and focus, resource notifications
// and the resource policy.
#include <climits>

#include "kova_private.h"

namespace {

// Player request handles: 0 is "nothing registered" and is accepted without
// touching the bus; all bits set is the failure handle and names nothing.
int unregister_player_request(const char *func, unsigned int id) {
  KOVA_LOG_AT(KOVA_LOG_INFO, func, "id (%u)", id);
  if (id == UINT_MAX) {
    KOVA_LOG_AT(KOVA_LOG_ERROR, func, "invalid param");
    return -1;
  }
  return _kova_dbus_unsubscribe_signal(id);
}

template <typename Callback>
unsigned int register_player_request(const char *func, Callback cb, void *user_data,
                                     unsigned int (*internal)(Callback, void *) noexcept) {
  if (cb == nullptr) {
    KOVA_LOG_AT(KOVA_LOG_ERROR, func, "invalid param");
    return 0;
  }
  return internal(cb, user_data);
}

}  // namespace

extern "C" {

/* ---- Player requests ---- */

unsigned int kova_register_player_video_start_request_callback(kova_player_video_request_cb callback,
                                                              void *user_data) noexcept {
  return register_player_request(__func__, callback, user_data,
                                 _kova_register_player_video_start_request_callback);
}
int kova_unregister_player_video_start_request_callback(unsigned int id) noexcept {
  return unregister_player_request(__func__, id);
}

unsigned int kova_register_player_video_stop_request_callback(kova_player_video_request_cb callback,
                                                             void *user_data) noexcept {
  return register_player_request(__func__, callback, user_data,
                                 _kova_register_player_video_stop_request_callback);
}
int kova_unregister_player_video_stop_request_callback(unsigned int id) noexcept {
  return unregister_player_request(__func__, id);
}

unsigned int kova_register_player_audio_start_request_callback(kova_player_audio_request_cb callback,
                                                              void *user_data) noexcept {
  return register_player_request(__func__, callback, user_data,
                                 _kova_register_player_audio_start_request_callback);
}
int kova_unregister_player_audio_start_request_callback(unsigned int id) noexcept {
  return unregister_player_request(__func__, id);
}

unsigned int kova_register_player_audio_stop_request_callback(kova_player_audio_request_cb callback,
                                                             void *user_data) noexcept {
  return register_player_request(__func__, callback, user_data,
                                 _kova_register_player_audio_stop_request_callback);
}
int kova_unregister_player_audio_stop_request_callback(unsigned int id) noexcept {
  return unregister_player_request(__func__, id);
}

unsigned int kova_register_player_audio_resync_request_callback(kova_player_audio_request_cb callback,
                                                               void *user_data) noexcept {
  return register_player_request(__func__, callback, user_data,
                                 _kova_register_player_audio_resync_request_callback);
}
int kova_unregister_player_audio_resync_request_callback(unsigned int id) noexcept {
  return unregister_player_request(__func__, id);
}

/* ---- Zones and focus ---- */

int kova_get_zone_list(void **zone_list) noexcept {
  if (zone_list == nullptr) {
    KOVA_LOGE("invalid param");
    return -2;
  }
  KOVA_LOGI(">>");
  return _kova_get_zone_list(zone_list);
}

int kova_get_multiview_zone_list(void **zone_list) noexcept {
  if (zone_list == nullptr) {
    KOVA_LOGE("invalid param");
    return -2;
  }
  KOVA_LOGI(">>");
  return _kova_get_multiview_zone_list(zone_list);
}

int kova_get_next_zone(void *zone_list, kova_zone **zone) noexcept {
  if (zone_list == nullptr || zone == nullptr) {
    KOVA_LOGE("invalid param");
    return -2;
  }
  KOVA_LOGI(">>");
  return _kova_get_next_zone(zone_list, zone);
}

int kova_get_prev_zone(void *zone_list, kova_zone **zone) noexcept {
  if (zone_list == nullptr || zone == nullptr) {
    KOVA_LOGE("invalid param");
    return -1;
  }
  KOVA_LOGI(">>");
  return _kova_get_prev_zone(zone_list, zone);
}

int kova_get_zone_id(kova_zone *zone, int *zone_id) noexcept {
  if (zone == nullptr || zone_id == nullptr) {
    KOVA_LOGE("invalid param");
    return -1;
  }
  KOVA_LOGI(">>");
  return _kova_get_zone_id(zone, zone_id);
}

int kova_zone_get_id(kova_zone *zone) noexcept {
  if (zone == nullptr) {
    KOVA_LOGE("invalid zone");
    return -1;
  }
  return zone->id;
}

int kova_zone_get_scaler_id(kova_zone *zone) noexcept {
  if (zone == nullptr) {
    KOVA_LOGE("invalid zone");
    return -1;
  }
  return zone->scaler_id;
}

const char *kova_zone_get_app_id(kova_zone *zone) noexcept {
  if (zone == nullptr) {
    KOVA_LOGE("invalid zone");
    return nullptr;
  }
  KOVA_LOGI("(%s)", zone->app_id != nullptr ? zone->app_id : "empty");
  return zone->app_id;
}

void kova_zone_free(kova_zone *zone) noexcept {
  if (zone == nullptr) {
    KOVA_LOGE("invalid zone");
    return;
  }
  _kova_zone_free(zone);
}

int kova_free_zone_list(void *zone_list) noexcept {
  if (zone_list == nullptr) {
    KOVA_LOGE("invalid param");
    return -2;
  }
  KOVA_LOGI(">>");
  return _kova_free_zone_list(zone_list);
}

int kova_set_app_zone_info(const char *app_id, int zone_id) noexcept {
  if (!kova::valid_string(app_id)) {
    KOVA_LOGE("invalid param");
    return -1;
  }
  KOVA_LOGI(">> (%s:%d)", app_id, zone_id);
  return _kova_set_app_zone_info(app_id, zone_id);
}

int kova_remove_app_zone_info(const char *app_id, int zone_id) noexcept {
  if (!kova::valid_string(app_id)) {
    KOVA_LOGE("invalid param");
    return -1;
  }
  return _kova_remove_app_zone_info(app_id, zone_id);
}

int kova_set_pre_assigned_app_zone_info(const char *app_id, int zone_id) noexcept {
  if (!kova::valid_string(app_id)) {
    KOVA_LOGE("invalid param");
    return -1;
  }
  KOVA_LOGI(">>");
  return _kova_set_pre_assigned_app_zone_info(app_id, zone_id);
}

int kova_set_removable_app_zone_info(const char *app_id, int zone_id) noexcept {
  if (!kova::valid_string(app_id)) {
    KOVA_LOGE("invalid param");
    return -1;
  }
  KOVA_LOGI("(%d:%s)", zone_id, app_id);
  return _kova_set_removable_app_zone_info(app_id, zone_id);
}

int kova_clear_removable_app_zone_info(void) noexcept {
  KOVA_LOGI(">>");
  return _kova_clear_removable_app_zone_info();
}

int kova_notify_layout_state(kova_layout_state_e state) noexcept { return _kova_notify_layout_state(state); }

int kova_get_focused_zone(kova_zone **zone) noexcept {
  if (zone == nullptr) {
    KOVA_LOGE("invalid zone");
    return -1;
  }
  return _kova_get_focused_zone(zone);
}

int kova_switch_best_quality_zone(int first, int second) noexcept {
  if (first < 0 || second < 0) {
    KOVA_LOGE("invalid param (%d:%d)", first, second);
    return -1;
  }
  KOVA_LOGI(">> (%d:%d)", first, second);
  return _kova_switch_best_quality_zone_info(first, second);
}

int kova_restore_best_quality_zone(void) noexcept { return _kova_restore_best_quality_zone(); }

int kova_register_best_quality_zone_switched_callback(kova_best_quality_zone_switched_cb callback,
                                                      void *user_data) noexcept {
  KOVA_LOGI(">>");
  // A null callback would only fail later, inside a dispatch.
  if (callback == nullptr) {
    KOVA_LOGE("invalid param");
    return -1;
  }
  return _kova_register_best_quality_zone_switched_callback(callback, user_data);
}

int kova_unregister_best_quality_zone_switched_callback(kova_best_quality_zone_switched_cb callback) noexcept {
  KOVA_LOGI(">>");
  return _kova_unregister_best_quality_zone_switched_callback(callback);
}

int kova_set_audio_focus(int focus) noexcept {
  KOVA_LOGI(">>");
  return _kova_set_audio_focus(focus);
}

int kova_get_audio_focus(int *focus) noexcept {
  KOVA_LOGI(">>");
  if (focus == nullptr) {
    KOVA_LOGE("invalid param");
    return -1;
  }
  return _kova_get_audio_focus(focus);
}

int kova_get_last_audio_focus(int *focus) noexcept {
  KOVA_LOGI(">>");
  if (focus == nullptr) {
    KOVA_LOGE("invalid param");
    return -1;
  }
  return _kova_get_last_audio_focus(focus);
}

int kova_is_audio_focused(const char *app_id) noexcept {
  if (!kova::valid_string(app_id)) {
    KOVA_LOGE("invalid param");
    return -1;
  }
  KOVA_LOGI(">> (%s)", app_id);
  return _kova_is_audio_focused(app_id);
}

unsigned int kova_register_audio_focus_changed_callback(kova_player_audio_request_cb callback,
                                                        void *user_data) noexcept {
  if (callback == nullptr) {
    KOVA_LOGE("invalid param");
    return 0;
  }
  return _kova_register_audio_focus_changed_callback(callback, user_data);
}

int kova_unregister_audio_focus_changed_callback(unsigned int id) noexcept {
  if (id == 0) {
    KOVA_LOGE("invalid param");
    return 0;
  }
  return _kova_unregister_audio_focus_changed_callback(id);
}

/* ---- Resource notifications and capabilities ---- */

int kova_register_resource_change_callback(const char *app_id, kova_resource_change_cb callback,
                                           void *user_data) noexcept {
  if (!kova::valid_string(app_id) || callback == nullptr) {
    KOVA_LOGE("invalid param");
    return -1;
  }
  return _kova_register_resource_change_callback(app_id, callback, user_data);
}

int kova_unregister_resource_change_callback(const char *app_id, kova_resource_change_cb callback) noexcept {
  if (!kova::valid_string(app_id) || callback == nullptr) {
    KOVA_LOGE("invalid param");
    return -1;
  }
  return _kova_unregister_resource_change_callback(app_id, callback);
}

bool kova_rsc_max_resolution_changed(const kova_resource *resource) noexcept {
  if (resource == nullptr) {
    KOVA_LOGE("invalid param");
    return false;
  }
  return resource->max_resolution_changed != 0;
}

bool kova_rsc_audio_out_changed(const kova_resource *resource) noexcept {
  if (resource == nullptr) {
    KOVA_LOGE("invalid param");
    return false;
  }
  return resource->audio_out_changed != 0;
}

int kova_rsc_get_video_max_resolution(const kova_resource *resource, int *width, int *height,
                                      int *framerate) noexcept {
  if (resource == nullptr || width == nullptr || height == nullptr || framerate == nullptr) {
    KOVA_LOGE("invalid param");
    return -1;
  }
  *width = resource->width;
  *height = resource->height;
  *framerate = resource->framerate;
  return 0;
}

int kova_register_max_video_resolution_changed_callback(const char *app_id, max_resolution_change_cb callback,
                                                        void *user_data) noexcept {
  if (!kova::valid_string(app_id) || callback == nullptr) {
    KOVA_LOGE("invalid param");
    return -1;
  }
  return _kova_register_max_video_resolution_changed_callback(app_id, callback, user_data);
}

int kova_unregister_max_video_resolution_changed_callback(const char *app_id,
                                                          max_resolution_change_cb callback) noexcept {
  if (!kova::valid_string(app_id) || callback == nullptr) {
    KOVA_LOGE("invalid param");
    return -1;
  }
  return _kova_unregister_max_video_resolution_changed_callback(app_id, callback);
}

int kova_get_max_video_resolution(const char *app_id, int *width, int *height, int *framerate) noexcept {
  if (!kova::valid_string(app_id) || width == nullptr || height == nullptr || framerate == nullptr) {
    KOVA_LOGE("invalid param");
    return -1;
  }
  return _kova_get_max_video_resolution(app_id, width, height, framerate);
}

int kova_policy_get_max_resolution(kova_rsc_policy_e policy, kova_video_codec_e codec, int *width, int *height,
                                   int *framerate) noexcept {
  if (width == nullptr) {
    KOVA_LOGE("invalid width");
    return -1;
  }
  if (height == nullptr) {
    KOVA_LOGE("invalid height");
    return -1;
  }
  if (framerate == nullptr) {
    KOVA_LOGE("invalid framerate");
    return -1;
  }
  return _kova_policy_get_max_resolution(policy, codec, width, height, framerate);
}

int kova_get_capable_category_id(int player_id, const char *app_id, int category) noexcept {
  KOVA_LOGI("player_id(%d), app_id(%s), category(%d)", player_id, app_id ? app_id : "null", category);
  // A string the bus cannot carry counts as no application id.
  if (kova::valid_string(app_id) && category != 0) {
    if (!_kova_is_supported_category(category)) return category;
    return _kova_get_capable_category_id(player_id, app_id, category);
  }
  bool normal = _kova_is_normal_mode();
  KOVA_LOGE("invalid param (%d:%d)", normal ? 1 : 0, category);
  return normal ? category : -4;
}

/* ---- Resource policy ---- */

int kova_set_resource_policy(int policy, kova_policy_info *info) noexcept {
  if (info == nullptr) {
    KOVA_LOGE("invalid policy info");
    return -1;
  }
  return _kova_set_resource_policy_with_info(policy, info);
}

int kova_set_resource_policy_internal(int policy) noexcept {
  KOVA_LOGI(">>");
  return _kova_set_resource_policy(policy);
}

int kova_set_resource_policy_app_zone_info(int policy, kova_app_list_h app_list) noexcept {
  if (app_list == nullptr) {
    KOVA_LOGE("invalid app_list");
    return -1;
  }
  return _kova_set_resource_policy_app_zone_info(policy, app_list);
}

int kova_set_pre_assigned_app_list(kova_app_list_h app_list) noexcept {
  if (app_list == nullptr) {
    KOVA_LOGE("invalid app_list");
    return -1;
  }
  return _kova_set_pre_assigned_app_list(app_list);
}

}  // extern "C"

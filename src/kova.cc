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

/* ---- Resource notifications and capabilities ---- */

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

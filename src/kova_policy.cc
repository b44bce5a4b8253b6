// Entry points of policy info records, policy-change callbacks and the
// maximum-resolution aliases.
#include <climits>
#include <cstdlib>
#include <cstring>

#include "kova_private.h"

extern "C" {

/* ---- Maximum-resolution aliases ---- */

int kova_subscribe_max_video_resolution_changed(const char *app_id, max_resolution_change_cb callback,
                                                void *user_data) noexcept {
  return kova_register_max_video_resolution_changed_callback(app_id, callback, user_data);
}

int kova_unsubscribe_max_video_resolution_changed(const char *app_id, max_resolution_change_cb callback) noexcept {
  return kova_unregister_max_video_resolution_changed_callback(app_id, callback);
}

int kova_get_allowed_max_video_resolution(const char *app_id, int *width, int *height, int *framerate) noexcept {
  return kova_get_max_video_resolution(app_id, width, height, framerate);
}

/* ---- Policy info ---- */

kova_policy_info *kova_policy_info_create_new(const char *owner_name) noexcept {
  if (!kova::valid_string(owner_name)) {
    KOVA_LOGE("invalid owner name");
    return nullptr;
  }
  auto *policy_info = static_cast<kova_policy_info *>(calloc(1, sizeof(kova_policy_info)));
  KOVA_ASSERT_ALLOC(policy_info);
  policy_info->owner_name = strndup(owner_name, std::strlen(owner_name));
  KOVA_ASSERT_ALLOC(policy_info->owner_name);
  return policy_info;
}

int kova_policy_info_set_app_list(kova_policy_info *info, kova_app_list_h app_list) noexcept {
  if (info == nullptr) {
    KOVA_LOGE("invalid policy info");
    return -1;
  }
  if (app_list == nullptr) {
    KOVA_LOGE("invalid app list");
    return -1;
  }
  if (info->app_list != nullptr) {
    KOVA_LOGE("app list is already set");
    return -1;
  }
  info->app_list = app_list;
  return 0;
}

int kova_policy_info_set_option_remove_all_current_apps(kova_policy_info *info, bool remove_all) noexcept {
  if (info == nullptr) {
    KOVA_LOGE("invalid policy info");
    return -1;
  }
  info->remove_all_current_apps = remove_all;
  return 0;
}

kova_app_list_h kova_policy_info_get_app_list(const kova_policy_info *info) noexcept {
  if (info == nullptr) {
    KOVA_LOGE("invalid policy info");
    return nullptr;
  }
  return info->app_list;
}

int kova_policy_info_get_policy(const kova_policy_info *info) noexcept {
  if (info == nullptr) {
    KOVA_LOGE("invalid policy info");
    return -1;
  }
  return info->policy;
}

void kova_policy_info_free(kova_policy_info *info) noexcept {
  if (info == nullptr) {
    KOVA_LOGE("invalid policy info");
    return;
  }
  if (info->app_list != nullptr) kova_app_list_free(info->app_list);
  free(info->owner_name);
  free(info);
}

/* ---- Policy-change callbacks ---- */

unsigned int kova_register_resource_policy_changed_callback(kova_policy_changed_cb callback,
                                                            void *user_data) noexcept {
  if (callback == nullptr) {
    KOVA_LOGE("invalid cb");
    return 0;
  }
  return _kova_register_resource_policy_changed_callback(callback, user_data);
}

int kova_unregister_resource_policy_changed_callback(unsigned int subscription_id) noexcept {
  // 0 is never a subscription and all bits set is the failure handle.
  if (subscription_id == 0 || subscription_id == UINT_MAX) {
    KOVA_LOGE("invalid param");
    return -1;
  }
  return _kova_unregister_resource_policy_changed_callback(subscription_id);
}

}  // extern "C"

// Entry points of policy info records, policy-change callbacks and the
// maximum-resolution aliases.
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

/* ---- Policy-change callbacks ---- */

}  // extern "C"

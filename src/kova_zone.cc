// Entry points of resource zones and the audio focus zone.
#include "kova_private.h"

extern "C" {

/* ---- Resource zones ---- */

int kova_get_resource_zone_list(void **zone_list) noexcept { return kova_get_zone_list(zone_list); }

kova_zone *kova_resource_zone_list_get_next(void *zone_list) noexcept {
  return _kova_get_next_resource_zone(zone_list);
}

int kova_free_resource_zone_list(void *zone_list) noexcept { return kova_free_zone_list(zone_list); }

void kova_resource_zone_free(kova_zone *zone) noexcept { kova_zone_free(zone); }

int kova_resource_zone_get_id(kova_zone *zone) noexcept {
  if (zone == nullptr) return -2;
  return kova_zone_get_id(zone);
}

int kova_resource_zone_get_scaler_id(kova_zone *zone) noexcept {
  if (zone == nullptr) return -2;
  return kova_zone_get_scaler_id(zone);
}

const char *kova_resource_zone_get_app_id(kova_zone *zone) noexcept {
  if (zone == nullptr) {
    KOVA_LOGE("invalid param");
    return nullptr;
  }
  return kova_zone_get_app_id(zone);
}

/* ---- Audio focus zone ---- */

unsigned int kova_subscribe_audio_focus_zone_changed(kova_audio_focus_zone_changed_cb callback,
                                                     void *user_data) noexcept {
  if (callback == nullptr) {
    KOVA_LOGE("invalid param");
    return 0;
  }
  cb_data *data = kova::new_cb_data(reinterpret_cast<void (*)(void)>(callback), user_data);
  unsigned int id = 0;
  if (_kova_dbus_subscribe_signal("AudioFocusChanged", _focus_changed_signal_cb, &id, data,
                                  _focus_changed_signal_cb_free) != 0) {
    g_free(data);
    KOVA_LOGE("(%s) failed", "AudioFocusChanged");
    return 0;
  }
  KOVA_LOGI("subscribe (%s:%u)", "AudioFocusChanged", id);
  return id;
}

int kova_unsubscribe_audio_focus_zone_changed(unsigned int id) noexcept { return kova::unsubscribe_signal_quietly(id); }

int kova_get_audio_focus_zone(kova_zone **zone) noexcept {
  if (zone == nullptr) return -2;
  return _kova_get_focused_zone(zone) == 0 ? 0 : -1;
}

}  // extern "C"

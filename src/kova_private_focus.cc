// Audio focus: the four queries, focus-changed callbacks (one subscription per
// registration) and the handler of the audio-focus-zone subscription. Both
// handlers read the same "AudioFocusChanged" signal.
#include "kova_private.h"

namespace {

constexpr const char *kFocusSignal = "AudioFocusChanged";

// The fields of one "AudioFocusChanged" signal.
struct FocusChange {
  gint32 change = 0;
  gint32 zone_id = 0;
  gint32 scaler_id = 0;
  const gchar *app_id = nullptr;  // borrowed from the signal
};

// Reads and logs the signal; false (with an error line) when it is malformed.
bool read_focus_change(const char *func, GVariant *params, const char *iface, const char *signal,
                       FocusChange *out) {
  if (!kova::signal_params_are(func, params, "(iiis)", signal)) return false;
  g_variant_get(params, "(iii&s)", &out->change, &out->zone_id, &out->scaler_id, &out->app_id);
  KOVA_LOG_AT(KOVA_LOG_INFO, func, "[%08X] Signal(%s.%s) Received(%d:%d:%s)", out->change, iface, signal,
              out->zone_id, out->scaler_id, out->app_id != nullptr ? out->app_id : "null");
  return true;
}

}  // namespace

extern "C" void _dbus_audio_focus_signal_callback(GDBusConnection *, const gchar *, const gchar *, const gchar *iface,
                                                  const gchar *signal, GVariant *params,
                                                  gpointer user_data) noexcept {
  kova::Delivery delivery(user_data);
  if (!delivery) return;
  FocusChange change;
  if (!read_focus_change(__func__, params, iface, signal, &change)) return;
  auto *data = static_cast<cb_data *>(user_data);
  reinterpret_cast<kova_player_audio_request_cb>(data->callback)(change.zone_id, data->user_data);
}

namespace {

void audio_focus_cb_data_free_func(gpointer data) noexcept { kova::release_cb_data(data); }

// "(i)" queries whose 0 means "no focus": the out-parameter is written only
// for a non-zero answer.
int get_focus(const char *func, const char *method, const char *what, int *focus) {
  const int cmd = _kova_get_command_id();
  int value = 0;
  if (kova::call_logged_int(func, cmd, method, g_variant_new("(i)", cmd), what, &value) != 0) return -1;
  if (value == 0) return -1;
  *focus = value;
  return 0;
}

}  // namespace

extern "C" {

int _kova_set_audio_focus(int focus) noexcept {
  const int cmd = _kova_get_command_id();
  int value = 0;
  if (kova::call_logged_int(__func__, cmd, "SetAudioFocus", g_variant_new("(ii)", cmd, focus), "SET_AUDIO_FOCUS",
                            &value) != 0) {
    return -1;
  }
  return value == 0 ? 0 : -1;
}

int _kova_get_audio_focus(int *focus) noexcept {
  return get_focus(__func__, "GetAudioFocus", "GET_AUDIO_FOCUS", focus);
}

int _kova_get_last_audio_focus(int *focus) noexcept {
  return get_focus(__func__, "GetLastAudioFocus", "GET_LAST_AUDIO_FOCUS", focus);
}

int _kova_is_audio_focused(const char *app_id) noexcept {
  const int cmd = _kova_get_command_id();
  int value = 0;
  if (kova::call_logged_int(__func__, cmd, "IsAudioFocused", g_variant_new("(is)", cmd, app_id), "IS_AUDIO_FOCUSED",
                            &value) != 0) {
    return -1;
  }
  return value;
}

unsigned int _kova_register_audio_focus_changed_callback(kova_player_audio_request_cb callback,
                                                         void *user_data) noexcept {
  return kova::register_signal_callback(__func__, kFocusSignal, _dbus_audio_focus_signal_callback,
                                        audio_focus_cb_data_free_func,
                                        reinterpret_cast<void (*)(void)>(callback), user_data);
}

int _kova_unregister_audio_focus_changed_callback(unsigned int id) noexcept {
  return kova::unsubscribe_signal_quietly(id);
}

void _focus_changed_signal_cb(GDBusConnection *, const gchar *, const gchar *, const gchar *iface,
                              const gchar *signal, GVariant *params, gpointer user_data) noexcept {
  kova::Delivery delivery(user_data);
  if (!delivery) return;
  FocusChange change;
  if (!read_focus_change(__func__, params, iface, signal, &change)) return;
  kova_zone *zone = kova::new_zone(change.zone_id, change.scaler_id, change.app_id);
  KOVA_ASSERT_ALLOC(zone);
  auto *data = static_cast<cb_data *>(user_data);
  // The zone lives for this call only.
  reinterpret_cast<kova_audio_focus_zone_changed_cb>(data->callback)(zone, data->user_data);
  kova_resource_zone_free(zone);
}

void _focus_changed_signal_cb_free(gpointer data) noexcept { kova::release_cb_data(data); }

}  // extern "C"

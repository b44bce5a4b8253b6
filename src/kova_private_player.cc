// Player control operations: lifecycle calls, request notifications and
// external speakers.
#include <climits>

#include "brask.h"
#include "kova_private.h"
#include "pelk.h"

namespace {

// Registration, unregistration and the stop request are fire-and-forget so
// that a player never blocks on the service for them.
int send_without_reply(const char *func, int cmd, const char *method, GVariant *args, int result) {
  if (_kova_dbus_method_call_async_with_no_reply(method, args) != 0) {
    KOVA_LOG_AT(KOVA_LOG_ERROR, func, "[%08X] (%s) failed", cmd, method);
    return -1;
  }
  KOVA_LOG_AT(KOVA_LOG_INFO, func, "[%08X] (%s) success :: (%d)", cmd, method, 0);
  return result;
}

// "(ii)" call whose integer reply is returned unchanged (acknowledgements).
int acknowledge(const char *func, const char *method, int player_id) {
  int cmd = _kova_get_command_id();
  int value = 0;
  if (kova::call_sync_int(func, cmd, method, g_variant_new("(ii)", cmd, player_id), &value) != 0) {
    KOVA_LOG_AT(KOVA_LOG_ERROR, func, "[%08X] (%s) failed", cmd, method);
    return -1;
  }
  KOVA_LOG_AT(KOVA_LOG_INFO, func, "[%08X] (%s) success :: (%d)", cmd, method, value);
  return value;
}

// "(i)" reply that grants an audio output: negative means refusal.
int request_audio_out(const char *func, int cmd, const char *method, int player_id, int *audio_out) {
  int value = 0;
  if (kova::call_sync_int(func, cmd, method, g_variant_new("(ii)", cmd, player_id), &value) != 0) {
    KOVA_LOG_AT(KOVA_LOG_ERROR, func, "[%08X] (%s) failed", cmd, method);
    return -1;
  }
  if (value < 0) {
    KOVA_LOG_AT(KOVA_LOG_ERROR, func, "[%08X] (%s) failed %d", cmd, method, value);
    return -1;
  }
  *audio_out = value;
  KOVA_LOG_AT(KOVA_LOG_INFO, func, "[%08X] (%s) success :: (%d)", cmd, method, value);
  return 0;
}

void deliver_player_request(const char *func, GVariant *params, const char *iface, const char *signal,
                            gpointer user_data) {
  kova::Delivery delivery(user_data);
  if (!delivery) return;
  if (!kova::signal_params_are(func, params, "(ii)", signal)) return;
  gint32 request = 0;
  gint32 player_id = 0;
  g_variant_get(params, "(ii)", &request, &player_id);
  KOVA_LOG_AT(KOVA_LOG_INFO, func, "[%08X] Signal(%s.%s) Received(%d)", request, iface, signal, player_id);
  auto *data = static_cast<cb_data *>(user_data);
  // Both request callback types share one signature.
  reinterpret_cast<kova_player_video_request_cb>(data->callback)(player_id, data->user_data);
}

}  // namespace

extern "C" {

void _dbus_player_video_signal_callback(GDBusConnection *, const gchar *, const gchar *, const gchar *iface,
                                        const gchar *signal, GVariant *params, gpointer user_data) noexcept {
  deliver_player_request(__func__, params, iface, signal, user_data);
}

void _dbus_player_audio_signal_callback(GDBusConnection *, const gchar *, const gchar *, const gchar *iface,
                                        const gchar *signal, GVariant *params, gpointer user_data) noexcept {
  deliver_player_request(__func__, params, iface, signal, user_data);
}

}  // extern "C"

namespace {

void player_video_cb_data_free_func(gpointer data) noexcept { kova::release_cb_data(data); }
void player_audio_cb_data_free_func(gpointer data) noexcept { kova::release_cb_data(data); }

unsigned int register_video(const char *func, const char *signal, kova_player_video_request_cb cb,
                            void *user_data) {
  return kova::register_signal_callback(func, signal, _dbus_player_video_signal_callback,
                                        player_video_cb_data_free_func, reinterpret_cast<void (*)(void)>(cb),
                                        user_data);
}

unsigned int register_audio(const char *func, const char *signal, kova_player_audio_request_cb cb,
                            void *user_data) {
  return kova::register_signal_callback(func, signal, _dbus_player_audio_signal_callback,
                                        player_audio_cb_data_free_func, reinterpret_cast<void (*)(void)>(cb),
                                        user_data);
}

int extspk_send(const char *func, const char *method, const char *name, int value) {
  int cmd = _kova_get_command_id();
  int result = 0;
  if (kova::call_sync_int(func, cmd, method, g_variant_new("(isi)", cmd, name, value), &result) != 0) {
    KOVA_LOG_AT(KOVA_LOG_ERROR, func, "[%08X] (%s) failed", cmd, method);
    return -1;
  }
  KOVA_LOG_AT(KOVA_LOG_INFO, func, "[%08X] (%s) success :: (%d)", cmd, method, result);
  return result;
}

}  // namespace

extern "C" {

int _kova_player_register(int player_id, int value) noexcept {
  if (PelkWaitEvent(KOVA_READY_EVENT, KOVA_READY_WAIT_MS) != 0) {
    KOVA_LOGE("Kova is not ready");
    return -1;
  }
  int cmd = _kova_get_command_id();
  return send_without_reply(__func__, cmd, "PlayerRegister", g_variant_new("(iii)", cmd, player_id, value),
                            player_id);
}

int _kova_player_unregister(int player_id) noexcept {
  int cmd = _kova_get_command_id();
  return send_without_reply(__func__, cmd, "PlayerUnregister", g_variant_new("(ii)", cmd, player_id), 0);
}

int _kova_player_request_stop(int player_id) noexcept {
  int cmd = _kova_get_command_id();
  return send_without_reply(__func__, cmd, "PlayerRequestStop", g_variant_new("(ii)", cmd, player_id), 0);
}

int _kova_player_request_play(int player_id, kova_audio_out_e *audio_out) noexcept {
  int cmd = _kova_get_command_id();
  if (!kova::service_ready_now()) {
    KOVA_LOGI("[%08X] kova is not ready, return main audio out", cmd);
    *audio_out = KOVA_AUDIO_OUT_MAIN;
    return 0;
  }
  int granted = 0;
  if (request_audio_out(__func__, cmd, "PlayerRequestPlay", player_id, &granted) != 0) return -1;
  *audio_out = static_cast<kova_audio_out_e>(granted);
  return 0;
}

int _kova_player_video_start_done(int player_id) noexcept {
  return acknowledge(__func__, "PlayerVideoStartDone", player_id);
}
int _kova_player_video_stop_done(int player_id) noexcept {
  return acknowledge(__func__, "PlayerVideoStopDone", player_id);
}
int _kova_player_audio_start_done(int player_id) noexcept {
  return acknowledge(__func__, "PlayerAudioStartDone", player_id);
}
int _kova_player_audio_stop_done(int player_id) noexcept {
  return acknowledge(__func__, "PlayerAudioStopDone", player_id);
}

int _kova_get_player_audio_out(int player_id, kova_player_audio_out_e *audio_out) noexcept {
  int cmd = _kova_get_command_id();
  if (_kova_is_normal_mode()) {
    int mask = brask_get_active_audio_out(player_id);
    KOVA_LOGI("player : %d, active audio out : %d", player_id, mask);
    if (mask < 0) return -1;
    if (mask & 0x1) {
      *audio_out = KOVA_PLAYER_AUDIO_OUT_MAIN;
    } else if (mask & 0x2) {
      *audio_out = KOVA_PLAYER_AUDIO_OUT_SUB;
    } else {
      *audio_out = KOVA_PLAYER_AUDIO_OUT_NONE;
    }
    return 0;
  }
  int current = 0;
  if (request_audio_out(__func__, cmd, "GetPlayerAudioOut", player_id, &current) != 0) return -1;
  *audio_out = static_cast<kova_player_audio_out_e>(current);
  return 0;
}

unsigned int _kova_register_player_video_start_request_callback(kova_player_video_request_cb cb,
                                                               void *user_data) noexcept {
  return register_video(__func__, "PlayerVideoStart", cb, user_data);
}
unsigned int _kova_register_player_video_stop_request_callback(kova_player_video_request_cb cb,
                                                              void *user_data) noexcept {
  return register_video(__func__, "PlayerVideoStop", cb, user_data);
}
unsigned int _kova_register_player_audio_start_request_callback(kova_player_audio_request_cb cb,
                                                               void *user_data) noexcept {
  return register_audio(__func__, "PlayerAudioStart", cb, user_data);
}
unsigned int _kova_register_player_audio_stop_request_callback(kova_player_audio_request_cb cb,
                                                              void *user_data) noexcept {
  return register_audio(__func__, "PlayerAudioStop", cb, user_data);
}
unsigned int _kova_register_player_audio_resync_request_callback(kova_player_audio_request_cb cb,
                                                                void *user_data) noexcept {
  return register_audio(__func__, "PlayerAudioResync", cb, user_data);
}

int _kova_extspk_info_register(const char *name, int value) noexcept {
  return extspk_send(__func__, "RegisterExtSpkInfo", name, value);
}

int _kova_extspk_info_unregister(const char *name, int value) noexcept {
  return extspk_send(__func__, "UnregisterExtSpkInfo", name, value);
}

int _kova_get_extspk_info_audio_out(const char *name) noexcept {
  int cmd = _kova_get_command_id();
  if (!kova::service_ready_now()) {
    KOVA_LOGI("[%08X] kova is not ready, return main audio out", cmd);
    return KOVA_AUDIO_OUT_MAIN;
  }
  int value = 0;
  if (kova::call_sync_int(__func__, cmd, "GetExtSpkInfoAudioOut", g_variant_new("(is)", cmd, name), &value) !=
      0) {
    KOVA_LOGE("[%08X] (%s) failed", cmd, "GetExtSpkInfoAudioOut");
    return -1;
  }
  KOVA_LOGI("[%08X] (%s) success :: (%d)", cmd, "GetExtSpkInfoAudioOut", value);
  return value;
}

}  // extern "C"

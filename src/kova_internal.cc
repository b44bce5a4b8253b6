// Entry points of player lifecycle calls and external speakers.
#include "kova_private.h"

extern "C" {

int kova_player_register(int player_id, int value) noexcept {
  KOVA_LOGI(">>");
  return _kova_player_register(player_id, value);
}

int kova_player_unregister(int player_id) noexcept {
  KOVA_LOGI(">>");
  return _kova_player_unregister(player_id);
}

int kova_player_request_stop(int player_id) noexcept {
  KOVA_LOGI(">>");
  return _kova_player_request_stop(player_id);
}

int kova_player_request_play(int player_id, kova_audio_out_e *audio_out) noexcept {
  KOVA_LOGI(">>");
  if (audio_out == nullptr) {
    KOVA_LOGE("invalid param");
    return -1;
  }
  return _kova_player_request_play(player_id, audio_out);
}

int kova_player_video_start_done(int player_id) noexcept {
  KOVA_LOGI(">>");
  return _kova_player_video_start_done(player_id);
}

int kova_player_video_stop_done(int player_id) noexcept {
  KOVA_LOGI(">>");
  return _kova_player_video_stop_done(player_id);
}

int kova_player_audio_start_done(int player_id) noexcept {
  KOVA_LOGI(">>");
  return _kova_player_audio_start_done(player_id);
}

int kova_player_audio_stop_done(int player_id) noexcept {
  KOVA_LOGI(">>");
  return _kova_player_audio_stop_done(player_id);
}

int kova_get_player_audio_out(int player_id, kova_player_audio_out_e *audio_out) noexcept {
  if (audio_out == nullptr) {
    KOVA_LOGE("invalid param");
    return -1;
  }
  return _kova_get_player_audio_out(player_id, audio_out);
}

int kova_extspk_info_register(const char *name, int value) noexcept {
  KOVA_LOGI(">>");
  if (!kova::valid_string(name)) {
    KOVA_LOGE("invalid param");
    return -1;
  }
  return _kova_extspk_info_register(name, value);
}

int kova_extspk_info_unregister(const char *name, int value) noexcept {
  KOVA_LOGI(">>");
  if (!kova::valid_string(name)) {
    KOVA_LOGE("invalid param");
    return -1;
  }
  return _kova_extspk_info_unregister(name, value);
}

int kova_get_extspk_info_audio_out(const char *name, kova_audio_out_e *audio_out) noexcept {
  KOVA_LOGI(">>");
  if (!kova::valid_string(name) || audio_out == nullptr) {
    KOVA_LOGE("invalid param");
    return -1;
  }
  int out = _kova_get_extspk_info_audio_out(name);
  if (out < 0) return out;
  *audio_out = static_cast<kova_audio_out_e>(out);
  return 0;
}

}  // extern "C"

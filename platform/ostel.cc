#include "ostel.h"

namespace {
constexpr bool in(int value, int lo, int hi) { return value >= lo && value <= hi; }
}  // namespace

extern "C" {
bool ostel_is_video_decoder_category(int category) { return in(category, 1000, 1199); }
bool ostel_is_audio_decoder_category(int category) { return in(category, 2000, 2099); }
bool ostel_is_audio_out_category(int category) { return in(category, 3000, 3009); }
bool ostel_is_video_scaler_category(int category) { return in(category, 4000, 4009); }
bool ostel_is_mjpeg_decoder_category(int category) { return in(category, 1200, 1209); }
bool ostel_is_hdmi_dedicated_scaler_category(int category) { return category == 4009; }
bool ostel_support_hdmi_dedicated_scaler(void) { return true; }
bool ostel_is_h264_interlaced_limited_model(void) { return false; }
bool ostel_is_h264_portrait_seamless_playback_limited_model(void) { return false; }
}

// Capable category lookup: decides locally, from the platform's category and
// model information, whether the service has to choose the category.
#include <time.h>
#include <unistd.h>

#include "brask.h"
#include "kova_private.h"
#include "ostel.h"

namespace {

// The service leaves audio categories to the platform while the system is
// still starting up, up to this many whole seconds of monotonic time.
constexpr time_t kAudioStartupSeconds = 20;

time_t monotonic_seconds() {
#ifdef KOVA_FUZZING
  return kova_fuzz_monotonic_seconds();
#else
  struct timespec ts = {};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec;
#endif
}

// The unmasked H.264 decoder categories that model limits apply to.
bool is_h264_category(int unmasked) {
  return unmasked == 1010 || unmasked == 1011 || unmasked == 1152 || unmasked == 1153;
}

bool h264_limited_model() {
  return ostel_is_h264_interlaced_limited_model() || ostel_is_h264_portrait_seamless_playback_limited_model();
}

// Whether the service is asked, in normal mode, about a supported category.
bool normal_mode_needs_service(int category) {
  if (_kova_is_audio_category(category)) return monotonic_seconds() > kAudioStartupSeconds;
  if (is_h264_category(brask_unmask_category_options(category)) && h264_limited_model()) return true;
  if (!ostel_support_hdmi_dedicated_scaler()) return false;
  return ostel_is_hdmi_dedicated_scaler_category(brask_unmask_category_options(category));
}

}  // namespace

extern "C" {

bool _kova_is_supported_category(int category) noexcept {
  int unmasked = brask_unmask_category_options(category);
  return ostel_is_video_decoder_category(unmasked) || ostel_is_audio_decoder_category(unmasked) ||
         ostel_is_audio_out_category(unmasked) || ostel_is_video_scaler_category(unmasked) ||
         ostel_is_mjpeg_decoder_category(unmasked);
}

bool _kova_is_audio_category(int category) noexcept {
  int unmasked = brask_unmask_category_options(category);
  KOVA_LOGI("category(%d)/unmasked(%d)", category, unmasked);
  return ostel_is_audio_decoder_category(unmasked) || ostel_is_audio_out_category(unmasked);
}

int _kova_get_capable_category_id(int player_id, const char *app_id, int category) noexcept {
  int pid = static_cast<int>(getpid());
  int cmd = _kova_get_command_id();
  if (!kova::service_ready_now()) return category;
  if (_kova_is_normal_mode() && !normal_mode_needs_service(category)) return category;

  // The service gets the category with its option bits, as the caller gave it.
  int answer = 0;
  GVariant *args = g_variant_new("(iisii)", cmd, player_id, app_id, category, pid);
  if (kova::call_sync_int(__func__, cmd, "GetCapableCatId", args, &answer) != 0) {
    KOVA_LOGE("[%08X] _kova_dbus_method_call() for GET_CAPABLE_CATEGORY_ID is failed", cmd);
    return -1;
  }
  KOVA_LOGI("[%08X] _kova_dbus_method_call() success, method return value is (%i)", cmd, answer);
  return answer;
}

}  // extern "C"

// Maximum video resolution queries.
#include "kova_private.h"

namespace {

struct Resolution {
  gint32 width = 0;
  gint32 height = 0;
  gint32 framerate = 0;
};

// One "(iii)" question; false (with the failure line) when the call fails.
bool ask_resolution(const char *func, int cmd, const char *method, GVariant *args, Resolution *out) {
  GVariant *reply = nullptr;
  if (kova::call_sync(func, cmd, method, args, "(iii)", &reply) != 0) {
    KOVA_LOG_AT(KOVA_LOG_ERROR, func, "[%08X] (%s) failed", cmd, method);
    return false;
  }
  g_variant_get(reply, "(iii)", &out->width, &out->height, &out->framerate);
  g_variant_unref(reply);
  return true;
}

}  // namespace

extern "C" {

int _kova_get_max_video_resolution(const char *app_id, int *width, int *height, int *framerate) noexcept {
  const char *method = "GetMaxVideo";
  int cmd = _kova_get_command_id();
  Resolution r;
  if (!ask_resolution(__func__, cmd, method, g_variant_new("(is)", cmd, app_id), &r)) return -1;
  KOVA_LOGI("[%08X] (%s) success (%d*%d)-(%d)", cmd, method, r.width, r.height, r.framerate);
  *width = r.width;
  *height = r.height;
  *framerate = r.framerate;
  return 0;
}

int _kova_policy_get_max_resolution(kova_rsc_policy_e policy, kova_video_codec_e codec, int *width, int *height,
                                    int *framerate) noexcept {
  const char *method = "PolicyGetMaxVideo";
  int cmd = _kova_get_command_id();
  Resolution r;
  GVariant *args = g_variant_new("(iii)", cmd, static_cast<gint32>(policy), static_cast<gint32>(codec));
  if (!ask_resolution(__func__, cmd, method, args, &r)) return -1;
  KOVA_LOGI("[%08X] (%s) success policy(%d)/codec(%d)/(%d*%d)-(%d)", cmd, method, static_cast<int>(policy),
            static_cast<int>(codec), r.width, r.height, r.framerate);
  *width = r.width;
  *height = r.height;
  *framerate = r.framerate;
  return 0;
}

}  // extern "C"

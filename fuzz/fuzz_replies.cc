// Each way the library reads a reply, answered with a reply of any type and
// value: one public function per reading helper (functions that differ only
// in the method name they call share one).
//
// Input: a selector byte (the function; bit 7 also gives the policy record an
// application list), a flags byte (bit 0: the service is not ready; bit 1:
// the policy is activated; bit 2: the system has just started), then the
// reply as a type string, a NUL byte and the serialised value; without a
// valid reply the call fails.
#include "harness.h"

namespace {

// Outputs of the calls.
int a, b, c;
void *list;
kova_zone *zone;
kova_audio_out_e out;
kova_player_audio_out_e player_out;
bool with_apps;

void on_resource(const char *, kova_resource *, void *) {}
void on_max_rez(const char *, int, int, int, void *) {}

// Zone lists are walked under random operations by fuzz_lists.
void free_zones(int got) {
  if (got == 0) kova_free_zone_list(list);
}

using Call = void (*)();
const Call kCalls[] = {
    [] { kova_player_request_play(3, &out); },
    [] { kova_player_video_start_done(3); },
    [] { kova_get_player_audio_out(3, &player_out); },
    [] { kova_extspk_info_register("spk", 1); },
    [] { kova_get_extspk_info_audio_out("spk", &out); },
    [] { free_zones(kova_get_zone_list(&list)); },
    [] { free_zones(kova_get_multiview_zone_list(&list)); },
    [] { kova_set_app_zone_info("app.z", 2); },
    [] { kova_notify_layout_state(KOVA_LAYOUT_STATE_SINGLE); },
    [] { if (kova_get_focused_zone(&zone) == 0) kova_zone_free(zone); },
    [] { if (kova_get_audio_focus_zone(&zone) == 0) kova_resource_zone_free(zone); },
    [] { kova_switch_best_quality_zone(1, 2); },
    [] { kova_restore_best_quality_zone(); },
    [] { kova_set_audio_focus(2); },
    [] { kova_get_audio_focus(&a); },
    [] { kova_is_audio_focused("app.f"); },
    [] { kova_register_resource_change_callback("app.r", on_resource, nullptr); },
    [] { kova_register_max_video_resolution_changed_callback("app.r", on_max_rez, nullptr); },
    [] { kova_get_max_video_resolution("app.m", &a, &b, &c); },
    [] { kova_get_capable_category_id(1, "app.c", 2005); },  // audio decoder
    [] { kova_get_capable_category_id(1, "app.c", 4009); },  // HDMI scaler
    [] {
      kova_policy_info *info = kova_policy_info_create_new("owner");
      if (with_apps) kova_policy_info_set_app_list(info, kova_app_list_add(kova_app_list_create_new(), 1, "app.a"));
      kova_set_resource_policy(5, info);
      kova_policy_info_free(info);
    },
    [] { kova_set_resource_policy_internal(5); },
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fuzz::Reader in(data, size);
  const uint8_t which = in.byte();
  const uint8_t flags = in.byte();
  with_apps = (which & 0x80) != 0;
  fuzz::platform.ready = (flags & 1) == 0;
  fuzz::platform.policy_active = (flags & 2) != 0;
  fuzz::platform.monotonic_seconds = (flags & 4) != 0 ? 5 : 100;
  fuzz::set_reply(in.variant(true));
  kCalls[(which & 0x7F) % (sizeof kCalls / sizeof kCalls[0])]();
  fuzz::set_reply(nullptr);
  return 0;
}

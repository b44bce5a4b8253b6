// Every public function that makes a synchronous call, answered with a reply
// of any type and value.
//
// Input: one selector byte (the function), one flags byte (bit 0: the service
// is not ready; bit 1: the policy is activated; bit 2: the system has just
// started; bit 3: normalise the reply; bit 4: the call fails), then the reply
// as a type string, a NUL byte and the serialised value.
#include <climits>

#include "harness.h"
#include "kova_private.h"

namespace {

void on_resource(const char *, kova_resource *, void *) {}
void on_max_rez(const char *, int, int, int, void *) {}
void on_best_zone(int, int, int, void *) {}

void walk_and_free(void *list) {
  kova_zone *zone = nullptr;
  int n = 0;
  while (kova_get_next_zone(list, &zone) == 0) {
    fuzz::check(zone != nullptr, "zone list: null zone");
    kova_zone_get_app_id(zone);
    ++n;
  }
  while (kova_get_prev_zone(list, &zone) == 0) --n;
  fuzz::check(n == 1, "zone list: walks disagree");
  kova_free_zone_list(list);
}

kova_app_list_h sample_list() {
  kova_app_list_h list = kova_app_list_create_new();
  kova_app_list_add(list, 1, "app.one");
  kova_app *app = kova_app_list_create_new_app("app.two");
  kova_app_set_priority_video(app, 3);
  kova_app_set_priority_audio(app, 4);
  kova_app_list_insert_app(list, app);
  return list;
}

void call(uint8_t which) {
  int a = 0, b = 0, c = 0;
  void *list = nullptr;
  kova_zone *zone = nullptr;
  kova_audio_out_e out = KOVA_AUDIO_OUT_MAIN;
  kova_player_audio_out_e player_out = KOVA_PLAYER_AUDIO_OUT_NONE;
  switch (which % 40) {
    case 0: kova_player_request_play(3, &out); break;
    case 1: kova_player_video_start_done(3); break;
    case 2: kova_player_video_stop_done(3); break;
    case 3: kova_player_audio_start_done(3); break;
    case 4: kova_player_audio_stop_done(3); break;
    case 5: kova_get_player_audio_out(3, &player_out); break;
    case 6: kova_extspk_info_register("spk", 1); break;
    case 7: kova_extspk_info_unregister("spk", 1); break;
    case 8: kova_get_extspk_info_audio_out("spk", &out); break;
    case 9: if (kova_get_zone_list(&list) == 0) walk_and_free(list); break;
    case 10: if (kova_get_multiview_zone_list(&list) == 0) walk_and_free(list); break;
    case 11:
      if (kova_get_resource_zone_list(&list) == 0) {
        while (kova_resource_zone_list_get_next(list) != nullptr) {
        }
        kova_free_resource_zone_list(list);
      }
      break;
    case 12: kova_set_app_zone_info("app.z", 2); break;
    case 13: kova_remove_app_zone_info("app.z", 2); break;
    case 14: kova_set_pre_assigned_app_zone_info("app.z", 2); break;
    case 15: kova_notify_layout_state(static_cast<kova_layout_state_e>(1)); break;
    case 16: if (kova_get_focused_zone(&zone) == 0) kova_zone_free(zone); break;
    case 17: if (kova_get_audio_focus_zone(&zone) == 0) kova_resource_zone_free(zone); break;
    case 18: kova_switch_best_quality_zone(1, 2); break;
    case 19: kova_restore_best_quality_zone(); break;
    case 20: kova_set_audio_focus(2); break;
    case 21: kova_get_audio_focus(&a); break;
    case 22: kova_get_last_audio_focus(&a); break;
    case 23: kova_is_audio_focused("app.f"); break;
    case 24: kova_register_resource_change_callback("app.r", on_resource, nullptr); break;
    case 25:
      _kova_add_resource_change_cb("app.u", on_resource, nullptr);
      kova_unregister_resource_change_callback("app.u", on_resource);
      break;
    case 26: kova_register_max_video_resolution_changed_callback("app.r", on_max_rez, nullptr); break;
    case 27:
      _kova_add_max_video_resolution_cb("app.u", on_max_rez, nullptr);
      kova_unsubscribe_max_video_resolution_changed("app.u", on_max_rez);
      break;
    case 28: kova_get_max_video_resolution("app.m", &a, &b, &c); break;
    case 29: kova_get_allowed_max_video_resolution("app.m", &a, &b, &c); break;
    case 30:
      kova_policy_get_max_resolution(static_cast<kova_rsc_policy_e>(1), static_cast<kova_video_codec_e>(2), &a, &b,
                                     &c);
      break;
    case 31: kova_get_capable_category_id(1, "app.c", 2005); break;    // audio decoder
    case 32: kova_get_capable_category_id(1, "app.c", 4009); break;    // HDMI scaler
    case 33: kova_get_capable_category_id(1, "app.c", 0x10000 | 1010); break;  // H.264 with an option
    case 34: {
      kova_policy_info *info = kova_policy_info_create_new("owner");
      if (which & 0x80) kova_policy_info_set_app_list(info, sample_list());
      kova_set_resource_policy(5, info);
      kova_policy_info_free(info);
      break;
    }
    case 35: kova_set_resource_policy_internal(5); break;
    case 36:
    case 37: {
      kova_app_list_h apps = sample_list();
      if (which % 40 == 36) {
        kova_set_resource_policy_app_zone_info(5, apps);
      } else {
        kova_set_pre_assigned_app_list(apps);
      }
      kova_app_list_free(apps);
      break;
    }
    case 38: {
      kova_app_list_h apps = sample_list();
      kova_register_app_list(1, apps);
      kova_unregister_app_list(1, apps);
      kova_app_list_free(apps);
      break;
    }
    case 39:
      // Registration asks GIO for the bus, which fails here: the record
      // must be taken back.
      kova_register_best_quality_zone_switched_callback(on_best_zone, nullptr);
      fuzz::check(kova_unregister_best_quality_zone_switched_callback(on_best_zone) == -1,
                  "best zone: failed registration kept its record");
      break;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fuzz::init();
  fuzz::Reader in(data, size);
  const uint8_t which = in.byte();
  const uint8_t flags = in.byte();
  fuzz::platform.ready = (flags & 1) == 0;
  fuzz::platform.policy_active = (flags & 2) != 0;
  fuzz::platform.monotonic_seconds = (flags & 4) != 0 ? 5 : 100;
  GVariant *reply = in.variant(true, (flags & 8) != 0);
  fuzz::set_reply((flags & 16) != 0 ? nullptr : reply);
  call(which);
  fuzz::set_reply(nullptr);
  if (reply != nullptr) g_variant_unref(reply);
  return 0;
}

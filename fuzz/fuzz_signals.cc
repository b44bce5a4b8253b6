// Every signal handler fed parameters of any type and value, with callbacks
// registered so that well-typed signals reach the application.
//
// Input: a selector byte (low 6 bits: the handler; bit 6: the best-zone
// callback unregisters itself while called, see on_best_zone), then the parameters as a type
// string, a NUL byte and the serialised value.

#include "harness.h"

namespace {

// What the callbacks saw, summed so that every value is read.
unsigned seen = 0;
void *const kUserData = &seen;
bool reenter = false;

template <typename... T>
void note(void *user_data, T... values) {
  fuzz::check(user_data == kUserData, "callback got the wrong user data");
  ((seen += static_cast<unsigned>(values)), ...);
}

void on_player_request(int player_id, void *user_data) { note(user_data, player_id); }

void on_focus_zone(kova_zone *zone, void *user_data) {
  const char *app = zone != nullptr ? kova_resource_zone_get_app_id(zone) : nullptr;
  fuzz::check(app != nullptr && g_utf8_validate(app, -1, nullptr), "focus zone: app id unreadable");
  note(user_data, kova_resource_zone_get_id(zone), kova_resource_zone_get_scaler_id(zone));
}

void on_policy_changed(kova_policy_info *info, void *user_data) {
  fuzz::check(info != nullptr, "policy changed: no record");
  kova_app_list_h list = kova_policy_info_get_app_list(info);
  int walked = 0;
  for (kova_app *app = kova_app_list_get_first(list); app != nullptr; app = kova_app_list_get_next(list)) {
    fuzz::check(kova_app_get_app_id(app) != nullptr, "policy changed: app without id");
    ++walked;
  }
  fuzz::check(walked == kova_app_list_get_count(list), "policy changed: count differs from the walk");
  note(user_data, kova_policy_info_get_policy(info));
}

void on_best_zone(int first, int second, int third, void *user_data) {
  note(user_data, first, second, third);
  if (!reenter) return;
  // Unregistering oneself during a delivery, and maybe registering again.
  _kova_remove_best_quality_zone_switched_callback(on_best_zone);
  if (first & 1) _kova_add_best_quality_zone_switched_callback(on_best_zone, kUserData);
}

void on_resource(const char *app_id, kova_resource *resource, void *user_data) {
  int w = 0, h = 0, f = 0;
  fuzz::check(app_id != nullptr && kova_rsc_get_video_max_resolution(resource, &w, &h, &f) == 0,
              "resource: record unreadable");
  note(user_data, w, h, f, kova_rsc_max_resolution_changed(resource), kova_rsc_audio_out_changed(resource));
}

void on_max_rez(const char *app_id, int width, int height, int framerate, void *user_data) {
  fuzz::check(app_id != nullptr, "max resolution: no app id");
  note(user_data, width, height, framerate);
}

// The handlers, with the user data the library subscribed them with.
std::vector<fuzz::Subscription> targets;

void setup() {
  kova_register_player_video_start_request_callback(on_player_request, kUserData);
  kova_register_player_video_stop_request_callback(on_player_request, kUserData);
  kova_register_player_audio_start_request_callback(on_player_request, kUserData);
  kova_register_player_audio_stop_request_callback(on_player_request, kUserData);
  kova_register_player_audio_resync_request_callback(on_player_request, kUserData);
  kova_register_audio_focus_changed_callback(on_player_request, kUserData);
  kova_subscribe_audio_focus_zone_changed(on_focus_zone, kUserData);
  kova_register_resource_policy_changed_callback(on_policy_changed, kUserData);
  targets = fuzz::subscriptions;
  fuzz::check(targets.size() == 8, "a registration did not subscribe");
  // The best-zone and per-application registries share one subscription each.
  targets.push_back({"BestQualitZoneSwitched", onBestQualityZoneSwitched, nullptr, nullptr});
  targets.push_back({"AppRscChanged", onRezChanged, nullptr, nullptr});
  targets.push_back({"MaxRezChanged", onMaxRezChanged, nullptr, nullptr});
  // The registrations end with the process, before the registries go, as a
  // closing bus would end the subscriptions. A signal may name one of these
  // application ids, or another.
  std::atexit([] {
    _kova_remove_best_quality_zone_switched_callback(on_best_zone);
    for (unsigned int id = 1; id <= fuzz::subscriptions.size(); ++id) kova_fuzz_unsubscribe(id);
  });
  for (const char *id : {"app.a", "", "org.example.player"}) {
    _kova_add_resource_change_cb(id, on_resource, kUserData);
    _kova_add_max_video_resolution_cb(id, on_max_rez, kUserData);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const bool ready = (setup(), true);
  (void)ready;
  fuzz::Reader in(data, size);
  const uint8_t selector = in.byte();
  GVariant *params = in.variant(true);
  if (params == nullptr) return 0;
  reenter = (selector & 0x40) != 0;
  _kova_add_best_quality_zone_switched_callback(on_best_zone, kUserData);
  const fuzz::Subscription &t = targets[(selector & 0x3F) % targets.size()];
  t.handler(nullptr, ":1.7", KOVA_DBUS_PATH, KOVA_DBUS_INTERFACE, t.signal, params, t.user_data);
  g_variant_unref(params);
  return 0;
}

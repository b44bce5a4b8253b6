// Every signal handler fed parameters of any type and value, with callbacks
// registered so that well-typed signals reach the application.
//
// Input: one selector byte (low bits: the handler; bit 7: normalise the
// value; bit 6: callbacks re-register themselves while called), then the
// parameters as a type string, a NUL byte and the serialised value.
#include <cstdlib>
#include <cstring>
#include <string>

#include "harness.h"
#include "kova_private.h"

namespace {

// The application ids registered with the per-application registries; a
// signal may name any of them, or another.
constexpr const char *kAppIds[] = {"app.a", "", "org.example.player"};

// What the callbacks saw, summed with wrap-around so that the values are read.
unsigned delivered = 0;
bool reenter = false;

template <typename... T>
void note(T... values) {
  ((delivered += static_cast<unsigned>(values)), ...);
}

void on_player_request(int player_id, void *user_data) {
  fuzz::check(user_data == &delivered, "player request: wrong user data");
  note(player_id);
}

void on_focus_zone(kova_zone *zone, void *user_data) {
  fuzz::check(user_data == &delivered && zone != nullptr, "focus zone: bad arguments");
  const char *app = kova_resource_zone_get_app_id(zone);
  fuzz::check(app != nullptr && g_utf8_validate(app, -1, nullptr), "focus zone: app id unreadable");
  note(kova_resource_zone_get_id(zone), kova_resource_zone_get_scaler_id(zone));
}

void on_policy_changed(kova_policy_info *info, void *user_data) {
  fuzz::check(user_data == &delivered && info != nullptr, "policy changed: bad arguments");
  kova_app_list_h list = kova_policy_info_get_app_list(info);
  int walked = 0;
  for (kova_app *app = kova_app_list_get_first(list); app != nullptr; app = kova_app_list_get_next(list)) {
    fuzz::check(kova_app_get_app_id(app) != nullptr, "policy changed: app without id");
    ++walked;
  }
  fuzz::check(walked == kova_app_list_get_count(list), "policy changed: count differs from the walk");
  while (kova_app_list_get_prev(list) != nullptr) --walked;
  fuzz::check(walked <= 1, "policy changed: backward walk stops early");
  note(kova_policy_info_get_policy(info));
}

void on_best_zone(int first, int second, int third, void *user_data);

void add_best_zone() { _kova_add_best_quality_zone_switched_callback(on_best_zone, &delivered); }

void on_best_zone(int first, int second, int third, void *user_data) {
  fuzz::check(user_data == &delivered, "best zone: wrong user data");
  note(first, second, third);
  if (!reenter) return;
  // Unregistering oneself during a delivery, then registering again.
  _kova_remove_best_quality_zone_switched_callback(on_best_zone);
  if (first & 1) add_best_zone();
}

void on_resource(const char *app_id, kova_resource *resource, void *user_data);
void on_max_rez(const char *app_id, int width, int height, int framerate, void *user_data);

void on_resource(const char *app_id, kova_resource *resource, void *user_data) {
  fuzz::check(user_data == &delivered && app_id != nullptr && resource != nullptr, "resource: bad arguments");
  int w = 0, h = 0, f = 0;
  fuzz::check(kova_rsc_get_video_max_resolution(resource, &w, &h, &f) == 0, "resource: record unreadable");
  note(w, h, f, kova_rsc_max_resolution_changed(resource), kova_rsc_audio_out_changed(resource));
  if (!reenter) return;
  std::string id(app_id);  // app_id belongs to the signal
  _kova_remove_resource_change_cb(id.c_str(), on_resource);
  _kova_add_resource_change_cb(id.c_str(), on_resource, &delivered);
}

void on_max_rez(const char *app_id, int width, int height, int framerate, void *user_data) {
  fuzz::check(user_data == &delivered && app_id != nullptr, "max resolution: bad arguments");
  note(width, height, framerate);
  if (!reenter) return;
  std::string id(app_id);
  _kova_remove_max_video_resolution_cb(id.c_str(), on_max_rez);
  _kova_add_max_video_resolution_cb(id.c_str(), on_max_rez, &delivered);
}

// The handler and user data a signal is delivered with.
struct Target {
  const char *signal;
  GDBusSignalCallback handler;
  gpointer user_data;
};

Target targets[11];

Target subscribed(unsigned int id) {
  const fuzz::Subscription *s = fuzz::subscription(id);
  fuzz::check(s != nullptr, "registration did not subscribe");
  return {s->signal, s->handler, s->user_data};
}

void setup() {
  fuzz::init();
  void *ud = &delivered;
  targets[0] = subscribed(kova_register_player_video_start_request_callback(on_player_request, ud));
  targets[1] = subscribed(kova_register_player_video_stop_request_callback(on_player_request, ud));
  targets[2] = subscribed(kova_register_player_audio_start_request_callback(on_player_request, ud));
  targets[3] = subscribed(kova_register_player_audio_stop_request_callback(on_player_request, ud));
  targets[4] = subscribed(kova_register_player_audio_resync_request_callback(on_player_request, ud));
  targets[5] = subscribed(kova_register_audio_focus_changed_callback(on_player_request, ud));
  targets[6] = subscribed(kova_subscribe_audio_focus_zone_changed(on_focus_zone, ud));
  targets[7] = subscribed(kova_register_resource_policy_changed_callback(on_policy_changed, ud));
  // The shared-subscription families dispatch to their registries.
  targets[8] = {"BestQualitZoneSwitched", onBestQualityZoneSwitched, nullptr};
  targets[9] = {"AppRscChanged", onRezChanged, nullptr};
  targets[10] = {"MaxRezChanged", onMaxRezChanged, nullptr};
  // The registrations end with the process, before the registries go.
  std::atexit([] { _kova_remove_best_quality_zone_switched_callback(on_best_zone); });
  for (const char *id : kAppIds) {
    _kova_add_resource_change_cb(id, on_resource, ud);
    _kova_add_max_video_resolution_cb(id, on_max_rez, ud);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static bool ready = (setup(), true);
  (void)ready;
  fuzz::Reader in(data, size);
  const uint8_t selector = in.byte();
  reenter = (selector & 0x40) != 0;
  GVariant *params = in.variant(true, (selector & 0x80) != 0);
  if (params == nullptr) return 0;
  const Target &t = targets[(selector & 0x3F) % (sizeof targets / sizeof targets[0])];
  add_best_zone();  // a re-entrant delivery may have left it unregistered
  t.handler(nullptr, ":1.7", KOVA_DBUS_PATH, KOVA_DBUS_INTERFACE, t.signal, params, t.user_data);
  g_variant_unref(params);
  return 0;
}

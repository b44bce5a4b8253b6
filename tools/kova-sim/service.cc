#include "service.h"

#include <cstdarg>
#include <cstdio>
#include <type_traits>

#include "kova_introspection.h"

namespace kova_sim {
namespace {

// Values read from the argument tuples.
std::string Str(GVariant *params, size_t i) {
  GVariant *v = g_variant_get_child_value(params, i);
  std::string s = g_variant_get_string(v, nullptr);
  g_variant_unref(v);
  return s;
}

int Int(GVariant *params, size_t i) {
  GVariant *v = g_variant_get_child_value(params, i);
  int n = g_variant_get_int32(v);
  g_variant_unref(v);
  return n;
}

uint32_t Uint(GVariant *params, size_t i) {
  GVariant *v = g_variant_get_child_value(params, i);
  uint32_t n = g_variant_get_uint32(v);
  g_variant_unref(v);
  return n;
}

GVariant *IntReply(int v) { return g_variant_new("(i)", v); }

std::vector<AppPriority> AppPriorities(GVariant *params, size_t i) {
  std::vector<AppPriority> out;
  GVariant *array = g_variant_get_child_value(params, i);
  GVariantIter iter;
  g_variant_iter_init(&iter, array);
  const char *app;
  int video, audio;
  while (g_variant_iter_next(&iter, "(&sii)", &app, &video, &audio)) out.push_back(AppPriority{app, video, audio});
  g_variant_unref(array);
  return out;
}

std::vector<ZoneApp> ZoneApps(GVariant *params, size_t i) {
  std::vector<ZoneApp> out;
  GVariant *array = g_variant_get_child_value(params, i);
  GVariantIter iter;
  g_variant_iter_init(&iter, array);
  int zone;
  const char *app;
  while (g_variant_iter_next(&iter, "(i&s)", &zone, &app)) out.push_back(ZoneApp{zone, app});
  g_variant_unref(array);
  return out;
}

std::vector<std::string> AppNames(GVariant *params, size_t i) {
  std::vector<std::string> out;
  GVariant *array = g_variant_get_child_value(params, i);
  GVariantIter iter;
  g_variant_iter_init(&iter, array);
  const char *app;
  while (g_variant_iter_next(&iter, "(&s)", &app)) out.emplace_back(app);
  g_variant_unref(array);
  return out;
}

std::string Print(GVariant *v) {
  if (v == nullptr) return "()";
  gchar *text = g_variant_print(v, FALSE);
  std::string out = text;
  g_free(text);
  return out;
}

struct TimerData {
  Service *service;
  unsigned key;
  int player_id;
  unsigned serial;
};

}  // namespace

// ------------------------------------------------------------------ set-up

Service::~Service() {
  for (const auto &[key, source] : timers_) g_source_remove(source);
  if (registration_ != 0) g_dbus_connection_unregister_object(connection_, registration_);
  if (node_ != nullptr) g_dbus_node_info_unref(node_);
  if (connection_ != nullptr) g_object_unref(connection_);
}

bool Service::Register(GDBusConnection *connection, std::string *error) {
  GError *err = nullptr;
  node_ = g_dbus_node_info_new_for_xml(kova_tools::kIntrospectionXml, &err);
  if (node_ == nullptr) {
    *error = std::string("bad interface description: ") + err->message;
    g_error_free(err);
    return false;
  }
  GDBusInterfaceInfo *info = g_dbus_node_info_lookup_interface(node_, kInterface);
  if (info == nullptr) {
    *error = std::string("the interface description lacks ") + kInterface;
    return false;
  }
  // Every method described must have a handler, and the other way round.
  for (GDBusMethodInfo **m = info->methods; *m != nullptr; ++m) {
    if (Handlers().find((*m)->name) == Handlers().end()) {
      *error = std::string("no handler for ") + (*m)->name;
      return false;
    }
  }
  for (const auto &[name, handler] : Handlers()) {
    if (g_dbus_interface_info_lookup_method(info, name.c_str()) == nullptr) {
      *error = "the interface description lacks " + name;
      return false;
    }
  }
  static const GDBusInterfaceVTable vtable = {&Service::OnMethodCall, nullptr, nullptr, {}};
  connection_ = G_DBUS_CONNECTION(g_object_ref(connection));
  registration_ = g_dbus_connection_register_object(connection_, kObjectPath, info, &vtable, this, nullptr, &err);
  if (registration_ == 0) {
    *error = std::string("cannot export ") + kObjectPath + ": " + err->message;
    g_error_free(err);
    return false;
  }
  return true;
}

bool Service::OwnName(std::string *error) {
  GError *err = nullptr;
  GVariant *reply = g_dbus_connection_call_sync(
      connection_, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "RequestName",
      g_variant_new("(su)", kBusName, 4u /* DO_NOT_QUEUE */), G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, -1,
      nullptr, &err);
  if (reply == nullptr) {
    *error = std::string("cannot request the bus name ") + kBusName + ": " + err->message;
    g_error_free(err);
    return false;
  }
  guint32 result = 0;
  g_variant_get(reply, "(u)", &result);
  g_variant_unref(reply);
  if (result != 1 /* PRIMARY_OWNER */) {
    *error = std::string("the bus name ") + kBusName + " is already owned";
    return false;
  }
  return true;
}

void Service::Log(const char *fmt, ...) const {
  if (!verbose_) return;
  va_list args;
  va_start(args, fmt);
  std::fputs("kova-sim: ", stderr);
  std::vfprintf(stderr, fmt, args);
  std::fputc('\n', stderr);
  va_end(args);
}

// ------------------------------------------------------------ dispatching

void Service::OnMethodCall(GDBusConnection *, const char *, const char *, const char *, const char *method,
                           GVariant *params, GDBusMethodInvocation *invocation, gpointer self_ptr) {
  auto *self = static_cast<Service *>(self_ptr);
  // GDBus has checked the arguments against the description: every method
  // takes the command identifier first.
  auto it = Handlers().find(method);
  int cmd = Int(params, 0);
  GVariant *reply = (self->*(it->second))(cmd, params);
  if (reply != nullptr) g_variant_ref_sink(reply);
  self->Log("[%08X] %s%s -> %s", static_cast<unsigned>(cmd), method, Print(params).c_str(),
            reply ? Print(reply).c_str() : "(no reply)");
  // The policy marker is in place when the caller has its answer; the
  // signals that follow from the call come after the answer.
  self->FollowPolicy();
  g_dbus_method_invocation_return_value(invocation, reply);
  if (reply != nullptr) g_variant_unref(reply);
  self->Flush();
}

void Service::FollowPolicy() {
  if (kova_.policy_active() == policy_marker_) return;
  policy_marker_ = kova_.policy_active();
  if (policy_marker_) {
    std::string error;
    if (!markers_.Raise(kPolicyMarker, &error)) std::fprintf(stderr, "kova-sim: %s\n", error.c_str());
  } else {
    markers_.Lower(kPolicyMarker);
  }
}

void Service::Flush() {
  FollowPolicy();
  Outbox out = kova_.TakeOutbox();
  for (const Signal &signal : out.signals) EmitSignal(signal);
  for (const StopTimer &t : out.timers) {
    const unsigned key = ++next_timer_;
    auto *data = new TimerData{this, key, t.player_id, t.serial};
    timers_[key] = g_timeout_add_full(G_PRIORITY_DEFAULT, static_cast<guint>(t.ms), &Service::OnStopTimer, data,
                                      [](gpointer d) { delete static_cast<TimerData *>(d); });
  }
}

gboolean Service::OnStopTimer(gpointer data) {
  auto *t = static_cast<TimerData *>(data);
  Service *self = t->service;
  self->timers_.erase(t->key);
  if (self->kova_.StopTimedOut(t->player_id, t->serial)) {
    self->Log("stop of player %d not acknowledged in time", t->player_id);
  }
  self->Flush();
  return G_SOURCE_REMOVE;
}

void Service::EmitSignal(const Signal &signal) {
  const char *name = "";
  GVariant *params = std::visit(
      [&name](const auto &s) -> GVariant * {
        using T = std::decay_t<decltype(s)>;
        if constexpr (std::is_same_v<T, PlayerSignal>) {
          name = SignalName(s.request);
          return g_variant_new("(ii)", s.request_id, s.player_id);
        } else if constexpr (std::is_same_v<T, BestZoneSignal>) {
          name = "BestQualitZoneSwitched";
          return g_variant_new("(iii)", s.zone_id, s.previous_zone_id, s.option);
        } else if constexpr (std::is_same_v<T, AudioFocusSignal>) {
          name = "AudioFocusChanged";
          return g_variant_new("(iiis)", s.change_id, s.zone_id, s.scaler_id, s.app_id.c_str());
        } else if constexpr (std::is_same_v<T, AppRscSignal>) {
          name = "AppRscChanged";
          return g_variant_new("(siiiii)", s.app_id.c_str(), s.max_resolution_changed, s.audio_out_changed,
                               s.max_video.width, s.max_video.height, s.max_video.framerate);
        } else if constexpr (std::is_same_v<T, MaxRezSignal>) {
          name = "MaxRezChanged";
          return g_variant_new("(siii)", s.app_id.c_str(), s.max_video.width, s.max_video.height,
                               s.max_video.framerate);
        } else {
          static_assert(std::is_same_v<T, PolicySignal>);
          name = "PolicyChanged";
          GVariantBuilder apps;
          g_variant_builder_init(&apps, G_VARIANT_TYPE("a(is)"));
          for (const ZoneApp &a : s.apps) g_variant_builder_add(&apps, "(is)", a.zone_id, a.app_id.c_str());
          return g_variant_new("(iia(is))", s.change_id, s.policy, &apps);
        }
      },
      signal);
  g_variant_ref_sink(params);
  Log("signal %s%s", name, Print(params).c_str());
  GError *err = nullptr;
  if (!g_dbus_connection_emit_signal(connection_, nullptr, kObjectPath, kInterface, name, params, &err)) {
    std::fprintf(stderr, "kova-sim: cannot emit %s: %s\n", name, err->message);
    g_error_free(err);
  }
  g_variant_unref(params);
}

const std::map<std::string, Service::Handler, std::less<>> &Service::Handlers() {
  static const std::map<std::string, Handler, std::less<>> handlers = {
      {"PlayerRegister", &Service::PlayerRegister},
      {"PlayerUnregister", &Service::PlayerUnregister},
      {"PlayerRequestStop", &Service::PlayerRequestStop},
      {"PlayerRequestPlay", &Service::PlayerRequestPlay},
      {"PlayerVideoStartDone", &Service::PlayerVideoStartDone},
      {"PlayerVideoStopDone", &Service::PlayerVideoStopDone},
      {"PlayerAudioStartDone", &Service::PlayerAudioStartDone},
      {"PlayerAudioStopDone", &Service::PlayerAudioStopDone},
      {"GetPlayerAudioOut", &Service::GetPlayerAudioOut},
      {"RegisterExtSpkInfo", &Service::RegisterExtSpkInfo},
      {"UnregisterExtSpkInfo", &Service::UnregisterExtSpkInfo},
      {"GetExtSpkInfoAudioOut", &Service::GetExtSpkInfoAudioOut},
      {"GetMultiviewZoneIds", &Service::GetMultiviewZoneIds},
      {"GetMultiviewZoneList", &Service::GetMultiviewZoneList},
      {"SetAppToZone", &Service::SetAppToZone},
      {"RemoveAppFromZone", &Service::RemoveAppFromZone},
      {"SetPreAssignedAppToZone", &Service::SetPreAssignedAppToZone},
      {"SetRemovableAppToZone", &Service::SetRemovableAppToZone},
      {"ClearRemovableAppToZone", &Service::ClearRemovableAppToZone},
      {"NotifyLayoutState", &Service::NotifyLayoutState},
      {"GetFocusedZone", &Service::GetFocusedZone},
      {"SwitchBestQaulityZone", &Service::SwitchBestQaulityZone},
      {"RestoreBestQualityZone", &Service::RestoreBestQualityZone},
      {"SetAudioFocus", &Service::SetAudioFocus},
      {"GetAudioFocus", &Service::GetAudioFocus},
      {"GetLastAudioFocus", &Service::GetLastAudioFocus},
      {"IsAudioFocused", &Service::IsAudioFocused},
      {"RscChangeRegId", &Service::RscChangeRegId},
      {"RscChangeUnRegId", &Service::RscChangeUnRegId},
      {"MaxVideoRegId", &Service::MaxVideoRegId},
      {"MaxVideoUnRegId", &Service::MaxVideoUnRegId},
      {"GetMaxVideo", &Service::GetMaxVideo},
      {"PolicyGetMaxVideo", &Service::PolicyGetMaxVideo},
      {"GetCapableCatId", &Service::GetCapableCatId},
      {"SetResourcePolicyWithOwner", &Service::SetResourcePolicyWithOwner},
      {"SetResourcePolicyWithAppList", &Service::SetResourcePolicyWithAppList},
      {"SetResourcePolicyInternal", &Service::SetResourcePolicyInternal},
      {"SetResourcePolicyAppToZone", &Service::SetResourcePolicyAppToZone},
      {"SetPreAssignedAppList", &Service::SetPreAssignedAppList},
      {"RegisterAppList", &Service::RegisterAppList},
      {"UnregisterAppList", &Service::UnregisterAppList},
  };
  return handlers;
}

// ---------------------------------------------------------------- methods
// Argument positions follow the interface description; position 0 is cmd.

GVariant *Service::PlayerRegister(int cmd, GVariant *p) {
  kova_.PlayerRegister(cmd, Int(p, 1), Int(p, 2));
  return nullptr;
}
GVariant *Service::PlayerUnregister(int cmd, GVariant *p) {
  kova_.PlayerUnregister(cmd, Int(p, 1));
  return nullptr;
}
GVariant *Service::PlayerRequestStop(int cmd, GVariant *p) {
  kova_.PlayerRequestStop(cmd, Int(p, 1));
  return nullptr;
}
GVariant *Service::PlayerRequestPlay(int cmd, GVariant *p) { return IntReply(kova_.PlayerRequestPlay(cmd, Int(p, 1))); }
GVariant *Service::PlayerVideoStartDone(int, GVariant *p) { return IntReply(kova_.PlayerVideoStartDone(Int(p, 1))); }
GVariant *Service::PlayerVideoStopDone(int, GVariant *p) { return IntReply(kova_.PlayerVideoStopDone(Int(p, 1))); }
GVariant *Service::PlayerAudioStartDone(int, GVariant *p) { return IntReply(kova_.PlayerAudioStartDone(Int(p, 1))); }
GVariant *Service::PlayerAudioStopDone(int, GVariant *p) { return IntReply(kova_.PlayerAudioStopDone(Int(p, 1))); }
GVariant *Service::GetPlayerAudioOut(int, GVariant *p) { return IntReply(kova_.GetPlayerAudioOut(Int(p, 1))); }

GVariant *Service::RegisterExtSpkInfo(int cmd, GVariant *p) {
  return IntReply(kova_.RegisterExtSpk(cmd, Str(p, 1), Int(p, 2)));
}
GVariant *Service::UnregisterExtSpkInfo(int cmd, GVariant *p) {
  return IntReply(kova_.UnregisterExtSpk(cmd, Str(p, 1), Int(p, 2)));
}
GVariant *Service::GetExtSpkInfoAudioOut(int, GVariant *p) { return IntReply(kova_.GetExtSpkAudioOut(Str(p, 1))); }

GVariant *Service::GetMultiviewZoneIds(int, GVariant *) {
  GVariantBuilder zones;
  g_variant_builder_init(&zones, G_VARIANT_TYPE("a(iis)"));
  for (const ZoneInfo &z : kova_.Zones()) g_variant_builder_add(&zones, "(iis)", z.id, z.scaler_id, z.app_id.c_str());
  return g_variant_new("(a(iis))", &zones);
}
GVariant *Service::GetMultiviewZoneList(int, GVariant *) {
  GVariantBuilder zones;
  g_variant_builder_init(&zones, G_VARIANT_TYPE("a(is)"));
  for (const ZoneInfo &z : kova_.Zones()) g_variant_builder_add(&zones, "(is)", z.id, z.app_id.c_str());
  return g_variant_new("(a(is))", &zones);
}
GVariant *Service::SetAppToZone(int, GVariant *p) { return IntReply(kova_.SetAppToZone(Str(p, 1), Int(p, 2))); }
GVariant *Service::RemoveAppFromZone(int, GVariant *p) {
  return IntReply(kova_.RemoveAppFromZone(Str(p, 1), Int(p, 2)));
}
GVariant *Service::SetPreAssignedAppToZone(int, GVariant *p) {
  return IntReply(kova_.SetPreAssignedAppToZone(Str(p, 1), Int(p, 2)));
}
GVariant *Service::SetRemovableAppToZone(int, GVariant *p) {
  kova_.SetRemovableAppToZone(Str(p, 1), Int(p, 2));
  return nullptr;
}
GVariant *Service::ClearRemovableAppToZone(int, GVariant *) {
  kova_.ClearRemovableAppToZone();
  return nullptr;
}
GVariant *Service::NotifyLayoutState(int, GVariant *p) { return IntReply(kova_.NotifyLayoutState(Int(p, 1))); }
GVariant *Service::GetFocusedZone(int, GVariant *) {
  ZoneInfo z = kova_.FocusedZone();
  return g_variant_new("(iis)", z.id, z.scaler_id, z.app_id.c_str());
}

GVariant *Service::SwitchBestQaulityZone(int, GVariant *p) {
  return IntReply(kova_.SwitchBestQualityZone(Int(p, 1), Int(p, 2)));
}
GVariant *Service::RestoreBestQualityZone(int, GVariant *) { return IntReply(kova_.RestoreBestQualityZone()); }
GVariant *Service::SetAudioFocus(int cmd, GVariant *p) { return IntReply(kova_.SetAudioFocus(cmd, Int(p, 1))); }
GVariant *Service::GetAudioFocus(int, GVariant *) { return IntReply(kova_.audio_focus()); }
GVariant *Service::GetLastAudioFocus(int, GVariant *) { return IntReply(kova_.last_audio_focus()); }
GVariant *Service::IsAudioFocused(int, GVariant *p) { return IntReply(kova_.IsAudioFocused(Str(p, 1))); }

// The process id and callback address identify the caller's registration on
// its side; here the application id is the key.
GVariant *Service::RscChangeRegId(int, GVariant *p) { return IntReply(kova_.RscChangeRegister(Str(p, 2))); }
GVariant *Service::RscChangeUnRegId(int, GVariant *p) { return IntReply(kova_.RscChangeUnregister(Str(p, 2))); }
GVariant *Service::MaxVideoRegId(int, GVariant *p) { return IntReply(kova_.MaxVideoRegister(Str(p, 1))); }
GVariant *Service::MaxVideoUnRegId(int, GVariant *p) { return IntReply(kova_.MaxVideoUnregister(Str(p, 1))); }
GVariant *Service::GetMaxVideo(int, GVariant *p) {
  Resolution r = kova_.MaxVideo(Str(p, 1));
  return g_variant_new("(iii)", r.width, r.height, r.framerate);
}
GVariant *Service::PolicyGetMaxVideo(int, GVariant *p) {
  Resolution r = kova_.PolicyMaxVideo(Int(p, 1), Int(p, 2));
  return g_variant_new("(iii)", r.width, r.height, r.framerate);
}
GVariant *Service::GetCapableCatId(int, GVariant *p) { return IntReply(kova_.CapableCategory(Int(p, 3))); }

GVariant *Service::SetResourcePolicyWithOwner(int cmd, GVariant *p) {
  return IntReply(kova_.SetPolicyWithOwner(cmd, Int(p, 1), Str(p, 3), Int(p, 4) != 0));
}
GVariant *Service::SetResourcePolicyWithAppList(int cmd, GVariant *p) {
  return IntReply(kova_.SetPolicyWithAppList(cmd, Int(p, 1), Str(p, 3), Int(p, 4) != 0, Int(p, 5), AppPriorities(p, 6)));
}
GVariant *Service::SetResourcePolicyInternal(int cmd, GVariant *p) {
  return IntReply(kova_.SetPolicyInternal(cmd, Uint(p, 1)));
}
GVariant *Service::SetResourcePolicyAppToZone(int cmd, GVariant *p) {
  return IntReply(kova_.SetPolicyAppToZone(cmd, Int(p, 1), Int(p, 3), ZoneApps(p, 4)));
}
GVariant *Service::SetPreAssignedAppList(int, GVariant *p) { return IntReply(kova_.SetPreAssignedAppList(ZoneApps(p, 1))); }
GVariant *Service::RegisterAppList(int, GVariant *p) {
  return IntReply(kova_.RegisterAppList(Int(p, 1), Int(p, 2), AppPriorities(p, 3)));
}
GVariant *Service::UnregisterAppList(int, GVariant *p) {
  return IntReply(kova_.UnregisterAppList(Int(p, 1), Int(p, 2), AppNames(p, 3)));
}

}  // namespace kova_sim

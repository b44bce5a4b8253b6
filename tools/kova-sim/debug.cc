#include "debug.h"

namespace kova_sim {
namespace {

constexpr const char *kDebugXml =
    "<node><interface name='org.zelta.tv.system.resource.Debug'>"
    "<method name='GetState'><arg name='state' type='a{sv}' direction='out'/></method>"
    "</interface></node>";

GVariant *Strings(const std::vector<std::string> &v) {
  GVariantBuilder b;
  g_variant_builder_init(&b, G_VARIANT_TYPE("as"));
  for (const std::string &s : v) g_variant_builder_add(&b, "s", s.c_str());
  return g_variant_builder_end(&b);
}

// One a{sv} built entry by entry.
class Dict {
 public:
  Dict() { g_variant_builder_init(&b_, G_VARIANT_TYPE_VARDICT); }
  Dict &Put(const char *key, GVariant *value) {
    g_variant_builder_add(&b_, "{sv}", key, value);
    return *this;
  }
  Dict &Int(const char *key, int v) { return Put(key, g_variant_new_int32(v)); }
  Dict &Str(const char *key, const std::string &v) { return Put(key, g_variant_new_string(v.c_str())); }
  GVariant *End() { return g_variant_builder_end(&b_); }

 private:
  GVariantBuilder b_;
};

template <typename T, typename F>
GVariant *Dicts(const T &items, F fill) {
  GVariantBuilder b;
  g_variant_builder_init(&b, G_VARIANT_TYPE("aa{sv}"));
  for (const auto &item : items) {
    Dict d;
    fill(d, item);
    g_variant_builder_add_value(&b, d.End());
  }
  return g_variant_builder_end(&b);
}

void OnMethodCall(GDBusConnection *, const char *, const char *, const char *, const char *, GVariant *,
                  GDBusMethodInvocation *invocation, gpointer kova) {
  GVariant *state = StateVariant(static_cast<const Kova *>(kova)->Snap());
  g_dbus_method_invocation_return_value(invocation, g_variant_new_tuple(&state, 1));
}

}  // namespace

GVariant *StateVariant(const Snapshot &s) {
  Dict d;
  d.Put("players", Dicts(s.players, [](Dict &p, const Snapshot::PlayerView &v) {
    p.Int("id", v.id).Int("value", v.value).Str("state", v.state).Int("audio_out", v.audio_out);
    p.Put("decoder", g_variant_new_boolean(v.decoder)).Put("awaiting", Strings(v.awaiting));
    if (v.stopping_for != 0) p.Int("stopping_for", v.stopping_for);
  }));
  d.Put("decoders", Dict().Int("total", s.video_decoders).Int("free", s.free_decoders).End());
  d.Put("zones", Dicts(s.zones, [](Dict &z, const ZoneInfo &v) {
    z.Int("id", v.id).Int("scaler", v.scaler_id).Str("app", v.app_id);
  }));
  d.Put("removable_apps", Strings(s.removable_apps));
  d.Int("focused_zone", s.focused_zone).Int("best_quality_zone", s.best_quality_zone);
  d.Int("audio_focus", s.audio_focus).Int("last_audio_focus", s.last_audio_focus).Int("layout_state", s.layout_state);
  d.Put("policy", Dict().Int("value", s.policy).Str("owner", s.policy_owner).End());
  d.Put("registered_apps", Dict()
                               .Put("resource_change", Strings(s.resource_change_apps))
                               .Put("max_resolution", Strings(s.max_resolution_apps))
                               .End());
  Dict lists;
  for (const auto &[type, apps] : s.app_lists) lists.Put(std::to_string(type).c_str(), Strings(apps));
  d.Put("app_lists", lists.End());
  Dict speakers;
  for (const auto &[name, out] : s.ext_speakers) speakers.Int(name.c_str(), out);
  d.Put("ext_speakers", speakers.End());
  return d.End();
}

Debug::~Debug() {
  if (registration_ != 0) g_dbus_connection_unregister_object(connection_, registration_);
  if (node_ != nullptr) g_dbus_node_info_unref(node_);
  if (connection_ != nullptr) g_object_unref(connection_);
}

bool Debug::Register(GDBusConnection *connection, std::string *error) {
  node_ = g_dbus_node_info_new_for_xml(kDebugXml, nullptr);
  static const GDBusInterfaceVTable vtable = {OnMethodCall, nullptr, nullptr, {}};
  connection_ = G_DBUS_CONNECTION(g_object_ref(connection));
  GError *err = nullptr;
  registration_ = g_dbus_connection_register_object(connection_, kDebugPath, node_->interfaces[0], &vtable,
                                                    const_cast<Kova *>(&kova_), nullptr, &err);
  if (registration_ == 0) {
    *error = std::string("cannot export ") + kDebugPath + ": " + err->message;
    g_error_free(err);
    return false;
  }
  return true;
}

}  // namespace kova_sim

// kovactl status: what a developer asks first, in one snapshot. Only
// queries: nothing here changes the service.
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>

#include "kova_api.h"
#include "kovactl.h"
#include "pelk.h"

namespace kovactl {
namespace {

// A bus call answered by the bus daemon or a peer; null on failure.
GVariant *Ask(GDBusConnection *bus, const char *dest, const char *path, const char *iface, const char *method,
              GVariant *args, const char *reply, int timeout_ms = -1) {
  return g_dbus_connection_call_sync(bus, dest, path, iface, method, args, G_VARIANT_TYPE(reply),
                                     G_DBUS_CALL_FLAGS_NONE, timeout_ms, nullptr, nullptr);
}

std::string ProcessName(unsigned pid) {
  std::ifstream comm("/proc/" + std::to_string(pid) + "/comm");
  std::string name{std::istreambuf_iterator<char>(comm), {}};
  while (!name.empty() && name.back() == '\n') name.pop_back();
  return name;
}

struct Zone {
  int id, scaler;
  std::string app;
};
std::string ZoneJson(const Zone &z) {
  return "{\"zone\":" + std::to_string(z.id) + ",\"scaler\":" + std::to_string(z.scaler) + ",\"app\":" +
         JsonString(z.app) + "}";
}
std::string ZoneText(const Zone &z) {
  return std::to_string(z.id) + " (scaler " + std::to_string(z.scaler) + ", app " + (z.app.empty() ? "-" : z.app) + ")";
}
Zone Read(kova_zone *z) {
  const char *app = kova_zone_get_app_id(z);
  return {kova_zone_get_id(z), kova_zone_get_scaler_id(z), app ? app : ""};
}

// An audio focus: a zone, none (the service answered 0), or unknown (the call failed).
struct Focus {
  bool known = false;
  bool none = false;
  int value = 0;
  static Focus Ask(int (*get)(int *)) {
    Focus f;
    library_log::Begin();
    f.known = get(&f.value) == 0;
    f.none = !f.known && library_log::Errors().empty();
    return f;
  }
  std::string Json() const { return known ? std::to_string(value) : "null"; }
  std::string Text() const { return known ? std::to_string(value) : none ? "none" : "unknown"; }
};

int Lookup(GVariant *dict, const char *key) {
  gint32 v = 0;
  return dict != nullptr && g_variant_lookup(dict, key, "i", &v) ? v : 0;
}

}  // namespace

int Status(const Args &) {
  GDBusConnection *bus = SystemBus("status");
  if (bus == nullptr) return kFailed;
  std::string owner, process;
  unsigned pid = 0;
  if (GVariant *r = Ask(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetNameOwner",
                        g_variant_new("(s)", kService), "(s)")) {
    const gchar *name = nullptr;
    g_variant_get(r, "(&s)", &name);
    owner = name;
    g_variant_unref(r);
    if (GVariant *p = Ask(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                          "GetConnectionUnixProcessID", g_variant_new("(s)", owner.c_str()), "(u)")) {
      g_variant_get(p, "(u)", &pid);
      g_variant_unref(p);
      process = ProcessName(pid);
    }
  }
  const char *root = std::getenv("PELK_ROOT");
  const bool ready = PelkWaitEvent(kReadyMarker, 0) == 0, policy_active = PelkWaitEvent(kPolicyMarker, 0) == 0;

  std::vector<Zone> zones;
  bool has_focused = false;
  Zone focused{};
  Focus focus, last;
  GVariant *sim = nullptr;
  if (!owner.empty()) {
    void *list = nullptr;
    if (kova_get_zone_list(&list) == 0) {
      kova_zone *z = nullptr;
      while (kova_get_next_zone(list, &z) == 0) zones.push_back(Read(z));
      kova_free_zone_list(list);
    }
    kova_zone *z = nullptr;
    if (kova_get_focused_zone(&z) == 0) {
      focused = Read(z);
      has_focused = true;
      kova_zone_free(z);
    }
    focus = Focus::Ask(kova_get_audio_focus);
    last = Focus::Ask(kova_get_last_audio_focus);
    sim = Ask(bus, kService, "/Org/Zelta/TV/System/Resource/Debug", "org.zelta.tv.system.resource.Debug", "GetState",
              nullptr, "(a{sv})", 2000);
  }
  GVariant *state = sim != nullptr ? g_variant_get_child_value(sim, 0) : nullptr;
  GVariant *policy = state != nullptr ? g_variant_lookup_value(state, "policy", G_VARIANT_TYPE_VARDICT) : nullptr;

  if (g_options.json) {
    std::string zones_json = "[";
    for (const Zone &z : zones) zones_json += (zones_json.size() > 1 ? "," : "") + ZoneJson(z);
    std::printf("{\"kind\":\"status\",\"service\":{\"name\":%s,\"owner\":%s,\"pid\":%s,\"process\":%s},"
                "\"markers\":{\"root\":%s,\"ready\":%s,\"policy_active\":%s},\"zones\":%s],\"focused_zone\":%s,"
                "\"audio_focus\":%s,\"last_audio_focus\":%s,\"policy\":%s,\"kova_sim\":%s}\n",
                JsonString(kService).c_str(), owner.empty() ? "null" : JsonString(owner).c_str(),
                pid != 0 ? std::to_string(pid).c_str() : "null", process.empty() ? "null" : JsonString(process).c_str(),
                JsonString(root ? root : "").c_str(), ready ? "true" : "false", policy_active ? "true" : "false",
                zones_json.c_str(), has_focused ? ZoneJson(focused).c_str() : "null", focus.Json().c_str(),
                last.Json().c_str(), policy ? VariantJson(policy).c_str() : "null",
                state ? VariantJson(state).c_str() : "null");
  } else {
    const std::string marker_root = std::string(root ? root : "");
    std::printf("service          %s: %s\n", kService,
                owner.empty() ? "not on the bus"
                              : ("owner " + owner + (pid ? ", pid " + std::to_string(pid) : "") +
                                 (process.empty() ? "" : " (" + process + ")"))
                                    .c_str());
    std::printf("ready marker     %s (%s%s)\n", ready ? "present" : "absent", marker_root.c_str(), kReadyMarker);
    std::printf("policy marker    %s (%s)\n", policy_active ? "present" : "absent",
                policy_active ? "a resource policy is active" : "normal mode");
    if (!owner.empty()) {
      std::string line;
      for (const Zone &z : zones) line += (line.empty() ? "" : ", ") + ZoneText(z);
      std::printf("zones            %s\n", line.empty() ? "none" : line.c_str());
      std::printf("focused zone     %s\n", has_focused ? ZoneText(focused).c_str() : "unknown");
      std::printf("audio focus      %s (last %s)\n", focus.Text().c_str(), last.Text().c_str());
    }
    if (policy != nullptr) {
      const gchar *owner_name = "";
      g_variant_lookup(policy, "owner", "&s", &owner_name);
      std::printf("policy           %d (owner %s; from kova-sim's state)\n", Lookup(policy, "value"),
                  owner_name[0] ? owner_name : "-");
    } else {
      std::printf("policy           not readable from the service\n");
    }
    if (state != nullptr) {
      std::string text;
      VariantText(state, 1, &text);
      std::printf("kova-sim state:\n%s", text.c_str());
    }
  }
  if (policy != nullptr) g_variant_unref(policy);
  if (state != nullptr) g_variant_unref(state);
  if (sim != nullptr) g_variant_unref(sim);
  g_object_unref(bus);
  return owner.empty() ? kFailed : kOk;
}

}  // namespace kovactl

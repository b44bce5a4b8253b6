// The passive monitor: one match on the service's interface, every signal
// printed with its fields named as the interface description names them.
// Nothing is registered with the service unless asked (--register-app).
#include <glib-unix.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kova_api.h"
#include "kova_introspection.h"
#include "kovactl.h"

namespace kovactl {
namespace {

// The time-out's milliseconds must fit the guint of g_timeout_add.
constexpr double kMaxSeconds = 30 * 86400;

struct Watch {
  GMainLoop *loop = nullptr;
  GDBusNodeInfo *node = nullptr;
  long remaining = -1;  // signals still to print; -1: no limit
  bool brief = false;
};

// request_id and change_id carry command identifiers, which the library's
// log lines print in hexadecimal.
bool IsCommandId(const char *name) {
  return std::strcmp(name, "request_id") == 0 || std::strcmp(name, "change_id") == 0;
}

std::string Hex(int v) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "%08X", static_cast<unsigned>(v));
  return buf;
}

// The (zone, app) pairs of a policy change, written APP:ZONE as they are typed.
void AppsField(Record &rec, const char *name, GVariant *apps) {
  std::string json = "[", text;
  GVariantIter iter;
  g_variant_iter_init(&iter, apps);
  gint32 zone = 0;
  const gchar *app = nullptr;
  while (g_variant_iter_next(&iter, "(i&s)", &zone, &app)) {
    json += (json.size() > 1 ? "," : "") + std::string("{\"app\":") + JsonString(app) +
            ",\"zone\":" + std::to_string(zone) + "}";
    text += (text.empty() ? "" : ",") + std::string(app) + ":" + std::to_string(zone);
  }
  rec.Raw(name, json + "]", text.empty() ? "-" : text);
}

std::string Now(bool iso) {
  GDateTime *now = g_date_time_new_now_local();
  gchar *s = g_date_time_format(now, iso ? "%Y-%m-%dT%H:%M:%S.%f%:z" : "%H:%M:%S.%f");
  std::string out = s;
  g_free(s);
  g_date_time_unref(now);
  // Milliseconds are enough: drop the last three digits of the microseconds.
  const size_t dot = out.find('.');
  return out.erase(dot + 4, 3);
}

void OnSignal(GDBusConnection *, const char *sender, const char *, const char *, const char *name, GVariant *params,
              gpointer data) {
  auto *w = static_cast<Watch *>(data);
  GDBusSignalInfo *info = g_dbus_interface_info_lookup_signal(w->node->interfaces[0], name);
  std::string type = "(";
  for (GDBusArgInfo **a = info ? info->args : nullptr; a && *a; ++a) type += (*a)->signature;
  type += ")";
  if (info == nullptr || !g_variant_is_of_type(params, G_VARIANT_TYPE(type.c_str()))) {
    std::fprintf(stderr, "kovactl: monitor: %s from %s with arguments %s does not match the interface\n", name,
                 sender, g_variant_get_type_string(params));
    return;
  }
  Record rec(g_options.json ? "signal" : "");
  if (!w->brief) rec.Word("time", Now(g_options.json)).Word("sender", sender ? sender : "");
  rec.Word("signal", name);
  for (size_t i = 0; info->args[i] != nullptr; ++i) {
    const char *arg = info->args[i]->name;
    GVariant *v = g_variant_get_child_value(params, i);
    if (g_variant_is_of_type(v, G_VARIANT_TYPE_INT32)) {
      const int n = g_variant_get_int32(v);
      if (IsCommandId(arg)) {
        rec.Str(arg, Hex(n));
      } else {
        rec.Int(arg, n);
      }
    } else if (g_variant_is_of_type(v, G_VARIANT_TYPE_STRING)) {
      rec.Str(arg, g_variant_get_string(v, nullptr));
    } else if (g_variant_is_of_type(v, G_VARIANT_TYPE("a(is)"))) {
      AppsField(rec, arg, v);
    } else {
      gchar *text = g_variant_print(v, FALSE);
      rec.Raw(arg, VariantJson(v), text);
      g_free(text);
    }
    g_variant_unref(v);
  }
  rec.Print();
  if (w->remaining > 0 && --w->remaining == 0) g_main_loop_quit(w->loop);
}

gboolean Quit(gpointer loop) {
  g_main_loop_quit(static_cast<GMainLoop *>(loop));
  return G_SOURCE_REMOVE;
}

void IgnoreResource(const char *, kova_resource *, void *) {}
void IgnoreMaxResolution(const char *, int, int, int, void *) {}

}  // namespace

int Monitor(const Args &a) {
  Watch w;
  double seconds = 0;
  std::vector<std::string> apps;
  for (size_t i = 0; i < a.size(); ++i) {
    const std::string &opt = a[i];
    auto value = [&](const char *what) -> const std::string & {
      if (i + 1 >= a.size()) throw UsageError{opt + " needs " + what};
      return a[++i];
    };
    if (opt == "-n" || opt == "--count") {
      w.remaining = ParseValue(value("a count"), "the count");
      if (w.remaining <= 0) throw UsageError{"the count must be above 0"};
    } else if (opt == "-t" || opt == "--timeout") {
      const std::string &text = value("a number of seconds");
      char *end = nullptr;
      seconds = std::strtod(text.c_str(), &end);
      if (text.empty() || *end != '\0' || !std::isfinite(seconds) || seconds <= 0 || seconds > kMaxSeconds) {
        throw UsageError{"the time must be a number of seconds above 0 and at most 30 days, not '" + text + "'"};
      }
    } else if (opt == "--brief") {
      w.brief = true;
    } else if (opt == "--register-app") {
      const std::string &app = value("an application id");
      if (app.empty()) throw UsageError{"--register-app needs a non-empty application id"};
      apps.push_back(app);
    } else {
      throw UsageError{"unknown monitor option '" + opt + "'"};
    }
  }

  GDBusConnection *bus = SystemBus("monitor");
  if (bus == nullptr) return kFailed;
  GError *error = nullptr;
  w.node = g_dbus_node_info_new_for_xml(kova_tools::kIntrospectionXml, nullptr);
  w.loop = g_main_loop_new(nullptr, FALSE);
  const guint sub = g_dbus_connection_signal_subscribe(bus, nullptr, kService, nullptr, kPath, nullptr,
                                                       G_DBUS_SIGNAL_FLAGS_NONE, OnSignal, &w, nullptr);
  int status = kOk;
  std::vector<std::string> registered;
  for (const std::string &app : apps) {
    library_log::Begin();
    const bool rsc = kova_register_resource_change_callback(app.c_str(), IgnoreResource, nullptr) == 0;
    const bool rez = kova_register_max_video_resolution_changed_callback(app.c_str(), IgnoreMaxResolution, nullptr) == 0;
    if (rsc && rez) {
      registered.push_back(app);
      std::fprintf(stderr,
                   "kovactl: monitor: registered %s with the service for resource and maximum-resolution "
                   "notifications, until the monitor ends\n",
                   app.c_str());
    } else {
      Record rec("monitor-register-app");
      rec.Str("app", app);
      status = Finish(rec, -1, true);
      if (rsc) kova_unregister_resource_change_callback(app.c_str(), IgnoreResource);
      if (rez) kova_unregister_max_video_resolution_changed_callback(app.c_str(), IgnoreMaxResolution);
    }
  }
  if (status == kOk) {
    // A round trip to the bus: once answered, the bus holds our match rule.
    GVariant *id = g_dbus_connection_call_sync(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                               "org.freedesktop.DBus", "GetId", nullptr, nullptr,
                                               G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error);
    if (id == nullptr) {
      std::fprintf(stderr, "kovactl: monitor: the bus does not answer: %s\n", error->message);
      g_clear_error(&error);
      status = kFailed;
    } else {
      g_variant_unref(id);
      Record("ready").Print();
      const guint sigint = g_unix_signal_add(SIGINT, Quit, w.loop);
      const guint sigterm = g_unix_signal_add(SIGTERM, Quit, w.loop);
      const guint timer = seconds > 0 ? g_timeout_add(static_cast<guint>(std::ceil(seconds * 1000)), Quit, w.loop) : 0;
      g_main_loop_run(w.loop);
      if (w.remaining > 0) status = kFailed;  // fewer signals than asked for
      for (guint source : {sigint, sigterm, timer}) {
        if (source != 0 && g_main_context_find_source_by_id(nullptr, source) != nullptr) g_source_remove(source);
      }
    }
  }
  for (const std::string &app : registered) {
    kova_unregister_resource_change_callback(app.c_str(), IgnoreResource);
    kova_unregister_max_video_resolution_changed_callback(app.c_str(), IgnoreMaxResolution);
  }
  g_dbus_connection_signal_unsubscribe(bus, sub);
  g_main_loop_unref(w.loop);
  g_dbus_node_info_unref(w.node);
  g_object_unref(bus);
  return status;
}

}  // namespace kovactl

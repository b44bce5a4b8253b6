// kovactl: the kova service from the command line, through libkova-api.
//
// One subcommand per family (players, zones, focus, ...); "monitor" registers
// for every notification the library offers and prints one line per event.
// Exit status: 0 success, 1 the library reported a failure, 2 bad usage.
#include <fcntl.h>
#include <glib-unix.h>
#include <glib.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include <gio/gio.h>

#include "kova_api.h"

// The library's connection, exported for platform tools. Fire-and-forget
// calls are only queued on it; the process must not exit before they left.
extern "C" GDBusConnection *_kova_dbus_get_connection(void);

namespace {

constexpr int kOk = 0;
constexpr int kFailed = 1;
constexpr int kUsage = 2;

// The library logs every call to the platform log, which the stand-in writes
// to stderr; our own messages go to the saved descriptor.
FILE *g_err = stderr;
bool g_json = false;
bool g_queued = false;  // a fire-and-forget call was made

struct UsageError {
  std::string message;
};

// ---- output ----

std::string JsonString(const char *s) {
  std::string out = "\"";
  for (const char *p = s ? s : ""; *p; ++p) {
    switch (*p) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\t': out += "\\t"; break;
      default:
        if (static_cast<unsigned char>(*p) < 0x20) {
          char buf[8];
          std::snprintf(buf, sizeof buf, "\\u%04x", *p);
          out += buf;
        } else {
          out += *p;
        }
    }
  }
  return out + "\"";
}

// One output record: "key=value ..." as text, or a JSON object.
class Record {
 public:
  explicit Record(const char *kind) { Str(g_json ? "event" : nullptr, kind); }
  Record &Int(const char *key, long long v) {
    fields_.emplace_back(key, std::to_string(v), false);
    return *this;
  }
  Record &Str(const char *key, const char *v) {
    fields_.emplace_back(key ? key : "", v ? v : "", true);
    return *this;
  }
  Record &Raw(const char *key, const std::string &json, const std::string &text) {
    fields_.emplace_back(key, g_json ? json : text, false);
    return *this;
  }
  void Print() {
    std::string line;
    if (g_json) {
      line = "{";
      bool first = true;
      for (const auto &[key, value, quoted] : fields_) {
        if (key.empty()) continue;
        line += (first ? "" : ",") + JsonString(key.c_str()) + ":" + (quoted ? JsonString(value.c_str()) : value);
        first = false;
      }
      line += "}";
    } else {
      for (const auto &[key, value, quoted] : fields_) {
        if (!line.empty()) line += ' ';
        line += key.empty() ? value : key + "=" + value;
      }
    }
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
  }

 private:
  struct Field {
    Field(std::string k, std::string v, bool q) : key(std::move(k)), value(std::move(v)), quoted(q) {}
    std::string key, value;
    bool quoted;
  };
  std::vector<Field> fields_;
};

// ---- argument parsing ----

int ParseInt(const char *text, const char *what) {
  char *end = nullptr;
  errno = 0;
  long v = std::strtol(text, &end, 0);
  if (errno != 0 || end == text || *end != '\0' || v < INT_MIN || v > INT_MAX) {
    throw UsageError{std::string(what) + " must be an integer, not '" + text + "'"};
  }
  return static_cast<int>(v);
}

// APP[:A[:B]] -> app id and up to two integers (0 when absent).
struct AppSpec {
  std::string app;
  int a = 0;
  int b = 0;
};

AppSpec ParseAppSpec(const char *text, const char *what) {
  AppSpec spec;
  std::string s = text;
  std::string::size_type c1 = s.find(':');
  spec.app = s.substr(0, c1);
  if (spec.app.empty()) throw UsageError{std::string("empty application id in '") + text + "'"};
  if (c1 != std::string::npos) {
    std::string rest = s.substr(c1 + 1);
    std::string::size_type c2 = rest.find(':');
    spec.a = ParseInt(rest.substr(0, c2).c_str(), what);
    if (c2 != std::string::npos) spec.b = ParseInt(rest.substr(c2 + 1).c_str(), what);
  }
  return spec;
}

struct Args {
  std::vector<const char *> v;
  size_t size() const { return v.size(); }
  const char *operator[](size_t i) const { return v[i]; }
  int Int(size_t i, const char *what) const { return ParseInt(v[i], what); }
};

int Result(const char *what, int result, bool failed) {
  Record(what).Int("result", result).Print();
  return failed ? kFailed : kOk;
}

// ---- players ----

int PlayerRegister(const Args &a) {
  int id = a.Int(0, "player id");
  g_queued = true;
  int r = kova_player_register(id, a.size() > 1 ? a.Int(1, "value") : 0);
  return Result("player-register", r, r != id);
}
int PlayerUnregister(const Args &a) {
  g_queued = true;
  int r = kova_player_unregister(a.Int(0, "player id"));
  return Result("player-unregister", r, r != 0);
}
int PlayerStop(const Args &a) {
  g_queued = true;
  int r = kova_player_request_stop(a.Int(0, "player id"));
  return Result("player-stop", r, r != 0);
}
int PlayerPlay(const Args &a) {
  kova_audio_out_e out = KOVA_AUDIO_OUT_MAIN;
  int r = kova_player_request_play(a.Int(0, "player id"), &out);
  Record rec("player-play");
  rec.Int("result", r);
  if (r == 0) rec.Int("audio_out", out);
  rec.Print();
  return r == 0 ? kOk : kFailed;
}
int PlayerDone(const Args &a) {
  const std::string kind = a[0];
  int id = a.Int(1, "player id");
  int r;
  if (kind == "video-start") {
    r = kova_player_video_start_done(id);
  } else if (kind == "video-stop") {
    r = kova_player_video_stop_done(id);
  } else if (kind == "audio-start") {
    r = kova_player_audio_start_done(id);
  } else if (kind == "audio-stop") {
    r = kova_player_audio_stop_done(id);
  } else {
    throw UsageError{"done takes video-start, video-stop, audio-start or audio-stop, not '" + kind + "'"};
  }
  return Result("player-done", r, r == -1);
}
int PlayerAudioOut(const Args &a) {
  kova_player_audio_out_e out = KOVA_PLAYER_AUDIO_OUT_NONE;
  int r = kova_get_player_audio_out(a.Int(0, "player id"), &out);
  Record rec("player-audio-out");
  rec.Int("result", r);
  if (r == 0) rec.Int("audio_out", out);
  rec.Print();
  return r == 0 ? kOk : kFailed;
}

// ---- external speakers ----

int SpeakerRegister(const Args &a) {
  int r = kova_extspk_info_register(a[0], a.Int(1, "value"));
  return Result("speaker-register", r, r == -1);
}
int SpeakerUnregister(const Args &a) {
  int r = kova_extspk_info_unregister(a[0], a.Int(1, "value"));
  return Result("speaker-unregister", r, r == -1);
}
int SpeakerAudioOut(const Args &a) {
  kova_audio_out_e out = KOVA_AUDIO_OUT_MAIN;
  int r = kova_get_extspk_info_audio_out(a[0], &out);
  Record rec("speaker-audio-out");
  rec.Int("result", r);
  if (r == 0) rec.Int("audio_out", out);
  rec.Print();
  return r == 0 ? kOk : kFailed;
}

// ---- zones ----

void PrintZone(const char *kind, kova_zone *zone) {
  const char *app = kova_zone_get_app_id(zone);
  Record(kind)
      .Int("zone", kova_zone_get_id(zone))
      .Int("scaler", kova_zone_get_scaler_id(zone))
      .Str("app", app ? app : "")
      .Print();
}

int ZonesList(const Args &a) {
  bool multiview = a.size() > 0 && std::strcmp(a[0], "--multiview") == 0;
  if (a.size() > 0 && !multiview) throw UsageError{std::string("unknown option '") + a[0] + "'"};
  void *list = nullptr;
  int r = multiview ? kova_get_multiview_zone_list(&list) : kova_get_zone_list(&list);
  if (r != 0) return Result("zones", r, true);
  kova_zone *zone = nullptr;
  while (kova_get_next_zone(list, &zone) == 0) PrintZone("zone", zone);
  kova_free_zone_list(list);
  return kOk;
}
int ZonesFocused(const Args &) {
  kova_zone *zone = nullptr;
  int r = kova_get_focused_zone(&zone);
  if (r != 0) return Result("focused-zone", r, true);
  PrintZone("focused-zone", zone);
  kova_zone_free(zone);
  return kOk;
}
int ZonesAssign(const Args &a) {
  int r = kova_set_app_zone_info(a[0], a.Int(1, "zone id"));
  return Result("zone-assign", r, r != 0);
}
int ZonesRemove(const Args &a) {
  int r = kova_remove_app_zone_info(a[0], a.Int(1, "zone id"));
  return Result("zone-remove", r, r != 0);
}
int ZonesPreassign(const Args &a) {
  int r = kova_set_pre_assigned_app_zone_info(a[0], a.Int(1, "zone id"));
  return Result("zone-preassign", r, r != 0);
}
int ZonesRemovable(const Args &a) {
  g_queued = true;
  int r = kova_set_removable_app_zone_info(a[0], a.Int(1, "zone id"));
  return Result("zone-removable", r, r != 0);
}
int ZonesClearRemovable(const Args &) {
  g_queued = true;
  int r = kova_clear_removable_app_zone_info();
  return Result("zone-clear-removable", r, r != 0);
}
int ZonesLayout(const Args &a) {
  int r = kova_notify_layout_state(static_cast<kova_layout_state_e>(a.Int(0, "layout state")));
  return Result("layout", r, r != 0);
}

// ---- audio focus and best-quality zone ----

int FocusGet(const Args &) {
  int focus = 0;
  int r = kova_get_audio_focus(&focus);
  Record rec("audio-focus");
  rec.Int("result", r);
  if (r == 0) rec.Int("zone", focus);
  rec.Print();
  return r == 0 ? kOk : kFailed;
}
int FocusLast(const Args &) {
  int focus = 0;
  int r = kova_get_last_audio_focus(&focus);
  Record rec("last-audio-focus");
  rec.Int("result", r);
  if (r == 0) rec.Int("zone", focus);
  rec.Print();
  return r == 0 ? kOk : kFailed;
}
int FocusSet(const Args &a) {
  int r = kova_set_audio_focus(a.Int(0, "zone id"));
  return Result("audio-focus-set", r, r != 0);
}
int FocusIs(const Args &a) {
  int r = kova_is_audio_focused(a[0]);
  return Result("audio-focused", r, r == -1);
}
int FocusZone(const Args &) {
  kova_zone *zone = nullptr;
  int r = kova_get_audio_focus_zone(&zone);
  if (r != 0) return Result("audio-focus-zone", r, true);
  PrintZone("audio-focus-zone", zone);
  kova_zone_free(zone);
  return kOk;
}
int BestSwitch(const Args &a) {
  int r = kova_switch_best_quality_zone(a.Int(0, "zone"), a.Int(1, "option"));
  return Result("best-zone-switch", r, r == -1);
}
int BestRestore(const Args &) {
  int r = kova_restore_best_quality_zone();
  return Result("best-zone-restore", r, r == -1);
}

// ---- resolution and category ----

int ResolutionGet(const Args &a) {
  int w = 0, h = 0, f = 0;
  int r = kova_get_max_video_resolution(a[0], &w, &h, &f);
  Record rec("max-resolution");
  rec.Int("result", r);
  if (r == 0) rec.Int("width", w).Int("height", h).Int("framerate", f);
  rec.Print();
  return r == 0 ? kOk : kFailed;
}
int ResolutionPolicy(const Args &a) {
  int w = 0, h = 0, f = 0;
  int r = kova_policy_get_max_resolution(static_cast<kova_rsc_policy_e>(a.Int(0, "policy")),
                                         static_cast<kova_video_codec_e>(a.Int(1, "codec")), &w, &h, &f);
  Record rec("policy-max-resolution");
  rec.Int("result", r);
  if (r == 0) rec.Int("width", w).Int("height", h).Int("framerate", f);
  rec.Print();
  return r == 0 ? kOk : kFailed;
}
int Category(const Args &a) {
  int r = kova_get_capable_category_id(a.Int(0, "player id"), a[1], a.Int(2, "category"));
  return Result("capable-category", r, r == -1 || r == -4);
}

// ---- policy ----

// Builds a list from APP[:A[:B]] arguments; zone_first: A is the zone,
// otherwise A and B are the video and audio priorities.
kova_app_list_h BuildList(const Args &a, size_t from, bool zone_first) {
  kova_app_list_h list = kova_app_list_create_new();
  for (size_t i = from; i < a.size(); ++i) {
    AppSpec spec = ParseAppSpec(a[i], zone_first ? "zone" : "priority");
    if (zone_first) {
      kova_app_list_add(list, spec.a, spec.app.c_str());
    } else {
      kova_app *app = kova_app_list_create_new_app(spec.app.c_str());
      kova_app_set_priority_video(app, spec.a);
      kova_app_set_priority_audio(app, spec.b);
      kova_app_list_insert_app(list, app);
    }
  }
  return list;
}

int PolicySet(const Args &a) {
  int policy = a.Int(0, "policy");
  bool remove_all = false;
  Args apps;
  for (size_t i = 2; i < a.size(); ++i) {
    if (std::strcmp(a[i], "--remove-all") == 0) {
      remove_all = true;
    } else {
      apps.v.push_back(a[i]);
    }
  }
  kova_policy_info *info = kova_policy_info_create_new(a[1]);
  if (info == nullptr) return Result("policy-set", -1, true);
  kova_policy_info_set_option_remove_all_current_apps(info, remove_all);
  if (apps.size() > 0) kova_policy_info_set_app_list(info, BuildList(apps, 0, false));
  int r = kova_set_resource_policy(policy, info);
  kova_policy_info_free(info);
  return Result("policy-set", r, r != 0);
}
int PolicyInternal(const Args &a) {
  int r = kova_set_resource_policy_internal(a.Int(0, "policy"));
  return Result("policy-internal", r, r != 0);
}
int PolicyAppZones(const Args &a) {
  kova_app_list_h list = BuildList(a, 1, true);
  int r = kova_set_resource_policy_app_zone_info(a.Int(0, "policy"), list);
  kova_app_list_free(list);
  return Result("policy-app-zones", r, r != 0);
}
int PolicyPreassign(const Args &a) {
  kova_app_list_h list = BuildList(a, 0, true);
  int r = kova_set_pre_assigned_app_list(list);
  kova_app_list_free(list);
  return Result("policy-preassign", r, r != 0);
}
int PolicyRegisterList(const Args &a) {
  kova_app_list_h list = BuildList(a, 1, false);
  int r = kova_register_app_list(a.Int(0, "list type"), list);
  kova_app_list_free(list);
  return Result("app-list-register", r, r != 0);
}
int PolicyUnregisterList(const Args &a) {
  kova_app_list_h list = BuildList(a, 1, false);
  int r = kova_unregister_app_list(a.Int(0, "list type"), list);
  kova_app_list_free(list);
  return Result("app-list-unregister", r, r != 0);
}

// ---- monitor ----

struct Monitor {
  GMainLoop *loop = nullptr;
  long remaining = -1;  // events still to print; -1: no limit
  int status = kOk;

  void Count() {
    if (remaining > 0 && --remaining == 0) g_main_loop_quit(loop);
  }
};
Monitor g_monitor;

void OnPlayerRequest(const char *kind, int player_id) {
  Record(kind).Int("player", player_id).Print();
  g_monitor.Count();
}
void OnVideoStart(int p, void *) { OnPlayerRequest("player-video-start", p); }
void OnVideoStop(int p, void *) { OnPlayerRequest("player-video-stop", p); }
void OnAudioStart(int p, void *) { OnPlayerRequest("player-audio-start", p); }
void OnAudioStop(int p, void *) { OnPlayerRequest("player-audio-stop", p); }
void OnAudioResync(int p, void *) { OnPlayerRequest("player-audio-resync", p); }

void OnBestZone(int a, int b, int c, void *) {
  Record("best-zone-switched").Int("a", a).Int("b", b).Int("c", c).Print();
  g_monitor.Count();
}
void OnAudioFocus(int zone, void *) {
  Record("audio-focus-changed").Int("zone", zone).Print();
  g_monitor.Count();
}
void OnAudioFocusZone(kova_zone *zone, void *) {
  PrintZone("audio-focus-zone-changed", zone);
  g_monitor.Count();
}
void OnPolicyChanged(kova_policy_info *info, void *) {
  std::string json = "[", text;
  kova_app_list_h list = kova_policy_info_get_app_list(info);
  for (kova_app *app = kova_app_list_get_count(list) > 0 ? kova_app_list_get_first(list) : nullptr; app;
       app = kova_app_list_get_next(list)) {
    const char *id = kova_app_get_app_id(app);
    int zone = kova_app_get_zone_id(app);
    json += (json.size() > 1 ? "," : "") + std::string("{\"zone\":") + std::to_string(zone) +
            ",\"app\":" + JsonString(id) + "}";
    text += (text.empty() ? "" : ",") + std::to_string(zone) + ":" + (id ? id : "");
  }
  Record("policy-changed").Int("policy", kova_policy_info_get_policy(info)).Raw("apps", json + "]", text).Print();
  g_monitor.Count();
}
void OnResourceChanged(const char *app, kova_resource *rsc, void *) {
  int w = 0, h = 0, f = 0;
  kova_rsc_get_video_max_resolution(rsc, &w, &h, &f);
  Record("resource-changed")
      .Str("app", app)
      .Int("resolution_changed", kova_rsc_max_resolution_changed(rsc))
      .Int("audio_out_changed", kova_rsc_audio_out_changed(rsc))
      .Int("width", w)
      .Int("height", h)
      .Int("framerate", f)
      .Print();
  g_monitor.Count();
}
void OnMaxResolution(const char *app, int w, int h, int f, void *) {
  Record("max-resolution-changed").Str("app", app).Int("width", w).Int("height", h).Int("framerate", f).Print();
  g_monitor.Count();
}

gboolean OnStop(gpointer) {
  g_main_loop_quit(g_monitor.loop);
  return G_SOURCE_REMOVE;
}

int MonitorRun(const Args &a) {
  long count = -1;
  int timeout_s = 0;
  std::vector<std::string> apps;
  for (size_t i = 0; i < a.size(); ++i) {
    std::string opt = a[i];
    auto value = [&](const char *what) {
      if (i + 1 >= a.size()) throw UsageError{opt + " needs " + what};
      return a[++i];
    };
    if (opt == "-n" || opt == "--count") {
      count = ParseInt(value("a number"), "count");
      if (count <= 0) throw UsageError{"the count must be positive"};
    } else if (opt == "-t" || opt == "--timeout") {
      timeout_s = ParseInt(value("seconds"), "timeout");
    } else if (opt == "--app") {
      apps.emplace_back(value("an application id"));
    } else {
      throw UsageError{"unknown monitor option '" + opt + "'"};
    }
  }
  g_monitor.loop = g_main_loop_new(nullptr, FALSE);
  g_monitor.remaining = count;

  std::vector<std::pair<int (*)(unsigned int), unsigned int>> player;
  player.emplace_back(kova_unregister_player_video_start_request_callback,
                      kova_register_player_video_start_request_callback(OnVideoStart, nullptr));
  player.emplace_back(kova_unregister_player_video_stop_request_callback,
                      kova_register_player_video_stop_request_callback(OnVideoStop, nullptr));
  player.emplace_back(kova_unregister_player_audio_start_request_callback,
                      kova_register_player_audio_start_request_callback(OnAudioStart, nullptr));
  player.emplace_back(kova_unregister_player_audio_stop_request_callback,
                      kova_register_player_audio_stop_request_callback(OnAudioStop, nullptr));
  player.emplace_back(kova_unregister_player_audio_resync_request_callback,
                      kova_register_player_audio_resync_request_callback(OnAudioResync, nullptr));
  bool ok = true;
  for (const auto &p : player) ok = ok && p.second != 0 && p.second != UINT_MAX;
  unsigned int focus = kova_register_audio_focus_changed_callback(OnAudioFocus, nullptr);
  unsigned int focus_zone = kova_subscribe_audio_focus_zone_changed(OnAudioFocusZone, nullptr);
  unsigned int policy = kova_register_resource_policy_changed_callback(OnPolicyChanged, nullptr);
  bool best = kova_register_best_quality_zone_switched_callback(OnBestZone, nullptr) == 0;
  ok = ok && focus != 0 && focus != UINT_MAX && focus_zone != 0 && policy != 0 && policy != UINT_MAX && best;
  std::vector<std::string> rsc_apps, rez_apps;
  for (const std::string &app : apps) {
    if (kova_register_resource_change_callback(app.c_str(), OnResourceChanged, nullptr) == 0) {
      rsc_apps.push_back(app);
    } else {
      ok = false;
    }
    if (kova_register_max_video_resolution_changed_callback(app.c_str(), OnMaxResolution, nullptr) == 0) {
      rez_apps.push_back(app);
    } else {
      ok = false;
    }
  }

  if (!ok) {
    std::fprintf(g_err, "kovactl: cannot subscribe to every notification (is the bus or the service there?)\n");
    g_monitor.status = kFailed;
  } else {
    // One call to the service: once it is answered the bus has our match
    // rules, so nothing sent after "ready" is missed.
    int unused = 0;
    kova_get_audio_focus(&unused);
    Record("ready").Print();
    g_unix_signal_add(SIGINT, OnStop, nullptr);
    g_unix_signal_add(SIGTERM, OnStop, nullptr);
    if (timeout_s > 0) g_timeout_add_seconds(static_cast<guint>(timeout_s), OnStop, nullptr);
    g_main_loop_run(g_monitor.loop);
    if (count > 0 && g_monitor.remaining > 0) g_monitor.status = kFailed;  // fewer events than asked for
  }

  for (const auto &p : player) {
    if (p.second != 0 && p.second != UINT_MAX) p.first(p.second);
  }
  if (focus != 0 && focus != UINT_MAX) kova_unregister_audio_focus_changed_callback(focus);
  if (focus_zone != 0) kova_unsubscribe_audio_focus_zone_changed(focus_zone);
  if (policy != 0 && policy != UINT_MAX) kova_unregister_resource_policy_changed_callback(policy);
  if (best) kova_unregister_best_quality_zone_switched_callback(OnBestZone);
  for (const std::string &app : rsc_apps) kova_unregister_resource_change_callback(app.c_str(), OnResourceChanged);
  for (const std::string &app : rez_apps) {
    kova_unregister_max_video_resolution_changed_callback(app.c_str(), OnMaxResolution);
  }
  g_main_loop_unref(g_monitor.loop);
  return g_monitor.status;
}

// ---- command table and help ----

struct Command {
  const char *family;
  const char *name;  // null: the family itself takes the arguments
  const char *args;
  const char *help;
  size_t min_args;
  size_t max_args;  // SIZE_MAX: any number
  int (*run)(const Args &);
};

constexpr size_t kAny = static_cast<size_t>(-1);

const Command kCommands[] = {
    {"player", "register", "ID [VALUE]", "register a player (fire-and-forget)", 1, 2, PlayerRegister},
    {"player", "unregister", "ID", "unregister a player (fire-and-forget)", 1, 1, PlayerUnregister},
    {"player", "play", "ID", "request play; prints the granted audio output", 1, 1, PlayerPlay},
    {"player", "stop", "ID", "request stop (fire-and-forget)", 1, 1, PlayerStop},
    {"player", "done", "KIND ID", "acknowledge a request: video-start|video-stop|audio-start|audio-stop", 2, 2,
     PlayerDone},
    {"player", "audio-out", "ID", "the player's current audio output", 1, 1, PlayerAudioOut},
    {"speaker", "register", "NAME VALUE", "register external speaker information", 2, 2, SpeakerRegister},
    {"speaker", "unregister", "NAME VALUE", "unregister external speaker information", 2, 2, SpeakerUnregister},
    {"speaker", "audio-out", "NAME", "the audio output of an external speaker", 1, 1, SpeakerAudioOut},
    {"zones", "list", "[--multiview]", "the zone list (or the multi-view zone list)", 0, 1, ZonesList},
    {"zones", "focused", "", "the focused zone", 0, 0, ZonesFocused},
    {"zones", "assign", "APP ZONE", "assign an application to a zone", 2, 2, ZonesAssign},
    {"zones", "remove", "APP ZONE", "remove an application from a zone", 2, 2, ZonesRemove},
    {"zones", "preassign", "APP ZONE", "pre-assign an application to a zone", 2, 2, ZonesPreassign},
    {"zones", "removable", "APP ZONE", "mark an application removable (fire-and-forget)", 2, 2, ZonesRemovable},
    {"zones", "clear-removable", "", "clear every removable mark (fire-and-forget)", 0, 0, ZonesClearRemovable},
    {"zones", "layout", "STATE", "report the layout state", 1, 1, ZonesLayout},
    {"focus", "get", "", "the current audio focus", 0, 0, FocusGet},
    {"focus", "last", "", "the last audio focus", 0, 0, FocusLast},
    {"focus", "set", "ZONE", "set the audio focus", 1, 1, FocusSet},
    {"focus", "is", "APP", "whether an application holds the audio focus (the service's answer)", 1, 1, FocusIs},
    {"focus", "zone", "", "the audio focus zone", 0, 0, FocusZone},
    {"best-zone", "switch", "ZONE OPTION", "switch the best-quality zone", 2, 2, BestSwitch},
    {"best-zone", "restore", "", "restore the best-quality zone", 0, 0, BestRestore},
    {"resolution", "get", "APP", "the maximum video resolution allowed to an application", 1, 1, ResolutionGet},
    {"resolution", "policy", "POLICY CODEC", "the maximum video resolution of a policy and codec", 2, 2,
     ResolutionPolicy},
    {"category", nullptr, "PLAYER APP CATEGORY", "the category to use for a request", 3, 3, Category},
    {"policy", "set", "POLICY OWNER [--remove-all] [APP[:VIDEO[:AUDIO]]...]",
     "set the resource policy with an owner and optional applications and priorities", 2, kAny, PolicySet},
    {"policy", "internal", "POLICY", "set the resource policy alone", 1, 1, PolicyInternal},
    {"policy", "app-zones", "POLICY APP:ZONE...", "set the policy with applications in zones", 1, kAny,
     PolicyAppZones},
    {"policy", "preassign", "APP:ZONE...", "send the list of pre-assigned applications", 0, kAny, PolicyPreassign},
    {"policy", "register-list", "TYPE APP[:VIDEO[:AUDIO]]...", "register an application list", 1, kAny,
     PolicyRegisterList},
    {"policy", "unregister-list", "TYPE APP...", "unregister an application list", 1, kAny, PolicyUnregisterList},
    {"monitor", nullptr, "[-n COUNT] [-t SECONDS] [--app APP]...",
     "print every notification as it arrives, one line each; \"ready\" first, once subscribed", 0, kAny,
     MonitorRun},
};

void PrintHelp(FILE *out, const char *family) {
  if (family == nullptr) {
    std::fprintf(out,
                 "Usage: kovactl [--json] [-v] FAMILY [COMMAND] [ARGS...]\n"
                 "Talks to the kova resource service through libkova-api.\n\n"
                 "Options:\n"
                 "  --json     print JSON objects, one per line\n"
                 "  -v         let the library's log lines through to stderr\n"
                 "  -h, --help this help; 'kovactl FAMILY --help' for one family\n\n"
                 "Families:\n");
  }
  const char *last = nullptr;
  for (const Command &c : kCommands) {
    if (family != nullptr && std::strcmp(family, c.family) != 0) continue;
    if (last == nullptr || std::strcmp(last, c.family) != 0) std::fprintf(out, "  %s\n", c.family);
    last = c.family;
    std::string usage = std::string("kovactl ") + c.family + (c.name ? std::string(" ") + c.name : "") +
                        (c.args[0] ? std::string(" ") + c.args : "");
    std::fprintf(out, "    %-58s %s\n", usage.c_str(), c.help);
  }
  if (family == nullptr) {
    std::fprintf(out,
                 "\nOutput: one line per result or event, \"kind key=value ...\" or a JSON object.\n"
                 "Exit status: 0 success, 1 the library reported a failure (or monitor got fewer\n"
                 "events than -n asked for), 2 bad usage.\n");
  }
}

bool IsHelp(const char *s) { return std::strcmp(s, "-h") == 0 || std::strcmp(s, "--help") == 0; }

int Run(int argc, char **argv) {
  int i = 1;
  bool verbose = false;
  for (; i < argc && argv[i][0] == '-'; ++i) {
    if (std::strcmp(argv[i], "--json") == 0) {
      g_json = true;
    } else if (std::strcmp(argv[i], "-v") == 0) {
      verbose = true;
    } else if (IsHelp(argv[i])) {
      PrintHelp(stdout, nullptr);
      return kOk;
    } else {
      throw UsageError{std::string("unknown option '") + argv[i] + "'"};
    }
  }
  if (i >= argc) throw UsageError{"a family is needed"};
  if (!verbose) {
    // Keep our own messages, drop the library's log lines.
    int saved = dup(STDERR_FILENO);
    int devnull = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (saved >= 0 && devnull >= 0) {
      fcntl(saved, F_SETFD, FD_CLOEXEC);
      g_err = fdopen(saved, "w");
      dup2(devnull, STDERR_FILENO);
    }
    if (devnull >= 0) close(devnull);
  }
  const char *family = argv[i++];
  bool known = false;
  for (const Command &c : kCommands) known = known || std::strcmp(c.family, family) == 0;
  if (!known) throw UsageError{std::string("unknown family '") + family + "'"};
  if (i < argc && IsHelp(argv[i])) {
    PrintHelp(stdout, family);
    return kOk;
  }
  for (const Command &c : kCommands) {
    if (std::strcmp(c.family, family) != 0) continue;
    if (c.name != nullptr) {
      if (i >= argc || std::strcmp(c.name, argv[i]) != 0) continue;
      ++i;
    }
    Args args;
    for (int k = i; k < argc; ++k) {
      if (IsHelp(argv[k])) {
        PrintHelp(stdout, family);
        return kOk;
      }
      args.v.push_back(argv[k]);
    }
    if (args.size() < c.min_args || args.size() > c.max_args) {
      throw UsageError{std::string("usage: kovactl ") + c.family + (c.name ? std::string(" ") + c.name : "") +
                       " " + c.args};
    }
    return c.run(args);
  }
  throw UsageError{std::string("unknown command for ") + family + (i < argc ? std::string(": ") + argv[i] : "") +
                   " (see kovactl " + family + " --help)"};
}

}  // namespace

// Sends whatever the library queued (fire-and-forget calls) before exiting.
void Flush() {
  if (!g_queued) return;
  if (GDBusConnection *c = _kova_dbus_get_connection()) g_dbus_connection_flush_sync(c, nullptr, nullptr);
}

int main(int argc, char **argv) {
  try {
    int status = Run(argc, argv);
    Flush();
    return status;
  } catch (const UsageError &e) {
    std::fprintf(g_err, "kovactl: %s\n", e.message.c_str());
    return kUsage;
  }
}

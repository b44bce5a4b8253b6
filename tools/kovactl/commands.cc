// The command families that call the library: one function per command and
// the table that names them, with what each argument means.
#include <cstring>

#include "kova_api.h"
#include "kovactl.h"

namespace kovactl {
namespace {

int Int(const std::string &text, const char *what) { return ParseValue(text, what); }

// Result-only commands: failed unless ok(result).
int Plain(const char *kind, int result, bool ok) {
  Record rec(kind);
  rec.Int("result", result);
  return Finish(rec, result, !ok);
}

// ---- players ----

int PlayerRegister(const Args &a) {
  const int id = Int(a[0], "player id");
  const int r = kova_player_register(id, a.size() > 1 ? Int(a[1], "value") : 0);
  return Plain("player-register", r, r == id);
}
int PlayerUnregister(const Args &a) {
  const int r = kova_player_unregister(Int(a[0], "player id"));
  return Plain("player-unregister", r, r == 0);
}
int PlayerStop(const Args &a) {
  const int r = kova_player_request_stop(Int(a[0], "player id"));
  return Plain("player-stop", r, r == 0);
}
int PlayerPlay(const Args &a) {
  kova_audio_out_e out = KOVA_AUDIO_OUT_MAIN;
  const int r = kova_player_request_play(Int(a[0], "player id"), &out);
  Record rec("player-play");
  rec.Int("result", r);
  if (r == 0) rec.Int("audio_out", out);
  return Finish(rec, r, r != 0, true);
}
int PlayerDone(const Args &a) {
  int (*const acks[])(int) = {kova_player_video_start_done, kova_player_video_stop_done,
                              kova_player_audio_start_done, kova_player_audio_stop_done};
  const int kind = ParseValue(a[0], "the request", kRequests);
  if (kind < 0 || kind > 3) throw UsageError{"the request must be one of " + NamesOf(kRequests)};
  const int r = acks[kind](Int(a[1], "player id"));
  return Plain("player-done", r, r != -1);
}
int PlayerAudioOut(const Args &a) {
  kova_player_audio_out_e out = KOVA_PLAYER_AUDIO_OUT_NONE;
  const int r = kova_get_player_audio_out(Int(a[0], "player id"), &out);
  Record rec("player-audio-out");
  rec.Int("result", r);
  if (r == 0) rec.Int("audio_out", out);
  return Finish(rec, r, r != 0, true);
}

// ---- external speakers ----

int SpeakerRegister(const Args &a) {
  const int r = kova_extspk_info_register(a[0].c_str(), ParseValue(a[1], "the audio output", kAudioOuts));
  return Plain("speaker-register", r, r != -1);
}
int SpeakerUnregister(const Args &a) {
  const int r = kova_extspk_info_unregister(a[0].c_str(), ParseValue(a[1], "the audio output", kAudioOuts));
  return Plain("speaker-unregister", r, r != -1);
}
int SpeakerAudioOut(const Args &a) {
  kova_audio_out_e out = KOVA_AUDIO_OUT_MAIN;
  const int r = kova_get_extspk_info_audio_out(a[0].c_str(), &out);
  Record rec("speaker-audio-out");
  rec.Int("result", r);
  if (r == 0) rec.Int("audio_out", out);
  return Finish(rec, r, r != 0, true);
}

// ---- zones ----

Record &ZoneFields(Record &rec, kova_zone *zone) {
  const char *app = kova_zone_get_app_id(zone);
  return rec.Int("zone", kova_zone_get_id(zone)).Int("scaler", kova_zone_get_scaler_id(zone)).Str("app", app ? app : "");
}

int ZonesList(const Args &a) {
  const bool multiview = !a.empty();
  if (multiview && a[0] != "--multiview") throw UsageError{"unknown option '" + a[0] + "'"};
  void *list = nullptr;
  const int r = multiview ? kova_get_multiview_zone_list(&list) : kova_get_zone_list(&list);
  if (r != 0) return Plain("zones", r, false);
  kova_zone *zone = nullptr;
  while (kova_get_next_zone(list, &zone) == 0) {
    Record rec("zone");
    ZoneFields(rec, zone).Print();
  }
  kova_free_zone_list(list);
  return kOk;
}
int OwnZone(const char *kind, int (*get)(kova_zone **)) {
  kova_zone *zone = nullptr;
  const int r = get(&zone);
  Record rec(kind);
  rec.Int("result", r);
  if (r == 0) {
    ZoneFields(rec, zone);
    kova_zone_free(zone);
  }
  return Finish(rec, r, r != 0);
}
int ZonesFocused(const Args &) { return OwnZone("focused-zone", kova_get_focused_zone); }
int ZonesAssign(const Args &a) {
  const int r = kova_set_app_zone_info(a[0].c_str(), Int(a[1], "zone id"));
  return Plain("zone-assign", r, r == 0);
}
int ZonesRemove(const Args &a) {
  const int r = kova_remove_app_zone_info(a[0].c_str(), Int(a[1], "zone id"));
  return Plain("zone-remove", r, r == 0);
}
int ZonesPreassign(const Args &a) {
  const int r = kova_set_pre_assigned_app_zone_info(a[0].c_str(), Int(a[1], "zone id"));
  return Plain("zone-preassign", r, r == 0);
}
int ZonesRemovable(const Args &a) {
  const int r = kova_set_removable_app_zone_info(a[0].c_str(), Int(a[1], "zone id"));
  return Plain("zone-removable", r, r == 0);
}
int ZonesClearRemovable(const Args &) {
  const int r = kova_clear_removable_app_zone_info();
  return Plain("zone-clear-removable", r, r == 0);
}
int ZonesLayout(const Args &a) {
  const int r = kova_notify_layout_state(static_cast<kova_layout_state_e>(ParseValue(a[0], "the state", kLayoutStates)));
  return Plain("layout", r, r == 0);
}

// ---- audio focus and best-quality zone ----

int Focus(const char *kind, int (*get)(int *)) {
  int focus = 0;
  const int r = get(&focus);
  Record rec(kind);
  rec.Int("result", r);
  if (r == 0) rec.Int("zone", focus);
  return Finish(rec, r, r != 0);
}
int FocusGet(const Args &) { return Focus("audio-focus", kova_get_audio_focus); }
int FocusLast(const Args &) { return Focus("last-audio-focus", kova_get_last_audio_focus); }
int FocusSet(const Args &a) {
  const int r = kova_set_audio_focus(Int(a[0], "zone id"));
  return Plain("audio-focus-set", r, r == 0);
}
int FocusIs(const Args &a) {
  const int r = kova_is_audio_focused(a[0].c_str());
  return Plain("audio-focused", r, r != -1);
}
int FocusZone(const Args &) { return OwnZone("audio-focus-zone", kova_get_audio_focus_zone); }
int BestSwitch(const Args &a) {
  const int r = kova_switch_best_quality_zone(Int(a[0], "zone id"), Int(a[1], "option"));
  return Plain("best-zone-switch", r, r != -1);
}
int BestRestore(const Args &) {
  const int r = kova_restore_best_quality_zone();
  return Plain("best-zone-restore", r, r != -1);
}

// ---- resolution and category ----

int Resolution(const char *kind, int r, int w, int h, int f) {
  Record rec(kind);
  rec.Int("result", r);
  if (r == 0) rec.Int("width", w).Int("height", h).Int("framerate", f);
  return Finish(rec, r, r != 0);
}
int ResolutionGet(const Args &a) {
  int w = 0, h = 0, f = 0;
  const int r = kova_get_max_video_resolution(a[0].c_str(), &w, &h, &f);
  return Resolution("max-resolution", r, w, h, f);
}
int ResolutionPolicy(const Args &a) {
  int w = 0, h = 0, f = 0;
  const int r =
      kova_policy_get_max_resolution(static_cast<kova_rsc_policy_e>(ParseValue(a[0], "the policy", kPolicies)),
                                     static_cast<kova_video_codec_e>(ParseValue(a[1], "the codec", kCodecs)), &w, &h, &f);
  return Resolution("policy-max-resolution", r, w, h, f);
}
int Category(const Args &a) {
  const int r = kova_get_capable_category_id(Int(a[0], "player id"), a[1].c_str(), Int(a[2], "category"));
  Record rec("capable-category");
  rec.Int("result", r);
  return Finish(rec, r, r == -1 || r == -4, true);
}

// ---- policy ----

// APP[:A[:B]]: the application id and up to two integers (0 when absent);
// need_first: A must be given.
struct AppSpec {
  std::string app;
  int a = 0;
  int b = 0;
};
AppSpec ParseAppSpec(const std::string &text, const char *first, const char *second, bool need_first) {
  AppSpec spec;
  const size_t c1 = text.find(':');
  spec.app = text.substr(0, c1);
  if (spec.app.empty()) throw UsageError{"empty application id in '" + text + "'"};
  if (c1 == std::string::npos) {
    if (need_first) throw UsageError{std::string("APP:") + first + " expected, not '" + text + "'"};
    return spec;
  }
  const std::string rest = text.substr(c1 + 1);
  const size_t c2 = rest.find(':');
  if (second == nullptr && c2 != std::string::npos) throw UsageError{"too many ':' in '" + text + "'"};
  spec.a = Int(rest.substr(0, c2), first);
  if (c2 != std::string::npos) spec.b = Int(rest.substr(c2 + 1), second);
  return spec;
}

// APP:ZONE arguments, all read before the list is made (a usage error leaves nothing behind).
kova_app_list_h ZoneList(const Args &a, size_t from) {
  std::vector<AppSpec> specs;
  for (size_t i = from; i < a.size(); ++i) specs.push_back(ParseAppSpec(a[i], "ZONE", nullptr, true));
  kova_app_list_h list = kova_app_list_create_new();
  for (const AppSpec &spec : specs) kova_app_list_add(list, spec.a, spec.app.c_str());
  return list;
}

// APP[:VIDEO[:AUDIO]] arguments, likewise.
kova_app_list_h PriorityList(const Args &a, size_t from) {
  std::vector<AppSpec> specs;
  for (size_t i = from; i < a.size(); ++i) specs.push_back(ParseAppSpec(a[i], "VIDEO", "AUDIO", false));
  kova_app_list_h list = kova_app_list_create_new();
  for (const AppSpec &spec : specs) {
    kova_app *app = kova_app_list_create_new_app(spec.app.c_str());
    kova_app_set_priority_video(app, spec.a);
    kova_app_set_priority_audio(app, spec.b);
    kova_app_list_insert_app(list, app);
  }
  return list;
}

// A list command: the list is built (usage errors first) and freed here.
int WithList(const char *kind, kova_app_list_h list, int (*send)(kova_app_list_h, int), int arg) {
  const int r = send(list, arg);
  kova_app_list_free(list);
  return Plain(kind, r, r == 0);
}

int PolicySet(const Args &a) {
  const int policy = ParseValue(a[0], "the policy", kPolicies);
  bool remove_all = false;
  Args apps;
  for (size_t i = 2; i < a.size(); ++i) {
    if (a[i] == "--remove-all") {
      remove_all = true;
    } else {
      apps.push_back(a[i]);
    }
  }
  kova_app_list_h list = apps.empty() ? nullptr : PriorityList(apps, 0);
  kova_policy_info *info = kova_policy_info_create_new(a[1].c_str());
  if (info == nullptr) {
    if (list != nullptr) kova_app_list_free(list);
    return Plain("policy-set", -1, false);
  }
  kova_policy_info_set_option_remove_all_current_apps(info, remove_all);
  if (list != nullptr) kova_policy_info_set_app_list(info, list);
  const int r = kova_set_resource_policy(policy, info);
  kova_policy_info_free(info);
  return Plain("policy-set", r, r == 0);
}
int PolicyInternal(const Args &a) {
  const int r = kova_set_resource_policy_internal(ParseValue(a[0], "the policy", kPolicies));
  return Plain("policy-internal", r, r == 0);
}
int PolicyAppZones(const Args &a) {
  const int policy = ParseValue(a[0], "the policy", kPolicies);
  return WithList("policy-app-zones", ZoneList(a, 1),
                  [](kova_app_list_h l, int p) { return kova_set_resource_policy_app_zone_info(p, l); }, policy);
}
int PolicyPreassign(const Args &a) {
  return WithList("policy-preassign", ZoneList(a, 0),
                  [](kova_app_list_h l, int) { return kova_set_pre_assigned_app_list(l); }, 0);
}
int PolicyRegisterList(const Args &a) {
  const int type = Int(a[0], "list type");
  return WithList("app-list-register", PriorityList(a, 1),
                  [](kova_app_list_h l, int t) { return kova_register_app_list(t, l); }, type);
}
int PolicyUnregisterList(const Args &a) {
  const int type = Int(a[0], "list type");
  return WithList("app-list-unregister", PriorityList(a, 1),
                  [](kova_app_list_h l, int t) { return kova_unregister_app_list(t, l); }, type);
}

constexpr size_t kAny = static_cast<size_t>(-1);

}  // namespace

const std::vector<Command> &Commands() {
  static const std::vector<Command> commands = {
      {"player", "register", "ID [VALUE]", "register a player (sent without waiting for the service)",
       "  ID     the player id, an integer chosen by the player\n"
       "  VALUE  an integer the service keeps with it (default 0)\n",
       1, 2, PlayerRegister},
      {"player", "unregister", "ID", "unregister a player (sent without waiting)", "  ID  the player id\n", 1, 1,
       PlayerUnregister},
      {"player", "play", "ID", "ask to play; prints the granted audio output (1 main, 2 sub, 0 none)",
       "  ID  the player id\n"
       "The answer's source is \"library\" when the service is not ready: the library then grants main itself.\n",
       1, 1, PlayerPlay},
      {"player", "stop", "ID", "ask the service to stop a player (sent without waiting)", "  ID  the player id\n",
       1, 1, PlayerStop},
      {"player", "done", "REQUEST ID", "acknowledge a start or stop the service asked for",
       "  REQUEST  " + NamesOf(kRequests) + "\n" +
           "  ID       the player id\n"
       "Prints the service's integer (0: it was waiting for that acknowledgement).\n",
       2, 2, PlayerDone},
      {"player", "audio-out", "ID", "the player's current audio output (0 none, 1 main, 2 sub)",
       "  ID  the player id\n"
       "While no resource policy is active the library asks the platform's resource manager, not the service:\n"
       "the answer's source is then \"platform\".\n",
       1, 1, PlayerAudioOut},
      {"speaker", "register", "NAME OUTPUT", "register an external speaker on an audio output",
       "  NAME    the speaker's name\n"
       "  OUTPUT  " + NamesOf(kAudioOuts) + " or an integer\n",
       2, 2, SpeakerRegister},
      {"speaker", "unregister", "NAME OUTPUT", "unregister an external speaker",
       "  NAME    the speaker's name\n"
       "  OUTPUT  the output it was registered with\n",
       2, 2, SpeakerUnregister},
      {"speaker", "audio-out", "NAME", "the audio output of an external speaker",
       "  NAME  the speaker's name\n"
       "The answer's source is \"library\" when the service is not ready (the library answers main).\n",
       1, 1, SpeakerAudioOut},
      {"zones", "list", "[--multiview]", "the zones, one line each",
       "  --multiview  the multi-view zone list (its zones report scaler 0)\n", 0, 1, ZonesList},
      {"zones", "focused", "", "the focused zone", "", 0, 0, ZonesFocused},
      {"zones", "assign", "APP ZONE", "assign an application to a zone",
       "  APP   the application id\n"
       "  ZONE  the zone id, sent unchecked\n",
       2, 2, ZonesAssign},
      {"zones", "remove", "APP ZONE", "remove an application from a zone",
       "  APP   the application id\n"
       "  ZONE  the zone id\n",
       2, 2, ZonesRemove},
      {"zones", "preassign", "APP ZONE", "pre-assign an application to a zone",
       "  APP   the application id\n"
       "  ZONE  the zone id\n",
       2, 2, ZonesPreassign},
      {"zones", "removable", "APP ZONE", "mark an application removable from its zone (sent without waiting)",
       "  APP   the application id\n"
       "  ZONE  the zone id\n",
       2, 2, ZonesRemovable},
      {"zones", "clear-removable", "", "clear every removable mark (sent without waiting)", "", 0, 0,
       ZonesClearRemovable},
      {"zones", "layout", "STATE", "report the layout state",
       "  STATE  " + NamesOf(kLayoutStates) + " or an integer\n", 1, 1, ZonesLayout},
      {"focus", "get", "", "the current audio focus (a zone id)", "", 0, 0, FocusGet},
      {"focus", "last", "", "the last audio focus", "", 0, 0, FocusLast},
      {"focus", "set", "ZONE", "set the audio focus", "  ZONE  the zone id (0: none)\n", 1, 1, FocusSet},
      {"focus", "is", "APP", "whether an application holds the audio focus (the service's integer)",
       "  APP  the application id\n", 1, 1, FocusIs},
      {"focus", "zone", "", "the audio focus zone", "", 0, 0, FocusZone},
      {"best-zone", "switch", "ZONE OPTION", "switch the best-quality zone",
       "  ZONE    the zone id, not negative\n"
       "  OPTION  an integer the service interprets, not negative\n",
       2, 2, BestSwitch},
      {"best-zone", "restore", "", "restore the best-quality zone", "", 0, 0, BestRestore},
      {"resolution", "get", "APP", "the maximum video resolution allowed to an application",
       "  APP  the application id\n", 1, 1, ResolutionGet},
      {"resolution", "policy", "POLICY CODEC", "the maximum video resolution a policy allows for a codec",
       "  POLICY  " + NamesOf(kPolicies) + " or an integer\n" +
           "  CODEC   " + NamesOf(kCodecs) + " or an integer\n",
       2, 2, ResolutionPolicy},
      {"category", nullptr, "PLAYER APP CATEGORY", "the resource category a player of an application should use",
       "  PLAYER    the player id\n"
       "  APP       the application id\n"
       "  CATEGORY  the requested category, with its option bits\n"
       "The answer's source is \"library\" when the library decided without the service.\n",
       3, 3, Category},
      {"policy", "set", "POLICY OWNER [--remove-all] [APP[:VIDEO[:AUDIO]]...]",
       "set the resource policy on behalf of an owner",
       "  POLICY        " + NamesOf(kPolicies) + " or an integer\n" +
           "  OWNER         the owner's name (may be empty)\n"
       "  --remove-all  ask the service to remove every current application\n"
       "  APP:VIDEO:AUDIO  an application with its video and audio priorities (default 0)\n",
       2, kAny, PolicySet},
      {"policy", "internal", "POLICY", "set the resource policy alone",
       "  POLICY  " + NamesOf(kPolicies) + " or an integer\n", 1, 1, PolicyInternal},
      {"policy", "app-zones", "POLICY [APP:ZONE...]", "set the policy with applications in zones",
       "  POLICY    " + NamesOf(kPolicies) + " or an integer\n" +
           "  APP:ZONE  an application and its zone id\n",
       1, kAny, PolicyAppZones},
      {"policy", "preassign", "[APP:ZONE...]", "send the list of pre-assigned applications",
       "  APP:ZONE  an application and its zone id\n", 0, kAny, PolicyPreassign},
      {"policy", "register-list", "TYPE [APP[:VIDEO[:AUDIO]]...]", "register an application list",
       "  TYPE             the list type, an integer the service interprets\n"
       "  APP:VIDEO:AUDIO  an application with its priorities (default 0)\n",
       1, kAny, PolicyRegisterList},
      {"policy", "unregister-list", "TYPE [APP...]", "unregister an application list",
       "  TYPE  the list type\n"
       "  APP   an application id\n",
       1, kAny, PolicyUnregisterList},
      {"monitor", nullptr, "[-n COUNT] [-t SECONDS] [--brief] [--register-app APP]...",
       "watch every signal of the service, one line each, without registering anything",
       "  -n COUNT            end after COUNT signals (exit status 1 if the time runs out first)\n"
       "  -t SECONDS          end after SECONDS (a decimal number above 0, at most 30 days)\n"
       "  --brief             leave out the time and the sender\n"
       "  --register-app APP  also register APP with the service for resource and maximum-resolution\n"
       "                      notifications, so that the service sends them; unregistered at the end\n"
       "The first line is \"ready\" once the bus delivers every signal to the monitor.\n",
       0, kAny, Monitor},
      {"status", nullptr, "", "a snapshot: the service's owner and pid, markers, zones, focus, policy",
       "Shows kova-sim's own state too when its debug interface is there.\n", 0, 0, Status},
  };
  return commands;
}

}  // namespace kovactl

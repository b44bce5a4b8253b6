// The wire of every method a plain call sends: its arguments, how the answer
// maps to the result, and the line that names the call's command identifier;
// then the same call answered with an error. Whether a reply is awaited is
// checked against the interface file by the fixture.
#include <string>

#include "kova_api.h"
#include "kova_test.h"

namespace kova_test {
namespace {

struct Wire {
  const char *method;
  std::string (*call)();  // the result, then what the call wrote out
  const char *args;       // after the command identifier
  const char *reply;      // GVariant text; null for fire-and-forget
  const char *result;
  const char *line;  // after "[<command id>] "
  const char *failed_result = nullptr;  // with an error reply; null: not asked
  const char *failed_line = nullptr;
};

std::string S(int result) { return std::to_string(result); }
std::string S(int result, int out) { return S(result) + " " + S(out); }
std::string Z(int result, const kova_zone *z) {
  return S(result) + (z ? " " + S(z->id) + ":" + S(z->scaler_id) + ":" + (z->app_id ? z->app_id : "-") : "");
}

std::string Play() {
  kova_audio_out_e out = static_cast<kova_audio_out_e>(9);
  const int r = kova_player_request_play(11, &out);
  return S(r, out);
}
std::string AudioOut() {
  doubles::SetMarker("/tmp/.rsc_policy_activated", true);
  kova_player_audio_out_e out = static_cast<kova_player_audio_out_e>(9);
  const int r = kova_get_player_audio_out(6, &out);
  return S(r, out);
}
std::string Speaker() {
  kova_audio_out_e out = static_cast<kova_audio_out_e>(9);
  const int r = kova_get_extspk_info_audio_out("bar", &out);
  return S(r, out);
}
template <int (*Get)(void **)>
std::string ZoneList() {
  void *list = nullptr;
  kova_zone *first = nullptr;
  const int r = Get(&list);
  if (r == 0) kova_get_next_zone(list, &first);
  std::string out = Z(r, first);
  if (list != nullptr) kova_free_zone_list(list);
  return out;
}
template <int (*Get)(kova_zone **)>
std::string OwnZone() {
  kova_zone *zone = nullptr;
  const int r = Get(&zone);
  const std::string out = Z(r, zone);
  if (zone != nullptr) kova_zone_free(zone);
  return out;
}
template <int (*Get)(int *)>
std::string Focus() {
  int focus = 55;
  const int r = Get(&focus);
  return S(r, focus);
}
template <int (*Get)(const char *, int *, int *, int *)>
std::string MaxVideo() {
  int w = 1, h = 2, f = 3;
  const int r = Get("app.v", &w, &h, &f);
  return S(r) + " " + S(w) + "x" + S(h) + "@" + S(f);
}
std::string PolicyMax() {
  int w = 1, h = 2, f = 3;
  const int r = kova_policy_get_max_resolution(KOVA_RSC_POLICY_GAME, static_cast<kova_video_codec_e>(9), &w, &h, &f);
  return S(r) + " " + S(w) + "x" + S(h) + "@" + S(f);
}


// Lines: "=" stands for "(Method) success :: (N)", "~" for the call helper's
// "_kova_dbus_method_call() success, method return value is (N)", N being the
// number after the sign or else the reply's first integer; "!" for
// "(Method) failed", "for X" for "_kova_dbus_method_call() for X is failed".
const Wire kWires[] = {
    {"PlayerRegister", [] { return S(kova_player_register(42, 7)); }, "42, 7", nullptr, "42", "=0"},
    {"PlayerUnregister", [] { return S(kova_player_unregister(5)); }, "5", nullptr, "0", "=0"},
    {"PlayerRequestStop", [] { return S(kova_player_request_stop(6)); }, "6", nullptr, "0", "=0"},
    {"PlayerRequestPlay", Play, "11", "(2,)", "0 2", "=", "-1 9", "!"},
    {"PlayerRequestPlay", Play, "11", "(-3,)", "-1 9", "(PlayerRequestPlay) failed -3"},
    {"PlayerVideoStartDone", [] { return S(kova_player_video_start_done(1)); }, "1", "(-5,)", "-5", "=", "-1", "!"},
    {"PlayerVideoStopDone", [] { return S(kova_player_video_stop_done(2)); }, "2", "(3,)", "3", "=", "-1", "!"},
    {"PlayerAudioStartDone", [] { return S(kova_player_audio_start_done(3)); }, "3", "(0,)", "0", "=", "-1", "!"},
    {"PlayerAudioStopDone", [] { return S(kova_player_audio_stop_done(4)); }, "4", "(1,)", "1", "=", "-1", "!"},
    {"GetPlayerAudioOut", AudioOut, "6", "(2,)", "0 2", "=", "-1 9", "!"},
    {"GetPlayerAudioOut", AudioOut, "6", "(-2,)", "-1 9", "(GetPlayerAudioOut) failed -2"},
    {"RegisterExtSpkInfo", [] { return S(kova_extspk_info_register("bar", 8)); }, "'bar', 8", "(4,)", "4", "=", "-1",
     "!"},
    {"UnregisterExtSpkInfo", [] { return S(kova_extspk_info_unregister("baz", 9)); }, "'baz', 9", "(-2,)", "-2", "=",
     "-1", "!"},
    {"GetExtSpkInfoAudioOut", Speaker, "'bar'", "(2,)", "0 2", "=", "-1 9", "!"},
    {"GetExtSpkInfoAudioOut", Speaker, "'bar'", "(-3,)", "-3 9", "="},
    {"GetExtSpkInfoAudioOut", Speaker, "'bar'", "(0,)", "0 0", "="},
    {"GetMultiviewZoneIds", ZoneList<kova_get_zone_list>, "", "([(1, 10, 'a'), (2, 20, 'b')],)", "0 1:10:a", "~2",
     "-1", "for GET_ZONE_LIST"},
    {"GetMultiviewZoneIds", ZoneList<kova_get_resource_zone_list>, "", "(@a(iis) [],)", "-1", "There is no zones"},
    {"GetMultiviewZoneList", ZoneList<kova_get_multiview_zone_list>, "", "([(3, 'c')],)", "0 3:0:c",
     "zone 3(c) is added", "-1", "for GET_MULTIVIEW_ZONE_LIST"},
    {"SetAppToZone", [] { return S(kova_set_app_zone_info("org.app", -7)); }, "'org.app', -7", "(5,)", "-1", "~",
     "-1", "for SET_APP_ZONE_INFO"},
    {"RemoveAppFromZone", [] { return S(kova_remove_app_zone_info("org.app", 2)); }, "'org.app', 2", "(0,)", "0", "~",
     "-1", "for RemoveAppFromZone"},
    {"SetPreAssignedAppToZone", [] { return S(kova_set_pre_assigned_app_zone_info("org.pre", 3)); }, "'org.pre', 3",
     "(0,)", "0", "~", "-1", "for SET_PRE_ASSIGNED_APP_ZONE_INFO"},
    {"SetRemovableAppToZone", [] { return S(kova_set_removable_app_zone_info("org.app", -4)); }, "'org.app', -4",
     nullptr, "0", "_kova_dbus_method_call() success"},
    {"ClearRemovableAppToZone", [] { return S(kova_clear_removable_app_zone_info()); }, "", nullptr, "0",
     "_kova_dbus_method_call() success"},
    {"NotifyLayoutState", [] { return S(kova_notify_layout_state(static_cast<kova_layout_state_e>(-7))); }, "-7",
     "(0,)", "0", "~", "-1", "for NOTIFY_LAYOUT_STATE"},
    {"NotifyLayoutState", [] { return S(kova_notify_layout_state(KOVA_LAYOUT_STATE_SINGLE)); }, "1", "(5,)", "-1", "~"},
    {"GetFocusedZone", OwnZone<kova_get_focused_zone>, "", "(3, 30, 'org.focus')", "0 3:30:org.focus",
     "focused zone (3:30:org.focus)", "-1", "for GET_FOCUSED_ZONE"},
    {"GetFocusedZone", OwnZone<kova_get_audio_focus_zone>, "", "(4, 40, '')", "0 4:40:", "focused zone (4:40:)", "-1",
     "for GET_FOCUSED_ZONE"},
    {"SwitchBestQaulityZone", [] { return S(kova_switch_best_quality_zone(2, 0)); }, "2, 0", "(7,)", "7", "~", "-1",
     "for BEST QUALITY ZONE INFO"},
    {"RestoreBestQualityZone", [] { return S(kova_restore_best_quality_zone()); }, "", "(-3,)", "-3", "~", "-1",
     "for RESTORE BEST QUALITY ZONE INFO"},
    {"SetAudioFocus", [] { return S(kova_set_audio_focus(-9)); }, "-9", "(1,)", "-1", "~", "-1",
     "for SET_AUDIO_FOCUS"},
    {"SetAudioFocus", [] { return S(kova_set_audio_focus(2)); }, "2", "(0,)", "0", "~"},
    {"GetAudioFocus", Focus<kova_get_audio_focus>, "", "(0,)", "-1 55", "~", "-1 55", "for GET_AUDIO_FOCUS"},
    {"GetAudioFocus", Focus<kova_get_audio_focus>, "", "(4,)", "0 4", "~"},
    {"GetLastAudioFocus", Focus<kova_get_last_audio_focus>, "", "(-3,)", "0 -3", "~", "-1 55",
     "for GET_LAST_AUDIO_FOCUS"},
    {"IsAudioFocused", [] { return S(kova_is_audio_focused("org.app")); }, "'org.app'", "(1234,)", "1234", "~", "-1",
     "for IS_AUDIO_FOCUSED"},
    {"GetMaxVideo", MaxVideo<kova_get_max_video_resolution>, "'app.v'", "(-1, 0, 30)", "0 -1x0@30",
     "(GetMaxVideo) success (-1*0)-(30)", "-1 1x2@3", "!"},
    {"GetMaxVideo", MaxVideo<kova_get_allowed_max_video_resolution>, "'app.v'", "(640, 480, 25)", "0 640x480@25",
     "(GetMaxVideo) success (640*480)-(25)"},
    {"PolicyGetMaxVideo", PolicyMax, "2, 9", "(1920, 1080, 60)", "0 1920x1080@60",
     "(PolicyGetMaxVideo) success policy(2)/codec(9)/(1920*1080)-(60)", "-1 1x2@3", "!"},
};

// A line of the table, written out for w.
std::string Line(const Wire &w, const std::string &line) {
  std::string n = line.substr(1);
  if (n.empty() && w.reply != nullptr) n = std::to_string(Variant(g_variant_new_parsed(w.reply)).i32(0));
  if (line[0] == '=') return "(" + std::string(w.method) + ") success :: (" + n + ")";
  if (line[0] == '~') return "_kova_dbus_method_call() success, method return value is (" + n + ")";
  if (line == "!") return "(" + std::string(w.method) + ") failed";
  if (line.rfind("for ", 0) == 0) return "_kova_dbus_method_call() " + line + " is failed";
  return line;
}

using WireTest = KovaTest;

TEST_F(WireTest, EveryCallSendsItsArgumentsAndMapsTheAnswer) {
  for (const Wire &w : kWires) {
    SCOPED_TRACE(w.method);
    if (w.reply != nullptr) service().Set(w.method, Answer::Value(g_variant_new_parsed(w.reply)));
    const size_t sent = service().CallsTo(w.method).size();
    EXPECT_EQ(w.call(), w.result);
    if (w.reply == nullptr) Sync();  // the fire-and-forget call has reached the service
    ASSERT_EQ(service().CallsTo(w.method).size(), sent + 1);
    const Call call = LastCall(w.method);
    const std::string cmd = std::to_string(call.args.i32(0));
    EXPECT_EQ(call.args.text(), w.args[0] ? "(" + cmd + ", " + w.args + ")" : "(" + cmd + ",)");
    EXPECT_TRUE(doubles::HasLog("[" + Hex(call.args.i32(0)) + "] " + Line(w, w.line))) << Line(w, w.line);
    if (w.failed_result == nullptr) continue;
    service().Set(w.method, Answer::Error("org.zelta.Error.Failed", "no"));
    EXPECT_EQ(w.call(), w.failed_result);
    EXPECT_TRUE(doubles::HasLog("[" + Hex(LastCall(w.method).args.i32(0)) + "] " + Line(w, w.failed_line),
                                doubles::kError))
        << Line(w, w.failed_line);
  }
}

}  // namespace
}  // namespace kova_test

// kova-sim's rules without a bus: what each call answers, the signals and stop timers it queues.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

#include "config.h"
#include "debug.h"
#include "rules.h"

namespace kova_sim {
namespace {

using ::testing::ElementsAre;
using Answer = std::pair<int, std::vector<Signal>>;

using enum PlayerRequest;
PlayerSignal Req(PlayerRequest r, int request_id, int player_id) { return PlayerSignal{r, request_id, player_id}; }

// A call's result with the signals it queued: Did(k, k.Call(...)).
Answer Did(Kova &k, int result) { return {result, k.TakeOutbox().signals}; }
// The app of each zone, then the focused zone and its scaler.
std::string Layout(const Kova &k) {
  std::string s;
  for (const ZoneInfo &z : k.Zones()) s += z.app_id + "|";
  return s + " focus " + std::to_string(k.FocusedZone().id) + "/" + std::to_string(k.FocusedZone().scaler_id);
}

// Player 10 holds the only decoder and is asked to stop for 20, which waits until 10 lets go.
TEST(SimPlayers, TheHolderHandsOverWhenItAcknowledgesTimesOutOrUnregisters) {
  const std::pair<const char *, std::function<void(Kova &, unsigned)>> cases[] = {
      {"acknowledges", [](Kova &k, unsigned) { EXPECT_EQ(k.PlayerVideoStopDone(10) + k.PlayerAudioStopDone(10), 0); }},
      {"times out", [](Kova &k, unsigned serial) { EXPECT_TRUE(k.StopTimedOut(10, serial)); }},
      {"unregisters", [](Kova &k, unsigned) { k.PlayerUnregister(3, 10); }},
  };
  for (const auto &[how, let_go] : cases) {
    SCOPED_TRACE(how);
    Kova k{Config{.video_decoders = 1, .capable_categories = {}}};
    for (int id : {10, 20}) k.PlayerRegister(1, id, 0);
    EXPECT_EQ(k.PlayerRequestPlay(100, 10), kAudioOutMain);
    EXPECT_EQ(k.PlayerRequestPlay(200, 20), kAudioOutMain);  // the output the holder will hand over
    const Outbox out = k.TakeOutbox();
    EXPECT_THAT(out.signals, ElementsAre(Req(kVideoStart, 100, 10), Req(kAudioStart, 100, 10),
                                         Req(kVideoStop, 200, 10), Req(kAudioStop, 200, 10)));
    ASSERT_THAT(out.timers, ElementsAre(::testing::Field(&StopTimer::ms, 3000)));
    g_autoptr(GVariant) state = g_variant_ref_sink(StateVariant(k.Snap()));
    g_autofree gchar *text = g_variant_print(state, FALSE);
    EXPECT_THAT(text, ::testing::HasSubstr("'awaiting': <['video-stop', 'audio-stop']>, 'stopping_for': <20>}"));
    EXPECT_EQ(std::string(text).find("stopping_for"), std::string(text).rfind("stopping_for"));  // 20 stops for none
    let_go(k, out.timers[0].serial);
    EXPECT_THAT(k.TakeOutbox().signals, ElementsAre(Req(kVideoStart, 200, 20), Req(kAudioStart, 200, 20)));
    EXPECT_FALSE(k.StopTimedOut(10, out.timers[0].serial));  // a finished stop's timer does nothing
    EXPECT_THAT(k.TakeOutbox().signals, ::testing::IsEmpty());
  }
}

// Each acknowledgement is awaited once; a stop drops the starts still awaited.
TEST(SimPlayers, EachAcknowledgementIsAwaitedOnce) {
  Kova k{Config{}};
  k.PlayerRegister(1, 10, 0);
  k.PlayerRequestPlay(2, 10);
  EXPECT_EQ(k.PlayerVideoStartDone(10) + k.PlayerAudioStartDone(10), 0);
  EXPECT_EQ(k.PlayerVideoStartDone(10) + k.PlayerAudioStartDone(10), -2);
  k.PlayerRequestStop(4, 10);
  EXPECT_EQ(k.PlayerVideoStopDone(10) + k.PlayerVideoStopDone(10), -1);  // the second while still stopping
  EXPECT_EQ(k.PlayerAudioStopDone(10), 0);
  EXPECT_EQ(k.PlayerVideoStopDone(10) + k.PlayerAudioStopDone(10), -2);
  EXPECT_EQ(std::string(k.Snap().players.at(0).state) + " " + std::to_string(k.free_decoders()), "idle 2");
  k.PlayerRequestPlay(5, 10);
  k.PlayerRequestStop(6, 10);  // before the starts were acknowledged
  EXPECT_EQ(k.PlayerVideoStartDone(10) + k.PlayerAudioStartDone(10), -2);
}

// Outputs go in turn, main, second, then none; a speaker on an output resyncs the player on it.
TEST(SimPlayers, OutputsGoInTurnAndASpeakerResyncsItsPlayer) {
  Kova k{Config{.video_decoders = 3, .capable_categories = {}}};
  EXPECT_EQ(k.PlayerRequestPlay(1, 10), -1);  // not registered
  for (int id : {10, 20, 30}) k.PlayerRegister(1, id, 0);
  EXPECT_EQ(k.PlayerRequestPlay(10, 10), kAudioOutMain);
  EXPECT_EQ(k.PlayerRequestPlay(20, 20), kAudioOutSub);
  k.TakeOutbox();
  EXPECT_EQ(Did(k, k.PlayerRequestPlay(30, 30)), Answer(kAudioOutNone, {Req(kVideoStart, 30, 30)}));  // no audio
  EXPECT_EQ(Did(k, k.RegisterExtSpk(5, "soundbar", kAudioOutSub)), Answer(0, {Req(kAudioResync, 5, 20)}));
}

// A holder without an output hands over whatever output is free when it has stopped.
TEST(SimPlayers, AHandoverGrantsTheOutputFreeWhenTheHolderHasStopped) {
  Kova k{Config{.video_decoders = 2, .audio_outputs = 1, .capable_categories = {}}};
  for (int id : {10, 20, 30, 40}) k.PlayerRegister(1, id, 0);
  EXPECT_EQ(k.PlayerRequestPlay(1, 10) * 10 + k.PlayerRequestPlay(2, 20), kAudioOutMain * 10 + kAudioOutNone);
  k.PlayerRequestStop(3, 10);
  EXPECT_EQ(k.PlayerVideoStopDone(10) + k.PlayerAudioStopDone(10), 0);
  EXPECT_EQ(k.PlayerRequestPlay(4, 30), kAudioOutMain);
  EXPECT_EQ(k.PlayerRequestPlay(5, 40), kAudioOutNone);  // 20, the oldest, stops for it: it has no output
  k.PlayerRequestStop(6, 30);
  EXPECT_EQ(k.PlayerVideoStopDone(30) + k.PlayerAudioStopDone(30), 0);
  k.TakeOutbox();
  EXPECT_EQ(Did(k, k.PlayerVideoStopDone(20)), Answer(0, {Req(kVideoStart, 5, 40), Req(kAudioStart, 5, 40)}));
}

// An app is in one zone at a time and assigning moves the focus; best-quality and audio-focus
// changes are signalled, with the grants they alter, to the apps that registered.
TEST(SimZones, AssignmentMovesAppAndFocusAndGrantChangesAreSignalled) {
  Kova k{Config{}};
  const Resolution main{3840, 2160, 60}, sub{1920, 1080, 30};
  EXPECT_EQ(k.SetAppToZone("c", 1) + k.SetAppToZone("c", 2) + k.SetAppToZone("a", 1), 0);
  EXPECT_EQ(Layout(k), "a|c| focus 1/0");
  k.SetRemovableAppToZone("c", 2);
  k.SetRemovableAppToZone("a", 2);  // not there
  EXPECT_EQ(k.Snap().removable_apps, std::vector<std::string>{"c"});
  k.ClearRemovableAppToZone();
  EXPECT_TRUE(k.Snap().removable_apps.empty());
  EXPECT_EQ(k.RemoveAppFromZone("a", 2), -1);  // it is not there
  EXPECT_EQ(k.PolicyMaxVideo(0, 0), main);
  EXPECT_EQ(k.PolicyMaxVideo(1, 0), sub);
  EXPECT_EQ(k.RscChangeRegister("a") + k.RscChangeRegister("c") + k.MaxVideoRegister("c"), 0);
  k.TakeOutbox();
  EXPECT_EQ(Did(k, k.SwitchBestQualityZone(2, 5)),
            Answer(0, {BestZoneSignal{2, 1, 5}, AppRscSignal{"a", 1, 0, sub}, AppRscSignal{"c", 1, 0, main},
                       MaxRezSignal{"c", main}}));
  EXPECT_EQ(Did(k, k.SwitchBestQualityZone(2, 0)), Answer(0, {}));  // no change, no signal
  EXPECT_EQ(Did(k, k.SetAudioFocus(3, 2)), Answer(0, {AudioFocusSignal{3, 2, 1, "c"}, AppRscSignal{"a", 0, 1, sub},
                                                      AppRscSignal{"c", 0, 1, main}}));
  EXPECT_EQ(k.SetAudioFocus(4, 0), 0);  // no zone holds the focus
}

// Listed apps are signalled with their zones (0: none); a count that disagrees refuses the list.
TEST(SimPolicy, SettersSignalTheAppsAndTheirZones) {
  Kova k{Config{}};
  k.SetAppToZone("a", 2);
  k.TakeOutbox();
  const std::vector<AppPriority> apps = {{"a", 1, 2}, {"b", 3, 4}};
  EXPECT_EQ(Did(k, k.SetPolicyWithAppList(5, 3, "owner", false, 2, apps)),
            Answer(0, {PolicySignal{5, 3, {{2, "a"}, {0, "b"}}}}));
  EXPECT_EQ(Did(k, k.SetPolicyWithAppList(6, 3, "owner", false, 3, apps)), Answer(-1, {}));  // count disagrees
  EXPECT_EQ(Did(k, k.SetPolicyAppToZone(8, 2, 2, {{1, "x"}, {2, "y"}})),
            Answer(0, {PolicySignal{8, 2, {{1, "x"}, {2, "y"}}}}));
  EXPECT_EQ(Layout(k), "x|y| focus 2/1");
}

// What each call refuses, on a service where player 10 is registered and idle.
TEST(SimRefusals, EachCallRefusesWhatItCannotDo) {
  using Call = int (*)(Kova &);
  const std::pair<const char *, Call> rows[] = {
      {"play, unknown player", [](Kova &k) { return k.PlayerRequestPlay(1, 99); }},
      {"play, every decoder promised to a waiting player",
       [](Kova &k) {
         for (int p : {11, 12, 13, 14}) k.PlayerRegister(1, p, 0), k.PlayerRequestPlay(1, p);
         return k.PlayerRequestPlay(1, 10);
       }},
      {"start of a player that stopped waiting",
       [](Kova &k) {
         for (int p : {11, 12, 13}) k.PlayerRegister(1, p, 0), k.PlayerRequestPlay(1, p);
         k.PlayerRequestStop(2, 13);
         k.PlayerVideoStopDone(11), k.PlayerAudioStopDone(11);
         return k.PlayerVideoStartDone(13);
       }},
      {"video start not awaited", [](Kova &k) { return k.PlayerVideoStartDone(10); }},
      {"audio start not awaited", [](Kova &k) { return k.PlayerAudioStartDone(10); }},
      {"stop not under way", [](Kova &k) { return k.PlayerAudioStopDone(10); }},
      {"speaker without a name", [](Kova &k) { return k.RegisterExtSpk(1, "", 1); }},
      {"speaker on output 0", [](Kova &k) { return k.RegisterExtSpk(1, "s", 0); }},
      {"speaker on output 3", [](Kova &k) { return k.RegisterExtSpk(1, "s", 3); }},
      {"unknown speaker", [](Kova &k) { return k.UnregisterExtSpk(1, "s", 1); }},
      {"assign no app", [](Kova &k) { return k.SetAppToZone("", 1); }},
      {"assign zone 0", [](Kova &k) { return k.SetAppToZone("a", 0); }},
      {"assign zone 3", [](Kova &k) { return k.SetAppToZone("a", 3); }},
      {"pre-assign zone 9", [](Kova &k) { return k.SetPreAssignedAppToZone("a", 9); }},
      {"remove from zone 9", [](Kova &k) { return k.RemoveAppFromZone("a", 9); }},
      {"best zone 9", [](Kova &k) { return k.SwitchBestQualityZone(9, 0); }},
      {"best zone option -1", [](Kova &k) { return k.SwitchBestQualityZone(1, -1); }},
      {"focus zone 3", [](Kova &k) { return k.SetAudioFocus(1, 3); }},
      {"resource change, no app", [](Kova &k) { return k.RscChangeRegister(""); }},
      {"max video, no app", [](Kova &k) { return k.MaxVideoRegister(""); }},
      {"resource change, unregistered twice",
       [](Kova &k) { return k.RscChangeRegister("a") + k.RscChangeUnregister("a") + k.RscChangeUnregister("a"); }},
      {"max video, unregistered twice",
       [](Kova &k) { return k.MaxVideoRegister("a") + k.MaxVideoUnregister("a") + k.MaxVideoUnregister("a"); }},
      {"policy -1 with an owner", [](Kova &k) { return k.SetPolicyWithOwner(1, -1, "o", false); }},
      {"policy list, count 3 of 1", [](Kova &k) { return k.SetPolicyWithAppList(1, 1, "o", false, 3, {{"a", 1, 1}}); }},
      {"internal policy past int", [](Kova &k) { return k.SetPolicyInternal(1, 0x80000000u); }},
      {"apps to zones, count 2 of 1", [](Kova &k) { return k.SetPolicyAppToZone(1, 1, 2, {{1, "a"}}); }},
      {"apps to zone 9", [](Kova &k) { return k.SetPolicyAppToZone(1, 1, 1, {{9, "a"}}); }},
      {"pre-assigned to zone 9", [](Kova &k) { return k.SetPreAssignedAppList({{9, "a"}}); }},
      {"list of 1 counted 2", [](Kova &k) { return k.RegisterAppList(1, 2, {{"a", 1, 1}}); }},
      {"unregister list counted 2", [](Kova &k) { return k.UnregisterAppList(1, 2, {"a"}); }},
      {"unregister from no list", [](Kova &k) { return k.UnregisterAppList(1, 1, {"a"}); }},
      {"unregister an app not listed",
       [](Kova &k) { return k.RegisterAppList(1, 1, {{"a", 1, 1}}) + k.UnregisterAppList(1, 1, {"b"}); }},
      {"remove from the zone it is in, then again",
       [](Kova &k) { return k.SetAppToZone("a", 1) + k.RemoveAppFromZone("a", 1) + k.RemoveAppFromZone("a", 1); }},
      {"nothing from no list is fine", [](Kova &k) { return k.UnregisterAppList(7, 0, {}) - 1; }},
      {"no app id holds the focus of an empty zone", [](Kova &k) { return k.IsAudioFocused("") - 1; }},
  };
  for (const auto &[what, call] : rows) {
    Kova k{Config{}};
    k.PlayerRegister(1, 10, 0);
    EXPECT_EQ(call(k), -1) << what;
  }
}

// Every key with its range, every mistake with its line; a good file sets what it names.
TEST(SimConfig, EachKeyTakesItsRangeAndEachMistakeNamesItsLine) {
  const std::pair<const char *, const char *> rows[] = {
      {"video_decoders = 8\naudio_outputs = 1  # main only\n\n", ""},
      {"video_decoders = 9", "line 1: video_decoders: 9 is out of range 1..8"},
      {"video_decoders = 0", "line 1: video_decoders: 0 is out of range 1..8"},
      {"audio_outputs = 3", "line 1: audio_outputs: 3 is out of range 1..2"},
      {"zones = 5", "line 1: zones: 5 is out of range 1..4"},
      {"best_quality_zone = 0", "line 1: best_quality_zone: 0 is out of range 1..4"},
      {"best_quality_zone = 5", "line 1: best_quality_zone: 5 is out of range 1..4"},
      {"audio_focus = -1", "line 1: audio_focus: -1 is out of range 0..4"},
      {"stop_timeout_ms = 60001", "line 1: stop_timeout_ms: 60001 is out of range 1..60000"},
      {"zones = two", "line 1: zones: 'two' is not an integer"},
      {"zones = 2x", "line 1: zones: '2x' is not an integer"},
      {"main_video = 1x1@1\nsub_video = 2x2@2", ""},
      {"main_video = 1920x1080", "line 1: main_video: '1920x1080' is not WIDTHxHEIGHT@FRAMERATE"},
      {"sub_video = 0x1@1", "line 1: sub_video: '0x1@1' is not WIDTHxHEIGHT@FRAMERATE"},
      {"main_video = 1@2x3", "line 1: main_video: '1@2x3' is not WIDTHxHEIGHT@FRAMERATE"},
      {"capable_categories = 1:2, 3", "line 1: capable_categories: '3' is not FROM:TO"},
      {"\nfoo = 1", "line 2: unknown key 'foo'"},
      {"zones", "line 1: expected key = value"},
      {"zones = 2\nbest_quality_zone = 2\naudio_focus = 2", ""},
      {"zones = 2\nbest_quality_zone = 3", "best_quality_zone 3 is not one of the 2 zones"},
      {"audio_focus = 3\nzones = 2", "audio_focus 3 is not one of the 2 zones"},
  };
  for (const auto &[text, error] : rows) {
    Config c;
    std::string why;
    EXPECT_EQ(ParseConfig(text, &c, &why) ? "" : why, error) << text;
  }
  Config c;
  std::string why;
  ASSERT_TRUE(ParseConfig("main_video = 1280x720@50\ncapable_categories = 1:2, 3:4\nstop_timeout_ms = 9", &c, &why));
  EXPECT_EQ(c.main_video, (Resolution{1280, 720, 50}));
  EXPECT_EQ(c.capable_categories, (std::map<int, int>{{1, 2}, {3, 4}}));
  EXPECT_EQ(c.stop_timeout_ms, 9);
  const Kova k{c};
  EXPECT_EQ(k.CapableCategory(3) * 10 + k.CapableCategory(5), 45);  // mapped, or answered as asked
}

}  // namespace
}  // namespace kova_sim

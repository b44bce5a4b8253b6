// kova-sim's rules, without a bus: what each call answers and which signals
// (and stop timers) it queues.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>

#include "config.h"
#include "rules.h"

namespace kova_sim {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using State = Kova::PlayerState;

PlayerSignal Req(PlayerRequest r, int request_id, int player_id) { return PlayerSignal{r, request_id, player_id}; }
constexpr auto kVStart = PlayerRequest::kVideoStart;
constexpr auto kVStop = PlayerRequest::kVideoStop;
constexpr auto kAStart = PlayerRequest::kAudioStart;
constexpr auto kAStop = PlayerRequest::kAudioStop;
constexpr auto kResync = PlayerRequest::kAudioResync;

std::vector<Signal> Signals(Kova &k) { return k.TakeOutbox().signals; }

Config WithDecoders(int n) {
  Config c;
  c.video_decoders = n;
  return c;
}

// ------------------------------------------------------------------ config

struct ConfigCase {
  const char *text;
  const char *error;  // null: accepted
};

TEST(SimConfig, RejectsBadLinesWithTheirNumber) {
  const ConfigCase cases[] = {
      {"zones = 4\nvideo_decoders=1  # one\n\n", nullptr},
      {"main_video = 1280x720@50", nullptr},
      {"capable_categories = 1010:1012, 1152 : 1153", nullptr},
      {"zones = 5", "line 1: zones: 5 is out of range 1..4"},
      {"\nvideo_decoders = two", "line 2: video_decoders: 'two' is not an integer"},
      {"audio_outputs = 3", "line 1: audio_outputs: 3 is out of range 1..2"},
      {"colour = blue", "line 1: unknown key 'colour'"},
      {"zones 2", "line 1: expected key = value"},
      {"sub_video = 1920x1080", "sub_video: '1920x1080' is not WIDTHxHEIGHT@FRAMERATE"},
      {"sub_video = 0x1080@30", "is not WIDTHxHEIGHT@FRAMERATE"},
      {"capable_categories = 1010", "'1010' is not FROM:TO"},
      {"zones = 1\nbest_quality_zone = 2", "best_quality_zone 2 is not one of the 1 zones"},
      {"audio_focus = 3", "audio_focus 3 is not one of the 2 zones"},
      {"stop_timeout_ms = 0", "out of range"},
  };
  for (const ConfigCase &c : cases) {
    Config config;
    std::string error;
    const bool ok = ParseConfig(c.text, &config, &error);
    if (c.error == nullptr) {
      EXPECT_TRUE(ok) << c.text << ": " << error;
    } else {
      EXPECT_FALSE(ok) << c.text;
      EXPECT_THAT(error, HasSubstr(c.error)) << c.text;
    }
  }
}

TEST(SimConfig, ValuesOverrideTheDefaults) {
  Config config;
  std::string error;
  ASSERT_TRUE(ParseConfig("zones=4\nmain_video=1280x720@50\ncapable_categories=1010:1012,7:8\n", &config, &error));
  EXPECT_EQ(config.zones, 4);
  EXPECT_EQ(config.video_decoders, 2);  // untouched default
  EXPECT_EQ(config.main_video, (Resolution{1280, 720, 50}));
  EXPECT_EQ(config.capable_categories, (std::map<int, int>{{7, 8}, {1010, 1012}}));
}

// ----------------------------------------------------------------- players

// Player 10 holds the only decoder and has been asked to stop for 20, which waits.
class SimContended : public ::testing::Test {
 protected:
  void Contend(bool started) {
    k.PlayerRegister(1, 10, 0);
    k.PlayerRegister(2, 20, 0);
    EXPECT_EQ(k.PlayerRequestPlay(100, 10), kAudioOutMain);
    EXPECT_THAT(Signals(k), ElementsAre(Req(kVStart, 100, 10), Req(kAStart, 100, 10)));
    if (started) {
      EXPECT_EQ(k.PlayerVideoStartDone(10), 0);
      EXPECT_EQ(k.PlayerAudioStartDone(10), 0);
    }
    // The reply promises the output the first player will hand over.
    EXPECT_EQ(k.PlayerRequestPlay(200, 20), kAudioOutMain);
    Outbox out = k.TakeOutbox();
    EXPECT_THAT(out.signals, ElementsAre(Req(kVStop, 200, 10), Req(kAStop, 200, 10)));
    ASSERT_EQ(out.timers.size(), 1u);
    EXPECT_EQ(out.timers[0].player_id, 10);
    EXPECT_EQ(out.timers[0].ms, 3000);
    EXPECT_EQ(k.player_state(20), State::kWaiting);
    serial = out.timers[0].serial;
  }
  void SetUp() override { Contend(false); }
  void ExpectHandedOver() {
    EXPECT_THAT(Signals(k), ElementsAre(Req(kVStart, 200, 20), Req(kAStart, 200, 20)));
  }

  Kova k{WithDecoders(1)};
  unsigned serial = 0;
};

// The same, with the holder's start already acknowledged.
class SimContendedStarted : public SimContended {
  void SetUp() override { Contend(true); }
};

TEST_F(SimContendedStarted, HandsOverOnceBothStopsAreAcknowledged) {
  EXPECT_EQ(k.PlayerRequestPlay(201, 20), kAudioOutMain);  // asking again changes nothing
  EXPECT_EQ(k.PlayerVideoStopDone(10), 0);
  EXPECT_THAT(Signals(k), IsEmpty());
  EXPECT_EQ(k.PlayerAudioStopDone(10), 0);
  ExpectHandedOver();
  EXPECT_EQ(k.GetPlayerAudioOut(10), kAudioOutNone);
  EXPECT_EQ(k.GetPlayerAudioOut(20), kAudioOutMain);
  EXPECT_EQ(k.player_state(10), State::kIdle);
  EXPECT_EQ(k.free_decoders(), 0);
  k.StopTimedOut(10, serial);  // the finished stop's timer no longer does anything
  EXPECT_THAT(Signals(k), IsEmpty());
  EXPECT_EQ(k.player_state(20), State::kPlaying);
}

TEST_F(SimContended, AHolderThatNeverAnswersLosesItsDecoderAtTheTimeout) {
  k.StopTimedOut(10, serial + 1);  // some other stop's timer
  EXPECT_THAT(Signals(k), IsEmpty());
  k.StopTimedOut(10, serial);
  ExpectHandedOver();
  EXPECT_EQ(k.PlayerVideoStopDone(10), -1);  // too late: nothing is awaited any more
}

TEST_F(SimContended, AHolderThatUnregistersHandsOverAtOnce) {
  k.PlayerUnregister(3, 10);
  ExpectHandedOver();
  EXPECT_EQ(k.GetPlayerAudioOut(10), -1);
}

TEST_F(SimContended, AWaiterThatGivesUpLeavesTheDecoderFree) {
  k.PlayerRegister(1, 30, 0);
  EXPECT_EQ(k.PlayerRequestPlay(300, 30), -1);  // every decoder is promised
  k.PlayerRequestStop(201, 20);
  EXPECT_EQ(k.player_state(20), State::kIdle);
  EXPECT_EQ(k.player_state(10), State::kStopping);  // the stop already asked for goes on
  k.PlayerVideoStopDone(10);
  k.PlayerAudioStopDone(10);
  EXPECT_THAT(Signals(k), IsEmpty());
  EXPECT_EQ(k.free_decoders(), 1);
}

TEST(SimPlayers, FreeDecodersAreGrantedAtOnceWithTheNextFreeOutput) {
  Kova k(WithDecoders(2));
  for (int id : {10, 20, 30}) k.PlayerRegister(1, id, 0);
  EXPECT_EQ(k.PlayerRequestPlay(100, 10), kAudioOutMain);
  EXPECT_EQ(k.PlayerRequestPlay(200, 20), kAudioOutSub);
  EXPECT_THAT(Signals(k), ElementsAre(Req(kVStart, 100, 10), Req(kAStart, 100, 10), Req(kVStart, 200, 20),
                                      Req(kAStart, 200, 20)));
  // Both taken: the oldest holder is the one asked to stop.
  EXPECT_EQ(k.PlayerRequestPlay(300, 30), kAudioOutMain);
  EXPECT_THAT(Signals(k), ElementsAre(Req(kVStop, 300, 10), Req(kAStop, 300, 10)));
  EXPECT_EQ(k.PlayerRequestPlay(101, 10), -1);  // a player being stopped is refused
}

TEST(SimPlayers, APlayerWithoutAudioOutputGetsNoAudioRequests) {
  Config c = WithDecoders(2);
  c.audio_outputs = 1;
  Kova k(c);
  k.PlayerRegister(1, 10, 0);
  k.PlayerRegister(1, 20, 0);
  k.PlayerRequestPlay(100, 10);
  EXPECT_EQ(k.PlayerRequestPlay(200, 20), kAudioOutNone);
  EXPECT_THAT(Signals(k), ElementsAre(Req(kVStart, 100, 10), Req(kAStart, 100, 10), Req(kVStart, 200, 20)));
  EXPECT_EQ(k.PlayerAudioStartDone(20), -1);
  k.PlayerRequestStop(300, 20);
  EXPECT_THAT(Signals(k), ElementsAre(Req(kVStop, 300, 20)));
  EXPECT_EQ(k.PlayerVideoStopDone(20), 0);  // the video alone completes the stop
  EXPECT_EQ(k.free_decoders(), 1);
}

TEST(SimPlayers, OneLifeWithUnexpectedCallsRefused) {
  Kova k(WithDecoders(1));
  EXPECT_EQ(k.PlayerRequestPlay(1, 99), -1);  // never registered
  EXPECT_EQ(k.GetPlayerAudioOut(99), -1);
  k.PlayerRegister(1, 10, 0);
  EXPECT_EQ(k.PlayerVideoStartDone(10), -1);
  EXPECT_EQ(k.PlayerVideoStopDone(10), -1);
  EXPECT_EQ(k.GetPlayerAudioOut(10), kAudioOutNone);
  EXPECT_EQ(k.PlayerRequestPlay(2, 10), kAudioOutMain);
  EXPECT_EQ(k.PlayerRequestPlay(3, 10), kAudioOutMain);  // already playing: same answer, no new start
  EXPECT_THAT(Signals(k), ElementsAre(Req(kVStart, 2, 10), Req(kAStart, 2, 10)));
  EXPECT_EQ(k.PlayerVideoStartDone(10), 0);
  EXPECT_EQ(k.PlayerVideoStartDone(10), -1);
  k.PlayerRequestStop(4, 10);
  EXPECT_THAT(Signals(k), ElementsAre(Req(kVStop, 4, 10), Req(kAStop, 4, 10)));
  EXPECT_EQ(k.free_decoders(), 0);  // held until acknowledged
  EXPECT_EQ(k.PlayerAudioStopDone(10), 0);
  EXPECT_EQ(k.PlayerAudioStopDone(10), -1);
  EXPECT_EQ(k.PlayerVideoStopDone(10), 0);
  EXPECT_EQ(k.free_decoders(), 1);
  EXPECT_THAT(Signals(k), IsEmpty());
}

TEST(SimPlayers, ExternalSpeakersResyncThePlayersOnTheirOutput) {
  Kova k(WithDecoders(2));
  k.PlayerRegister(1, 10, 0);
  k.PlayerRegister(1, 20, 0);
  k.PlayerRequestPlay(100, 10);  // main
  k.PlayerRequestPlay(200, 20);  // second
  k.TakeOutbox();
  EXPECT_EQ(k.RegisterExtSpk(5, "soundbar", kAudioOutSub), 0);
  EXPECT_THAT(Signals(k), ElementsAre(Req(kResync, 5, 20)));
  EXPECT_EQ(k.GetExtSpkAudioOut("soundbar"), kAudioOutSub);
  EXPECT_EQ(k.GetExtSpkAudioOut("headphones"), -1);
  EXPECT_EQ(k.RegisterExtSpk(6, "headphones", 3), -1);
  EXPECT_EQ(k.RegisterExtSpk(6, "", kAudioOutMain), -1);
  EXPECT_EQ(k.UnregisterExtSpk(7, "soundbar", kAudioOutMain), -1);  // registered on the other output
  EXPECT_THAT(Signals(k), IsEmpty());
  EXPECT_EQ(k.UnregisterExtSpk(8, "soundbar", kAudioOutSub), 0);
  EXPECT_THAT(Signals(k), ElementsAre(Req(kResync, 8, 20)));
  EXPECT_EQ(k.GetExtSpkAudioOut("soundbar"), -1);
}

// ------------------------------------------------------------------- zones

TEST(SimZones, AssignmentMovesTheAppAndTheFocus) {
  Config c;
  c.zones = 3;
  Kova k(c);
  EXPECT_EQ(k.FocusedZone().id, 1);
  EXPECT_EQ(k.SetAppToZone("a", 2), 0);
  EXPECT_EQ(k.SetAppToZone("a", 3), 0);  // one zone per app
  ASSERT_EQ(k.Zones().size(), 3u);
  EXPECT_EQ(k.Zones()[1].app_id, "");
  EXPECT_EQ(k.Zones()[2].app_id, "a");
  EXPECT_EQ(k.Zones()[2].scaler_id, 2);
  EXPECT_EQ(k.FocusedZone().id, 3);
  EXPECT_EQ(k.FocusedZone().app_id, "a");
  EXPECT_EQ(k.SetPreAssignedAppToZone("b", 1), 0);
  EXPECT_EQ(k.FocusedZone().id, 3);  // pre-assignment leaves the focus
  EXPECT_EQ(k.Zones()[0].app_id, "b");

  EXPECT_EQ(k.SetAppToZone("a", 4), -1);
  EXPECT_EQ(k.SetAppToZone("a", 0), -1);
  EXPECT_EQ(k.SetAppToZone("", 1), -1);
  EXPECT_EQ(k.RemoveAppFromZone("a", 1), -1);  // it is not there
  EXPECT_EQ(k.RemoveAppFromZone("a", 3), 0);
  EXPECT_EQ(k.Zones()[2].app_id, "");
}

TEST(SimZones, ANewLayoutDropsTheRemovableApps) {
  Kova k{Config{}};
  k.SetAppToZone("a", 1);
  k.SetAppToZone("b", 2);
  k.SetRemovableAppToZone("a", 2);  // not in that zone: ignored
  k.SetRemovableAppToZone("b", 2);
  EXPECT_EQ(k.NotifyLayoutState(0), 0);  // same layout: nothing happens
  EXPECT_EQ(k.Zones()[1].app_id, "b");
  EXPECT_EQ(k.NotifyLayoutState(1), 0);
  EXPECT_EQ(k.Zones()[0].app_id, "a");
  EXPECT_EQ(k.Zones()[1].app_id, "");

  k.SetAppToZone("b", 2);
  k.SetRemovableAppToZone("b", 2);
  k.ClearRemovableAppToZone();
  k.NotifyLayoutState(2);
  EXPECT_EQ(k.Zones()[1].app_id, "b");
}

TEST(SimZones, AudioFocusChangesAreSignalledWithTheZonesScalerAndApp) {
  Kova k{Config{}};
  k.SetAppToZone("tv", 2);
  k.TakeOutbox();
  EXPECT_EQ(k.audio_focus(), 1);
  EXPECT_EQ(k.last_audio_focus(), 0);
  EXPECT_EQ(k.SetAudioFocus(7, 2), 0);
  EXPECT_THAT(Signals(k), ElementsAre(AudioFocusSignal{7, 2, 1, "tv"}));
  EXPECT_EQ(k.audio_focus(), 2);
  EXPECT_EQ(k.last_audio_focus(), 1);
  EXPECT_EQ(k.IsAudioFocused("tv"), 1);
  EXPECT_EQ(k.IsAudioFocused("radio"), 0);
  EXPECT_EQ(k.SetAudioFocus(8, 2), 0);  // no change, no signal
  EXPECT_EQ(k.SetAudioFocus(9, 3), -1);
  EXPECT_THAT(Signals(k), IsEmpty());
  EXPECT_EQ(k.SetAudioFocus(10, 0), 0);  // nobody
  EXPECT_THAT(Signals(k), ElementsAre(AudioFocusSignal{10, 0, -1, ""}));
  EXPECT_EQ(k.IsAudioFocused("tv"), 0);
}

TEST(SimZones, BestQualitySwitchesAreSignalledAndRestored) {
  Kova k{Config{}};
  EXPECT_EQ(k.SwitchBestQualityZone(2, 5), 0);
  EXPECT_THAT(Signals(k), ElementsAre(BestZoneSignal{2, 1, 5}));
  EXPECT_EQ(k.SwitchBestQualityZone(2, 0), 0);
  EXPECT_EQ(k.SwitchBestQualityZone(3, 0), -1);
  EXPECT_EQ(k.SwitchBestQualityZone(1, -1), -1);
  EXPECT_THAT(Signals(k), IsEmpty());
  EXPECT_EQ(k.RestoreBestQualityZone(), 0);
  EXPECT_THAT(Signals(k), ElementsAre(BestZoneSignal{1, 2, 0}));
  EXPECT_EQ(k.best_quality_zone(), 1);
}

// ------------------------------------------------------------------ grants

TEST(SimGrants, RegisteredAppsAreToldWhenTheirGrantsChange) {
  Config c;
  c.capable_categories = {{1010, 1012}};
  Kova k(c);
  const Resolution main{3840, 2160, 60};
  const Resolution sub{1920, 1080, 30};
  EXPECT_EQ(k.PolicyMaxVideo(0, 3), main);
  EXPECT_EQ(k.PolicyMaxVideo(2, 3), sub);
  EXPECT_EQ(k.CapableCategory(1010), 1012);
  EXPECT_EQ(k.CapableCategory(1011), 1011);
  k.SetAppToZone("a", 1);
  k.SetAppToZone("b", 2);
  k.SetAppToZone("c", 2);  // takes b's place: b is in no zone now
  EXPECT_EQ(k.MaxVideo("a"), main);
  EXPECT_EQ(k.MaxVideo("c"), sub);
  EXPECT_EQ(k.MaxVideo("b"), main);
  EXPECT_EQ(k.RscChangeRegister("a"), 0);
  EXPECT_EQ(k.RscChangeRegister("c"), 0);
  EXPECT_EQ(k.MaxVideoRegister("c"), 0);
  EXPECT_EQ(k.RscChangeRegister(""), -1);
  k.TakeOutbox();

  // Best quality to zone 2: a loses the main resolution, c gains it.
  k.SwitchBestQualityZone(2, 0);
  EXPECT_THAT(Signals(k), ElementsAre(BestZoneSignal{2, 1, 0}, AppRscSignal{"a", 1, 0, sub},
                                      AppRscSignal{"c", 1, 0, main}, MaxRezSignal{"c", main}));
  // Audio focus to zone 2: only the audio outputs change.
  k.SetAudioFocus(3, 2);
  EXPECT_THAT(Signals(k), ElementsAre(AudioFocusSignal{3, 2, 1, "c"}, AppRscSignal{"a", 0, 1, sub},
                                      AppRscSignal{"c", 0, 1, main}));
  EXPECT_EQ(k.AppAudioOut("c"), kAudioOutMain);
  EXPECT_EQ(k.AppAudioOut("a"), kAudioOutSub);

  EXPECT_EQ(k.RscChangeUnregister("a"), 0);
  EXPECT_EQ(k.RscChangeUnregister("a"), -1);
  EXPECT_EQ(k.MaxVideoUnregister("c"), 0);
  k.RestoreBestQualityZone();
  EXPECT_THAT(Signals(k), ElementsAre(BestZoneSignal{1, 2, 0}, AppRscSignal{"c", 1, 0, sub}));
}

// ------------------------------------------------------------------ policy

TEST(SimPolicy, SettingAPolicyRecordsItAndSignalsIt) {
  Kova k{Config{}};
  k.SetAppToZone("a", 2);
  k.TakeOutbox();
  EXPECT_FALSE(k.policy_active());
  const std::vector<AppPriority> apps = {{"a", 1, 2}, {"b", 3, 4}};
  EXPECT_EQ(k.SetPolicyWithAppList(5, 3, "owner", false, 2, apps), 0);
  EXPECT_THAT(Signals(k), ElementsAre(PolicySignal{5, 3, {{2, "a"}, {0, "b"}}}));
  EXPECT_TRUE(k.policy_active());
  EXPECT_EQ(k.policy_owner(), "owner");

  EXPECT_EQ(k.SetPolicyWithAppList(6, 3, "owner", false, 3, apps), -1);  // count disagrees
  EXPECT_EQ(k.SetPolicyWithOwner(6, -2, "owner", false), -1);
  EXPECT_EQ(k.SetPolicyInternal(6, static_cast<uint32_t>(INT_MAX) + 1), -1);
  EXPECT_THAT(Signals(k), IsEmpty());

  EXPECT_EQ(k.SetPolicyWithOwner(7, 0, "other", true), 0);  // remove all, deactivate
  EXPECT_THAT(Signals(k), ElementsAre(PolicySignal{7, 0, {}}));
  EXPECT_FALSE(k.policy_active());
  EXPECT_EQ(k.Zones()[1].app_id, "");

  EXPECT_EQ(k.SetPolicyInternal(8, 4), 0);
  EXPECT_EQ(k.policy(), 4);
}

TEST(SimPolicy, AppToZonePlacesTheAppsOrNoneOfThem) {
  Kova k{Config{}};
  EXPECT_EQ(k.SetPolicyAppToZone(1, 2, 2, {{1, "a"}, {3, "b"}}), -1);  // zone 3 does not exist
  EXPECT_EQ(k.Zones()[0].app_id, "");
  EXPECT_EQ(k.SetPolicyAppToZone(2, 2, 2, {{1, "a"}, {2, "b"}}), 0);
  EXPECT_THAT(Signals(k), ElementsAre(PolicySignal{2, 2, {{1, "a"}, {2, "b"}}}));
  EXPECT_EQ(k.Zones()[1].app_id, "b");
  EXPECT_EQ(k.SetPreAssignedAppList({{2, "c"}}), 0);
  EXPECT_EQ(k.Zones()[1].app_id, "c");
  EXPECT_EQ(k.SetPreAssignedAppList({{0, "c"}}), -1);
}

TEST(SimPolicy, AppListsAreKeptByType) {
  Kova k{Config{}};
  EXPECT_EQ(k.RegisterAppList(1, 2, {{"a", 1, 2}, {"b", 3, 4}}), 0);
  EXPECT_EQ(k.RegisterAppList(1, 1, {}), -1);
  EXPECT_EQ(k.AppListSize(1), 2u);
  EXPECT_EQ(k.UnregisterAppList(2, 1, {"a"}), -1);       // another type
  EXPECT_EQ(k.UnregisterAppList(1, 2, {"a", "x"}), -1);  // all or nothing
  EXPECT_EQ(k.AppListSize(1), 2u);
  EXPECT_EQ(k.UnregisterAppList(1, 2, {"a", "b"}), 0);
  EXPECT_EQ(k.AppListSize(1), 0u);
}

}  // namespace
}  // namespace kova_sim

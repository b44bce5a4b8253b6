// kova-sim's rules without a bus: what each call answers, the signals and stop timers it queues.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

#include "config.h"
#include "rules.h"

namespace kova_sim {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Answer = std::pair<int, std::vector<Signal>>;

using enum PlayerRequest;
PlayerSignal Req(PlayerRequest r, int request_id, int player_id) { return PlayerSignal{r, request_id, player_id}; }

std::vector<Signal> Signals(Kova &k) { return k.TakeOutbox().signals; }
// A call's result with the signals it queued: Did(k, k.Call(...)).
Answer Did(Kova &k, int result) { return {result, Signals(k)}; }
// The app of each zone, then the focused zone and its scaler.
std::string Layout(const Kova &k) {
  std::string s;
  for (const ZoneInfo &z : k.Zones()) s += z.app_id + "|";
  return s + " focus " + std::to_string(k.FocusedZone().id) + "/" + std::to_string(k.FocusedZone().scaler_id);
}

// Players 10, 20 and 30 as state/audio output, then the free decoders.
std::string Players(const Kova &k) {
  static const char *const kStates[] = {"idle", "playing", "stopping", "waiting"};
  std::string s;
  for (int id : {10, 20, 30}) {
    s += std::to_string(id) + ":" + kStates[static_cast<int>(k.player_state(id))] + "/" +
         std::to_string(k.GetPlayerAudioOut(id)) + " ";
  }
  return s + "free " + std::to_string(k.free_decoders());
}

Config Decoders(int n) { Config c; c.video_decoders = n; return c; }

// A bad line's message is checked in test_sim_bus.
TEST(SimConfig, GoodLinesOverrideTheDefaults) {
  Config config;
  std::string error;
  ASSERT_TRUE(ParseConfig("zones=4 # z\n\nmain_video=1280x720@50\ncapable_categories=1010:1012, 7:8", &config, &error));
  EXPECT_EQ(config.zones, 4);
  EXPECT_EQ(config.main_video, (Resolution{1280, 720, 50}));
  EXPECT_EQ(config.capable_categories, (std::map<int, int>{{7, 8}, {1010, 1012}}));
}

// Player 10 holds the only decoder and is asked to stop for 20, which waits,
// until 10 lets go one way or another.
TEST(SimPlayers, TheHolderHandsOverWhenItAcknowledgesTimesOutOrUnregisters) {
  const struct {
    const char *how;
    std::function<void(Kova &, unsigned)> let_go;
    const char *after;
  } cases[] = {
      {"acknowledges",
       [](Kova &k, unsigned) {
         EXPECT_EQ(k.PlayerRequestPlay(201, 20), kAudioOutMain);  // asking again changes nothing
         EXPECT_EQ(Did(k, k.PlayerVideoStopDone(10)), Answer(0, {}));  // the audio is still awaited
         EXPECT_EQ(k.PlayerAudioStopDone(10), 0);
       },
       "10:idle/0 20:playing/1 30:idle/0 free 0"},
      {"times out", [](Kova &k, unsigned serial) { k.StopTimedOut(10, serial); },
       "10:idle/0 20:playing/1 30:idle/0 free 0"},
      {"unregisters", [](Kova &k, unsigned) { k.PlayerUnregister(3, 10); },
       "10:idle/-1 20:playing/1 30:idle/0 free 0"},
      {"the waiter gives up",
       [](Kova &k, unsigned) {
         EXPECT_EQ(k.PlayerRequestPlay(300, 30), -1);  // every decoder is promised
         k.PlayerRequestStop(201, 20);
         EXPECT_EQ(k.PlayerVideoStopDone(10) + k.PlayerAudioStopDone(10), 0);  // the stop asked for goes on
       },
       "10:idle/0 20:idle/0 30:idle/0 free 1"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.how);
    Kova k{Decoders(1)};
    for (int id : {10, 20, 30}) k.PlayerRegister(1, id, 0);
    EXPECT_EQ(Did(k, k.PlayerRequestPlay(100, 10)),
              Answer(kAudioOutMain, {Req(kVideoStart, 100, 10), Req(kAudioStart, 100, 10)}));
    EXPECT_EQ(k.PlayerRequestPlay(200, 20), kAudioOutMain);  // the output the holder will hand over
    const Outbox out = k.TakeOutbox();
    EXPECT_THAT(out.signals, ElementsAre(Req(kVideoStop, 200, 10), Req(kAudioStop, 200, 10)));
    EXPECT_EQ(Players(k), "10:stopping/1 20:waiting/0 30:idle/0 free 0");
    ASSERT_THAT(out.timers, ElementsAre(::testing::Field(&StopTimer::ms, 3000)));
    c.let_go(k, out.timers[0].serial);
    const std::vector<Signal> starts = {Req(kVideoStart, 200, 20), Req(kAudioStart, 200, 20)};
    EXPECT_EQ(Signals(k), k.player_state(20) == Kova::PlayerState::kPlaying ? starts : std::vector<Signal>{});
    k.StopTimedOut(10, out.timers[0].serial);  // a finished stop's timer does nothing
    EXPECT_THAT(Signals(k), IsEmpty());
    EXPECT_EQ(Players(k), c.after);
  }
}

// Decoders and outputs go in turn, a stopping player holds its decoder until it
// acknowledges, a newcomer stops the oldest holder; speakers resync their output.
TEST(SimPlayers, DecodersAndOutputsGoInTurnAndSpeakersResyncTheirPlayers) {
  Kova k{Decoders(3)};
  EXPECT_EQ(k.PlayerRequestPlay(1, 1), -1);  // never registered
  for (int id : {10, 20, 30, 99}) k.PlayerRegister(1, id, 0);
  EXPECT_EQ(Did(k, k.PlayerRequestPlay(10, 10)),
            Answer(kAudioOutMain, {Req(kVideoStart, 10, 10), Req(kAudioStart, 10, 10)}));
  EXPECT_EQ(Did(k, k.PlayerRequestPlay(20, 20)),
            Answer(kAudioOutSub, {Req(kVideoStart, 20, 20), Req(kAudioStart, 20, 20)}));
  EXPECT_EQ(Did(k, k.PlayerRequestPlay(30, 30)), Answer(kAudioOutNone, {Req(kVideoStart, 30, 30)}));  // no audio
  EXPECT_EQ(Did(k, k.PlayerRequestPlay(5, 99)),
            Answer(kAudioOutMain, {Req(kVideoStop, 5, 10), Req(kAudioStop, 5, 10)}));  // the oldest holder
  EXPECT_EQ(k.PlayerRequestPlay(6, 10), -1);  // a player being stopped is refused
  k.PlayerRequestStop(3, 30);
  EXPECT_THAT(Signals(k), ElementsAre(Req(kVideoStop, 3, 30)));
  EXPECT_EQ(k.free_decoders(), 0);  // held until acknowledged
  EXPECT_EQ(k.PlayerVideoStopDone(30), 0);
  EXPECT_EQ(k.free_decoders(), 1);

  EXPECT_EQ(Did(k, k.RegisterExtSpk(5, "soundbar", kAudioOutSub)), Answer(0, {Req(kAudioResync, 5, 20)}));
  EXPECT_EQ(Did(k, k.UnregisterExtSpk(7, "soundbar", kAudioOutMain)), Answer(-1, {}));  // on the other output
  EXPECT_EQ(Did(k, k.UnregisterExtSpk(8, "soundbar", kAudioOutSub)), Answer(0, {Req(kAudioResync, 8, 20)}));
}

TEST(SimZones, AssignmentMovesTheAppAndTheFocusAndANewLayoutDropsTheRemovable) {
  Kova k{Config{}};
  EXPECT_EQ(k.SetAppToZone("a", 1) + k.SetAppToZone("a", 2), 0);  // one zone per app
  EXPECT_EQ(k.SetPreAssignedAppToZone("b", 1), 0);
  EXPECT_EQ(Layout(k), "b|a| focus 2/1");  // pre-assignment leaves the focus
  EXPECT_EQ(k.RemoveAppFromZone("a", 1), -1);  // it is not there
  EXPECT_EQ(k.RemoveAppFromZone("a", 2), 0);
  k.SetAppToZone("c", 2);
  k.SetRemovableAppToZone("b", 2);  // not in that zone: ignored
  k.SetRemovableAppToZone("b", 1);
  EXPECT_EQ(k.NotifyLayoutState(1), 0);
  EXPECT_EQ(Layout(k), "|c| focus 2/1");
}

TEST(SimGrants, FocusAndBestQualityChangesAreSignalledWithTheGrantsTheyAlter) {
  Kova k{Config{}};
  const Resolution main{3840, 2160, 60}, sub{1920, 1080, 30};
  k.SetAppToZone("a", 1);
  k.SetAppToZone("b", 2);
  k.SetAppToZone("c", 2);  // takes b's place: b is in no zone now
  EXPECT_EQ(k.MaxVideo("b"), main);  // in no zone
  EXPECT_EQ(k.RscChangeRegister("a") + k.RscChangeRegister("c") + k.MaxVideoRegister("c"), 0);
  k.TakeOutbox();

  // Best quality to zone 2: a loses the main resolution, c gains it.
  EXPECT_EQ(Did(k, k.SwitchBestQualityZone(2, 5)),
            Answer(0, {BestZoneSignal{2, 1, 5}, AppRscSignal{"a", 1, 0, sub}, AppRscSignal{"c", 1, 0, main},
                       MaxRezSignal{"c", main}}));
  EXPECT_EQ(Did(k, k.SwitchBestQualityZone(2, 0)), Answer(0, {}));  // no change, no signal
  // Audio focus to zone 2: only the audio outputs change.
  EXPECT_EQ(Did(k, k.SetAudioFocus(3, 2)), Answer(0, {AudioFocusSignal{3, 2, 1, "c"}, AppRscSignal{"a", 0, 1, sub},
                                                      AppRscSignal{"c", 0, 1, main}}));
  EXPECT_EQ(Did(k, k.SetAudioFocus(5, 3)), Answer(-1, {}));
  EXPECT_EQ(Did(k, k.RestoreBestQualityZone()), Answer(0, {BestZoneSignal{1, 2, 0}, AppRscSignal{"a", 1, 0, main},
                                                            AppRscSignal{"c", 1, 0, sub}, MaxRezSignal{"c", sub}}));
}

TEST(SimPolicy, SettersRecordAndSignalAndListsAreAllOrNothing) {
  Kova k{Config{}};
  k.SetAppToZone("a", 2);
  k.TakeOutbox();
  const std::vector<AppPriority> apps = {{"a", 1, 2}, {"b", 3, 4}};
  EXPECT_EQ(Did(k, k.SetPolicyWithAppList(5, 3, "owner", false, 2, apps)),
            Answer(0, {PolicySignal{5, 3, {{2, "a"}, {0, "b"}}}}));
  EXPECT_EQ(Did(k, k.SetPolicyWithAppList(6, 3, "owner", false, 3, apps)), Answer(-1, {}));  // count disagrees

  EXPECT_EQ(Did(k, k.SetPolicyWithOwner(7, 0, "other", true)), Answer(0, {PolicySignal{7, 0, {}}}));  // remove all
  EXPECT_EQ(Layout(k), "|| focus 2/1");
  EXPECT_EQ(Did(k, k.SetPolicyAppToZone(8, 2, 2, {{1, "x"}, {2, "y"}})),
            Answer(0, {PolicySignal{8, 2, {{1, "x"}, {2, "y"}}}}));
  EXPECT_EQ(Layout(k), "x|y| focus 2/1");

  EXPECT_EQ(k.RegisterAppList(1, 2, apps), 0);
  EXPECT_EQ(k.UnregisterAppList(1, 2, {"a", "x"}), -1);  // all or nothing
}

}  // namespace
}  // namespace kova_sim

// kova-sim's rules, without a bus: what each call answers and which signals
// (and stop timers) it queues.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <functional>

#include "config.h"
#include "rules.h"

namespace kova_sim {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using State = Kova::PlayerState;
using Answer = std::pair<int, std::vector<Signal>>;

PlayerSignal Req(PlayerRequest r, int request_id, int player_id) { return PlayerSignal{r, request_id, player_id}; }
constexpr auto kVStart = PlayerRequest::kVideoStart;
constexpr auto kVStop = PlayerRequest::kVideoStop;
constexpr auto kAStart = PlayerRequest::kAudioStart;
constexpr auto kAStop = PlayerRequest::kAudioStop;

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

Config Resources(int decoders, int outputs = 2) {
  Config c;
  c.video_decoders = decoders;
  c.audio_outputs = outputs;
  return c;
}

TEST(SimConfig, BadLinesAreRefusedWithTheirNumberAndGoodOnesOverrideTheDefaults) {
  const struct {
    const char *text;
    const char *error;  // null: accepted
  } cases[] = {
      {"zones = 4\nvideo_decoders=1  # one\n\n", nullptr},
      {"zones = 5", "line 1: zones: 5 is out of range 1..4"},
      {"\nvideo_decoders = two", "line 2: video_decoders: 'two' is not an integer"},
      {"colour = blue", "line 1: unknown key 'colour'"},
      {"zones 2", "line 1: expected key = value"},
      {"sub_video = 1920x1080", "sub_video: '1920x1080' is not WIDTHxHEIGHT@FRAMERATE"},
      {"sub_video = 0x1080@30", "is not WIDTHxHEIGHT@FRAMERATE"},
      {"capable_categories = 1010", "'1010' is not FROM:TO"},
      {"zones = 1\nbest_quality_zone = 2", "best_quality_zone 2 is not one of the 1 zones"},
      {"stop_timeout_ms = 0", "out of range"},
  };
  for (const auto &c : cases) {
    Config config;
    std::string error;
    EXPECT_EQ(ParseConfig(c.text, &config, &error), c.error == nullptr) << c.text << ": " << error;
    EXPECT_THAT(error, HasSubstr(c.error ? c.error : "")) << c.text;
  }
  Config config;
  std::string error;
  ASSERT_TRUE(ParseConfig("zones=4\nmain_video=1280x720@50\ncapable_categories=1010:1012, 7 : 8\n", &config, &error));
  EXPECT_EQ(config.zones, 4);
  EXPECT_EQ(config.main_video, (Resolution{1280, 720, 50}));
  EXPECT_EQ(config.capable_categories, (std::map<int, int>{{7, 8}, {1010, 1012}}));
}

// Player 10 holds the only decoder and is asked to stop for 20, which waits,
// until 10 lets go one way or another.
TEST(SimPlayers, TheHolderHandsOverWhenItAcknowledgesTimesOutOrUnregisters) {
  const struct {
    const char *how;
    bool started;
    std::function<void(Kova &, unsigned)> let_go;
    const char *after;
  } cases[] = {
      {"acknowledges", true,
       [](Kova &k, unsigned) {
         EXPECT_EQ(k.PlayerRequestPlay(201, 20), kAudioOutMain);  // asking again changes nothing
         EXPECT_EQ(Did(k, k.PlayerVideoStopDone(10)), Answer(0, {}));  // the audio is still awaited
         EXPECT_EQ(k.PlayerAudioStopDone(10), 0);
       },
       "10:idle/0 20:playing/1 30:idle/0 free 0"},
      {"times out", false, [](Kova &k, unsigned serial) { k.StopTimedOut(10, serial); },
       "10:idle/0 20:playing/1 30:idle/0 free 0"},
      {"unregisters", false, [](Kova &k, unsigned) { k.PlayerUnregister(3, 10); },
       "10:idle/-1 20:playing/1 30:idle/0 free 0"},
      {"the waiter gives up", false,
       [](Kova &k, unsigned) {
         EXPECT_EQ(k.PlayerRequestPlay(300, 30), -1);  // every decoder is promised
         k.PlayerRequestStop(201, 20);
         EXPECT_EQ(Players(k), "10:stopping/1 20:idle/0 30:idle/0 free 0");  // the stop asked for goes on
         EXPECT_EQ(k.PlayerVideoStopDone(10) + k.PlayerAudioStopDone(10), 0);
       },
       "10:idle/0 20:idle/0 30:idle/0 free 1"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.how);
    Kova k{Resources(1)};
    for (int id : {10, 20, 30}) k.PlayerRegister(1, id, 0);
    EXPECT_EQ(Did(k, k.PlayerRequestPlay(100, 10)),
              Answer(kAudioOutMain, {Req(kVStart, 100, 10), Req(kAStart, 100, 10)}));
    if (c.started) {
      EXPECT_EQ(k.PlayerVideoStartDone(10) + k.PlayerAudioStartDone(10), 0);
    }
    EXPECT_EQ(k.PlayerRequestPlay(200, 20), kAudioOutMain);  // the output the holder will hand over
    const Outbox out = k.TakeOutbox();
    EXPECT_THAT(out.signals, ElementsAre(Req(kVStop, 200, 10), Req(kAStop, 200, 10)));
    EXPECT_EQ(Players(k), "10:stopping/1 20:waiting/0 30:idle/0 free 0");
    ASSERT_EQ(out.timers.size(), 1u);
    EXPECT_EQ(out.timers[0].ms, 3000);
    const unsigned serial = out.timers[0].serial;
    k.StopTimedOut(10, serial + 1);  // some other stop's timer
    EXPECT_THAT(Signals(k), IsEmpty());
    c.let_go(k, serial);
    const std::vector<Signal> starts = {Req(kVStart, 200, 20), Req(kAStart, 200, 20)};
    EXPECT_EQ(Signals(k), k.player_state(20) == State::kPlaying ? starts : std::vector<Signal>{});
    EXPECT_EQ(k.PlayerVideoStopDone(10), -1);  // nothing is awaited any more
    k.StopTimedOut(10, serial);                // a finished stop's timer does nothing
    EXPECT_THAT(Signals(k), IsEmpty());
    EXPECT_EQ(Players(k), c.after);
  }
}

// Every decoder taken in turn, the last player stopping itself, then one more
// player contending.
TEST(SimPlayers, DecodersAndOutputsGoInTurnAndAcknowledgementsCountOnlyWhenAwaited) {
  const struct {
    int decoders, outputs;
    std::vector<int> granted;
  } cases[] = {{3, 2, {kAudioOutMain, kAudioOutSub, kAudioOutNone}}, {2, 1, {kAudioOutMain, kAudioOutNone}}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.decoders);
    Kova k{Resources(c.decoders, c.outputs)};
    EXPECT_EQ(k.PlayerRequestPlay(1, 99), -1);  // never registered
    for (int i = 0, id = 10; i < c.decoders; ++i, id += 10) {
      k.PlayerRegister(1, id, 0);
      std::vector<Signal> starts = {Req(kVStart, id, id)};
      if (c.granted[i] != kAudioOutNone) starts.push_back(Req(kAStart, id, id));
      EXPECT_EQ(Did(k, k.PlayerRequestPlay(id, id)), Answer(c.granted[i], starts));
    }
    k.PlayerRegister(2, 10, 7);  // again: it keeps what it holds
    EXPECT_EQ(Did(k, k.PlayerRequestPlay(2, 10)), Answer(kAudioOutMain, {}));  // already playing: no new start
    EXPECT_EQ(k.PlayerVideoStartDone(10), 0);
    EXPECT_EQ(k.PlayerVideoStartDone(10), -1);
    const int last = 10 * c.decoders;  // without an output: no audio requests
    EXPECT_EQ(k.PlayerAudioStartDone(last), -1);
    k.PlayerRequestStop(3, last);
    EXPECT_THAT(Signals(k), ElementsAre(Req(kVStop, 3, last)));
    EXPECT_EQ(k.free_decoders(), 0);  // held until acknowledged
    EXPECT_EQ(k.PlayerVideoStopDone(last), 0);
    EXPECT_EQ(k.free_decoders(), 1);
    k.PlayerRequestPlay(4, last);
    k.PlayerRegister(1, 99, 0);
    k.TakeOutbox();
    EXPECT_EQ(Did(k, k.PlayerRequestPlay(5, 99)), Answer(kAudioOutMain, {Req(kVStop, 5, 10), Req(kAStop, 5, 10)}));
    EXPECT_EQ(k.PlayerRequestPlay(6, 10), -1);  // a player being stopped is refused
  }
}

TEST(SimPlayers, ExternalSpeakersResyncThePlayersOnTheirOutput) {
  Kova k{Resources(2)};
  for (int id : {10, 20}) k.PlayerRegister(1, id, 0);
  k.PlayerRequestPlay(100, 10);  // main
  k.PlayerRequestPlay(200, 20);  // second
  k.TakeOutbox();
  const auto resync = [](int cmd) { return Answer(0, {Req(PlayerRequest::kAudioResync, cmd, 20)}); };
  EXPECT_EQ(Did(k, k.RegisterExtSpk(5, "soundbar", kAudioOutSub)), resync(5));
  EXPECT_EQ(k.GetExtSpkAudioOut("soundbar"), kAudioOutSub);
  EXPECT_EQ(Did(k, k.RegisterExtSpk(6, "headphones", 3)), Answer(-1, {}));
  EXPECT_EQ(Did(k, k.RegisterExtSpk(6, "", kAudioOutMain)), Answer(-1, {}));
  EXPECT_EQ(Did(k, k.UnregisterExtSpk(7, "soundbar", kAudioOutMain)), Answer(-1, {}));  // on the other output
  EXPECT_EQ(Did(k, k.UnregisterExtSpk(8, "soundbar", kAudioOutSub)), resync(8));
  EXPECT_EQ(k.GetExtSpkAudioOut("soundbar"), -1);
}

TEST(SimZones, AssignmentMovesTheAppAndTheFocusAndANewLayoutDropsTheRemovable) {
  Config c;
  c.zones = 3;
  Kova k(c);
  EXPECT_EQ(Layout(k), "||| focus 1/0");
  EXPECT_EQ(k.SetAppToZone("a", 2), 0);
  EXPECT_EQ(k.SetAppToZone("a", 3), 0);  // one zone per app
  EXPECT_EQ(k.SetPreAssignedAppToZone("b", 1), 0);
  EXPECT_EQ(Layout(k), "b||a| focus 3/2");  // pre-assignment leaves the focus
  for (int bad : {0, 4}) EXPECT_EQ(k.SetAppToZone("a", bad), -1);
  EXPECT_EQ(k.SetAppToZone("", 1), -1);
  EXPECT_EQ(k.RemoveAppFromZone("a", 1), -1);  // it is not there
  EXPECT_EQ(k.RemoveAppFromZone("a", 3), 0);
  EXPECT_EQ(Layout(k), "b||| focus 3/2");

  k.SetAppToZone("c", 2);
  k.SetRemovableAppToZone("b", 2);  // not in that zone: ignored
  k.SetRemovableAppToZone("c", 2);
  EXPECT_EQ(k.NotifyLayoutState(0), 0);  // same layout: nothing happens
  EXPECT_EQ(Layout(k), "b|c|| focus 2/1");
  EXPECT_EQ(k.NotifyLayoutState(1), 0);
  EXPECT_EQ(Layout(k), "b||| focus 2/1");
  k.SetAppToZone("c", 2);
  k.SetRemovableAppToZone("c", 2);
  k.ClearRemovableAppToZone();
  k.NotifyLayoutState(2);
  EXPECT_EQ(Layout(k), "b|c|| focus 2/1");
}

TEST(SimGrants, FocusAndBestQualityChangesAreSignalledWithTheGrantsTheyAlter) {
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
  EXPECT_EQ(k.MaxVideo("c"), sub);
  EXPECT_EQ(k.MaxVideo("b"), main);
  EXPECT_EQ(k.RscChangeRegister("a") + k.RscChangeRegister("c") + k.MaxVideoRegister("c"), 0);
  EXPECT_EQ(k.RscChangeRegister(""), -1);
  k.TakeOutbox();

  // Best quality to zone 2: a loses the main resolution, c gains it.
  EXPECT_EQ(Did(k, k.SwitchBestQualityZone(2, 5)),
            Answer(0, {BestZoneSignal{2, 1, 5}, AppRscSignal{"a", 1, 0, sub}, AppRscSignal{"c", 1, 0, main},
                       MaxRezSignal{"c", main}}));
  EXPECT_EQ(Did(k, k.SwitchBestQualityZone(2, 0)), Answer(0, {}));  // no change, no signal
  EXPECT_EQ(Did(k, k.SwitchBestQualityZone(3, 0)), Answer(-1, {}));
  EXPECT_EQ(Did(k, k.SwitchBestQualityZone(1, -1)), Answer(-1, {}));
  // Audio focus to zone 2: only the audio outputs change.
  EXPECT_EQ(k.last_audio_focus(), 0);
  EXPECT_EQ(Did(k, k.SetAudioFocus(3, 2)), Answer(0, {AudioFocusSignal{3, 2, 1, "c"}, AppRscSignal{"a", 0, 1, sub},
                                                      AppRscSignal{"c", 0, 1, main}}));
  EXPECT_EQ(k.last_audio_focus(), 1);
  EXPECT_EQ(k.AppAudioOut("c"), kAudioOutMain);
  EXPECT_EQ(k.AppAudioOut("a"), kAudioOutSub);
  EXPECT_EQ(k.IsAudioFocused("c"), 1);
  EXPECT_EQ(k.IsAudioFocused("a"), 0);
  EXPECT_EQ(Did(k, k.SetAudioFocus(4, 2)), Answer(0, {}));
  EXPECT_EQ(Did(k, k.SetAudioFocus(5, 3)), Answer(-1, {}));

  EXPECT_EQ(k.RscChangeUnregister("a"), 0);
  EXPECT_EQ(k.RscChangeUnregister("a"), -1);
  EXPECT_EQ(k.MaxVideoUnregister("c"), 0);
  EXPECT_EQ(Did(k, k.SetAudioFocus(6, 0)), Answer(0, {AudioFocusSignal{6, 0, -1, ""}, AppRscSignal{"c", 0, 1, main}}));
  EXPECT_EQ(Did(k, k.RestoreBestQualityZone()), Answer(0, {BestZoneSignal{1, 2, 0}, AppRscSignal{"c", 1, 0, sub}}));
}

TEST(SimPolicy, SettersRecordSignalAndPlaceAllOrNothing) {
  Kova k{Config{}};
  k.SetAppToZone("a", 2);
  k.TakeOutbox();
  const std::vector<AppPriority> apps = {{"a", 1, 2}, {"b", 3, 4}};
  EXPECT_EQ(Did(k, k.SetPolicyWithAppList(5, 3, "owner", false, 2, apps)),
            Answer(0, {PolicySignal{5, 3, {{2, "a"}, {0, "b"}}}}));
  EXPECT_EQ(k.policy_owner(), "owner");
  EXPECT_EQ(Did(k, k.SetPolicyWithAppList(6, 3, "owner", false, 3, apps)), Answer(-1, {}));  // count disagrees
  EXPECT_EQ(Did(k, k.SetPolicyWithOwner(6, -2, "owner", false)), Answer(-1, {}));
  EXPECT_EQ(Did(k, k.SetPolicyInternal(6, static_cast<uint32_t>(INT_MAX) + 1)), Answer(-1, {}));
  EXPECT_EQ(Did(k, k.SetPolicyAppToZone(6, 2, 2, {{1, "x"}, {3, "y"}})), Answer(-1, {}));  // no zone 3
  EXPECT_EQ(k.policy(), 3);
  EXPECT_EQ(Layout(k), "|a| focus 2/1");

  EXPECT_EQ(Did(k, k.SetPolicyWithOwner(7, 0, "other", true)), Answer(0, {PolicySignal{7, 0, {}}}));  // remove all
  EXPECT_FALSE(k.policy_active());
  EXPECT_EQ(Layout(k), "|| focus 2/1");
  EXPECT_EQ(Did(k, k.SetPolicyAppToZone(8, 2, 2, {{1, "x"}, {2, "y"}})),
            Answer(0, {PolicySignal{8, 2, {{1, "x"}, {2, "y"}}}}));
  EXPECT_EQ(Layout(k), "x|y| focus 2/1");
  EXPECT_EQ(k.SetPreAssignedAppList({{1, "z"}}), 0);
  EXPECT_EQ(k.SetPreAssignedAppList({{2, "w"}, {0, "z"}}), -1);
  EXPECT_EQ(Layout(k), "z|y| focus 2/1");  // the list moves no focus
  EXPECT_EQ(k.SetPolicyInternal(9, 4), 0);
  EXPECT_EQ(k.policy(), 4);
}

TEST(SimPolicy, AppListsAreKeptByTypeAndUnregisteredAllOrNothing) {
  Kova k{Config{}};
  EXPECT_EQ(k.RegisterAppList(1, 2, {{"a", 1, 2}, {"b", 3, 4}}), 0);
  EXPECT_EQ(k.RegisterAppList(1, 1, {}), -1);
  EXPECT_EQ(k.UnregisterAppList(2, 1, {"a"}), -1);       // another type
  EXPECT_EQ(k.UnregisterAppList(1, 2, {"a", "x"}), -1);  // all or nothing
  EXPECT_EQ(k.AppListSize(1), 2u);
  EXPECT_EQ(k.UnregisterAppList(1, 2, {"a", "b"}), 0);
  EXPECT_EQ(k.AppListSize(1), 0u);
}

}  // namespace
}  // namespace kova_sim

// Audio focus: the four queries, focus-changed callbacks, the audio focus zone
// subscription and query; both subscription kinds listen to one signal.
#include <gmock/gmock.h>

#include <climits>
#include <string>
#include <tuple>
#include <vector>

#include "kova_api.h"
#include "kova_test.h"

namespace kova_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr const char *kSignal = "AudioFocusChanged";

class FocusTest : public KovaTest {};

// ---- Queries ----

struct GetCase {
  const char *name;
  int (*fn)(int *);
  const char *method;
  const char *what;
};

const GetCase kGets[] = {
    {"current", kova_get_audio_focus, "GetAudioFocus", "GET_AUDIO_FOCUS"},
    {"last", kova_get_last_audio_focus, "GetLastAudioFocus", "GET_LAST_AUDIO_FOCUS"},
};

TEST_F(FocusTest, GetFocusStoresOnlyANonZeroAnswer) {
  struct Reply {
    Answer answer;
    int result;
    int stored;
  };
  const Reply replies[] = {
      {Answer::Int(7), 0, 7},
      {Answer::Int(-3), 0, -3},
      {Answer::Int(0), -1, 55},  // "no focus": untouched
      {Answer::Error("org.zelta.Error.Failed", "no"), -1, 55},
      {Answer::Value(g_variant_new("(s)", "7")), -1, 55},
  };
  for (const GetCase &g : kGets) {
    for (const Reply &r : replies) {
      service().Set(g.method, r.answer);
      doubles::ClearLogs();
      int focus = 55;
      EXPECT_EQ(g.fn(&focus), r.result) << g.name;
      EXPECT_EQ(focus, r.stored) << g.name;
      Call call = LastCall(g.method);
      EXPECT_EQ(call.signature, "(i)");
      const std::string cmd = "[" + Hex(call.args.i32(0)) + "] ";
      EXPECT_EQ(doubles::Messages().front(), ">>");
      if (r.answer.kind == Answer::Kind::kValue && r.answer.value.type() == "(i)") {
        EXPECT_TRUE(doubles::HasLog(cmd + "_kova_dbus_method_call() success, method return value is (" +
                                        std::to_string(r.answer.value.i32(0)) + ")",
                                    doubles::kInfo));
      } else {
        EXPECT_TRUE(doubles::HasLog(cmd + "_kova_dbus_method_call() for " + g.what + " is failed", doubles::kError));
      }
    }
  }
}

TEST_F(FocusTest, SetFocusSucceedsOnlyOnZero) {
  for (auto [focus, reply, result] : {std::tuple{3, 0, 0}, std::tuple{-9, 0, 0}, std::tuple{3, 1, -1}}) {
    service().SetInt("SetAudioFocus", reply);
    doubles::ClearLogs();
    EXPECT_EQ(kova_set_audio_focus(focus), result);
    Call call = LastCall("SetAudioFocus");
    EXPECT_EQ(call.signature, "(ii)");
    EXPECT_EQ(call.args.i32(1), focus);
    EXPECT_THAT(doubles::Messages(),
                ElementsAre(">>", "Method call 'SetAudioFocus'",
                            "[" + Hex(call.args.i32(0)) + "] _kova_dbus_method_call() success, method return value is (" +
                                std::to_string(reply) + ")"));
  }
  service().Set("SetAudioFocus", Answer::Error("org.zelta.Error.Failed", "no"));
  EXPECT_EQ(kova_set_audio_focus(1), -1);
  EXPECT_TRUE(doubles::HasLog(
      "[" + Hex(LastCall("SetAudioFocus").args.i32(0)) + "] _kova_dbus_method_call() for SET_AUDIO_FOCUS is failed",
      doubles::kError));
}

TEST_F(FocusTest, IsAudioFocusedPassesTheAnswerThrough) {
  for (int reply : {0, 1, -5, 1234}) {
    service().SetInt("IsAudioFocused", reply);
    doubles::ClearLogs();
    EXPECT_EQ(kova_is_audio_focused("org.app"), reply);
    Call call = LastCall("IsAudioFocused");
    EXPECT_EQ(call.signature, "(is)");
    EXPECT_EQ(call.args.str(1), "org.app");
    EXPECT_EQ(doubles::Messages().front(), ">> (org.app)");
  }
  service().Set("IsAudioFocused", Answer::Error("org.zelta.Error.Failed", "no"));
  EXPECT_EQ(kova_is_audio_focused("org.app"), -1);
  EXPECT_TRUE(doubles::HasLog(
      "[" + Hex(LastCall("IsAudioFocused").args.i32(0)) + "] _kova_dbus_method_call() for IS_AUDIO_FOCUSED is failed",
      doubles::kError));
}

TEST_F(FocusTest, NullArgumentsSendNothing) {
  for (const GetCase &g : kGets) {
    doubles::ClearLogs();
    EXPECT_EQ(g.fn(nullptr), -1);
    EXPECT_THAT(doubles::Messages(), ElementsAre(">>", "invalid param"));  // entry line first
  }
  doubles::ClearLogs();
  EXPECT_EQ(kova_is_audio_focused(nullptr), -1);
  EXPECT_EQ(kova_is_audio_focused("\xff"), -1);
  EXPECT_THAT(doubles::Messages(), ElementsAre("invalid param", "invalid param"));
  doubles::ClearLogs();
  EXPECT_EQ(kova_register_audio_focus_changed_callback(nullptr, nullptr), 0u);
  EXPECT_EQ(kova_subscribe_audio_focus_zone_changed(nullptr, nullptr), 0u);
  EXPECT_EQ(kova_unregister_audio_focus_changed_callback(0), 0);
  EXPECT_THAT(doubles::Messages(), ElementsAre("invalid param", "invalid param", "invalid param"));
  for (const doubles::LogLine &line : doubles::Logs()) EXPECT_EQ(line.priority, doubles::kError);
  doubles::ClearLogs();
  EXPECT_EQ(kova_get_audio_focus_zone(nullptr), -2);
  EXPECT_THAT(doubles::Messages(), IsEmpty());
  Sync();
  EXPECT_EQ(service().CallCount(), 0u);
}

// ---- Focus changes ----

struct FocusSeen {
  std::vector<int> zones;
  void *user_data = nullptr;
};

void OnFocus(int zone_id, void *user_data) {
  auto *seen = static_cast<FocusSeen *>(user_data);
  seen->zones.push_back(zone_id);
  seen->user_data = user_data;
}

struct ZoneSeen {
  int id = -100;
  int scaler_id = -100;
  std::string app_id;
  bool had_app = false;
  int calls = 0;
};

void OnFocusZone(kova_zone *zone, void *user_data) {
  auto *seen = static_cast<ZoneSeen *>(user_data);
  ++seen->calls;
  seen->id = kova_zone_get_id(zone);
  seen->scaler_id = kova_zone_get_scaler_id(zone);
  seen->had_app = zone->app_id != nullptr;
  seen->app_id = seen->had_app ? zone->app_id : "";
}

TEST_F(FocusTest, FocusChangedCallbacksAreOneSubscriptionEach) {
  FocusSeen seen;
  doubles::ClearLogs();
  const unsigned int a = kova_register_audio_focus_changed_callback(OnFocus, &seen);
  const unsigned int b = kova_register_audio_focus_changed_callback(OnFocus, &seen);
  ASSERT_NE(a, 0u);
  ASSERT_NE(a, UINT_MAX);
  ASSERT_NE(b, a);
  EXPECT_THAT(doubles::Messages(),
              ElementsAre("Dbus subscirbe signal AudioFocusChanged", "(AudioFocusChanged) success :: (" + std::to_string(a) + ")",
                          "Dbus subscirbe signal AudioFocusChanged",
                          "(AudioFocusChanged) success :: (" + std::to_string(b) + ")"));

  doubles::ClearLogs();
  Emit(kSignal, g_variant_new("(iiis)", 0x1234ABCD, 4, 40, "org.app"));
  ASSERT_TRUE(WaitUntil([&] { return seen.zones.size() == 2; }));
  EXPECT_THAT(seen.zones, ElementsAre(4, 4));
  EXPECT_EQ(seen.user_data, &seen);
  EXPECT_EQ(doubles::CountLog("[1234ABCD] Signal(org.zelta.tv.system.resource.AudioFocusChanged) Received(4:40:org.app)",
                              doubles::kInfo),
            2);

  // Unregistering one leaves the other; no log line of its own.
  doubles::ClearLogs();
  EXPECT_EQ(kova_unregister_audio_focus_changed_callback(a), 0);
  EXPECT_THAT(doubles::Messages(), IsEmpty());
  Emit(kSignal, g_variant_new("(iiis)", 2, 0, 0, ""));  // zone 0 is delivered like any other
  ASSERT_TRUE(WaitUntil([&] { return seen.zones.size() == 3; }));
  Sync();
  EXPECT_THAT(seen.zones, ElementsAre(4, 4, 0));

  EXPECT_EQ(kova_unregister_audio_focus_changed_callback(b), 0);
  Emit(kSignal, g_variant_new("(iiis)", 3, 6, 0, ""));
  Sync();
  EXPECT_EQ(seen.zones.size(), 3u);
  // An id that is no subscription (any more) goes to the bus and gives 0.
  EXPECT_EQ(kova_unregister_audio_focus_changed_callback(b), 0);
  EXPECT_EQ(kova_unregister_audio_focus_changed_callback(UINT_MAX), 0);
}

TEST_F(FocusTest, BothSubscriptionKindsSeeTheSameSignal) {
  FocusSeen focus;
  ZoneSeen zone;
  doubles::ClearLogs();
  const unsigned int fid = kova_register_audio_focus_changed_callback(OnFocus, &focus);
  const unsigned int zid = kova_subscribe_audio_focus_zone_changed(OnFocusZone, &zone);
  ASSERT_NE(zid, 0u);
  EXPECT_TRUE(doubles::HasLog("subscribe (AudioFocusChanged:" + std::to_string(zid) + ")", doubles::kInfo));

  Emit(kSignal, g_variant_new("(iiis)", 0x77, 9, 90, "org.nine"));
  ASSERT_TRUE(WaitUntil([&] { return focus.zones.size() == 1 && zone.calls == 1; }));
  EXPECT_THAT(focus.zones, ElementsAre(9));
  EXPECT_EQ(zone.id, 9);
  EXPECT_EQ(zone.scaler_id, 90);
  EXPECT_TRUE(zone.had_app);
  EXPECT_EQ(zone.app_id, "org.nine");
  EXPECT_EQ(doubles::CountLog("[00000077] Signal(org.zelta.tv.system.resource.AudioFocusChanged) Received(9:90:org.nine)",
                              doubles::kInfo),
            2);

  doubles::ClearLogs();
  EXPECT_EQ(kova_unsubscribe_audio_focus_zone_changed(zid), 0);
  EXPECT_THAT(doubles::Messages(), IsEmpty());
  Emit(kSignal, g_variant_new("(iiis)", 0x78, 1, 10, ""));
  ASSERT_TRUE(WaitUntil([&] { return focus.zones.size() == 2; }));
  Sync();
  EXPECT_EQ(zone.calls, 1);
  EXPECT_EQ(kova_unregister_audio_focus_changed_callback(fid), 0);
  // Identifier 0 goes to the bus unchecked here.
  doubles::ClearLogs();
  EXPECT_EQ(kova_unsubscribe_audio_focus_zone_changed(0), 0);
  EXPECT_THAT(doubles::Messages(), IsEmpty());
}

TEST_F(FocusTest, MalformedSignalIsIgnoredByBothKinds) {
  FocusSeen focus;
  ZoneSeen zone;
  const unsigned int fid = kova_register_audio_focus_changed_callback(OnFocus, &focus);
  const unsigned int zid = kova_subscribe_audio_focus_zone_changed(OnFocusZone, &zone);
  Emit(kSignal, g_variant_new("(iii)", 1, 2, 3));
  Emit(kSignal, g_variant_new("(iiss)", 1, 2, "3", "x"));
  Emit(kSignal, nullptr);
  Sync();
  EXPECT_THAT(focus.zones, IsEmpty());
  EXPECT_EQ(zone.calls, 0);
  EXPECT_EQ(doubles::CountLog("signal (AudioFocusChanged) ignored, unexpected type ((iii))", doubles::kError), 2);
  EXPECT_EQ(doubles::CountLogPrefix("signal (AudioFocusChanged) ignored, unexpected type", doubles::kError), 6);
  kova_unregister_audio_focus_changed_callback(fid);
  kova_unsubscribe_audio_focus_zone_changed(zid);
}

TEST_F(FocusTest, AudioFocusZoneQueryIsTheFocusedZoneQuery) {
  service().Set("GetFocusedZone", Answer::Value(g_variant_new("(iis)", 2, 20, "org.two")));
  kova_zone *zone = nullptr;
  ASSERT_EQ(kova_get_audio_focus_zone(&zone), 0);
  ASSERT_NE(zone, nullptr);
  EXPECT_EQ(kova_resource_zone_get_scaler_id(zone), 20);
  EXPECT_STREQ(kova_resource_zone_get_app_id(zone), "org.two");
  kova_resource_zone_free(zone);  // the caller's

  // A failure is -1 here, whatever the focused-zone query answered.
  kova_zone *const untouched = reinterpret_cast<kova_zone *>(0x1);
  zone = untouched;
  service().Set("GetFocusedZone", Answer::Error("org.zelta.Error.Failed", "no"));
  EXPECT_EQ(kova_get_audio_focus_zone(&zone), -1);
  EXPECT_EQ(zone, untouched);
}

}  // namespace
}  // namespace kova_test

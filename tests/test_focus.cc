// Audio focus: the four queries, focus-changed callbacks and the audio focus
// zone subscription; both subscription kinds listen to one signal.
#include <gmock/gmock.h>

#include <climits>
#include <functional>
#include <string>
#include <vector>

#include "kova_api.h"
#include "kova_test.h"

namespace kova_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr const char *kSignal = "AudioFocusChanged";

class FocusTest : public KovaTest {};

TEST_F(FocusTest, QueriesPutTheRightArgumentsOnTheWireAndMapTheReply) {
  struct Case {
    const char *method;
    std::function<int(int *)> call;  // stores the focus where there is one
    const char *signature;
    const char *entry;
    const char *what;
    Answer answer;
    int result;
    int stored;  // 55: untouched
  };
  const auto get = [](int *f) { return kova_get_audio_focus(f); };
  const auto last = [](int *f) { return kova_get_last_audio_focus(f); };
  const auto set = [](int *) { return kova_set_audio_focus(-9); };
  const auto is = [](int *) { return kova_is_audio_focused("org.app"); };
  const Answer failed = Answer::Error("org.zelta.Error.Failed", "no");
  const Case cases[] = {
      {"GetAudioFocus", get, "(i)", ">>", "GET_AUDIO_FOCUS", Answer::Int(7), 0, 7},
      {"GetAudioFocus", get, "(i)", ">>", "GET_AUDIO_FOCUS", Answer::Int(0), -1, 55},  // "no focus"
      {"GetAudioFocus", get, "(i)", ">>", "GET_AUDIO_FOCUS", failed, -1, 55},
      {"GetLastAudioFocus", last, "(i)", ">>", "GET_LAST_AUDIO_FOCUS", Answer::Int(-3), 0, -3},
      {"GetLastAudioFocus", last, "(i)", ">>", "GET_LAST_AUDIO_FOCUS", Answer::Int(0), -1, 55},
      {"GetLastAudioFocus", last, "(i)", ">>", "GET_LAST_AUDIO_FOCUS", Answer::Value(g_variant_new("(s)", "7")),
       -1, 55},
      {"SetAudioFocus", set, "(ii)", ">>", "SET_AUDIO_FOCUS", Answer::Int(0), 0, 55},
      {"SetAudioFocus", set, "(ii)", ">>", "SET_AUDIO_FOCUS", Answer::Int(1), -1, 55},
      {"SetAudioFocus", set, "(ii)", ">>", "SET_AUDIO_FOCUS", failed, -1, 55},
      {"IsAudioFocused", is, "(is)", ">> (org.app)", "IS_AUDIO_FOCUSED", Answer::Int(1234), 1234, 55},
      {"IsAudioFocused", is, "(is)", ">> (org.app)", "IS_AUDIO_FOCUSED", Answer::Int(-5), -5, 55},
      {"IsAudioFocused", is, "(is)", ">> (org.app)", "IS_AUDIO_FOCUSED", failed, -1, 55},
  };
  for (const Case &c : cases) {
    service().Set(c.method, c.answer);
    doubles::ClearLogs();
    int focus = 55;
    EXPECT_EQ(c.call(&focus), c.result) << c.method;
    EXPECT_EQ(focus, c.stored) << c.method;
    Call call = LastCall(c.method);
    EXPECT_EQ(call.signature, c.signature);
    EXPECT_FALSE(call.no_reply_expected);
    if (call.signature == "(ii)") {
      EXPECT_EQ(call.args.i32(1), -9);
    } else if (call.signature == "(is)") {
      EXPECT_EQ(call.args.str(1), "org.app");
    }
    const std::string cmd = "[" + Hex(call.args.i32(0)) + "] ";
    if (c.answer.kind == Answer::Kind::kValue && c.answer.value.type() == "(i)") {
      // The success line comes whatever the integer, also when it gives -1.
      EXPECT_THAT(doubles::Messages(),
                  ElementsAre(c.entry, std::string("Method call '") + c.method + "'",
                              cmd + "_kova_dbus_method_call() success, method return value is (" +
                                  std::to_string(c.answer.value.i32(0)) + ")"));
    } else {
      EXPECT_EQ(doubles::Messages().front(), c.entry);
      EXPECT_TRUE(doubles::HasLog(cmd + "_kova_dbus_method_call() for " + c.what + " is failed", doubles::kError));
    }
  }
}

TEST_F(FocusTest, NullArgumentsSendNothing) {
  EXPECT_EQ(kova_get_audio_focus(nullptr), -1);
  EXPECT_EQ(kova_get_last_audio_focus(nullptr), -1);
  EXPECT_THAT(doubles::Messages(), ElementsAre(">>", "invalid param", ">>", "invalid param"));  // entry line first
  doubles::ClearLogs();
  EXPECT_EQ(kova_is_audio_focused(nullptr), -1);
  EXPECT_EQ(kova_is_audio_focused("\xff"), -1);
  EXPECT_EQ(kova_register_audio_focus_changed_callback(nullptr, nullptr), 0u);
  EXPECT_EQ(kova_subscribe_audio_focus_zone_changed(nullptr, nullptr), 0u);
  EXPECT_EQ(kova_unregister_audio_focus_changed_callback(0), 0);
  EXPECT_EQ(doubles::Messages(), std::vector<std::string>(5, "invalid param"));
  for (const doubles::LogLine &line : doubles::Logs()) EXPECT_EQ(line.priority, doubles::kError);
  doubles::ClearLogs();
  EXPECT_EQ(kova_get_audio_focus_zone(nullptr), -2);
  EXPECT_THAT(doubles::Messages(), IsEmpty());
  Sync();
  EXPECT_EQ(service().CallCount(), 0u);
}

struct Seen {
  std::vector<int> zones;  // of either kind
  std::vector<std::string> details;  // "scaler:app" of the zone kind
};

void OnFocus(int zone_id, void *user_data) { static_cast<Seen *>(user_data)->zones.push_back(zone_id); }

void OnFocusZone(kova_zone *zone, void *user_data) {
  auto *seen = static_cast<Seen *>(user_data);
  seen->zones.push_back(kova_zone_get_id(zone));
  seen->details.push_back(std::to_string(kova_zone_get_scaler_id(zone)) + ":" +
                          (zone->app_id != nullptr ? zone->app_id : "<null>"));
}

TEST_F(FocusTest, BothSubscriptionKindsSeeTheSameSignalEachThroughItsOwnSubscription) {
  Seen a, b, z;
  doubles::ClearLogs();
  const unsigned int ida = kova_register_audio_focus_changed_callback(OnFocus, &a);
  const unsigned int idb = kova_register_audio_focus_changed_callback(OnFocus, &b);
  ASSERT_NE(ida, 0u);
  ASSERT_NE(ida, UINT_MAX);
  ASSERT_NE(idb, ida);
  EXPECT_THAT(doubles::Messages(),
              ElementsAre("Dbus subscirbe signal AudioFocusChanged",
                          "(AudioFocusChanged) success :: (" + std::to_string(ida) + ")",
                          "Dbus subscirbe signal AudioFocusChanged",
                          "(AudioFocusChanged) success :: (" + std::to_string(idb) + ")"));
  const unsigned int idz = kova_subscribe_audio_focus_zone_changed(OnFocusZone, &z);
  ASSERT_NE(idz, 0u);
  EXPECT_TRUE(doubles::HasLog("subscribe (AudioFocusChanged:" + std::to_string(idz) + ")", doubles::kInfo));

  doubles::ClearLogs();
  Emit(kSignal, g_variant_new("(iiis)", 0x1234ABCD, 4, 40, "org.app"));
  ASSERT_TRUE(WaitUntil([&] { return a.zones.size() + b.zones.size() + z.zones.size() == 3; }));
  EXPECT_THAT(a.zones, ElementsAre(4));
  EXPECT_THAT(b.zones, ElementsAre(4));
  EXPECT_THAT(z.zones, ElementsAre(4));
  EXPECT_THAT(z.details, ElementsAre("40:org.app"));
  EXPECT_EQ(doubles::CountLog(
                "[1234ABCD] Signal(org.zelta.tv.system.resource.AudioFocusChanged) Received(4:40:org.app)",
                doubles::kInfo),
            3);

  // Unregistering one leaves the others; no log line of its own.
  doubles::ClearLogs();
  EXPECT_EQ(kova_unregister_audio_focus_changed_callback(ida), 0);
  EXPECT_EQ(kova_unsubscribe_audio_focus_zone_changed(idz), 0);
  EXPECT_THAT(doubles::Messages(), IsEmpty());
  Emit(kSignal, g_variant_new("(iiis)", 2, 0, 0, ""));  // zone 0 is delivered like any other
  ASSERT_TRUE(WaitUntil([&] { return b.zones.size() == 2; }));
  Sync();
  EXPECT_THAT(b.zones, ElementsAre(4, 0));
  EXPECT_EQ(a.zones.size() + z.zones.size(), 2u);

  EXPECT_EQ(kova_unregister_audio_focus_changed_callback(idb), 0);
  Emit(kSignal, g_variant_new("(iiis)", 3, 6, 0, ""));
  Sync();
  EXPECT_EQ(b.zones.size(), 2u);
  // An id that is no subscription (any more), even 0 for the zone kind, goes
  // to the bus unchecked and gives 0.
  doubles::ClearLogs();
  EXPECT_EQ(kova_unregister_audio_focus_changed_callback(idb), 0);
  EXPECT_EQ(kova_unregister_audio_focus_changed_callback(UINT_MAX), 0);
  EXPECT_EQ(kova_unsubscribe_audio_focus_zone_changed(0), 0);
  EXPECT_THAT(doubles::Messages(), IsEmpty());
}

TEST_F(FocusTest, MalformedSignalIsIgnoredByBothKinds) {
  Seen seen;
  const unsigned int fid = kova_register_audio_focus_changed_callback(OnFocus, &seen);
  const unsigned int zid = kova_subscribe_audio_focus_zone_changed(OnFocusZone, &seen);
  Emit(kSignal, g_variant_new("(iii)", 1, 2, 3));
  Emit(kSignal, g_variant_new("(iiss)", 1, 2, "3", "x"));
  Emit(kSignal, nullptr);
  Sync();
  EXPECT_THAT(seen.zones, IsEmpty());
  EXPECT_EQ(doubles::CountLog("signal (AudioFocusChanged) ignored, unexpected type ((iii))", doubles::kError), 2);
  EXPECT_EQ(doubles::CountLogPrefix("signal (AudioFocusChanged) ignored, unexpected type", doubles::kError), 6);
  kova_unregister_audio_focus_changed_callback(fid);
  kova_unsubscribe_audio_focus_zone_changed(zid);
}

}  // namespace
}  // namespace kova_test

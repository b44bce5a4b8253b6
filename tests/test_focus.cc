// Audio focus: the four queries, focus-changed callbacks and the audio focus
// zone subscription; both subscription kinds listen to one signal.
#include <gmock/gmock.h>

#include <climits>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "kova_api.h"
#include "kova_test.h"

namespace kova_test {
namespace {

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::IsEmpty;

constexpr const char *kSignal = "AudioFocusChanged";

class FocusTest : public KovaTest {};

TEST_F(FocusTest, QueriesPutTheArgumentsOnTheWireAndMapTheReply) {
  struct Query {
    const char *method;
    std::function<int(int *)> call;  // stores the focus where there is one
    const char *args;                // after the command id
    const char *entry;
    const char *what;
  };
  const Query get{"GetAudioFocus", kova_get_audio_focus, ",)", ">>", "GET_AUDIO_FOCUS"};
  const Query last{"GetLastAudioFocus", kova_get_last_audio_focus, ",)", ">>", "GET_LAST_AUDIO_FOCUS"};
  const Query set{"SetAudioFocus", [](int *) { return kova_set_audio_focus(-9); }, ", -9)", ">>", "SET_AUDIO_FOCUS"};
  const Query is{"IsAudioFocused", [](int *) { return kova_is_audio_focused("org.app"); }, ", 'org.app')",
                 ">> (org.app)", "IS_AUDIO_FOCUSED"};
  const Answer failed = Answer::Error("org.zelta.Error.Failed", "no");
  // The query, the answer, what the call gives and the focus it stores (55: untouched).
  const std::tuple<const Query &, Answer, int, int> cases[] = {
      {get, Answer::Int(7), 0, 7},    {get, Answer::Int(0), -1, 55},  // 0 is "no focus"
      {get, failed, -1, 55},          {last, Answer::Int(-3), 0, -3},
      {last, Answer::Int(0), -1, 55}, {last, Answer::Value(g_variant_new("(s)", "7")), -1, 55},
      {set, Answer::Int(0), 0, 55},   {set, Answer::Int(1), -1, 55},
      {set, failed, -1, 55},          {is, Answer::Int(1234), 1234, 55},
      {is, failed, -1, 55},
  };
  for (const auto &c : cases) {
    const auto &[q, answer, result, stored] = c;
    SCOPED_TRACE(&c - cases);
    service().Set(q.method, answer);
    doubles::ClearLogs();
    int focus = 55;
    EXPECT_EQ(q.call(&focus), result);
    EXPECT_EQ(focus, stored);
    const Call call = LastCall(q.method);
    EXPECT_THAT(call.args.text(), EndsWith(q.args));
    // The success line comes whatever the integer, also when it gives -1.
    const bool answered = answer.kind == Answer::Kind::kValue && answer.value.type() == "(i)";
    const std::string line = answered ? "_kova_dbus_method_call() success, method return value is (" +
                                            std::to_string(answer.value.i32(0)) + ")"
                                      : std::string("_kova_dbus_method_call() for ") + q.what + " is failed";
    EXPECT_EQ(doubles::Messages().front(), q.entry);
    EXPECT_EQ(doubles::Messages().back(), "[" + Hex(call.args.i32(0)) + "] " + line);
    EXPECT_EQ(doubles::Logs().back().priority, answered ? doubles::kInfo : doubles::kError);
  }
}

TEST_F(FocusTest, NullArgumentsSendNothing) {
  EXPECT_EQ(kova_get_audio_focus(nullptr), -1);
  EXPECT_EQ(kova_get_last_audio_focus(nullptr), -1);
  EXPECT_EQ(kova_is_audio_focused(nullptr), -1);
  EXPECT_EQ(kova_is_audio_focused("\xff"), -1);
  EXPECT_EQ(kova_register_audio_focus_changed_callback(nullptr, nullptr), 0u);
  EXPECT_EQ(kova_subscribe_audio_focus_zone_changed(nullptr, nullptr), 0u);
  EXPECT_EQ(kova_unregister_audio_focus_changed_callback(0), 0);
  EXPECT_EQ(kova_get_audio_focus_zone(nullptr), -2);  // without a line
  const std::string bad = "invalid param";  // the two getters log their entry line first
  EXPECT_THAT(doubles::Messages(), ElementsAre(">>", bad, ">>", bad, bad, bad, bad, bad, bad));
  EXPECT_EQ(doubles::CountLog(bad, doubles::kError), 7);
  Sync();
  EXPECT_EQ(service().CallCount(), 0u);
}

// What one subscriber saw: the zone ids, with scaler and application for the zone kind.
using Seen = std::vector<std::string>;

void OnFocus(int zone_id, void *seen) { static_cast<Seen *>(seen)->push_back(std::to_string(zone_id)); }

void OnFocusZone(kova_zone *zone, void *seen) {
  static_cast<Seen *>(seen)->push_back(std::to_string(kova_zone_get_id(zone)) + ":" +
                                       std::to_string(kova_zone_get_scaler_id(zone)) + ":" +
                                       (zone->app_id != nullptr ? zone->app_id : "<null>"));
}

TEST_F(FocusTest, BothSubscriptionKindsSeeTheSameSignalAndIgnoreMalformedOnes) {
  Seen a, b, z;
  doubles::ClearLogs();
  const unsigned int ida = kova_register_audio_focus_changed_callback(OnFocus, &a);
  EXPECT_THAT(doubles::Messages(), ElementsAre("Dbus subscirbe signal AudioFocusChanged",
                                               "(AudioFocusChanged) success :: (" + std::to_string(ida) + ")"));
  const unsigned int idb = kova_register_audio_focus_changed_callback(OnFocus, &b);
  const unsigned int idz = kova_subscribe_audio_focus_zone_changed(OnFocusZone, &z);
  ASSERT_EQ((std::set<unsigned int>{0, UINT_MAX, ida, idb, idz}).size(), 5u);  // none of them a failure
  EXPECT_TRUE(doubles::HasLog("subscribe (AudioFocusChanged:" + std::to_string(idz) + ")", doubles::kInfo));

  // Malformed signals are ignored by both kinds; the good one after them reaches all three.
  doubles::ClearLogs();
  Emit(kSignal, g_variant_new("(iii)", 1, 2, 3));
  Emit(kSignal, g_variant_new("(iiss)", 1, 2, "3", "x"));
  Emit(kSignal, nullptr);
  Emit(kSignal, g_variant_new("(iiis)", 0x1234ABCD, 4, 40, "org.app"));
  ASSERT_TRUE(WaitUntil([&] { return a.size() + b.size() + z.size() == 3; }));
  EXPECT_EQ((std::vector<Seen>{a, b, z}), (std::vector<Seen>{{"4"}, {"4"}, {"4:40:org.app"}}));
  EXPECT_EQ(doubles::CountLog(
                "[1234ABCD] Signal(org.zelta.tv.system.resource.AudioFocusChanged) Received(4:40:org.app)",
                doubles::kInfo),
            3);
  EXPECT_EQ(doubles::CountLog("signal (AudioFocusChanged) ignored, unexpected type ((iii))", doubles::kError), 3);
  EXPECT_EQ(doubles::CountLogPrefix("signal (AudioFocusChanged) ignored, unexpected type", doubles::kError), 9);

  // Unsubscribing one leaves the others. An id that is no subscription (any
  // more), even 0 for the zone kind, goes to the bus unchecked and gives 0.
  doubles::ClearLogs();
  EXPECT_EQ(kova_unregister_audio_focus_changed_callback(ida), 0);
  EXPECT_EQ(kova_unsubscribe_audio_focus_zone_changed(idz), 0);
  EXPECT_EQ(kova_unregister_audio_focus_changed_callback(ida), 0);
  EXPECT_EQ(kova_unregister_audio_focus_changed_callback(UINT_MAX), 0);
  EXPECT_EQ(kova_unsubscribe_audio_focus_zone_changed(0), 0);
  EXPECT_THAT(doubles::Messages(), IsEmpty());
  Emit(kSignal, g_variant_new("(iiis)", 2, 0, 0, ""));  // zone 0 is delivered like any other
  ASSERT_TRUE(WaitUntil([&] { return b.size() == 2; }));
  Sync();
  EXPECT_THAT(b, ElementsAre("4", "0"));
  EXPECT_EQ(a.size() + z.size(), 2u);
  EXPECT_EQ(kova_unregister_audio_focus_changed_callback(idb), 0);
}

}  // namespace
}  // namespace kova_test

// Audio focus: the four queries, focus-changed callbacks and the audio focus
// zone subscription; both subscription kinds listen to one signal.
#include <gmock/gmock.h>

#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "kova_api.h"
#include "kova_test.h"

namespace kova_test {
namespace {

using ::testing::ElementsAre;
using ::testing::EndsWith;

class FocusTest : public KovaTest {};

TEST_F(FocusTest, QueriesPutTheArgumentsOnTheWireAndMapTheReply) {
  using Query = std::tuple<const char *, std::function<int(int *)>, const char *>;  // method, call, args after the id
  const Query get{"GetAudioFocus", kova_get_audio_focus, ",)"};
  const Query last{"GetLastAudioFocus", kova_get_last_audio_focus, ",)"};
  const Query set{"SetAudioFocus", [](int *) { return kova_set_audio_focus(-9); }, ", -9)"};
  const Query is{"IsAudioFocused", [](int *) { return kova_is_audio_focused("org.app"); }, ", 'org.app')"};
  const Answer failed = Answer::Error("org.zelta.Error.Failed", "no");
  // The query, the answer, what the call gives and the focus it stores (55: untouched).
  const std::tuple<const Query &, Answer, int, int> cases[] = {
      {get, Answer::Int(7), 0, 7},  {get, Answer::Int(0), -1, 55},  // 0 is "no focus"
      {get, failed, -1, 55},        {last, Answer::Int(-3), 0, -3},     {is, Answer::Int(1234), 1234, 55},
      {set, Answer::Int(0), 0, 55}, {set, Answer::Int(1), -1, 55},
  };
  for (const auto &c : cases) {
    const auto &[q, answer, result, stored] = c;
    const auto &[method, call, args] = q;
    SCOPED_TRACE(&c - cases);
    service().Set(method, answer);
    int focus = 55;
    EXPECT_EQ(call(&focus), result);
    EXPECT_EQ(focus, stored);
    EXPECT_THAT(LastCall(method).args.text(), EndsWith(args));
  }
  // The success line comes whatever the integer, also when it gives -1.
  const auto cmd = [&](const char *method) { return "[" + Hex(LastCall(method).args.i32(0)) + "] "; };
  EXPECT_TRUE(doubles::HasLog(cmd("SetAudioFocus") + "_kova_dbus_method_call() success, method return value is (1)",
                              doubles::kInfo));
  EXPECT_TRUE(doubles::HasLog(cmd("GetAudioFocus") + "_kova_dbus_method_call() for GET_AUDIO_FOCUS is failed",
                              doubles::kError));
}

TEST_F(FocusTest, NullArgumentsSendNothing) {
  EXPECT_EQ(kova_get_audio_focus(nullptr), -1);
  EXPECT_EQ(kova_register_audio_focus_changed_callback(nullptr, nullptr), 0u);
  EXPECT_THAT(doubles::Messages(), ElementsAre(">>", "invalid param", "invalid param"));
  Sync();
  EXPECT_EQ(service().CallCount(), 0u);
}

// What one subscriber saw: the zone ids, with scaler and application for the zone kind.
using Seen = std::vector<std::string>;

void OnFocus(int zone_id, void *seen) { static_cast<Seen *>(seen)->push_back(std::to_string(zone_id)); }

void OnFocusZone(kova_zone *zone, void *seen) {
  static_cast<Seen *>(seen)->push_back(std::to_string(zone->id) + ":" + std::to_string(zone->scaler_id) + ":" +
                                       (zone->app_id != nullptr ? zone->app_id : "<null>"));
}

TEST_F(FocusTest, BothSubscriptionKindsSeeTheSameSignalAndIgnoreMalformedOnes) {
  Seen a, b, z;
  const unsigned int ida = kova_register_audio_focus_changed_callback(OnFocus, &a);
  EXPECT_THAT(doubles::Messages(), ElementsAre("Dbus subscirbe signal AudioFocusChanged",
                                               "(AudioFocusChanged) success :: (" + std::to_string(ida) + ")"));
  const unsigned int idb = kova_register_audio_focus_changed_callback(OnFocus, &b);
  const unsigned int idz = kova_subscribe_audio_focus_zone_changed(OnFocusZone, &z);

  // A malformed signal is ignored by both kinds; the good one after it reaches all three.
  Emit("AudioFocusChanged", g_variant_new("(iii)", 1, 2, 3));
  Emit("AudioFocusChanged", g_variant_new("(iiis)", 0x1234ABCD, 4, 40, "org.app"));
  ASSERT_TRUE(WaitUntil([&] { return a.size() + b.size() + z.size() == 3; }));
  EXPECT_EQ((std::vector<Seen>{a, b, z}), (std::vector<Seen>{{"4"}, {"4"}, {"4:40:org.app"}}));
  const char *received = "[1234ABCD] Signal(org.zelta.tv.system.resource.AudioFocusChanged) Received(4:40:org.app)";
  EXPECT_EQ(doubles::CountLog(received, doubles::kInfo), 3);
  EXPECT_EQ(doubles::CountLog("signal (AudioFocusChanged) ignored, unexpected type ((iii))", doubles::kError), 3);

  // Unsubscribing one leaves the others.
  EXPECT_EQ(kova_unregister_audio_focus_changed_callback(ida), 0);
  EXPECT_EQ(kova_unsubscribe_audio_focus_zone_changed(idz), 0);
  Emit("AudioFocusChanged", g_variant_new("(iiis)", 2, 0, 0, ""));  // zone 0 is delivered like any other
  ASSERT_TRUE(WaitUntil([&] { return b.size() == 2; }));
  Sync();
  EXPECT_THAT(b, ElementsAre("4", "0"));
  EXPECT_EQ(a.size() + z.size(), 2u);
  EXPECT_EQ(kova_unregister_audio_focus_changed_callback(idb), 0);
}

}  // namespace
}  // namespace kova_test

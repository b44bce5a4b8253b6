// Audio focus: the four queries, and the two kinds of subscription, which both listen to one signal.
#include <gmock/gmock.h>

#include "kova_api.h"
#include "kova_test.h"

namespace kova_test {
namespace {

using ::testing::EndsWith;

class FocusTest : public KovaTest {};

TEST_F(FocusTest, QueriesPutTheArgumentsOnTheWireAndMapTheReply) {
  service().SetInt("GetLastAudioFocus", -3);
  service().SetInt("GetAudioFocus", 0);
  service().SetInt("IsAudioFocused", 1234);
  service().SetInt("SetAudioFocus", 1);
  int focus = 55;
  EXPECT_EQ(kova_get_last_audio_focus(&focus), 0);
  EXPECT_EQ(focus, -3);
  EXPECT_EQ(kova_get_audio_focus(&focus), -1);  // 0 is "no focus"
  EXPECT_EQ(kova_is_audio_focused("org.app"), 1234);
  EXPECT_EQ(kova_set_audio_focus(-9), -1);  // only 0 gives 0, yet the success line comes
  EXPECT_THAT(LastCall("IsAudioFocused").args.text(), EndsWith(", 'org.app')"));
  EXPECT_THAT(LastCall("SetAudioFocus").args.text(), EndsWith(", -9)"));
  const auto tag = [&](const char *m) { return "[" + Hex(LastCall(m).args.i32(0)) + "] _kova_dbus_method_call() "; };
  EXPECT_TRUE(doubles::HasLog(tag("SetAudioFocus") + "success, method return value is (1)", doubles::kInfo));
  service().Set("GetAudioFocus", Answer::Error("org.zelta.Error.Failed", "no"));
  EXPECT_EQ(kova_get_audio_focus(&focus), -1);
  EXPECT_TRUE(doubles::HasLog(tag("GetAudioFocus") + "for GET_AUDIO_FOCUS is failed", doubles::kError));
}

using Seen = std::vector<std::string>;  // what one subscriber saw

void OnFocus(int zone_id, void *seen) { static_cast<Seen *>(seen)->push_back(std::to_string(zone_id)); }

void OnFocusZone(kova_zone *z, void *seen) {
  static_cast<Seen *>(seen)->push_back(std::to_string(z->id) + ":" + std::to_string(z->scaler_id) + ":" + z->app_id);
}

TEST_F(FocusTest, BothSubscriptionKindsSeeTheSameSignalUntilTheyLeave) {
  Seen a, z;
  const unsigned int ida = kova_register_audio_focus_changed_callback(OnFocus, &a);
  const unsigned int idz = kova_subscribe_audio_focus_zone_changed(OnFocusZone, &z);
  Emit("AudioFocusChanged", g_variant_new("(iiis)", 0x1234ABCD, 4, 40, "org.app"));
  ASSERT_TRUE(WaitUntil([&] { return a.size() + z.size() == 2; }));
  EXPECT_EQ((std::vector<Seen>{a, z}), (std::vector<Seen>{{"4"}, {"4:40:org.app"}}));
  EXPECT_EQ(kova_unsubscribe_audio_focus_zone_changed(idz), 0);
  Emit("AudioFocusChanged", g_variant_new("(iiis)", 2, 0, 0, ""));  // zone 0 is delivered like any other
  ASSERT_TRUE(WaitUntil([&] { return a.size() == 2; }));
  EXPECT_EQ(kova_unregister_audio_focus_changed_callback(ida), 0);
  Emit("AudioFocusChanged", g_variant_new("(iiis)", 3, 5, 50, "org.other"));
  Sync();
  EXPECT_EQ((std::vector<Seen>{a, z}), (std::vector<Seen>{{"4", "0"}, {"4:40:org.app"}}));
}

}  // namespace
}  // namespace kova_test

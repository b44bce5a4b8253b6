// Audio focus: the two kinds of subscription, which both listen to one signal.
#include <gmock/gmock.h>

#include "kova_api.h"
#include "kova_test.h"

namespace kova_test {
namespace {

class FocusTest : public KovaTest {};

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

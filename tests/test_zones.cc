// Zone lists and their walk, application to zone assignment, layout state and the focused zone.
#include <gmock/gmock.h>

#include "kova_api.h"
#include "kova_test.h"

namespace kova_test {
namespace {

using ::testing::EndsWith;

std::string Read(const kova_zone *z) {
  return std::to_string(z->id) + ":" + std::to_string(z->scaler_id) + ":" + (z->app_id ? z->app_id : "<null>");
}

class ZonesTest : public KovaTest {
 protected:
  const Answer failed_ = Answer::Error("org.zelta.Error.Failed", "no");
  void Reply(const char *method, const char *text) { service().Set(method, Answer::Value(g_variant_new_parsed(text))); }
  std::string Tag(const char *m) { return "[" + Hex(LastCall(m).args.i32(0)) + "] _kova_dbus_method_call() "; }
};

TEST_F(ZonesTest, MultiviewListGivesTheZonesWithoutScalersOrNoList) {
  void *list = nullptr;
  Reply("GetMultiviewZoneList", "(@a(is) [],)");
  EXPECT_EQ(kova_get_multiview_zone_list(&list), -1);  // no zones, no list
  Reply("GetMultiviewZoneList", "([(3, 'app.c'), (-2, '')],)");
  ASSERT_EQ(kova_get_multiview_zone_list(&list), 0);
  kova_zone *first = nullptr, *second = nullptr;
  ASSERT_EQ(kova_get_next_zone(list, &first), 0);
  ASSERT_EQ(kova_get_next_zone(list, &second), 0);
  EXPECT_EQ(Read(first) + " " + Read(second), "3:0:app.c -2:0:");
  EXPECT_EQ(kova_free_zone_list(list), 0);
}

TEST_F(ZonesTest, WalksShareOnePositionThatStopsAtBothEnds) {
  void *list = nullptr;
  Reply("GetMultiviewZoneIds", "([(1, 10, 'a'), (2, 20, 'b'), (3, -30, 'c')],)");
  ASSERT_EQ(kova_get_zone_list(&list), 0);
  // Each step as the id of the zone in `zone` after it, then the result when it failed.
  kova_zone *zone = nullptr;
  const auto seen = [&](int r) { return std::to_string(zone ? zone->id : 0) + (r == 0 ? "" : std::to_string(r)); };
  const auto prev = [&] { return seen(kova_get_prev_zone(list, &zone)); };
  const auto next = [&] { return seen(kova_get_next_zone(list, &zone)); };
  const auto get_next = [&] { return (zone = kova_resource_zone_list_get_next(list)) ? seen(0) : "null"; };
  EXPECT_THAT((std::vector<std::string>{prev(), get_next(), next(), get_next(), next(), get_next(), prev(), prev(),
                                        prev(), next(), get_next()}),
              ::testing::ElementsAre("0-1", "1", "2", "3", "3-1", "null", "2", "1", "1-1", "2", "3"));
  EXPECT_EQ(Read(zone), "3:-30:c");
  EXPECT_EQ(kova_free_resource_zone_list(list), 0);
}

TEST_F(ZonesTest, AssignmentCallsSendTheirArgumentsAndOnlyTheSetAndLayoutWaitForAnAnswer) {
  service().SetInt("SetAppToZone", 5);
  service().SetInt("NotifyLayoutState", 0);
  // Zone ids and layout states go out unchecked; any integer but 0 gives -1, yet the success line comes.
  EXPECT_EQ(kova_set_app_zone_info("org.app", -7), -1);
  EXPECT_TRUE(doubles::HasLog(Tag("SetAppToZone") + "success, method return value is (5)"));
  EXPECT_EQ(kova_notify_layout_state(static_cast<kova_layout_state_e>(-7)), 0);
  EXPECT_EQ(kova_set_removable_app_zone_info("org.app", -4), 0);  // unscripted, so its error goes unseen
  EXPECT_EQ(kova_clear_removable_app_zone_info(), 0);
  Sync();
  EXPECT_THAT(LastCall("SetAppToZone").args.text(), EndsWith(", 'org.app', -7)"));
  EXPECT_THAT(LastCall("NotifyLayoutState").args.text(), EndsWith(", -7)"));
  EXPECT_THAT(LastCall("SetRemovableAppToZone").args.text(), EndsWith(", 'org.app', -4)"));
  EXPECT_EQ(service().CallsTo("ClearRemovableAppToZone").size(), 1u);
}

TEST_F(ZonesTest, FocusedZoneIsARecordTheCallerFrees) {
  service().Set("GetFocusedZone", Answer::Value(g_variant_new("(iis)", 3, 30, "org.focus")));
  kova_zone *zone = nullptr;
  ASSERT_EQ(kova_get_focused_zone(&zone), 0);
  EXPECT_EQ(Read(zone), "3:30:org.focus");
  kova_zone_free(zone);
  service().Set("GetFocusedZone", failed_);
  EXPECT_EQ(kova_get_focused_zone(&zone), -1);
  EXPECT_TRUE(doubles::HasLog(Tag("GetFocusedZone") + "for GET_FOCUSED_ZONE is failed", doubles::kError));
}

}  // namespace
}  // namespace kova_test

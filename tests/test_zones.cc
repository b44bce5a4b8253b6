// Zone lists and their walk, application to zone assignment, layout state and the focused zone.
#include <gmock/gmock.h>

#include <tuple>
#include <vector>

#include "kova_api.h"
#include "kova_test.h"

namespace kova_test {
namespace {

using ::testing::ElementsAre;
using ::testing::EndsWith;

using Z = std::tuple<int, int, std::string>;  // id, scaler, application

Z Read(kova_zone *z) { return {z->id, z->scaler_id, z->app_id ? z->app_id : "<null>"}; }

// A reply of either list query: "(a(iis))" or, without scalers, "(a(is))".
GVariant *ListReply(const std::vector<Z> &zones, bool with_scaler) {
  GVariantBuilder b;
  g_variant_builder_init(&b, G_VARIANT_TYPE(with_scaler ? "a(iis)" : "a(is)"));
  for (const auto &[id, scaler, app] : zones) {
    g_variant_builder_add_value(&b, with_scaler ? g_variant_new("(iis)", id, scaler, app.c_str())
                                                : g_variant_new("(is)", id, app.c_str()));
  }
  return g_variant_new(with_scaler ? "(a(iis))" : "(a(is))", &b);
}

class ZonesTest : public KovaTest {
 protected:
  const Answer failed_ = Answer::Error("org.zelta.Error.Failed", "no");

  // The command id of the last call to method as log lines start with it.
  std::string Cmd(const char *method) { return "[" + Hex(LastCall(method).args.i32(0)) + "] "; }
  bool FailureLogged(const char *method, const std::string &what) {
    return doubles::CountLog(Cmd(method) + "_kova_dbus_method_call() for " + what + " is failed", doubles::kError) == 1;
  }
  std::string Success(const char *method, long value) {
    return Cmd(method) + "_kova_dbus_method_call() success, method return value is (" + std::to_string(value) + ")";
  }
};

TEST_F(ZonesTest, ListQueriesKeepTheReplyOrderOrGiveNoList) {
  const std::tuple<int (*)(void **), const char *, bool, const char *> queries[] = {
      {kova_get_multiview_zone_list, "GetMultiviewZoneList", false, "GET_MULTIVIEW_ZONE_LIST"},
      {kova_get_zone_list, "GetMultiviewZoneIds", true, "GET_ZONE_LIST"},
  };
  const std::vector<Z> zones = {{3, 30, "app.c"}, {-2, -20, ""}};
  for (const auto &[fn, method, with_scaler, what] : queries) {
    SCOPED_TRACE(method);
    // No zones and a list of the other query's type give no list.
    void *list = reinterpret_cast<void *>(0x1);
    service().Set(method, Answer::Value(ListReply({}, with_scaler)));
    EXPECT_EQ(fn(&list), -1);
    EXPECT_TRUE(doubles::HasLog(Cmd(method) + "There is no zones", doubles::kInfo));
    service().Set(method, Answer::Value(ListReply(zones, !with_scaler)));
    EXPECT_EQ(fn(&list), -1);
    EXPECT_TRUE(FailureLogged(method, what));
    EXPECT_EQ(list, reinterpret_cast<void *>(0x1));

    service().Set(method, Answer::Value(ListReply(zones, with_scaler)));
    doubles::ClearLogs();
    ASSERT_EQ(fn(&list), 0);
    kova_zone *zone = nullptr;
    for (const auto &[id, scaler, app] : zones) {
      ASSERT_EQ(kova_get_next_zone(list, &zone), 0);
      EXPECT_EQ(Read(zone), Z(id, with_scaler ? scaler : 0, app));
    }
    EXPECT_EQ(kova_free_zone_list(list), 0);
  }
  // The lines of the last list, then one ">>" per step of the walk and one for the free.
  const std::string cmd = Cmd("GetMultiviewZoneIds");
  EXPECT_THAT(doubles::Messages(),
              ElementsAre(">>", "Method call 'GetMultiviewZoneIds'", cmd + "zone 3(30:app.c) is added",
                          cmd + "zone -2(-20:) is added", Success("GetMultiviewZoneIds", 2), ">>", ">>", ">>"));
}

TEST_F(ZonesTest, WalksShareOnePositionThatStopsAtBothEnds) {
  service().Set("GetMultiviewZoneIds", Answer::Value(ListReply({{1, 10, "a"}, {2, 20, "b"}, {3, 30, "c"}}, true)));
  void *list = nullptr;
  ASSERT_EQ(kova_get_zone_list(&list), 0);
  // Each step as the id of the zone in `zone` after it, "!" when it failed.
  kova_zone *zone = nullptr;
  const auto seen = [&](int result) { return std::to_string(zone ? zone->id : 0) + (result == 0 ? "" : "!"); };
  const auto prev = [&] { return seen(kova_get_prev_zone(list, &zone)); };
  const auto next = [&] { return seen(kova_get_next_zone(list, &zone)); };
  const auto get_next = [&] {
    return (zone = kova_resource_zone_list_get_next(list)) != nullptr ? seen(0) : std::string("null");
  };
  // Both walks move one position, which stays on the last zone at the end.
  EXPECT_THAT((std::vector<std::string>{prev(), get_next(), next(), get_next(), next(), get_next(), prev(), prev(),
                                        prev(), next(), get_next()}),
              ElementsAre("0!", "1", "2", "3", "3!", "null", "2", "1", "1!", "2", "3"));
  EXPECT_EQ(kova_free_resource_zone_list(list), 0);
  EXPECT_EQ(kova_get_next_zone(nullptr, &zone), -2);
}

TEST_F(ZonesTest, AssignmentAndLayoutCallsMapTheServicesInteger) {
  service().SetInt("SetAppToZone", 0);
  service().SetInt("NotifyLayoutState", 0);
  // Zone ids and layout states go out unchecked.
  EXPECT_EQ(kova_set_app_zone_info("org.app", -7), 0);
  EXPECT_EQ(kova_notify_layout_state(static_cast<kova_layout_state_e>(-7)), 0);
  EXPECT_THAT(LastCall("SetAppToZone").args.text(), EndsWith(", 'org.app', -7)"));
  EXPECT_THAT(LastCall("NotifyLayoutState").args.text(), EndsWith(", -7)"));
  // An application id that is not UTF-8 is not sent; any other integer gives -1, yet the success line comes.
  doubles::ClearLogs();
  EXPECT_EQ(kova_set_app_zone_info("\xff\xfe", 2), -1);
  service().SetInt("SetAppToZone", 5);
  EXPECT_EQ(kova_set_app_zone_info("org.app", 2), -1);
  EXPECT_THAT(doubles::Messages(), ElementsAre("invalid param", ">> (org.app:2)", "Method call 'SetAppToZone'",
                                               Success("SetAppToZone", 5)));
  service().Set("SetAppToZone", failed_);
  EXPECT_EQ(kova_set_app_zone_info("org.app", 2), -1);
  EXPECT_TRUE(FailureLogged("SetAppToZone", "SET_APP_ZONE_INFO"));
}

TEST_F(ZonesTest, RemovableMarksAreFireAndForget) {
  service().Set("SetRemovableAppToZone", failed_);  // never seen
  EXPECT_EQ(kova_set_removable_app_zone_info("org.app", -4), 0);
  EXPECT_EQ(kova_clear_removable_app_zone_info(), 0);
  Sync();
  EXPECT_THAT(LastCall("SetRemovableAppToZone").args.text(), EndsWith(", 'org.app', -4)"));
  EXPECT_THAT(doubles::Messages(),  // the zone before the application id
              ElementsAre("(-4:org.app)", "Method call 'SetRemovableAppToZone'",
                          Cmd("SetRemovableAppToZone") + "_kova_dbus_method_call() success", ">>",
                          "Method call 'ClearRemovableAppToZone'",
                          Cmd("ClearRemovableAppToZone") + "_kova_dbus_method_call() success"));
}

TEST_F(ZonesTest, FocusedZoneIsARecordTheCallerFrees) {
  service().Set("GetFocusedZone", Answer::Value(g_variant_new("(iis)", 3, 30, "org.focus")));
  kova_zone *zone = nullptr;
  ASSERT_EQ(kova_get_focused_zone(&zone), 0);
  EXPECT_EQ(Read(zone), Z(3, 30, "org.focus"));
  EXPECT_THAT(doubles::Messages(),
              ElementsAre("Method call 'GetFocusedZone'", Cmd("GetFocusedZone") + "focused zone (3:30:org.focus)"));
  kova_zone_free(zone);

  service().Set("GetFocusedZone", failed_);
  EXPECT_EQ(kova_get_audio_focus_zone(&zone), -1);
  EXPECT_TRUE(FailureLogged("GetFocusedZone", "GET_FOCUSED_ZONE"));
}

}  // namespace
}  // namespace kova_test

// Zone lists and their walk, application to zone assignment, layout state and
// the focused zone. Signatures are checked against the interface file.
#include <gmock/gmock.h>

#include <tuple>
#include <vector>

#include "kova_api.h"
#include "kova_test.h"

namespace kova_test {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
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
      {kova_get_zone_list, "GetMultiviewZoneIds", true, "GET_ZONE_LIST"},
      {kova_get_multiview_zone_list, "GetMultiviewZoneList", false, "GET_MULTIVIEW_ZONE_LIST"},
  };
  const std::vector<Z> zones = {{3, 30, "app.c"}, {1, 10, ""}, {-2, -20, "app.neg"}};
  for (const auto &[fn, method, with_scaler, what] : queries) {
    SCOPED_TRACE(method);
    service().Set(method, Answer::Value(ListReply(zones, with_scaler)));
    doubles::ClearLogs();
    void *list = nullptr;
    ASSERT_EQ(fn(&list), 0);
    std::vector<std::string> logs = {">>", std::string("Method call '") + method + "'"};
    kova_zone *zone = nullptr;
    for (const auto &[id, scaler, app] : zones) {
      const std::string s = with_scaler ? std::to_string(scaler) + ":" : "";
      logs.push_back(Cmd(method) + "zone " + std::to_string(id) + "(" + s + app + ") is added");
      ASSERT_EQ(kova_get_next_zone(list, &zone), 0);
      EXPECT_EQ(Read(zone), Z(id, with_scaler ? scaler : 0, app));
    }
    logs.push_back(Success(method, zones.size()));
    logs.insert(logs.end(), zones.size(), ">>");  // one per step of the walk
    EXPECT_THAT(doubles::Messages(), ElementsAreArray(logs));
    EXPECT_EQ(kova_free_zone_list(list), 0);

    // No zones, an error and a list of the other query's type give no list.
    const Answer answers[] = {Answer::Value(ListReply({}, with_scaler)), failed_,
                              Answer::Value(ListReply({{1, 2, "x"}}, !with_scaler))};
    for (const Answer &answer : answers) {
      service().Set(method, answer);
      doubles::ClearLogs();
      list = reinterpret_cast<void *>(0x1);
      EXPECT_EQ(fn(&list), -1);
      EXPECT_EQ(list, reinterpret_cast<void *>(0x1));
      EXPECT_EQ(doubles::HasLog(Cmd(method) + "There is no zones", doubles::kInfo), &answer == answers);
      EXPECT_EQ(FailureLogged(method, what), &answer != answers);
    }
  }
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
}

TEST_F(ZonesTest, NullArgumentsAreRefusedWithoutACall) {
  kova_zone *zone = nullptr;
  EXPECT_EQ(kova_get_zone_list(nullptr), -2);
  EXPECT_EQ(kova_get_next_zone(nullptr, &zone), -2);
  EXPECT_EQ(kova_zone_get_id(nullptr), -1);
  EXPECT_EQ(kova_resource_zone_get_id(nullptr), -2);  // without a line
  EXPECT_EQ(kova_set_app_zone_info("\xff\xfe", 1), -1);  // not UTF-8
  EXPECT_THAT(doubles::Messages(), ElementsAre("invalid param", "invalid param", "invalid zone", "invalid param"));
  Sync();
  EXPECT_EQ(service().CallCount(), 0u);
}

TEST_F(ZonesTest, AssignmentAndLayoutCallsMapTheServicesInteger) {
  const std::tuple<int (*)(const char *, int), const char *, const char *> calls[] = {  // args after the command id
      {kova_set_app_zone_info, "SetAppToZone", ", 'org.app', -7)"},
      {kova_remove_app_zone_info, "RemoveAppFromZone", ", 'org.app', -7)"},
      {kova_set_pre_assigned_app_zone_info, "SetPreAssignedAppToZone", ", 'org.app', -7)"},
      {[](const char *, int state) { return kova_notify_layout_state(static_cast<kova_layout_state_e>(state)); },
       "NotifyLayoutState", ", -7)"},
  };
  for (const auto &[fn, method, args] : calls) {
    for (const auto &[answer, result] : {std::pair{Answer::Int(0), 0}, {Answer::Int(5), -1}, {failed_, -1}}) {
      service().Set(method, answer);
      EXPECT_EQ(fn("org.app", -7), result) << method;  // zone ids and layout states go out unchecked
      EXPECT_THAT(LastCall(method).args.text(), EndsWith(args));
    }
  }
  // The success line comes whatever the integer, also when it gives -1.
  doubles::ClearLogs();
  service().SetInt("SetAppToZone", 5);
  EXPECT_EQ(kova_set_app_zone_info("org.app", 2), -1);
  EXPECT_THAT(doubles::Messages(),
              ElementsAre(">> (org.app:2)", "Method call 'SetAppToZone'", Success("SetAppToZone", 5)));
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

TEST_F(ZonesTest, FocusedZoneIsANewRecordOfTheCaller) {
  service().Set("GetFocusedZone", Answer::Value(g_variant_new("(iis)", 3, 30, "org.focus")));
  kova_zone *zone = nullptr, *again = nullptr;
  ASSERT_EQ(kova_get_focused_zone(&zone), 0);
  EXPECT_THAT(doubles::Messages(),
              ElementsAre("Method call 'GetFocusedZone'", Cmd("GetFocusedZone") + "focused zone (3:30:org.focus)"));
  ASSERT_EQ(kova_get_audio_focus_zone(&again), 0);  // a second query gives a second record
  EXPECT_NE(again->app_id, zone->app_id);
  EXPECT_EQ(Read(again), Z(3, 30, "org.focus"));
  kova_zone_free(zone);
  kova_resource_zone_free(again);

  service().Set("GetFocusedZone", failed_);
  zone = reinterpret_cast<kova_zone *>(0x1);
  EXPECT_EQ(kova_get_audio_focus_zone(&zone), -1);
  EXPECT_EQ(zone, reinterpret_cast<kova_zone *>(0x1));
  EXPECT_TRUE(FailureLogged("GetFocusedZone", "GET_FOCUSED_ZONE"));
}

}  // namespace
}  // namespace kova_test

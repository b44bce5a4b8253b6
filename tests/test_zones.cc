// Zone lists and their walk, zone accessors, resource-zone names, application
// to zone assignment, layout state and the focused zone.
#include <gmock/gmock.h>

#include <functional>
#include <vector>

#include "kova_api.h"
#include "kova_test.h"

namespace kova_test {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

struct Z {
  int id;
  int scaler;
  std::string app;
  bool operator==(const Z &) const = default;
};

void PrintTo(const Z &z, std::ostream *os) { *os << z.id << "(" << z.scaler << ":" << z.app << ")"; }

Z Read(kova_zone *z) { return {z->id, z->scaler_id, z->app_id ? z->app_id : "<null>"}; }

// A reply of either list query: "(a(iis))" or, without scalers, "(a(is))".
GVariant *ListReply(const std::vector<Z> &zones, bool with_scaler) {
  GVariantBuilder b;
  g_variant_builder_init(&b, G_VARIANT_TYPE(with_scaler ? "a(iis)" : "a(is)"));
  for (const Z &z : zones) {
    if (with_scaler) {
      g_variant_builder_add(&b, "(iis)", z.id, z.scaler, z.app.c_str());
    } else {
      g_variant_builder_add(&b, "(is)", z.id, z.app.c_str());
    }
  }
  return g_variant_new(with_scaler ? "(a(iis))" : "(a(is))", &b);
}

struct ListQuery {
  const char *name;
  int (*fn)(void **);
  const char *method;
  bool with_scaler;
  const char *what;
};

const ListQuery kQueries[] = {
    {"zone_list", kova_get_zone_list, "GetMultiviewZoneIds", true, "GET_ZONE_LIST"},
    {"resource_zone_list", kova_get_resource_zone_list, "GetMultiviewZoneIds", true, "GET_ZONE_LIST"},
    {"multiview_zone_list", kova_get_multiview_zone_list, "GetMultiviewZoneList", false, "GET_MULTIVIEW_ZONE_LIST"},
};

class ZonesTest : public KovaTest {
 protected:
  // A zone list of the given zones, through kova_get_zone_list.
  void *MakeList(const std::vector<Z> &zones) {
    service().Set("GetMultiviewZoneIds", Answer::Value(ListReply(zones, true)));
    void *list = nullptr;
    EXPECT_EQ(kova_get_zone_list(&list), 0);
    doubles::ClearLogs();
    return list;
  }
};

TEST_F(ZonesTest, ListQueriesKeepTheReplyOrderOrGiveNoList) {
  void *const untouched = reinterpret_cast<void *>(0x1);
  const std::vector<std::vector<Z>> replies = {
      {},
      {{3, 30, "app.c"}, {1, 10, ""}, {7, 70, "app.a"}, {-2, -20, "app.neg"}},
  };
  for (const ListQuery &q : kQueries) {
    for (const std::vector<Z> &zones : replies) {
      SCOPED_TRACE(std::string(q.name) + " with " + std::to_string(zones.size()) + " zones");
      service().Set(q.method, Answer::Value(ListReply(zones, q.with_scaler)));
      doubles::ClearLogs();
      void *list = untouched;
      const int result = q.fn(&list);

      Call call = LastCall(q.method);
      EXPECT_EQ(call.signature, "(i)");
      EXPECT_FALSE(call.no_reply_expected);
      const std::string cmd = "[" + Hex(call.args.i32(0)) + "] ";
      std::vector<std::string> expected_logs = {">>", std::string("Method call '") + q.method + "'"};
      for (const Z &z : zones) {
        expected_logs.push_back(q.with_scaler ? cmd + "zone " + std::to_string(z.id) + "(" + std::to_string(z.scaler) +
                                                    ":" + z.app + ") is added"
                                              : cmd + "zone " + std::to_string(z.id) + "(" + z.app + ") is added");
      }
      if (zones.empty()) {
        EXPECT_EQ(result, -1);
        EXPECT_EQ(list, untouched);
        expected_logs.push_back(cmd + "There is no zones");
        EXPECT_THAT(doubles::Messages(), ElementsAreArray(expected_logs));
        continue;
      }
      ASSERT_EQ(result, 0);
      expected_logs.push_back(cmd + "_kova_dbus_method_call() success, method return value is (" +
                              std::to_string(zones.size()) + ")");
      EXPECT_THAT(doubles::Messages(), ElementsAreArray(expected_logs));
      EXPECT_EQ(doubles::CountLog(cmd + "There is no zones"), 0);

      std::vector<Z> walked;
      kova_zone *zone = nullptr;
      while (kova_get_next_zone(list, &zone) == 0) walked.push_back(Read(zone));
      std::vector<Z> want = zones;
      if (!q.with_scaler) {
        for (Z &z : want) z.scaler = 0;
      }
      EXPECT_EQ(walked, want);
      EXPECT_EQ(kova_free_zone_list(list), 0);
    }
    // An error reply, then replies of the other query's type and of no list at all.
    for (const Answer &answer : {Answer::Error("org.zelta.Error.Failed", "no"),
                                 Answer::Value(ListReply({{1, 2, "x"}}, !q.with_scaler)),
                                 Answer::Value(g_variant_new("(i)", 3))}) {
      service().Set(q.method, answer);
      doubles::ClearLogs();
      void *list = untouched;
      EXPECT_EQ(q.fn(&list), -1) << q.name;
      EXPECT_EQ(list, untouched);
      const std::string cmd = "[" + Hex(LastCall(q.method).args.i32(0)) + "] ";
      EXPECT_EQ(doubles::CountLog(cmd + "_kova_dbus_method_call() for " + q.what + " is failed", doubles::kError), 1)
          << q.name;
      if (answer.kind == Answer::Kind::kValue) {
        EXPECT_EQ(doubles::CountLogPrefix(cmd + "(" + q.method + ") unexpected reply type", doubles::kError), 1);
      }
    }
  }
}

TEST_F(ZonesTest, WalksShareOnePositionThatStopsAtBothEnds) {
  void *list = MakeList({{1, 10, "a"}, {2, 20, "b"}, {3, 30, "c"}});
  kova_zone *zone = nullptr;
  EXPECT_EQ(kova_get_prev_zone(list, &zone), -1);  // walk not started
  EXPECT_EQ(zone, nullptr);
  EXPECT_THAT(doubles::Messages(), ElementsAre(">>", "no prev zone"));
  EXPECT_EQ(doubles::Logs()[1].priority, doubles::kInfo);
  // Both walks move the same position.
  EXPECT_EQ(kova_resource_zone_list_get_next(list)->id, 1);
  ASSERT_EQ(kova_get_next_zone(list, &zone), 0);
  EXPECT_EQ(zone->id, 2);
  kova_zone *const third = kova_resource_zone_list_get_next(list);
  ASSERT_NE(third, nullptr);
  EXPECT_EQ(third->id, 3);
  doubles::ClearLogs();
  EXPECT_EQ(kova_get_next_zone(list, &zone), -1);
  EXPECT_EQ(zone->id, 2);
  EXPECT_EQ(doubles::CountLog("no next zone", doubles::kInfo), 1);
  doubles::ClearLogs();
  EXPECT_EQ(kova_resource_zone_list_get_next(list), nullptr);
  EXPECT_THAT(doubles::Messages(), ElementsAre("no next zone"));
  EXPECT_EQ(doubles::Logs()[0].priority, doubles::kError);
  // The walk stayed on the last zone.
  ASSERT_EQ(kova_get_prev_zone(list, &zone), 0);
  EXPECT_EQ(zone->id, 2);
  ASSERT_EQ(kova_get_prev_zone(list, &zone), 0);
  EXPECT_EQ(zone->id, 1);
  EXPECT_EQ(kova_get_prev_zone(list, &zone), -1);
  EXPECT_EQ(zone->id, 1);
  ASSERT_EQ(kova_get_next_zone(list, &zone), 0);
  EXPECT_EQ(zone->id, 2);
  EXPECT_EQ(kova_resource_zone_list_get_next(list), third);
  int id = 0;
  EXPECT_EQ(kova_get_zone_id(zone, &id), 0);
  EXPECT_EQ(id, 2);

  doubles::ClearLogs();
  EXPECT_EQ(kova_zone_get_id(third), 3);
  EXPECT_EQ(kova_resource_zone_get_id(third), 3);
  EXPECT_EQ(kova_zone_get_scaler_id(third), 30);
  EXPECT_EQ(kova_resource_zone_get_scaler_id(third), 30);
  EXPECT_EQ(kova_resource_zone_get_app_id(third), third->app_id);  // borrowed, not copied
  EXPECT_STREQ(kova_zone_get_app_id(third), "c");
  kova_zone no_app = {6, 60, nullptr};
  EXPECT_EQ(kova_zone_get_app_id(&no_app), nullptr);
  EXPECT_THAT(doubles::Messages(), ElementsAre("(c)", "(c)", "(empty)"));
  EXPECT_EQ(kova_free_resource_zone_list(list), 0);
}

TEST_F(ZonesTest, NullArguments) {
  void *list = MakeList({{1, 10, "a"}});
  kova_zone *zone = kova_resource_zone_list_get_next(list);
  int id = 0;
  struct Case {
    std::function<long()> call;
    long result;
    const char *log;  // nullptr: no log line at all
  };
  const Case cases[] = {
      {[] { return kova_get_zone_list(nullptr); }, -2, "invalid param"},
      {[] { return kova_get_resource_zone_list(nullptr); }, -2, "invalid param"},
      {[] { return kova_get_multiview_zone_list(nullptr); }, -2, "invalid param"},
      {[&] { return kova_get_next_zone(nullptr, &zone); }, -2, "invalid param"},
      {[&] { return kova_get_next_zone(list, nullptr); }, -2, "invalid param"},
      {[&] { return kova_get_prev_zone(nullptr, &zone); }, -1, "invalid param"},
      {[&] { return kova_get_prev_zone(list, nullptr); }, -1, "invalid param"},
      {[&] { return kova_get_zone_id(nullptr, &id); }, -1, "invalid param"},
      {[&] { return kova_get_zone_id(zone, nullptr); }, -1, "invalid param"},
      {[] { return kova_free_zone_list(nullptr); }, -2, "invalid param"},
      {[] { return kova_free_resource_zone_list(nullptr); }, -2, "invalid param"},
      {[] { return kova_zone_get_id(nullptr); }, -1, "invalid zone"},
      {[] { return kova_zone_get_scaler_id(nullptr); }, -1, "invalid zone"},
      {[] { return kova_zone_get_app_id(nullptr) == nullptr ? 0L : 1L; }, 0, "invalid zone"},
      {[] { return (kova_zone_free(nullptr), 0L); }, 0, "invalid zone"},
      {[] { return (kova_resource_zone_free(nullptr), 0L); }, 0, "invalid zone"},
      {[] { return kova_resource_zone_get_id(nullptr); }, -2, nullptr},
      {[] { return kova_resource_zone_get_scaler_id(nullptr); }, -2, nullptr},
      {[] { return kova_resource_zone_get_app_id(nullptr) == nullptr ? 0L : 1L; }, 0, "invalid param"},
      {[] { return kova_resource_zone_list_get_next(nullptr) == nullptr ? 0L : 1L; }, 0, "invalid param"},
      {[] { return kova_get_focused_zone(nullptr); }, -1, "invalid zone"},
      {[] { return kova_set_app_zone_info(nullptr, 1); }, -1, "invalid param"},
      {[] { return kova_remove_app_zone_info(nullptr, 1); }, -1, "invalid param"},
      {[] { return kova_set_pre_assigned_app_zone_info(nullptr, 1); }, -1, "invalid param"},
      {[] { return kova_set_removable_app_zone_info(nullptr, 1); }, -1, "invalid param"},
      {[] { return kova_set_app_zone_info("\xff\xfe", 1); }, -1, "invalid param"},
      {[] { return kova_set_removable_app_zone_info("\xc3", 1); }, -1, "invalid param"},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(&c - cases);
    doubles::ClearLogs();
    EXPECT_EQ(c.call(), c.result);
    if (c.log == nullptr) {
      EXPECT_THAT(doubles::Messages(), IsEmpty());
    } else {
      EXPECT_THAT(doubles::Messages(), ElementsAre(c.log));
      EXPECT_EQ(doubles::CountLog(c.log, doubles::kError), 1);
    }
  }
  Sync();
  EXPECT_EQ(service().CallCount(), 1u);  // the list query of MakeList only
  kova_free_zone_list(list);
}

// ---- Assignment and layout ----

struct SyncCall {
  const char *name;
  int (*fn)(const char *, int);
  const char *method;
  const char *what;
  std::string (*entry)(int zone_id);  // the entry line, "" for none
};

TEST_F(ZonesTest, SynchronousAssignmentCalls) {
  const SyncCall calls[] = {
      {"set", kova_set_app_zone_info, "SetAppToZone", "SET_APP_ZONE_INFO",
       [](int z) { return ">> (org.app:" + std::to_string(z) + ")"; }},  // the application id before the zone
      {"remove", kova_remove_app_zone_info, "RemoveAppFromZone", "RemoveAppFromZone",
       [](int) { return std::string(); }},
      {"pre_assigned", kova_set_pre_assigned_app_zone_info, "SetPreAssignedAppToZone",
       "SET_PRE_ASSIGNED_APP_ZONE_INFO", [](int) { return std::string(">>"); }},
  };
  struct Reply {
    Answer answer;
    int result;
  };
  const Reply replies[] = {{Answer::Int(0), 0}, {Answer::Int(5), -1}, {Answer::Int(-1), -1}};
  for (const SyncCall &c : calls) {
    for (const Reply &r : replies) {
      for (int zone_id : {2, -7}) {  // zone ids go out unchecked
        service().Set(c.method, r.answer);
        doubles::ClearLogs();
        EXPECT_EQ(c.fn("org.app", zone_id), r.result) << c.name;
        Call call = LastCall(c.method);
        EXPECT_EQ(call.signature, "(isi)");
        EXPECT_EQ(call.args.str(1), "org.app");
        EXPECT_EQ(call.args.i32(2), zone_id);
        EXPECT_FALSE(call.no_reply_expected);
        const std::string cmd = "[" + Hex(call.args.i32(0)) + "] ";
        std::vector<std::string> want;
        if (!c.entry(zone_id).empty()) want.push_back(c.entry(zone_id));
        want.push_back(std::string("Method call '") + c.method + "'");
        // The success line comes whatever the integer, also when it gives -1.
        want.push_back(cmd + "_kova_dbus_method_call() success, method return value is (" +
                       std::to_string(r.answer.value.i32(0)) + ")");
        EXPECT_THAT(doubles::Messages(), ElementsAreArray(want)) << c.name;
      }
    }
    service().Set(c.method, Answer::Error("org.zelta.Error.Failed", "no"));
    EXPECT_EQ(c.fn("org.app", 1), -1);
    EXPECT_TRUE(doubles::HasLog("[" + Hex(LastCall(c.method).args.i32(0)) + "] _kova_dbus_method_call() for " +
                                    c.what + " is failed",
                                doubles::kError))
        << c.name;
  }
}

TEST_F(ZonesTest, LayoutStateIsForwardedUnchanged) {
  for (int state : {int{KOVA_LAYOUT_STATE_NONE}, int{KOVA_LAYOUT_STATE_MULTIVIEW}, 42, -3}) {
    service().SetInt("NotifyLayoutState", state == 42 ? 9 : 0);
    doubles::ClearLogs();
    EXPECT_EQ(kova_notify_layout_state(static_cast<kova_layout_state_e>(state)), state == 42 ? -1 : 0);
    Call call = LastCall("NotifyLayoutState");
    EXPECT_EQ(call.signature, "(ii)");
    EXPECT_EQ(call.args.i32(1), state);
    EXPECT_EQ(doubles::Messages().front(), "Method call 'NotifyLayoutState'");  // no entry line
  }
  service().Set("NotifyLayoutState", Answer::Value(g_variant_new("(s)", "0")));
  EXPECT_EQ(kova_notify_layout_state(KOVA_LAYOUT_STATE_SINGLE), -1);
  EXPECT_TRUE(doubles::HasLog(
      "[" + Hex(LastCall("NotifyLayoutState").args.i32(0)) + "] _kova_dbus_method_call() for NOTIFY_LAYOUT_STATE is failed",
      doubles::kError));
}

TEST_F(ZonesTest, RemovableMarksAreFireAndForget) {
  // Whatever the service answers is never seen.
  service().Set("SetRemovableAppToZone", Answer::Error("org.zelta.Error.Failed", "no"));
  EXPECT_EQ(kova_set_removable_app_zone_info("org.app", -4), 0);
  EXPECT_EQ(kova_clear_removable_app_zone_info(), 0);
  Sync();
  Call set = LastCall("SetRemovableAppToZone");
  EXPECT_EQ(set.signature, "(isi)");
  EXPECT_EQ(set.args.str(1), "org.app");
  EXPECT_EQ(set.args.i32(2), -4);
  EXPECT_TRUE(set.no_reply_expected);
  Call clear = LastCall("ClearRemovableAppToZone");
  EXPECT_EQ(clear.signature, "(i)");
  EXPECT_TRUE(clear.no_reply_expected);
  // The zone before the application id.
  EXPECT_THAT(doubles::Messages(),
              ElementsAre("(-4:org.app)", "Method call 'SetRemovableAppToZone'",
                          "[" + Hex(set.args.i32(0)) + "] _kova_dbus_method_call() success", ">>",
                          "Method call 'ClearRemovableAppToZone'",
                          "[" + Hex(clear.args.i32(0)) + "] _kova_dbus_method_call() success"));
  EXPECT_THAT(doubles::Timeline(), ElementsAre("call SetRemovableAppToZone", "call ClearRemovableAppToZone"));
  StopService();
  EXPECT_EQ(kova_set_removable_app_zone_info("org.app", 1), 0);
  EXPECT_EQ(kova_clear_removable_app_zone_info(), 0);
}

TEST_F(ZonesTest, FocusedZoneIsANewRecordOfTheCaller) {
  service().Set("GetFocusedZone", Answer::Value(g_variant_new("(iis)", 3, 30, "org.focus")));
  kova_zone *zone = nullptr;
  ASSERT_EQ(kova_get_focused_zone(&zone), 0);
  ASSERT_NE(zone, nullptr);
  EXPECT_EQ(Read(zone), (Z{3, 30, "org.focus"}));
  Call call = LastCall("GetFocusedZone");
  EXPECT_EQ(call.signature, "(i)");
  EXPECT_THAT(doubles::Messages(), ElementsAre("Method call 'GetFocusedZone'",
                                               "[" + Hex(call.args.i32(0)) + "] focused zone (3:30:org.focus)"));
  // A second query, also through the audio focus zone, gives a second record.
  kova_zone *again = nullptr;
  ASSERT_EQ(kova_get_audio_focus_zone(&again), 0);
  EXPECT_NE(again, zone);
  EXPECT_NE(again->app_id, zone->app_id);
  EXPECT_EQ(Read(again), (Z{3, 30, "org.focus"}));
  kova_zone_free(zone);
  kova_resource_zone_free(again);

  // A failure is -1 from both, whatever the query answered.
  kova_zone *const untouched = reinterpret_cast<kova_zone *>(0x1);
  for (const Answer &a : {Answer::Error("org.zelta.Error.Failed", "no"), Answer::Value(g_variant_new("(ii)", 3, 30))}) {
    service().Set("GetFocusedZone", a);
    for (auto fn : {kova_get_focused_zone, kova_get_audio_focus_zone}) {
      doubles::ClearLogs();
      zone = untouched;
      EXPECT_EQ(fn(&zone), -1);
      EXPECT_EQ(zone, untouched);
      EXPECT_TRUE(doubles::HasLog("[" + Hex(LastCall("GetFocusedZone").args.i32(0)) +
                                      "] _kova_dbus_method_call() for GET_FOCUSED_ZONE is failed",
                                  doubles::kError));
    }
  }
}

}  // namespace
}  // namespace kova_test

// Resource policy on the wire: policy info records, the policy sends, list
// registration and policy-change notification.
#include <gmock/gmock.h>
#include <unistd.h>

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

const int kPid = static_cast<int>(getpid());

// Lines whose message is message, written from function func at priority.
int CountFrom(const std::string &func, const std::string &message, int priority) {
  int n = 0;
  for (const doubles::LogLine &line : doubles::Logs()) {
    if (line.message == message && line.priority == priority &&
        line.text.find(": " + func + "(") != std::string::npos) {
      ++n;
    }
  }
  return n;
}

class PolicyTest : public KovaTest {};

// Record-only checks need no service.
class PolicyRecordTest : public ::testing::Test {
 protected:
  void SetUp() override { doubles::Reset(); }
};

// ---- Policy info records ----

TEST_F(PolicyRecordTest, PolicyInfoRecord) {
  kova_policy_info *info = kova_policy_info_create_new("owner");
  ASSERT_NE(info, nullptr);
  EXPECT_STREQ(info->owner_name, "owner");
  EXPECT_EQ(kova_policy_info_get_policy(info), 0);
  EXPECT_EQ(kova_policy_info_get_app_list(info), nullptr);
  EXPECT_FALSE(info->remove_all_current_apps);
  EXPECT_EQ(kova_policy_info_set_option_remove_all_current_apps(info, true), 0);
  EXPECT_TRUE(info->remove_all_current_apps);

  kova_app_list_h first = kova_app_list_create_new();
  kova_app_list_h second = kova_app_list_create_new();
  EXPECT_EQ(kova_policy_info_set_app_list(info, first), 0);
  EXPECT_THAT(doubles::Logs(), IsEmpty());
  EXPECT_EQ(kova_policy_info_set_app_list(info, second), -1);
  EXPECT_EQ(kova_policy_info_get_app_list(info), first);
  EXPECT_THAT(doubles::Messages(), ElementsAre("app list is already set"));
  kova_policy_info_free(info);  // frees first only; second is still ours
  kova_app_list_free(second);

  kova_policy_info *empty = kova_policy_info_create_new("");
  ASSERT_NE(empty, nullptr);
  EXPECT_STREQ(empty->owner_name, "");
  kova_policy_info_free(empty);
}

TEST_F(PolicyRecordTest, PolicyInfoRefusals) {
  kova_policy_info *info = kova_policy_info_create_new("o");
  kova_app_list_h list = kova_app_list_create_new();
  struct Refusal {
    const char *what;
    bool refused;
    const char *message;
  };
  const Refusal refusals[] = {
      {"create, null owner", kova_policy_info_create_new(nullptr) == nullptr, "invalid owner name"},
      {"create, non-UTF-8 owner", kova_policy_info_create_new("\xc0\x80") == nullptr, "invalid owner name"},
      {"set list, both null", kova_policy_info_set_app_list(nullptr, nullptr) == -1, "invalid policy info"},
      {"set list, null record", kova_policy_info_set_app_list(nullptr, list) == -1, "invalid policy info"},
      {"set list, null list", kova_policy_info_set_app_list(info, nullptr) == -1, "invalid app list"},
      {"option", kova_policy_info_set_option_remove_all_current_apps(nullptr, true) == -1, "invalid policy info"},
      {"get list", kova_policy_info_get_app_list(nullptr) == nullptr, "invalid policy info"},
      {"get policy", kova_policy_info_get_policy(nullptr) == -1, "invalid policy info"},
  };
  kova_policy_info_free(nullptr);
  std::vector<std::string> expected;
  for (const Refusal &r : refusals) {
    EXPECT_TRUE(r.refused) << r.what;
    expected.push_back(r.message);
  }
  expected.push_back("invalid policy info");
  EXPECT_EQ(doubles::Messages(), expected);
  EXPECT_EQ(doubles::CountLogPrefix("", doubles::kError), static_cast<int>(expected.size()));
  EXPECT_EQ(kova_policy_info_get_app_list(info), nullptr);
  kova_policy_info_free(info);
  kova_app_list_free(list);
}

// ---- Setting the policy ----

TEST_F(PolicyTest, RecordGoesWithOwnerUntilItsListHoldsAnApplication) {
  service().SetInt("SetResourcePolicyWithOwner", 0);
  service().SetInt("SetResourcePolicyWithAppList", 0);
  kova_policy_info *info = kova_policy_info_create_new("O");

  EXPECT_EQ(kova_set_resource_policy(3, info), 0);
  Call call = LastCall("SetResourcePolicyWithOwner");
  EXPECT_EQ(call.signature, "(iiisi)");
  EXPECT_EQ(call.args.text(),
            "(" + std::to_string(call.args.i32(0)) + ", 3, " + std::to_string(kPid) + ", 'O', 0)");
  EXPECT_FALSE(call.no_reply_expected);

  // An empty list and the option change nothing in the choice.
  kova_app_list_h list = kova_app_list_create_new();
  ASSERT_EQ(kova_policy_info_set_app_list(info, list), 0);
  ASSERT_EQ(kova_policy_info_set_option_remove_all_current_apps(info, true), 0);
  EXPECT_EQ(kova_set_resource_policy(-7, info), 0);
  call = LastCall("SetResourcePolicyWithOwner");
  EXPECT_EQ(call.args.i32(1), -7);
  EXPECT_EQ(call.args.i32(4), 1);

  // One application is enough for the list method.
  kova_app *a = kova_app_list_create_new_app("A");
  kova_app_set_priority_video(a, 1);
  kova_app_set_priority_audio(a, 2);
  kova_app_list_insert_app(list, a);
  EXPECT_EQ(kova_set_resource_policy(3, info), 0);
  ASSERT_EQ(service().CallsTo("SetResourcePolicyWithAppList").size(), 1u);
  EXPECT_EQ(LastCall("SetResourcePolicyWithAppList").args.child(6).text(), "[('A', 1, 2)]");

  // A(1, 2) and B(0, 5).
  kova_app_list_add(list, 6, "B");
  kova_app_set_priority_audio(static_cast<kova_app *>(list->list->next->data), 5);
  EXPECT_EQ(kova_set_resource_policy(3, info), 0);
  call = LastCall("SetResourcePolicyWithAppList");
  EXPECT_EQ(call.signature, "(iiisiia(sii))");
  EXPECT_EQ(call.args.text(), "(" + std::to_string(call.args.i32(0)) + ", 3, " + std::to_string(kPid) +
                                  ", 'O', 1, 2, [('A', 1, 2), ('B', 0, 5)])");
  EXPECT_EQ(kova_policy_info_get_policy(info), 0);
  EXPECT_EQ(service().CallsTo("SetResourcePolicyWithOwner").size(), 2u);
  kova_policy_info_free(info);
}

TEST_F(PolicyTest, InternalPolicyTravelsUnsigned) {
  service().SetInt("SetResourcePolicyInternal", 0);
  EXPECT_EQ(kova_set_resource_policy_internal(-1), 0);
  Call call = LastCall("SetResourcePolicyInternal");
  EXPECT_EQ(call.signature, "(iui)");
  EXPECT_EQ(call.args.u32(1), 4294967295u);
  EXPECT_EQ(call.args.i32(2), kPid);
  const std::string cmd = Hex(call.args.i32(0));
  EXPECT_THAT(doubles::Messages(),
              ElementsAre(">>", "Method call 'SetResourcePolicyInternal'",
                          "[" + cmd + "] _kova_dbus_method_call() success, method return value is (0)"));
  EXPECT_EQ(CountFrom("kova_set_resource_policy_internal", ">>", doubles::kInfo), 1);
}

// The list-carrying sends: zone before application id in "a(is)", application
// id first in "a(sii)"; an empty list goes out as an empty array.
TEST_F(PolicyTest, ListSendsCarryTheirArrays) {
  struct ListSend {
    const char *method;
    int (*send)(kova_app_list_h);
    const char *signature;
    const char *full;  // after "(<cmd>, "; %p stands for the pid
    const char *empty;
  };
  const ListSend sends[] = {
      {"SetResourcePolicyAppToZone",
       [](kova_app_list_h l) { return kova_set_resource_policy_app_zone_info(4, l); }, "(iiiia(is))",
       "4, %p, 3, [(1, 'A'), (2, 'B'), (0, 'C')])", "4, %p, 0, [])"},
      {"SetPreAssignedAppList", kova_set_pre_assigned_app_list, "(ia(is))", "[(1, 'A'), (2, 'B'), (0, 'C')])",
       "[])"},
      {"RegisterAppList", [](kova_app_list_h l) { return kova_register_app_list(7, l); }, "(iiia(sii))",
       "7, 3, [('A', 1, 2), ('B', 3, 4), ('C', 0, 0)])", "7, 0, [])"},
      {"UnregisterAppList", [](kova_app_list_h l) { return kova_unregister_app_list(-2, l); }, "(iiia(s))",
       "-2, 3, [('A',), ('B',), ('C',)])", "-2, 0, [])"},
  };
  // A and B placed by kova_app_list_add, C made alone (zone 0).
  kova_app_list_h full = kova_app_list_create_new();
  kova_app_list_add(full, 1, "A");
  kova_app_list_add(full, 2, "B");
  kova_app_list_insert_app(full, kova_app_list_create_new_app("C"));
  int priority = 1;
  for (kova_app *app = kova_app_list_get_first(full); app != nullptr && app->zone_id != 0;
       app = kova_app_list_get_next(full)) {
    kova_app_set_priority_video(app, priority++);
    kova_app_set_priority_audio(app, priority++);
  }
  kova_app_list_h empty = kova_app_list_create_new();
  const auto expected = [](const Call &call, std::string tail) {
    const size_t at = tail.find("%p");
    if (at != std::string::npos) tail.replace(at, 2, std::to_string(kPid));
    return "(" + std::to_string(call.args.i32(0)) + ", " + tail;
  };
  for (const ListSend &s : sends) {
    service().SetInt(s.method, 0);
    doubles::ClearLogs();
    EXPECT_EQ(s.send(full), 0) << s.method;
    ASSERT_EQ(service().CallsTo(s.method).size(), 1u) << s.method;
    Call call = LastCall(s.method);
    EXPECT_EQ(call.signature, s.signature);
    EXPECT_FALSE(call.no_reply_expected);
    EXPECT_EQ(call.args.text(), expected(call, s.full)) << s.method;
    EXPECT_EQ(CountFrom("kova_app_list_get_next", "no next app", doubles::kError), 1) << s.method;
    EXPECT_EQ(full->iter->next, nullptr) << s.method;  // the walk ends on the last application

    doubles::ClearLogs();
    EXPECT_EQ(s.send(empty), 0) << s.method;
    call = LastCall(s.method);
    EXPECT_EQ(call.args.text(), expected(call, s.empty)) << s.method;
    EXPECT_EQ(CountFrom("kova_app_list_get_first", "invalid list", doubles::kError), 1) << s.method;
    EXPECT_EQ(doubles::CountLog("no next app"), 0) << s.method;
  }
  kova_app_list_free(full);
  kova_app_list_free(empty);
}

// Every send maps the service's answer the same way: 0 stays 0, any other
// result is logged and becomes -1, a failed or malformed call gives -1 with the
// failure line of the operation that sent it.
struct Send {
  const char *method;
  const char *func;  // function that writes the result lines
  bool walks;        // sends a list, so the walk ends with "no next app"
  std::function<int(kova_app_list_h, kova_policy_info *)> send;
  std::string Success(int result) const {
    return func == std::string("_kova_set_resource_policy")
               ? "_kova_dbus_method_call() success, method return value is (" + std::to_string(result) + ")"
               : std::string(method) + " success, result (" + std::to_string(result) + ")";
  }
  std::string Failure() const {
    return func == std::string("_kova_set_resource_policy")
               ? "_kova_dbus_method_call() for SET_RESOURCE_POLICY is failed"
               : std::string(method) + " failed";
  }
};

const std::vector<Send> &Sends() {
  static const std::vector<Send> sends = {
      {"SetResourcePolicyWithOwner", "_kova_set_resource_policy_without_applist", false,
       [](kova_app_list_h, kova_policy_info *info) { return kova_set_resource_policy(1, info); }},
      {"SetResourcePolicyWithAppList", "_kova_set_resource_policy_with_applist", true,
       [](kova_app_list_h list, kova_policy_info *info) {
         kova_policy_info_set_app_list(info, list);
         const int r = kova_set_resource_policy(1, info);
         info->app_list = nullptr;  // the list stays the test's
         return r;
       }},
      {"SetResourcePolicyInternal", "_kova_set_resource_policy", false,
       [](kova_app_list_h, kova_policy_info *) { return kova_set_resource_policy_internal(1); }},
      {"SetResourcePolicyAppToZone", "_kova_set_resource_policy_app_zone_info", true,
       [](kova_app_list_h list, kova_policy_info *) { return kova_set_resource_policy_app_zone_info(1, list); }},
      {"SetPreAssignedAppList", "_kova_set_pre_assigned_app_list", true,
       [](kova_app_list_h list, kova_policy_info *) { return kova_set_pre_assigned_app_list(list); }},
      {"RegisterAppList", "kova_register_app_list", true,
       [](kova_app_list_h list, kova_policy_info *) { return kova_register_app_list(1, list); }},
      {"UnregisterAppList", "kova_unregister_app_list", true,
       [](kova_app_list_h list, kova_policy_info *) { return kova_unregister_app_list(1, list); }},
  };
  return sends;
}

TEST_F(PolicyTest, EverySendCollapsesNonZeroResultsAndReportsFailures) {
  kova_app_list_h list = kova_app_list_create_new();
  kova_app_list_add(list, 1, "A");
  kova_policy_info *info = kova_policy_info_create_new("O");
  for (const Send &s : Sends()) {
    for (int result : {0, 5, -1}) {
      service().SetInt(s.method, result);
      doubles::ClearLogs();
      EXPECT_EQ(s.send(list, info), result == 0 ? 0 : -1) << s.method << " " << result;
      ASSERT_FALSE(service().CallsTo(s.method).empty()) << s.method;
      const std::string cmd = "[" + Hex(LastCall(s.method).args.i32(0)) + "] ";
      EXPECT_EQ(CountFrom(s.func, cmd + s.Success(result), doubles::kInfo), 1) << s.method;
      // The only error line is the walk's "no next app", where a list is sent.
      EXPECT_EQ(doubles::CountLogPrefix("", doubles::kError), s.walks ? 1 : 0) << s.method;
    }
    // An error reply, then a reply of the wrong type: each has its own extra line.
    const std::string error_line = std::string("Method Call '") + s.method + "' Failed";
    const std::string type_line = std::string("(") + s.method + ") unexpected reply type ((s))";
    for (const Answer &answer :
         {Answer::Error("org.zelta.Error.Failed", "no"), Answer::Value(g_variant_new("(s)", "0"))}) {
      service().Set(s.method, answer);
      doubles::ClearLogs();
      EXPECT_EQ(s.send(list, info), -1) << s.method;
      const std::string cmd = "[" + Hex(LastCall(s.method).args.i32(0)) + "] ";
      EXPECT_EQ(CountFrom(s.func, cmd + s.Failure(), doubles::kError), 1) << s.method;
      EXPECT_EQ(doubles::CountLogPrefix(error_line, doubles::kError) +
                    doubles::CountLog(cmd + type_line, doubles::kError),
                1)
          << s.method;
      EXPECT_EQ(doubles::CountLogPrefix(cmd, doubles::kInfo), 0) << s.method;  // no success line
    }
  }
  StopService();
  for (const Send &s : Sends()) EXPECT_EQ(s.send(list, info), -1) << s.method;
  kova_policy_info_free(info);
  kova_app_list_free(list);
}

TEST_F(PolicyTest, NullArgumentsSendNothing) {
  EXPECT_EQ(kova_set_resource_policy(1, nullptr), -1);
  EXPECT_EQ(kova_set_resource_policy_app_zone_info(1, nullptr), -1);
  EXPECT_EQ(kova_set_pre_assigned_app_list(nullptr), -1);
  EXPECT_EQ(kova_register_app_list(1, nullptr), -1);
  EXPECT_EQ(kova_unregister_app_list(1, nullptr), -1);
  EXPECT_THAT(doubles::Messages(), ElementsAre("invalid policy info", "invalid app_list", "invalid app_list",
                                               "invalid list", "invalid list"));
  EXPECT_EQ(doubles::CountLogPrefix("", doubles::kError), 5);
  Sync();
  EXPECT_EQ(service().CallCount(), 0u);
}

// ---- Policy-change notification ----

struct Change {
  int policy = 0;
  bool list_present = false;
  int count = -1;
  std::vector<std::string> apps;  // "zone:id:video:audio"
  bool owner_null = false;
  bool option = true;
  std::vector<doubles::LogLine> before;  // lines written before the call
  std::vector<std::string> walk_errors;
};

struct Seen {
  std::vector<Change> changes;
  std::function<void(kova_policy_info *)> also;
};

void OnPolicyChanged(kova_policy_info *info, void *user_data) {
  auto *seen = static_cast<Seen *>(user_data);
  Change c;
  c.policy = kova_policy_info_get_policy(info);
  kova_app_list_h list = kova_policy_info_get_app_list(info);
  c.list_present = list != nullptr;
  c.count = kova_app_list_get_count(list);
  c.before = doubles::Logs();
  doubles::ClearLogs();
  for (kova_app *app = kova_app_list_get_first(list); app; app = kova_app_list_get_next(list)) {
    c.apps.push_back(std::to_string(kova_app_get_zone_id(app)) + ":" + kova_app_get_app_id(app) + ":" +
                     std::to_string(app->priority_video) + ":" + std::to_string(app->priority_audio));
  }
  c.walk_errors = doubles::Messages();
  c.owner_null = info->owner_name == nullptr;
  c.option = info->remove_all_current_apps;
  seen->changes.push_back(c);
  if (seen->also) seen->also(info);
}

TEST_F(PolicyTest, PolicyChangeArrivesAsARecordWithItsApplications) {
  Seen seen;
  const unsigned int id = kova_register_resource_policy_changed_callback(OnPolicyChanged, &seen);
  ASSERT_NE(id, 0u);
  ASSERT_NE(id, UINT_MAX);
  EXPECT_EQ(CountFrom("_kova_register_resource_policy_changed_callback",
                      "(PolicyChanged) success :: (" + std::to_string(id) + ")", doubles::kInfo),
            1);
  EXPECT_EQ(doubles::CountLog("Dbus subscirbe signal PolicyChanged", doubles::kInfo), 1);

  doubles::ClearLogs();
  Emit("PolicyChanged", g_variant_new_parsed("(%i, 2, [(1, 'A'), (3, 'B')])", 0x4D2));
  ASSERT_TRUE(WaitUntil([&] { return seen.changes.size() == 1; }));
  const Change &c = seen.changes[0];
  EXPECT_EQ(c.policy, 2);
  EXPECT_TRUE(c.list_present);
  EXPECT_EQ(c.count, 2);
  EXPECT_THAT(c.apps, ElementsAre("1:A:0:0", "3:B:0:0"));
  EXPECT_THAT(c.walk_errors, ElementsAre("no next app"));
  EXPECT_TRUE(c.owner_null);
  EXPECT_FALSE(c.option);
  std::vector<std::string> before;
  for (const doubles::LogLine &line : c.before) {
    EXPECT_EQ(line.priority, doubles::kInfo);
    EXPECT_NE(line.text.find(": _dbus_policy_changed_signal_callback("), std::string::npos) << line.text;
    before.push_back(line.message);
  }
  EXPECT_THAT(before, ElementsAre("[000004D2] Signal(org.zelta.tv.system.resource.PolicyChanged) Received(2)",
                                  "zone(1)-app(A)", "zone(3)-app(B)"));

  doubles::ClearLogs();
  Emit("PolicyChanged", g_variant_new_parsed("(%i, -4, @a(is) [])", -1));
  ASSERT_TRUE(WaitUntil([&] { return seen.changes.size() == 2; }));
  const Change &empty = seen.changes[1];
  ASSERT_EQ(empty.before.size(), 1u);
  EXPECT_EQ(empty.before[0].message, "[FFFFFFFF] Signal(org.zelta.tv.system.resource.PolicyChanged) Received(-4)");
  EXPECT_EQ(empty.policy, -4);
  EXPECT_TRUE(empty.list_present);
  EXPECT_EQ(empty.count, 0);
  EXPECT_THAT(empty.apps, IsEmpty());
  EXPECT_THAT(empty.walk_errors, ElementsAre("invalid list"));

  EXPECT_EQ(kova_unregister_resource_policy_changed_callback(id), 0);
}

TEST_F(PolicyTest, MalformedPolicyChangeIsIgnoredWithAnError) {
  Seen seen;
  const unsigned int id = kova_register_resource_policy_changed_callback(OnPolicyChanged, &seen);
  doubles::ClearLogs();
  Emit("PolicyChanged", g_variant_new("(ii)", 1, 2));
  Emit("PolicyChanged", g_variant_new_parsed("(1, 2, [('A', 1)])"));
  Emit("PolicyChanged", nullptr);
  Sync();
  EXPECT_THAT(seen.changes, IsEmpty());
  EXPECT_EQ(doubles::CountLogPrefix("signal (PolicyChanged) ignored, unexpected type", doubles::kError), 3);
  EXPECT_EQ(doubles::CountLogPrefix("[", doubles::kInfo), 0);  // no "Received" line
  kova_unregister_resource_policy_changed_callback(id);
}

TEST_F(PolicyTest, EachRegistrationIsCalledUntilItIsUnregistered) {
  Seen seen;
  const unsigned int a = kova_register_resource_policy_changed_callback(OnPolicyChanged, &seen);
  const unsigned int b = kova_register_resource_policy_changed_callback(OnPolicyChanged, &seen);
  EXPECT_NE(a, b);
  Emit("PolicyChanged", g_variant_new_parsed("(1, 1, @a(is) [])"));
  ASSERT_TRUE(WaitUntil([&] { return seen.changes.size() == 2; }));

  doubles::ClearLogs();
  EXPECT_EQ(kova_unregister_resource_policy_changed_callback(a), 0);
  EXPECT_THAT(doubles::Logs(), IsEmpty());  // no lines of its own
  Emit("PolicyChanged", g_variant_new_parsed("(2, 2, @a(is) [])"));
  ASSERT_TRUE(WaitUntil([&] { return seen.changes.size() == 3; }));
  EXPECT_EQ(kova_unregister_resource_policy_changed_callback(b), 0);
  Emit("PolicyChanged", g_variant_new_parsed("(3, 3, @a(is) [])"));
  Sync();
  EXPECT_EQ(seen.changes.size(), 3u);
  Drain();  // lets GDBus release the callback-data records
}

TEST_F(PolicyRecordTest, CallbackRegistrationRefusals) {
  EXPECT_EQ(kova_register_resource_policy_changed_callback(nullptr, nullptr), 0u);
  EXPECT_EQ(kova_unregister_resource_policy_changed_callback(0), -1);
  EXPECT_EQ(kova_unregister_resource_policy_changed_callback(UINT_MAX), -1);
  EXPECT_THAT(doubles::Messages(), ElementsAre("invalid cb", "invalid param", "invalid param"));
  EXPECT_EQ(doubles::CountLogPrefix("", doubles::kError), 3);
}

TEST_F(PolicyTest, NotificationRecordCanBeSentOnFromTheCallback) {
  service().SetInt("SetResourcePolicyWithAppList", 0);
  Seen seen;
  int sent = -9;
  seen.also = [&sent](kova_policy_info *info) { sent = kova_set_resource_policy(11, info); };
  const unsigned int id = kova_register_resource_policy_changed_callback(OnPolicyChanged, &seen);
  Emit("PolicyChanged", g_variant_new_parsed("(1, 2, [(0, 'A')])"));
  ASSERT_TRUE(WaitUntil([&] { return sent != -9; }));
  EXPECT_THAT(seen.changes[0].apps, ElementsAre("0:A:0:0"));
  ASSERT_EQ(sent, 0);
  // The record has no owner: it goes out with an empty one.
  Call call = LastCall("SetResourcePolicyWithAppList");
  EXPECT_EQ(call.args.text(), "(" + std::to_string(call.args.i32(0)) + ", 11, " + std::to_string(kPid) +
                                  ", '', 0, 1, [('A', 0, 0)])");
  kova_unregister_resource_policy_changed_callback(id);
}

}  // namespace
}  // namespace kova_test

// Resource policy on the wire: policy info records, the policy sends, list
// registration and policy-change notification.
#include <gmock/gmock.h>
#include <unistd.h>

#include <climits>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "kova_api.h"
#include "kova_test.h"

namespace kova_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

const std::string kPid = std::to_string(getpid());

// Lines whose message is message, written from function func at priority.
int CountFrom(const std::string &func, const std::string &message, int priority) {
  int n = 0;
  for (const doubles::LogLine &line : doubles::Logs()) {
    n += line.message == message && line.priority == priority && line.text.find(": " + func + "(") != std::string::npos;
  }
  return n;
}

std::string Cmd(const Call &call) { return std::to_string(call.args.i32(0)); }

class PolicyTest : public KovaTest {};

TEST_F(PolicyTest, PolicyInfoRecordAndLocalRefusals) {
  kova_policy_info *info = kova_policy_info_create_new("owner");
  ASSERT_NE(info, nullptr);
  kova_app_list_h first = kova_app_list_create_new(), second = kova_app_list_create_new();
  EXPECT_EQ(kova_policy_info_set_app_list(info, first), 0);
  EXPECT_THAT(doubles::Logs(), IsEmpty());
  EXPECT_EQ(kova_policy_info_set_app_list(info, second), -1);
  EXPECT_EQ(kova_policy_info_get_app_list(info), first);

  // Each refusal writes one error line and sends nothing.
  EXPECT_EQ(kova_policy_info_create_new(nullptr), nullptr);
  EXPECT_EQ(kova_policy_info_create_new("\xc0\x80"), nullptr);
  EXPECT_EQ(kova_policy_info_set_app_list(nullptr, second), -1);
  EXPECT_EQ(kova_policy_info_set_app_list(info, nullptr), -1);
  EXPECT_EQ(kova_policy_info_set_option_remove_all_current_apps(nullptr, true), -1);
  EXPECT_EQ(kova_policy_info_get_app_list(nullptr), nullptr);
  EXPECT_EQ(kova_policy_info_get_policy(nullptr), -1);
  kova_policy_info_free(nullptr);
  EXPECT_EQ(kova_set_resource_policy(1, nullptr), -1);
  EXPECT_EQ(kova_set_resource_policy_app_zone_info(1, nullptr), -1);
  EXPECT_EQ(kova_set_pre_assigned_app_list(nullptr), -1);
  EXPECT_EQ(kova_register_app_list(1, nullptr), -1);
  EXPECT_EQ(kova_unregister_app_list(1, nullptr), -1);
  EXPECT_EQ(kova_register_resource_policy_changed_callback(nullptr, nullptr), 0u);
  EXPECT_EQ(kova_unregister_resource_policy_changed_callback(0), -1);
  EXPECT_EQ(kova_unregister_resource_policy_changed_callback(UINT_MAX), -1);
  EXPECT_THAT(doubles::Messages(),
              ElementsAre("app list is already set", "invalid owner name", "invalid owner name", "invalid policy info",
                          "invalid app list", "invalid policy info", "invalid policy info",
                          "invalid policy info", "invalid policy info", "invalid policy info", "invalid app_list",
                          "invalid app_list", "invalid list", "invalid list", "invalid cb", "invalid param",
                          "invalid param"));
  EXPECT_EQ(doubles::CountLogPrefix("", doubles::kError), 17);
  kova_policy_info_free(info);  // frees first only; second is still ours
  kova_app_list_free(second);
  Sync();
  EXPECT_EQ(service().CallCount(), 0u);
}

TEST_F(PolicyTest, OneApplicationIsEnoughForTheListMethod) {
  service().SetInt("SetResourcePolicyWithAppList", 0);
  kova_policy_info *info = kova_policy_info_create_new("O");
  ASSERT_EQ(kova_policy_info_set_app_list(info, kova_app_list_add(kova_app_list_create_new(), 6, "B")), 0);
  EXPECT_EQ(kova_set_resource_policy(3, info), 0);
  const Call call = LastCall("SetResourcePolicyWithAppList");
  EXPECT_EQ(call.args.text(), "(" + Cmd(call) + ", 3, " + kPid + ", 'O', 0, 1, [('B', 0, 0)])");
  kova_policy_info_free(info);
}

// Every send: what it carries (zone before application id in "a(is)",
// application id first in "a(sii)", an empty list as an empty array; a record
// whose list is empty goes with its owner only, option and all), and its
// answer mapping: 0 stays 0, any other result is logged and becomes -1, a
// failed or malformed call gives -1 with the failure line of its operation.
struct Send {
  const char *method;
  const char *func;  // function that writes the result lines
  std::function<int(kova_app_list_h, kova_policy_info *)> send;
  const char *signature;
  const char *full;  // after "(<cmd>, "; %p stands for the pid
  const char *empty = nullptr;
  bool Generic() const { return func != std::string("_kova_set_resource_policy"); }
  std::string Success(int r) const {
    return Generic() ? std::string(method) + " success, result (" + std::to_string(r) + ")"
                     : "_kova_dbus_method_call() success, method return value is (" + std::to_string(r) + ")";
  }
  std::string Failure() const {
    return Generic() ? std::string(method) + " failed" : "_kova_dbus_method_call() for SET_RESOURCE_POLICY is failed";
  }
};

TEST_F(PolicyTest, EverySendCarriesItsListAndMapsTheAnswer) {
  const Send sends[] = {
      {"SetResourcePolicyWithOwner", "_kova_set_resource_policy_without_applist",
       [](kova_app_list_h, kova_policy_info *info) { return kova_set_resource_policy(1, info); }, "(iiisi)",
       "1, %p, 'O', 1)"},
      {"SetResourcePolicyWithAppList", "_kova_set_resource_policy_with_applist",
       [](kova_app_list_h list, kova_policy_info *info) {
         std::swap(info->app_list, list);
         const int r = kova_set_resource_policy(1, info);
         std::swap(info->app_list, list);  // each list stays where it was
         return r;
       },
       "(iiisiia(sii))", "1, %p, 'O', 1, 3, [('A', 1, 2), ('B', 3, 4), ('C', 0, 0)])"},
      // The policy travels unsigned.
      {"SetResourcePolicyInternal", "_kova_set_resource_policy",
       [](kova_app_list_h, kova_policy_info *) { return kova_set_resource_policy_internal(-1); }, "(iui)",
       "4294967295, %p)"},
      {"SetResourcePolicyAppToZone", "_kova_set_resource_policy_app_zone_info",
       [](kova_app_list_h l, kova_policy_info *) { return kova_set_resource_policy_app_zone_info(4, l); },
       "(iiiia(is))", "4, %p, 3, [(1, 'A'), (2, 'B'), (0, 'C')])", "4, %p, 0, [])"},
      {"SetPreAssignedAppList", "_kova_set_pre_assigned_app_list",
       [](kova_app_list_h l, kova_policy_info *) { return kova_set_pre_assigned_app_list(l); }, "(ia(is))",
       "[(1, 'A'), (2, 'B'), (0, 'C')])", "[])"},
      {"RegisterAppList", "kova_register_app_list",
       [](kova_app_list_h l, kova_policy_info *) { return kova_register_app_list(7, l); }, "(iiia(sii))",
       "7, 3, [('A', 1, 2), ('B', 3, 4), ('C', 0, 0)])", "7, 0, [])"},
      {"UnregisterAppList", "kova_unregister_app_list",
       [](kova_app_list_h l, kova_policy_info *) { return kova_unregister_app_list(-2, l); }, "(iiia(s))",
       "-2, 3, [('A',), ('B',), ('C',)])", "-2, 0, [])"},
  };
  // A and B placed by kova_app_list_add, C made alone (zone 0).
  kova_app_list_h full = kova_app_list_create_new(), empty = kova_app_list_create_new();
  kova_app_list_add(full, 1, "A");
  kova_app_list_add(full, 2, "B");
  kova_app_list_insert_app(full, kova_app_list_create_new_app("C"));
  int priority = 1;
  for (kova_app *app = kova_app_list_get_first(full); app && app->zone_id != 0; app = kova_app_list_get_next(full)) {
    kova_app_set_priority_video(app, priority++);
    kova_app_set_priority_audio(app, priority++);
  }
  kova_policy_info *info = kova_policy_info_create_new("O");
  ASSERT_EQ(kova_policy_info_set_app_list(info, kova_app_list_create_new()), 0);
  ASSERT_EQ(kova_policy_info_set_option_remove_all_current_apps(info, true), 0);
  const auto expected = [](const Call &call, std::string tail) {
    if (const size_t at = tail.find("%p"); at != std::string::npos) tail.replace(at, 2, kPid);
    return "(" + Cmd(call) + ", " + tail;
  };
  for (const Send &s : sends) {
    SCOPED_TRACE(s.method);
    const bool walks = std::string(s.full).find('[') != std::string::npos;
    for (int result : {0, 5, -1}) {
      service().SetInt(s.method, result);
      doubles::ClearLogs();
      EXPECT_EQ(s.send(full, info), result == 0 ? 0 : -1) << result;
      ASSERT_FALSE(service().CallsTo(s.method).empty());
      const Call call = LastCall(s.method);
      EXPECT_FALSE(call.no_reply_expected);
      EXPECT_EQ(call.signature, s.signature);
      EXPECT_EQ(call.args.text(), expected(call, s.full));
      EXPECT_EQ(CountFrom(s.func, "[" + Hex(call.args.i32(0)) + "] " + s.Success(result), doubles::kInfo), 1);
      // The only error line is the walk's "no next app", where a list is sent.
      EXPECT_EQ(doubles::CountLogPrefix("", doubles::kError), walks ? 1 : 0);
      EXPECT_EQ(CountFrom("kova_app_list_get_next", "no next app", doubles::kError), walks ? 1 : 0);
      EXPECT_EQ(full->iter->next, nullptr);  // a walk ends on the last application
    }
    if (s.empty) {
      service().SetInt(s.method, 0);
      doubles::ClearLogs();
      EXPECT_EQ(s.send(empty, info), 0);
      EXPECT_EQ(LastCall(s.method).args.text(), expected(LastCall(s.method), s.empty));
      EXPECT_EQ(CountFrom("kova_app_list_get_first", "invalid list", doubles::kError), 1);
      EXPECT_EQ(doubles::CountLog("no next app"), 0);
    }
    // An error reply, then a reply of the wrong type: each has its own extra line.
    const std::string error_line = std::string("Method Call '") + s.method + "' Failed";
    const std::string type_line = std::string("(") + s.method + ") unexpected reply type ((s))";
    for (const Answer &answer :
         {Answer::Error("org.zelta.Error.Failed", "no"), Answer::Value(g_variant_new("(s)", "0"))}) {
      service().Set(s.method, answer);
      doubles::ClearLogs();
      EXPECT_EQ(s.send(full, info), -1);
      const std::string cmd = "[" + Hex(LastCall(s.method).args.i32(0)) + "] ";
      EXPECT_EQ(CountFrom(s.func, cmd + s.Failure(), doubles::kError), 1);
      EXPECT_EQ(doubles::CountLogPrefix(error_line, doubles::kError) +
                    doubles::CountLog(cmd + type_line, doubles::kError), 1);
      EXPECT_EQ(doubles::CountLogPrefix(cmd, doubles::kInfo), 0);  // no success line
    }
  }
  StopService();
  for (const Send &s : sends) EXPECT_EQ(s.send(full, info), -1) << s.method;
  kova_policy_info_free(info);
  kova_app_list_free(full);
  kova_app_list_free(empty);
}

// ---- Policy-change notification ----

struct Change {
  int policy;
  bool list_present;
  std::vector<std::string> apps;   // "zone:id"
  std::vector<std::string> lines;  // every line written up to the end of the walk
};

struct Seen {
  std::vector<Change> changes;
  std::function<void(kova_policy_info *)> also;
};

void OnPolicyChanged(kova_policy_info *info, void *user_data) {
  auto *seen = static_cast<Seen *>(user_data);
  kova_app_list_h list = kova_policy_info_get_app_list(info);
  Change c{kova_policy_info_get_policy(info), list != nullptr, {}, {}};
  for (kova_app *app = kova_app_list_get_first(list); app; app = kova_app_list_get_next(list)) {
    c.apps.push_back(std::to_string(kova_app_get_zone_id(app)) + ":" + kova_app_get_app_id(app));
  }
  c.lines = doubles::Messages();
  seen->changes.push_back(c);
  if (seen->also) seen->also(info);
}

// Two registrations each get the record, which the callback can send on as it
// is; each is called until it is unregistered.
TEST_F(PolicyTest, PolicyChangeArrivesAsARecordWithItsApplications) {
  service().SetInt("SetResourcePolicyWithAppList", 0);
  Seen seen, other;
  int sent = -9;
  other.also = [&sent](kova_policy_info *info) { sent = kova_set_resource_policy(11, info); };
  const unsigned int id = kova_register_resource_policy_changed_callback(OnPolicyChanged, &seen);
  ASSERT_NE(id, 0u);
  EXPECT_EQ(CountFrom("_kova_register_resource_policy_changed_callback",
                      "(PolicyChanged) success :: (" + std::to_string(id) + ")", doubles::kInfo), 1);
  EXPECT_EQ(doubles::CountLog("Dbus subscirbe signal PolicyChanged", doubles::kInfo), 1);
  const unsigned int id2 = kova_register_resource_policy_changed_callback(OnPolicyChanged, &other);
  EXPECT_NE(id, id2);

  // Malformed changes are dropped with an error, before any "Received" line.
  doubles::ClearLogs();
  Emit("PolicyChanged", g_variant_new("(ii)", 1, 2));
  Emit("PolicyChanged", g_variant_new_parsed("(1, 2, [('A', 1)])"));
  Emit("PolicyChanged", nullptr);
  Sync();
  EXPECT_THAT(seen.changes, IsEmpty());
  // Each registration holds its own subscription, so each writes the error.
  EXPECT_EQ(doubles::CountLogPrefix("signal (PolicyChanged) ignored, unexpected type", doubles::kError), 6);
  EXPECT_EQ(doubles::CountLogPrefix("[", doubles::kInfo), 0);

  doubles::ClearLogs();
  Emit("PolicyChanged", g_variant_new_parsed("(%i, 2, [(1, 'A'), (3, 'B')])", 0x4D2));
  ASSERT_TRUE(WaitUntil([&] { return seen.changes.size() == 1 && sent != -9; }));
  EXPECT_EQ(seen.changes[0].policy, 2);
  EXPECT_THAT(seen.changes[0].apps, ElementsAre("1:A", "3:B"));
  EXPECT_THAT(seen.changes[0].lines,
              ElementsAre("[000004D2] Signal(org.zelta.tv.system.resource.PolicyChanged) Received(2)",
                          "zone(1)-app(A)", "zone(3)-app(B)", "no next app"));
  // The record has no owner and no option: it goes out with an empty owner.
  ASSERT_EQ(sent, 0);
  Call call = LastCall("SetResourcePolicyWithAppList");
  EXPECT_EQ(call.args.text(), "(" + Cmd(call) + ", 11, " + kPid + ", '', 0, 2, [('A', 0, 0), ('B', 0, 0)])");

  doubles::ClearLogs();  // unregistering writes no line of its own
  EXPECT_EQ(kova_unregister_resource_policy_changed_callback(id2), 0);
  Emit("PolicyChanged", g_variant_new_parsed("(%i, -4, @a(is) [])", -1));
  ASSERT_TRUE(WaitUntil([&] { return seen.changes.size() == 2; }));
  EXPECT_EQ(seen.changes[1].policy, -4);
  EXPECT_TRUE(seen.changes[1].list_present);  // an empty list, not none
  EXPECT_THAT(seen.changes[1].lines,
              ElementsAre("[FFFFFFFF] Signal(org.zelta.tv.system.resource.PolicyChanged) Received(-4)", "invalid list"));
  EXPECT_EQ(other.changes.size(), 1u);

  EXPECT_EQ(kova_unregister_resource_policy_changed_callback(id), 0);
  Emit("PolicyChanged", g_variant_new_parsed("(3, 3, @a(is) [])"));
  Sync();
  EXPECT_EQ(seen.changes.size(), 2u);
  Drain();  // lets GDBus release the callback-data records
}

}  // namespace
}  // namespace kova_test

// Resource policy on the wire: policy info records, the policy sends, list
// registration and policy-change notification.
#include <gmock/gmock.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "kova_api.h"
#include "kova_test.h"

namespace kova_test {
namespace {

using ::testing::ElementsAre;
using List = kova_app_list_h;

// What call should carry: its command identifier, then tail (%p: the pid).
std::string Sent(const Call &call, std::string tail) {
  if (const size_t at = tail.find("%p"); at != std::string::npos) tail.replace(at, 2, std::to_string(getpid()));
  return "(" + std::to_string(call.args.i32(0)) + ", " + tail;
}

class PolicyTest : public KovaTest {};

// Every send: what it carries (a record goes with its owner only when its list is empty, with the list from one
// application on) and its answer mapping (0 stays 0, any other answer is logged and becomes -1, an error reply
// gives -1 with the operation's line). The walk position of a list sent ends on its last application.
struct Send {
  const char *method;
  std::function<int(List)> send;
  const char *full;  // after "(<cmd>, "
  const char *empty = nullptr;
};

TEST_F(PolicyTest, EverySendCarriesItsListAndMapsTheAnswer) {
  List full = kova_app_list_add(kova_app_list_add(kova_app_list_create_new(), 1, "A"), 2, "B");
  List empty = kova_app_list_create_new();
  kova_app_set_priority_video(kova_app_list_get_first(full), 1);
  kova_app_set_priority_audio(kova_app_list_get_first(full), 2);
  kova_policy_info *owner_only = kova_policy_info_create_new("O"), *with_one = kova_policy_info_create_new("O");
  ASSERT_EQ(kova_policy_info_set_app_list(owner_only, kova_app_list_create_new()), 0);
  ASSERT_EQ(kova_policy_info_set_option_remove_all_current_apps(owner_only, true), 0);
  ASSERT_EQ(kova_policy_info_set_app_list(with_one, kova_app_list_add(kova_app_list_create_new(), 6, "D")), 0);
  // A list is attached once and a rejected one stays ours; each refusal writes one error line and sends nothing.
  EXPECT_EQ(kova_policy_info_set_app_list(with_one, empty), -1);
  EXPECT_EQ(kova_policy_info_set_app_list(with_one, nullptr), -1);
  EXPECT_EQ(kova_set_resource_policy(1, nullptr), -1);
  EXPECT_EQ(kova_register_resource_policy_changed_callback(nullptr, nullptr), 0u);
  EXPECT_THAT(doubles::Messages(),
              ElementsAre("app list is already set", "invalid app list", "invalid policy info", "invalid cb"));
  EXPECT_EQ(service().CallCount(), 0u);

  const Send sends[] = {
      {"SetResourcePolicyWithOwner", [&](List) { return kova_set_resource_policy(1, owner_only); }, "1, %p, 'O', 1)"},
      {"SetResourcePolicyWithAppList", [&](List) { return kova_set_resource_policy(1, with_one); },
       "1, %p, 'O', 0, 1, [('D', 0, 0)])"},
      // The policy travels unsigned.
      {"SetResourcePolicyInternal", [](List) { return kova_set_resource_policy_internal(-1); }, "4294967295, %p)"},
      // Zone before application id in "a(is)", application id first in "a(sii)", an empty list as an empty array.
      {"SetResourcePolicyAppToZone", [](List l) { return kova_set_resource_policy_app_zone_info(4, l); },
       "4, %p, 2, [(1, 'A'), (2, 'B')])", "4, %p, 0, [])"},
      {"SetPreAssignedAppList", [](List l) { return kova_set_pre_assigned_app_list(l); }, "[(1, 'A'), (2, 'B')])",
       "[])"},
      {"RegisterAppList", [](List l) { return kova_register_app_list(7, l); }, "7, 2, [('A', 1, 2), ('B', 0, 0)])",
       "7, 0, [])"},
      {"UnregisterAppList", [](List l) { return kova_unregister_app_list(-2, l); }, "-2, 2, [('A',), ('B',)])",
       "-2, 0, [])"},
  };
  for (const Send &s : sends) {
    SCOPED_TRACE(s.method);
    for (int result : {0, 5, -1}) {  // -1: an error reply
      kova_app_list_get_first(full);
      service().Set(s.method, result < 0 ? Answer::Error("org.zelta.Error.Failed", "no") : Answer::Int(result));
      EXPECT_EQ(s.send(full), result == 0 ? 0 : -1) << result;
      ASSERT_FALSE(service().CallsTo(s.method).empty());
      const Call call = LastCall(s.method);
      EXPECT_EQ(call.args.text(), Sent(call, s.full));
      if (s.method != std::string("SetResourcePolicyInternal")) {  // which writes the generic call lines
        const std::string line = result < 0 ? " failed" : " success, result (" + std::to_string(result) + ")";
        EXPECT_TRUE(doubles::HasLog("[" + Hex(call.args.i32(0)) + "] " + s.method + line)) << result;
      }
      EXPECT_EQ(full->iter->next == nullptr, s.empty != nullptr);  // the rows that send full walk it to its end
    }
    if (s.empty) {
      service().SetInt(s.method, 0);
      EXPECT_EQ(s.send(empty), 0);
      EXPECT_EQ(LastCall(s.method).args.text(), Sent(LastCall(s.method), s.empty));
    }
  }
  for (kova_policy_info *info : {owner_only, with_one}) kova_policy_info_free(info);
  for (List list : {full, empty}) kova_app_list_free(list);
}

// The last change seen; the lines are those written up to the end of the first walk.
struct Seen {
  int calls = 0, policy = 0, sent = -9;
  std::vector<std::string> apps, lines;  // "zone:id" each
};

void OnPolicyChanged(kova_policy_info *info, void *user_data) {
  auto *seen = static_cast<Seen *>(user_data);
  List list = kova_policy_info_get_app_list(info);
  seen->policy = kova_policy_info_get_policy(info);
  EXPECT_NE(list, nullptr);  // an empty list, never a null one
  seen->apps.clear();
  for (kova_app *app = kova_app_list_get_first(list); app; app = kova_app_list_get_next(list)) {
    seen->apps.push_back(std::to_string(kova_app_get_zone_id(app)) + ":" + kova_app_get_app_id(app));
  }
  if (seen->calls++ == 0) seen->lines = doubles::Messages();
  seen->sent = kova_set_resource_policy(11, info);  // as it came
}

// Each registration, also of the same callback, gets the record until it is
// unregistered; the callback can send the record on as it is.
TEST_F(PolicyTest, PolicyChangeArrivesAsARecordWithItsApplications) {
  service().SetInt("SetResourcePolicyWithAppList", 0);
  Seen seen;
  const unsigned int id = kova_register_resource_policy_changed_callback(OnPolicyChanged, &seen);
  EXPECT_TRUE(doubles::HasLog("(PolicyChanged) success :: (" + std::to_string(id) + ")", doubles::kInfo));
  const unsigned int id2 = kova_register_resource_policy_changed_callback(OnPolicyChanged, &seen);

  // A malformed change is dropped by each registration's own subscription.
  Emit("PolicyChanged", g_variant_new("(ii)", 1, 2));
  Sync();
  EXPECT_EQ(doubles::CountLog("signal (PolicyChanged) ignored, unexpected type ((ii))", doubles::kError), 2);

  doubles::ClearLogs();
  Emit("PolicyChanged", g_variant_new_parsed("(%i, 2, [(1, 'A'), (3, 'B')])", 0x4D2));
  ASSERT_TRUE(WaitUntil([&] { return seen.calls == 2; }));
  EXPECT_EQ(seen.policy, 2);
  EXPECT_THAT(seen.apps, ElementsAre("1:A", "3:B"));
  EXPECT_THAT(seen.lines, ElementsAre("[000004D2] Signal(org.zelta.tv.system.resource.PolicyChanged) Received(2)",
                                      "zone(1)-app(A)", "zone(3)-app(B)", "no next app"));
  // The record has no owner and no option: it goes out with an empty owner.
  ASSERT_EQ(seen.sent, 0);
  const Call call = LastCall("SetResourcePolicyWithAppList");
  EXPECT_EQ(call.args.text(), Sent(call, "11, %p, '', 0, 2, [('A', 0, 0), ('B', 0, 0)])"));

  EXPECT_EQ(kova_unregister_resource_policy_changed_callback(id2), 0);
  Emit("PolicyChanged", g_variant_new_parsed("(%i, -4, @a(is) [])", -1));
  ASSERT_TRUE(WaitUntil([&] { return seen.calls == 3; }));
  Sync();
  EXPECT_EQ(seen.calls, 3);
  EXPECT_EQ(seen.policy, -4);
  EXPECT_TRUE(seen.apps.empty());
  EXPECT_EQ(kova_unregister_resource_policy_changed_callback(id), 0);
  Drain();  // lets GDBus release the callback-data records
}

}  // namespace
}  // namespace kova_test

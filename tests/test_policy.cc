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

// What call should carry: its command identifier, then tail (%p: the pid).
std::string Sent(const Call &call, std::string tail) {
  if (const size_t at = tail.find("%p"); at != std::string::npos) tail.replace(at, 2, std::to_string(getpid()));
  return "(" + std::to_string(call.args.i32(0)) + ", " + tail;
}

class PolicyTest : public KovaTest {};

TEST_F(PolicyTest, PolicyInfoRecordAndLocalRefusals) {
  kova_policy_info *info = kova_policy_info_create_new("owner");
  ASSERT_NE(info, nullptr);
  kova_app_list_h first = kova_app_list_create_new(), second = kova_app_list_create_new();
  EXPECT_EQ(kova_policy_info_set_app_list(info, first), 0);
  EXPECT_EQ(kova_policy_info_set_app_list(info, second), -1);
  EXPECT_EQ(kova_policy_info_get_app_list(info), first);

  // Each refusal writes one error line and sends nothing.
  EXPECT_EQ(kova_policy_info_create_new("\xc0\x80"), nullptr);
  EXPECT_EQ(kova_policy_info_set_app_list(info, nullptr), -1);
  EXPECT_EQ(kova_set_resource_policy(1, nullptr), -1);
  EXPECT_EQ(kova_register_app_list(1, nullptr), -1);
  EXPECT_EQ(kova_register_resource_policy_changed_callback(nullptr, nullptr), 0u);
  EXPECT_EQ(kova_unregister_resource_policy_changed_callback(UINT_MAX), -1);
  EXPECT_THAT(doubles::Messages(),
              ElementsAre("app list is already set", "invalid owner name", "invalid app list", "invalid policy info",
                          "invalid list", "invalid cb", "invalid param"));
  EXPECT_EQ(doubles::CountLogPrefix("", doubles::kError), 7);
  kova_policy_info_free(info);  // frees first only; second is still ours
  kova_app_list_free(second);
  Sync();
  EXPECT_EQ(service().CallCount(), 0u);
}

// Every send: what it carries (zone before application id in "a(is)",
// application id first in "a(sii)", an empty list as an empty array; a record
// goes with its owner only when its list is empty, with the list from one
// application on), and its answer mapping: 0 stays 0, any other result is
// logged and becomes -1, an error reply gives -1 with the operation's line.
struct Send {
  const char *method;
  std::function<int(kova_app_list_h, kova_policy_info *)> send;
  const char *full;  // after "(<cmd>, "
  const char *empty = nullptr;
};

TEST_F(PolicyTest, EverySendCarriesItsListAndMapsTheAnswer) {
  kova_app_list_h one = kova_app_list_add(kova_app_list_create_new(), 6, "D");
  const Send sends[] = {
      {"SetResourcePolicyWithOwner",
       [](kova_app_list_h, kova_policy_info *info) { return kova_set_resource_policy(1, info); }, "1, %p, 'O', 1)"},
      {"SetResourcePolicyWithAppList",
       [&one](kova_app_list_h, kova_policy_info *info) {
         std::swap(info->app_list, one);
         const int r = kova_set_resource_policy(1, info);
         std::swap(info->app_list, one);  // each list stays where it was
         return r;
       },
       "1, %p, 'O', 1, 1, [('D', 0, 0)])"},
      // The policy travels unsigned.
      {"SetResourcePolicyInternal",
       [](kova_app_list_h, kova_policy_info *) { return kova_set_resource_policy_internal(-1); }, "4294967295, %p)"},
      {"SetResourcePolicyAppToZone",
       [](kova_app_list_h l, kova_policy_info *) { return kova_set_resource_policy_app_zone_info(4, l); },
       "4, %p, 3, [(1, 'A'), (2, 'B'), (0, 'C')])", "4, %p, 0, [])"},
      {"SetPreAssignedAppList", [](kova_app_list_h l, kova_policy_info *) { return kova_set_pre_assigned_app_list(l); },
       "[(1, 'A'), (2, 'B'), (0, 'C')])", "[])"},
      {"RegisterAppList", [](kova_app_list_h l, kova_policy_info *) { return kova_register_app_list(7, l); },
       "7, 3, [('A', 1, 2), ('B', 3, 4), ('C', 0, 0)])", "7, 0, [])"},
      {"UnregisterAppList", [](kova_app_list_h l, kova_policy_info *) { return kova_unregister_app_list(-2, l); },
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
  for (const Send &s : sends) {
    SCOPED_TRACE(s.method);
    for (int result : {0, 5, -1}) {  // -1: an error reply
      service().Set(s.method, result < 0 ? Answer::Error("org.zelta.Error.Failed", "no") : Answer::Int(result));
      EXPECT_EQ(s.send(full, info), result == 0 ? 0 : -1) << result;
      ASSERT_FALSE(service().CallsTo(s.method).empty());
      const Call call = LastCall(s.method);
      EXPECT_EQ(call.args.text(), Sent(call, s.full));
      if (s.method != std::string("SetResourcePolicyInternal")) {  // which writes the generic call lines
        const std::string line = result < 0 ? " failed" : " success, result (" + std::to_string(result) + ")";
        EXPECT_TRUE(doubles::HasLog("[" + Hex(call.args.i32(0)) + "] " + s.method + line)) << result;
      }
      EXPECT_EQ(full->iter->next, nullptr);  // a walk ends on the last application
    }
    if (s.empty) {
      service().SetInt(s.method, 0);
      EXPECT_EQ(s.send(empty, info), 0);
      EXPECT_EQ(LastCall(s.method).args.text(), Sent(LastCall(s.method), s.empty));
    }
  }
  StopService();
  for (const Send &s : sends) EXPECT_EQ(s.send(full, info), -1) << s.method;
  kova_policy_info_free(info);
  kova_app_list_free(full);
  kova_app_list_free(empty);
  kova_app_list_free(one);
}

struct Change {
  int policy;
  std::vector<std::string> apps;   // "zone:id", or "none" for no list
  std::vector<std::string> lines;  // every line written up to the end of the walk
};

struct Seen {
  std::vector<Change> changes;
  std::function<void(kova_policy_info *)> also;
};

void OnPolicyChanged(kova_policy_info *info, void *user_data) {
  auto *seen = static_cast<Seen *>(user_data);
  kova_app_list_h list = kova_policy_info_get_app_list(info);
  Change c{kova_policy_info_get_policy(info), {}, {}};
  if (list == nullptr) c.apps.push_back("none");
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
  EXPECT_TRUE(doubles::HasLog("(PolicyChanged) success :: (" + std::to_string(id) + ")", doubles::kInfo));
  const unsigned int id2 = kova_register_resource_policy_changed_callback(OnPolicyChanged, &other);

  // A malformed change is dropped; each registration holds its own
  // subscription, so each writes the error.
  Emit("PolicyChanged", g_variant_new("(ii)", 1, 2));
  Sync();
  EXPECT_EQ(doubles::CountLog("signal (PolicyChanged) ignored, unexpected type ((ii))", doubles::kError), 2);

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
  const Call call = LastCall("SetResourcePolicyWithAppList");
  EXPECT_EQ(call.args.text(), Sent(call, "11, %p, '', 0, 2, [('A', 0, 0), ('B', 0, 0)])"));

  EXPECT_EQ(kova_unregister_resource_policy_changed_callback(id2), 0);
  Emit("PolicyChanged", g_variant_new_parsed("(%i, -4, @a(is) [])", -1));
  ASSERT_TRUE(WaitUntil([&] { return seen.changes.size() == 2; }));
  EXPECT_EQ(seen.changes[1].policy, -4);
  EXPECT_THAT(seen.changes[1].apps, IsEmpty());  // an empty list, not none
  EXPECT_EQ(other.changes.size(), 1u);
  EXPECT_EQ(kova_unregister_resource_policy_changed_callback(id), 0);
  Drain();  // lets GDBus release the callback-data records
}

}  // namespace
}  // namespace kova_test

// Zone and application lists, their walks, and the policy sends that carry them; the policy change.
#include <gmock/gmock.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "kova_api.h"
#include "kova_test.h"

namespace kova_test {
namespace {

std::string Read(const kova_zone *z) {
  return std::to_string(z->id) + ":" + std::to_string(z->scaler_id) + ":" + (z->app_id ? z->app_id : "<null>");
}

using ListTest = KovaTest;

TEST_F(ListTest, WalksShareOnePositionThatStopsAtBothEnds) {
  void *list = nullptr;
  service().Set("GetMultiviewZoneIds",
                Answer::Value(g_variant_new_parsed("([(1, 10, 'a'), (2, 20, 'b'), (3, -30, 'c')],)")));
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

using ::testing::ElementsAre;

std::string Rec(const kova_app *app) {  // "id:zone"
  return app ? std::string(kova_app_get_app_id(app)) + ":" + std::to_string(kova_app_get_zone_id(app)) : "(null)";
}

TEST(AppListTest, WalksBothWaysStopsAtTheEndsAndRestartsOnInsertion) {
  doubles::Reset();
  char id[] = "A";  // both kinds of record keep their own copy
  kova_app_list_h list = kova_app_list_add(kova_app_list_add(kova_app_list_create_new(), 1, id), 2, "B");
  kova_app *same = kova_app_list_create_new_app(id);
  id[0] = 'X';
  EXPECT_EQ(Rec(kova_app_list_get_first(list)), "A:1");
  EXPECT_EQ(Rec(kova_app_list_get_prev(list)), "(null)");
  EXPECT_EQ(Rec(kova_app_list_get_next(list)), "B:2");
  EXPECT_EQ(Rec(kova_app_list_get_next(list)), "(null)");  // the position stays on the last
  // A refused record stays the caller's; an insertion puts the position back on the first record.
  EXPECT_EQ(kova_app_list_insert_app(nullptr, same), nullptr);
  EXPECT_THAT(doubles::Messages(), ElementsAre("no prev app", "no next app", "invalid list"));
  ASSERT_EQ(kova_app_list_insert_app(list, same), list);
  EXPECT_EQ(Rec(kova_app_list_get_next(list)), "B:2");
  EXPECT_EQ(Rec(kova_app_list_get_next(list)), "A:0");
  EXPECT_EQ(list->iter->data, same);  // inserted as is, not copied
  EXPECT_EQ(Rec(kova_app_list_get_prev(list)), "B:2");
  ASSERT_EQ(kova_app_list_add(list, 9, "D"), list);  // so does an addition
  EXPECT_EQ(Rec(kova_app_list_get_next(list)), "B:2");
  EXPECT_EQ(kova_app_list_get_count(list), 4);
  kova_app_list_free(list);
}

// What call should carry: its command identifier, then tail (%p: the pid).
std::string Sent(const Call &call, std::string tail) {
  if (const size_t at = tail.find("%p"); at != std::string::npos) tail.replace(at, 2, std::to_string(getpid()));
  return "(" + std::to_string(call.args.i32(0)) + ", " + tail;
}

// A record goes with its owner only while its list is empty, the internal policy unsigned. The service's 0 stays
// 0; any other answer, like an error reply, gives -1.
TEST_F(ListTest, EverySendCarriesItsListAndMapsTheAnswer) {
  kova_app_list_h list = kova_app_list_add(kova_app_list_add(kova_app_list_create_new(), 1, "A"), 2, "B");
  kova_app_set_priority_video(kova_app_list_get_first(list), 1);
  kova_app_set_priority_audio(kova_app_list_get_first(list), 2);
  kova_policy_info *owner = kova_policy_info_create_new("O"), *one = kova_policy_info_create_new("O");
  ASSERT_EQ(kova_policy_info_set_app_list(owner, kova_app_list_create_new()), 0);
  ASSERT_EQ(kova_policy_info_set_option_remove_all_current_apps(owner, true), 0);
  ASSERT_EQ(kova_policy_info_set_app_list(one, kova_app_list_add(kova_app_list_create_new(), 6, "D")), 0);
  // The same records asking, or not, for every current app to be removed.
  const auto asking = [](kova_policy_info *info, bool all) {
    return kova_policy_info_set_option_remove_all_current_apps(info, all), info;
  };
  struct Send { const char *method; std::function<int()> send; const char *wire; };  // wire: after "(<cmd>, "
  const Send sends[] = {
      {"SetResourcePolicyWithOwner", [&] { return kova_set_resource_policy(1, owner); }, "1, %p, 'O', 1)"},
      {"SetResourcePolicyWithAppList", [&] { return kova_set_resource_policy(1, one); },
       "1, %p, 'O', 0, 1, [('D', 0, 0)])"},
      {"SetResourcePolicyWithAppList", [&] { return kova_set_resource_policy(2, asking(one, true)); },
       "2, %p, 'O', 1, 1, [('D', 0, 0)])"},
      {"SetResourcePolicyWithOwner", [&] { return kova_set_resource_policy(2, asking(owner, false)); },
       "2, %p, 'O', 0)"},
      {"SetResourcePolicyInternal", [] { return kova_set_resource_policy_internal(-1); }, "4294967295, %p)"},
      {"SetResourcePolicyAppToZone", [&] { return kova_set_resource_policy_app_zone_info(4, list); },
       "4, %p, 2, [(1, 'A'), (2, 'B')])"},
      {"SetPreAssignedAppList", [&] { return kova_set_pre_assigned_app_list(list); }, "[(1, 'A'), (2, 'B')])"},
      {"RegisterAppList", [&] { return kova_register_app_list(7, list); }, "7, 2, [('A', 1, 2), ('B', 0, 0)])"},
      {"UnregisterAppList", [&] { return kova_unregister_app_list(-2, list); }, "-2, 2, [('A',), ('B',)])"},
  };
  for (const Send &s : sends) {
    service().SetInt(s.method, 0);
    EXPECT_EQ(s.send(), 0) << s.method;
    EXPECT_EQ(LastCall(s.method).args.text(), Sent(LastCall(s.method), s.wire));
    service().SetInt(s.method, 5);
    EXPECT_EQ(s.send(), -1) << s.method;
    service().Set(s.method, Answer::Error("org.zelta.Error.Failed", "no"));
    EXPECT_EQ(s.send(), -1) << s.method;
  }
  const std::vector<Call> calls = service().CallsTo("RegisterAppList");  // answered 0, 5, then an error
  EXPECT_TRUE(doubles::HasLog("[" + Hex(calls.at(1).args.i32(0)) + "] RegisterAppList success, result (5)"));
  EXPECT_TRUE(doubles::HasLog("[" + Hex(calls.at(2).args.i32(0)) + "] RegisterAppList failed", doubles::kError));
  for (kova_policy_info *info : {owner, one}) kova_policy_info_free(info);
  kova_app_list_free(list);
}

using Changed = std::function<void(kova_policy_info *)>;

void OnPolicyChanged(kova_policy_info *info, void *changed) { (*static_cast<Changed *>(changed))(info); }

// The change arrives as a record with its applications and no owner; the callback can send it on as it is.
TEST_F(ListTest, PolicyChangeArrivesAsARecordWithItsApplications) {
  service().SetInt("SetResourcePolicyWithAppList", 0);
  int sent = -9;
  std::vector<std::string> apps;  // "zone:id" each
  Changed changed = [&](kova_policy_info *info) {
    kova_app_list_h list = kova_policy_info_get_app_list(info);
    for (kova_app *app = kova_app_list_get_first(list); app; app = kova_app_list_get_next(list)) {
      apps.push_back(std::to_string(kova_app_get_zone_id(app)) + ":" + kova_app_get_app_id(app));
    }
    sent = kova_set_resource_policy(kova_policy_info_get_policy(info), info);
  };
  const unsigned int id = kova_register_resource_policy_changed_callback(OnPolicyChanged, &changed);
  Emit("PolicyChanged", g_variant_new_parsed("(%i, 2, [(1, 'A'), (3, 'B')])", 0x4D2));
  ASSERT_TRUE(WaitUntil([&] { return sent == 0; }));
  EXPECT_EQ(apps, std::vector<std::string>({"1:A", "3:B"}));
  const Call call = LastCall("SetResourcePolicyWithAppList");
  EXPECT_EQ(call.args.text(), Sent(call, "2, %p, '', 0, 2, [('A', 0, 0), ('B', 0, 0)])"));
  EXPECT_EQ(kova_unregister_resource_policy_changed_callback(id), 0);
  Drain();  // lets GDBus release the callback-data record
}

}  // namespace
}  // namespace kova_test

// Application lists: building, walking and releasing them never touches the
// bus; their failures are result codes with one error line each.
#include <gmock/gmock.h>

#include <climits>
#include <cstdlib>
#include <string>
#include <vector>

#include "kova_api.h"
#include "kova_test.h"

namespace kova_test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class AppListTest : public ::testing::Test {
 protected:
  void SetUp() override { doubles::Reset(); }
  void TearDown() override {
    if (list_ != nullptr) kova_app_list_free(list_);
  }

  // A list holding the given ids, in zones 1, 2, 3, ... in order.
  kova_app_list_h List(const std::vector<const char *> &ids) {
    list_ = kova_app_list_create_new();
    int zone = 1;
    for (const char *id : ids) EXPECT_EQ(kova_app_list_add(list_, zone++, id), list_);
    doubles::ClearLogs();
    return list_;
  }

  static std::string Id(const kova_app *app) { return app ? kova_app_get_app_id(app) : "(null)"; }

  kova_app_list_h list_ = nullptr;
};

TEST_F(AppListTest, NewListIsEmptyAndCannotBeWalked) {
  kova_app_list_h list = List({});
  EXPECT_EQ(kova_app_list_get_count(list), 0);
  EXPECT_EQ(list->list, nullptr);
  EXPECT_EQ(list->iter, nullptr);
  EXPECT_EQ(kova_app_list_get_first(list), nullptr);
  EXPECT_EQ(kova_app_list_get_next(list), nullptr);
  EXPECT_EQ(kova_app_list_get_prev(list), nullptr);
  EXPECT_EQ(kova_app_list_get_first(nullptr), nullptr);
  EXPECT_EQ(doubles::CountLog("invalid list", doubles::kError), 4);
  EXPECT_EQ(doubles::Logs().size(), 4u);

  doubles::ClearLogs();
  EXPECT_EQ(kova_app_list_get_count(nullptr), 0);
  EXPECT_THAT(doubles::Logs(), IsEmpty());
}

TEST_F(AppListTest, WalksBothWaysAndStopsAtTheEnds) {
  kova_app_list_h list = List({"A", "B", "C"});
  EXPECT_EQ(kova_app_list_get_count(list), 3);
  EXPECT_EQ(Id(kova_app_list_get_first(list)), "A");
  EXPECT_EQ(Id(kova_app_list_get_prev(list)), "(null)");
  EXPECT_EQ(Id(kova_app_list_get_next(list)), "B");
  EXPECT_EQ(Id(kova_app_list_get_next(list)), "C");
  EXPECT_EQ(Id(kova_app_list_get_next(list)), "(null)");
  EXPECT_EQ(Id(kova_app_list_get_next(list)), "(null)");  // the position stays on the last
  EXPECT_EQ(Id(kova_app_list_get_prev(list)), "B");
  EXPECT_EQ(Id(kova_app_list_get_first(list)), "A");
  EXPECT_THAT(doubles::Messages(), ElementsAre("no prev app", "no next app", "no next app"));
  const auto logs = doubles::Logs();
  ASSERT_EQ(logs.size(), 3u);
  EXPECT_EQ(logs[0].priority, doubles::kError);
  EXPECT_EQ(logs[0].tag, "KOVA_API");
  EXPECT_THAT(logs[0].text, HasSubstr(" kova_app_list_get_prev("));
  EXPECT_THAT(logs[1].text, HasSubstr(" kova_app_list_get_next("));
}

TEST_F(AppListTest, InsertionRestartsTheWalkAndCountsEveryRecord) {
  kova_app_list_h list = List({"A", "B", "C"});
  kova_app_list_get_first(list);
  kova_app_list_get_next(list);
  kova_app_list_get_next(list);
  ASSERT_EQ(kova_app_list_add(list, 9, "D"), list);
  EXPECT_EQ(kova_app_list_get_count(list), 4);
  EXPECT_EQ(Id(kova_app_list_get_next(list)), "B");

  kova_app *same = kova_app_list_create_new_app("A");
  ASSERT_EQ(kova_app_list_insert_app(list, same), list);
  EXPECT_EQ(kova_app_list_get_count(list), 5);
  EXPECT_EQ(Id(kova_app_list_get_prev(list)), "(null)");  // back on the first

  std::vector<std::string> walked;
  std::vector<int> zones;
  for (kova_app *app = kova_app_list_get_first(list); app; app = kova_app_list_get_next(list)) {
    walked.push_back(Id(app));
    zones.push_back(kova_app_get_zone_id(app));
  }
  EXPECT_THAT(walked, ElementsAre("A", "B", "C", "D", "A"));
  EXPECT_THAT(zones, ElementsAre(1, 2, 3, 9, 0));
  // The walk leaves the position on the last record.
  EXPECT_EQ(list->iter->data, same);
}

TEST_F(AppListTest, RecordsCopyTheirIdAndKeepTheirPriorities) {
  kova_app_list_h list = List({});
  char id[] = "app.one";
  ASSERT_EQ(kova_app_list_add(list, 4, id), list);
  id[0] = 'X';
  kova_app *added = kova_app_list_get_first(list);
  EXPECT_STREQ(kova_app_get_app_id(added), "app.one");
  EXPECT_NE(kova_app_get_app_id(added), id);

  kova_app *app = kova_app_list_create_new_app(id);
  ASSERT_NE(app, nullptr);
  id[0] = 'Y';
  EXPECT_STREQ(kova_app_get_app_id(app), "Xpp.one");
  EXPECT_EQ(kova_app_get_app_id(app), app->app_id);  // the record's own string
  EXPECT_EQ(kova_app_get_zone_id(app), 0);
  EXPECT_EQ(app->priority_video, 0);
  EXPECT_EQ(app->priority_audio, 0);
  for (int priority : {7, -3, INT_MIN, INT_MAX}) {
    EXPECT_EQ(kova_app_set_priority_video(app, priority), 0);
    EXPECT_EQ(kova_app_set_priority_audio(app, -priority - 1), 0);
    EXPECT_EQ(app->priority_video, priority);
    EXPECT_EQ(app->priority_audio, -priority - 1);
  }
  ASSERT_EQ(kova_app_list_insert_app(list, app), list);
  kova_app_list_get_first(list);
  EXPECT_EQ(kova_app_list_get_next(list), app);  // inserted as is, not copied
  EXPECT_THAT(doubles::Logs(), IsEmpty());
}

TEST_F(AppListTest, RefusedArgumentsLeaveEverythingAsItWas) {
  kova_app_list_h list = List({"A", "B"});
  kova_app_list_get_first(list);
  kova_app_list_get_next(list);
  GList *const nodes = list->list;
  GList *const position = list->iter;
  kova_app *mine = kova_app_list_create_new_app("mine");

  struct Refusal {
    const char *what;
    bool refused;
    const char *message;
  };
  const Refusal refusals[] = {
      {"insert, both null", kova_app_list_insert_app(nullptr, nullptr) == nullptr, "invalid list"},
      {"insert, null list", kova_app_list_insert_app(nullptr, mine) == nullptr, "invalid list"},
      {"insert, null app", kova_app_list_insert_app(list, nullptr) == nullptr, "invalid app"},
      {"add, null list", kova_app_list_add(nullptr, 1, "A") == nullptr, "invalid list"},
      {"add, null id", kova_app_list_add(list, 1, nullptr) == nullptr, "invalid app id"},
      {"add, non-UTF-8 id", kova_app_list_add(list, 1, "\xff\xfe") == nullptr, "invalid app id"},
      {"new app, null id", kova_app_list_create_new_app(nullptr) == nullptr, "invalid app id"},
      {"new app, non-UTF-8 id", kova_app_list_create_new_app("a\xc3") == nullptr, "invalid app id"},
      {"video priority", kova_app_set_priority_video(nullptr, 1) == -1, "invalid app"},
      {"audio priority", kova_app_set_priority_audio(nullptr, 1) == -1, "invalid app"},
      {"app id", kova_app_get_app_id(nullptr) == nullptr, "invalid app"},
      {"zone id", kova_app_get_zone_id(nullptr) == 0, "invalid app"},
  };
  const auto logs = doubles::Logs();
  ASSERT_EQ(logs.size(), std::size(refusals));
  for (size_t i = 0; i < logs.size(); ++i) {
    EXPECT_TRUE(refusals[i].refused) << refusals[i].what;
    EXPECT_EQ(logs[i].message, refusals[i].message) << refusals[i].what;
    EXPECT_EQ(logs[i].priority, doubles::kError) << refusals[i].what;
  }
  EXPECT_EQ(kova_app_list_get_count(list), 2);
  EXPECT_EQ(list->list, nodes);
  EXPECT_EQ(list->iter, position);
  EXPECT_EQ(g_list_length(list->list), 2u);

  // The rejected record is still the caller's and still usable.
  ASSERT_EQ(kova_app_list_insert_app(list, mine), list);
  EXPECT_EQ(kova_app_list_get_count(list), 3);

  doubles::ClearLogs();
  kova_app_list_free(nullptr);
  EXPECT_THAT(doubles::Messages(), ElementsAre("invalid list"));
}

TEST_F(AppListTest, WalkChecksTheListBeforeThePosition) {
  kova_app_list_h list = List({"A", "B"});
  list->iter = nullptr;  // a position lost by writing the record by hand
  EXPECT_EQ(kova_app_list_get_first(list), nullptr);
  EXPECT_EQ(kova_app_list_get_next(list), nullptr);
  EXPECT_EQ(kova_app_list_get_prev(list), nullptr);
  EXPECT_THAT(doubles::Messages(), ElementsAre("invalid inter", "invalid inter", "invalid inter"));
  ASSERT_EQ(kova_app_list_add(list, 3, "C"), list);  // insertion repairs it
  EXPECT_EQ(Id(kova_app_list_get_next(list)), "B");
}

}  // namespace
}  // namespace kova_test

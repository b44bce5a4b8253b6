// Application lists: building, walking and releasing them never touches the
// bus; their failures are result codes with one error line each.
#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "kova_api.h"
#include "kova_test.h"

namespace kova_test {
namespace {

using ::testing::ElementsAre;

class AppListTest : public ::testing::Test {
 protected:
  void SetUp() override { doubles::Reset(); }
  void TearDown() override { kova_app_list_free(list_); }

  static std::string Id(const kova_app *app) { return app ? kova_app_get_app_id(app) : "(null)"; }

  kova_app_list_h list_ = kova_app_list_create_new();
};

TEST_F(AppListTest, WalksBothWaysStopsAtTheEndsAndRestartsOnInsertion) {
  char id[] = "A";  // both kinds of record keep their own copy
  kova_app_list_h list = kova_app_list_add(kova_app_list_add(kova_app_list_add(list_, 1, id), 2, "B"), 3, "C");
  kova_app *same = kova_app_list_create_new_app(id);
  id[0] = 'X';
  EXPECT_EQ(Id(kova_app_list_get_first(list)), "A");
  EXPECT_EQ(Id(kova_app_list_get_prev(list)), "(null)");
  EXPECT_EQ(Id(kova_app_list_get_next(list)), "B");
  EXPECT_EQ(Id(kova_app_list_get_next(list)), "C");
  EXPECT_EQ(Id(kova_app_list_get_next(list)), "(null)");  // the position stays on the last
  EXPECT_EQ(Id(kova_app_list_get_prev(list)), "B");
  EXPECT_THAT(doubles::Messages(), ElementsAre("no prev app", "no next app"));

  // Each insertion puts the position back on the first record.
  ASSERT_EQ(kova_app_list_add(list, 9, "D"), list);
  EXPECT_EQ(Id(kova_app_list_get_next(list)), "B");
  ASSERT_EQ(kova_app_list_insert_app(list, same), list);
  std::vector<std::string> walked;
  for (kova_app *app = kova_app_list_get_first(list); app; app = kova_app_list_get_next(list)) {
    walked.push_back(Id(app) + ":" + std::to_string(kova_app_get_zone_id(app)));
  }
  EXPECT_THAT(walked, ElementsAre("A:1", "B:2", "C:3", "D:9", "A:0"));
  EXPECT_EQ(list->iter->data, same);  // inserted as is, not copied

  // A position lost by writing the record by hand is refused, even for the
  // first record, until an insertion repairs it.
  list->iter = nullptr;
  EXPECT_EQ(kova_app_list_get_first(list), nullptr);
  EXPECT_EQ(doubles::Messages().back(), "invalid inter");
  ASSERT_EQ(kova_app_list_add(list, 3, "E"), list);
  EXPECT_EQ(Id(kova_app_list_get_next(list)), "B");
}

TEST_F(AppListTest, RefusedArgumentsLeaveEverythingAsItWas) {
  kova_app_list_h list = kova_app_list_add(kova_app_list_add(list_, 1, "A"), 2, "B");
  kova_app_list_get_first(list);
  kova_app_list_get_next(list);
  GList *const position = list->iter;
  kova_app *mine = kova_app_list_create_new_app("mine");
  kova_app_list_h empty = kova_app_list_create_new();
  EXPECT_EQ(kova_app_list_insert_app(nullptr, mine), nullptr);
  EXPECT_EQ(kova_app_list_add(list, 1, "\xff\xfe"), nullptr);
  EXPECT_EQ(kova_app_set_priority_video(nullptr, 1), -1);
  EXPECT_EQ(kova_app_list_get_first(empty), nullptr);
  EXPECT_THAT(doubles::Messages(), ElementsAre("invalid list", "invalid app id", "invalid app", "invalid list"));
  EXPECT_EQ(doubles::CountLogPrefix("", doubles::kError), 4);
  EXPECT_EQ(list->iter, position);
  // The rejected record is still the caller's and still usable; the rejected add added nothing.
  ASSERT_EQ(kova_app_list_insert_app(list, mine), list);
  EXPECT_EQ(kova_app_list_get_count(list), 3);
  kova_app_list_free(empty);
}

}  // namespace
}  // namespace kova_test

// Application lists: building, walking and releasing them never touches the
// bus; their failures are result codes with one error line each.
#include <gmock/gmock.h>

#include <string>

#include "kova_api.h"
#include "kova_test.h"

namespace kova_test {
namespace {

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

}  // namespace
}  // namespace kova_test

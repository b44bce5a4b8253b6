// Zone lists: one walk position shared by the three walking functions.
#include <gmock/gmock.h>

#include "kova_api.h"
#include "kova_test.h"

namespace kova_test {
namespace {

std::string Read(const kova_zone *z) {
  return std::to_string(z->id) + ":" + std::to_string(z->scaler_id) + ":" + (z->app_id ? z->app_id : "<null>");
}

using ZonesTest = KovaTest;

TEST_F(ZonesTest, WalksShareOnePositionThatStopsAtBothEnds) {
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

}  // namespace
}  // namespace kova_test

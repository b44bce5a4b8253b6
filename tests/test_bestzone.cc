// Best-quality zone: switch and restore, and the switched-callback registry with its one shared subscription.
#include <gmock/gmock.h>

#include <chrono>
#include <cstdio>
#include <future>
#include <utility>
#include <vector>

#include "kova_api.h"
#include "kova_test.h"

namespace kova_test {
namespace {

using ::testing::ElementsAre;

using Hit = std::tuple<int, int, int, int, intptr_t>;  // callback, the three zones, user data

// Callbacks are told apart by their address, so each slot is its own function.
std::vector<Hit> g_hits;
std::function<void()> g_once;  // run by cb0 on its next call

template <int N>
void Cb(int first, int second, int third, void *user_data) {
  g_hits.emplace_back(N, first, second, third, reinterpret_cast<intptr_t>(user_data));
  if (N == 0 && g_once) std::exchange(g_once, nullptr)();
}

constexpr kova_best_quality_zone_switched_cb kCb[] = {Cb<0>, Cb<1>, Cb<2>, Cb<3>};

int Reg(int n, intptr_t ud = 0) {  // user data 100 + n by default
  return kova_register_best_quality_zone_switched_callback(kCb[n], reinterpret_cast<void *>(ud != 0 ? ud : 100 + n));
}
int Unreg(int n) { return kova_unregister_best_quality_zone_switched_callback(kCb[n]); }

class BestZoneTest : public KovaTest {
 protected:
  void TearDown() override {
    g_once = nullptr;
    g_hits.clear();
    KovaTest::TearDown();
  }
  void Switch(int first, int second = 0, int third = 0) {
    const size_t before = g_hits.size();
    Emit("BestQualitZoneSwitched", g_variant_new("(iii)", first, second, third));
    ASSERT_TRUE(WaitUntil([&] { return g_hits.size() > before; }));
  }
};

TEST_F(BestZoneTest, RegistryChangesDuringADeliveryTakeEffectFromTheNextOne) {
  // cb0 unregisters cb1 twice, takes cb2 (still to come) and itself out and back in, and registers cb3.
  std::vector<int> results;
  g_once = [&] { results = {Unreg(1), Unreg(1), Unreg(2), Reg(2, 12), Unreg(0), Reg(0, 10), Reg(3)}; };
  for (int i : {0, 1, 2}) ASSERT_EQ(Reg(i), 0);
  EXPECT_EQ(Reg(0, 9), -1);  // keeps the first user data
  Switch(1, 2, 3);
  EXPECT_THAT(results, ElementsAre(0, -1, 0, 0, 0, 0, 0));
  char cb1[64];  // the second unregistration of cb1 matches its held record again, then finds no other
  std::snprintf(cb1, sizeof cb1, "%p", reinterpret_cast<void *>(kCb[1]));
  EXPECT_EQ(doubles::CountLog("cb (" + std::string(cb1) + ") is being invoked", doubles::kInfo), 2);
  EXPECT_EQ(doubles::CountLog("not registered cb (" + std::string(cb1) + ")", doubles::kError), 1);
  Switch(4);
  EXPECT_THAT(g_hits, ElementsAre(Hit{0, 1, 2, 3, 100}, Hit{2, 1, 2, 3, 12}, Hit{0, 4, 0, 0, 10},
                                  Hit{2, 4, 0, 0, 12}, Hit{3, 4, 0, 0, 103}));
  for (int i : {0, 2, 3}) EXPECT_EQ(Unreg(i), 0);
}

TEST_F(BestZoneTest, CallbacksRunWithoutTheRegistryLock) {
  // cb0 waits for a thread that unregisters cb1, calls the bus, then unregisters itself, the last one.
  g_once = [&] {
    auto done = std::async(std::launch::async, [] { EXPECT_EQ(Unreg(1), 0); });
    ASSERT_EQ(done.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    service().SetInt("RestoreBestQualityZone", -3);
    EXPECT_EQ(kova_restore_best_quality_zone(), -3);
    EXPECT_EQ(Unreg(0), 0);
  };
  for (int i : {0, 1}) ASSERT_EQ(Reg(i), 0);
  Switch(1);
  EXPECT_THAT(g_hits, ElementsAre(Hit{0, 1, 0, 0, 100}));  // cb1 left before its turn
  // cb0's record stayed until the delivery ended, and the subscription with it, for the next registration.
  ASSERT_EQ(Reg(2), 0);
  EXPECT_EQ(Unreg(2), 0);  // the last one leaving outside a delivery ends it
  EXPECT_EQ(doubles::CountLogPrefix("subscribe best quality zone switched (", doubles::kInfo), 1);
  EXPECT_EQ(doubles::CountLogPrefix("unsubscribe best quality zone switched (", doubles::kInfo), 1);
}

}  // namespace
}  // namespace kova_test

// Best-quality zone: switch and restore, and the registry of switched
// callbacks with its one shared subscription, changed from inside a delivery.
#include <gmock/gmock.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <future>
#include <vector>

#include "kova_api.h"
#include "kova_test.h"

namespace kova_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr const char *kSignal = "BestQualitZoneSwitched";

struct Hit {
  int who, first, second, third;
  void *user_data;
  bool operator==(const Hit &) const = default;
};

// Callbacks are told apart by their address, so each slot is its own function.
std::vector<Hit> g_hits;
std::function<void()> g_action[5];

template <int N>
void Cb(int first, int second, int third, void *user_data) {
  g_hits.push_back({N, first, second, third, user_data});
  std::function<void()> action = g_action[N];  // the action may replace itself
  if (action) action();
}

constexpr kova_best_quality_zone_switched_cb kCb[] = {Cb<0>, Cb<1>, Cb<2>, Cb<3>, Cb<4>};

std::string P(kova_best_quality_zone_switched_cb cb) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%p", reinterpret_cast<void *>(cb));
  return buf;
}

void *Ud(int n) { return reinterpret_cast<void *>(static_cast<intptr_t>(0x100 + n)); }
int Reg(int n, int ud) { return kova_register_best_quality_zone_switched_callback(kCb[n], Ud(ud)); }
int Reg(int n) { return Reg(n, n); }
int Unreg(int n) { return kova_unregister_best_quality_zone_switched_callback(kCb[n]); }
int Subscribes() { return doubles::CountLogPrefix("subscribe best quality zone switched (", doubles::kInfo); }
int Unsubscribes() { return doubles::CountLogPrefix("unsubscribe best quality zone switched (", doubles::kInfo); }

class BestZoneTest : public KovaTest {
 protected:
  void SetUp() override {
    KovaTest::SetUp();
    g_hits.clear();
  }
  void TearDown() override {
    for (auto &a : g_action) a = nullptr;
    // A delivery may have emptied the registry and kept the subscription.
    if (Reg(4) == 0) Unreg(4);
    KovaTest::TearDown();
  }

  // Emits a switch and waits until the callbacks have had it.
  void Switch(int first, int second = 0, int third = 0) {
    const size_t before = g_hits.size();
    Emit(kSignal, g_variant_new("(iii)", first, second, third));
    ASSERT_TRUE(WaitUntil([&] { return g_hits.size() > before; })) << first;
  }
};

TEST_F(BestZoneTest, SwitchAndRestoreReturnTheServiceInteger) {
  EXPECT_EQ(kova_switch_best_quality_zone(0, -1), -1);  // its line and no call: see the lines below
  service().SetInt("SwitchBestQaulityZone", 7);
  EXPECT_EQ(kova_switch_best_quality_zone(2, 0), 7);
  const Call call = LastCall("SwitchBestQaulityZone");
  EXPECT_EQ(call.args.text(), "(" + std::to_string(call.args.i32(0)) + ", 2, 0)");
  const std::string tag = "[" + Hex(call.args.i32(0)) + "] _kova_dbus_method_call() ";
  EXPECT_THAT(doubles::Messages(), ElementsAre("invalid param (0:-1)", ">> (2:0)",
                                               "Method call 'SwitchBestQaulityZone'",
                                               tag + "success, method return value is (7)"));

  // An error reply fails with the operation's own line.
  service().Set("SwitchBestQaulityZone", Answer::Error("org.zelta.Error.Failed", "no"));
  EXPECT_EQ(kova_switch_best_quality_zone(2, 0), -1);
  EXPECT_TRUE(doubles::HasLog("[" + Hex(LastCall("SwitchBestQaulityZone").args.i32(0)) +
                                  "] _kova_dbus_method_call() for BEST QUALITY ZONE INFO is failed",
                              doubles::kError));
}

TEST_F(BestZoneTest, CallbacksGetTheSignalInRegistrationOrderThroughOneSubscription) {
  EXPECT_EQ(Unreg(2), -1);
  EXPECT_EQ(kova_register_best_quality_zone_switched_callback(nullptr, Ud(0)), -1);
  EXPECT_THAT(doubles::Messages(), ElementsAre(">>", "not registered cb (" + P(Cb<2>) + ")", ">>", "invalid param"));
  for (int i : {1, 0}) ASSERT_EQ(Reg(i), 0);
  EXPECT_EQ(Subscribes(), 1);
  EXPECT_EQ(Reg(0, 9), -1);  // keeps the first user data

  Emit(kSignal, g_variant_new("(ii)", 1, 2));
  Sync();
  EXPECT_THAT(g_hits, IsEmpty());
  EXPECT_TRUE(doubles::HasLog("signal (BestQualitZoneSwitched) ignored, unexpected type ((ii))", doubles::kError));

  doubles::ClearLogs();
  Switch(4, 5, 6);
  EXPECT_THAT(g_hits, ElementsAre(Hit{1, 4, 5, 6, Ud(1)}, Hit{0, 4, 5, 6, Ud(0)}));
  EXPECT_THAT(doubles::Messages(),
              ElementsAre("signal (BestQualitZoneSwitched) received - (4:5:6)", "call cb(" + P(Cb<1>) + ") - (4:5:6)",
                          "call cb(" + P(Cb<0>) + ") - (4:5:6)"));

  // The last one unregistering itself: its record stays until the delivery
  // ends, so the subscription stays too, for the next registration to reuse.
  g_hits.clear();
  EXPECT_EQ(Unreg(1), 0);
  int result = 99;
  g_action[0] = [&] { result = Unreg(0); };
  Switch(8);
  EXPECT_EQ(result, 0);
  ASSERT_EQ(Reg(3), 0);
  Switch(9);
  EXPECT_THAT(g_hits, ElementsAre(Hit{0, 8, 0, 0, Ud(0)}, Hit{3, 9, 0, 0, Ud(3)}));
  EXPECT_EQ(Subscribes() + Unsubscribes(), 0);

  // The last unregistration drops the subscription; the next registration makes a new one.
  EXPECT_EQ(Unreg(3), 0);
  EXPECT_EQ(Unsubscribes(), 1);
  ASSERT_EQ(Reg(2), 0);
  EXPECT_EQ(Subscribes(), 1);
  EXPECT_EQ(Unreg(2), 0);
}

TEST_F(BestZoneTest, RegistryChangesDuringADeliveryTakeEffectFromTheNextOne) {
  // During the delivery cb0 unregisters cb1 (still to come) twice, takes cb2
  // (still to come) and itself (already called) out and back in with new user
  // data, and registers cb3. Records taken out and back in keep their place.
  std::vector<int> results;
  g_action[0] = [&] {
    g_action[0] = nullptr;
    results = {Unreg(1), Unreg(1), Unreg(2), Reg(2, 12), Unreg(0), Reg(0, 10), Reg(3)};
  };
  for (int i : {0, 1, 2}) ASSERT_EQ(Reg(i), 0);
  Switch(1);
  EXPECT_THAT(results, ElementsAre(0, -1, 0, 0, 0, 0, 0));
  EXPECT_THAT(g_hits, ElementsAre(Hit{0, 1, 0, 0, Ud(0)}, Hit{2, 1, 0, 0, Ud(12)}));
  g_hits.clear();
  Switch(2);
  EXPECT_THAT(g_hits, ElementsAre(Hit{0, 2, 0, 0, Ud(10)}, Hit{2, 2, 0, 0, Ud(12)}, Hit{3, 2, 0, 0, Ud(3)}));
  for (int i : {0, 2, 3}) EXPECT_EQ(Unreg(i), 0);
  EXPECT_EQ(Subscribes(), 1);  // the first one served throughout
  EXPECT_EQ(Unsubscribes(), 1);
}

TEST_F(BestZoneTest, RegistryMutexIsNotHeldWhileACallbackRuns) {
  // The callback waits for a thread that changes the registry, then calls the bus: both need the lock free.
  int other_result = 99;
  g_action[0] = [&] {
    g_action[0] = nullptr;
    auto done = std::async(std::launch::async, [&] { other_result = Unreg(1); });
    ASSERT_EQ(done.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    service().SetInt("RestoreBestQualityZone", -3);
    EXPECT_EQ(kova_restore_best_quality_zone(), -3);
  };
  for (int i : {0, 1}) ASSERT_EQ(Reg(i), 0);
  Switch(1);
  EXPECT_EQ(other_result, 0);
  EXPECT_THAT(g_hits, ElementsAre(Hit{0, 1, 0, 0, Ud(0)}));  // cb1 left before its turn
  EXPECT_EQ(Unreg(0), 0);
}

}  // namespace
}  // namespace kova_test

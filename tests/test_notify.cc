// Notifications: audio focus, the best-quality registry and the per-application registries.
#include <gmock/gmock.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <future>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "kova_api.h"
#include "kova_test.h"

namespace kova_test {
namespace {

using FocusTest = KovaTest;

using Seen = std::vector<std::string>;  // what one subscriber saw

void OnFocus(int zone_id, void *seen) { static_cast<Seen *>(seen)->push_back(std::to_string(zone_id)); }

void OnFocusZone(kova_zone *z, void *seen) {
  static_cast<Seen *>(seen)->push_back(std::to_string(z->id) + ":" + std::to_string(z->scaler_id) + ":" + z->app_id);
}

TEST_F(FocusTest, BothSubscriptionKindsSeeTheSameSignalUntilTheyLeave) {
  Seen a, z;
  const unsigned int ida = kova_register_audio_focus_changed_callback(OnFocus, &a);
  const unsigned int idz = kova_subscribe_audio_focus_zone_changed(OnFocusZone, &z);
  Emit("AudioFocusChanged", g_variant_new("(iiis)", 0x1234ABCD, 4, 40, "org.app"));
  ASSERT_TRUE(WaitUntil([&] { return a.size() + z.size() == 2; }));
  EXPECT_EQ((std::vector<Seen>{a, z}), (std::vector<Seen>{{"4"}, {"4:40:org.app"}}));
  EXPECT_EQ(kova_unsubscribe_audio_focus_zone_changed(idz), 0);
  Emit("AudioFocusChanged", g_variant_new("(iiis)", 2, 0, 0, ""));  // zone 0 is delivered like any other
  ASSERT_TRUE(WaitUntil([&] { return a.size() == 2; }));
  EXPECT_EQ(kova_unregister_audio_focus_changed_callback(ida), 0);
  Emit("AudioFocusChanged", g_variant_new("(iiis)", 3, 5, 50, "org.other"));
  Sync();
  EXPECT_EQ((std::vector<Seen>{a, z}), (std::vector<Seen>{{"4", "0"}, {"4:40:org.app"}}));
}

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

using Ints = std::vector<int>;

struct Probe {
  Ints got;                                  // what the callback was given
  std::function<void(const char *)> during;  // runs inside the callback
  void Seen(const char *app_id, Ints values) {
    got = std::move(values);
    if (during) during(app_id);
  }
};

void OnResource(const char *id, kova_resource *r, void *p) {  // read through the accessors
  int w = 0, h = 0, f = 0;
  const int got = kova_rsc_get_video_max_resolution(r, &w, &h, &f);
  static_cast<Probe *>(p)->Seen(id, {kova_rsc_max_resolution_changed(r), kova_rsc_audio_out_changed(r), w, h, f, got});
}
void OnMaxRez(const char *id, int w, int h, int rate, void *p) { static_cast<Probe *>(p)->Seen(id, {w, h, rate}); }
// Unregistration goes by application id alone: the tests unregister with these, which are only sent on.
void OtherResource(const char *, kova_resource *, void *) {}
void OtherMaxRez(const char *, int, int, int, void *) {}

struct Registry {
  int (*reg)(const char *, Probe *);
  int (*unreg)(const char *);
  void *callback, *unreg_callback;
  const char *reg_method, *unreg_method, *signal, *signal_args;  // signal_args: 640x480 at 30 for application %s
  bool with_pid;   // the calls carry the process id before the application id
  Ints delivered;  // what the callback is handed from the signal
};

// gtest would otherwise print the parameter's bytes, padding included.
void PrintTo(const Registry &r, std::ostream *os) { *os << r.signal; }

const Registry kResource{
    [](const char *app, Probe *p) { return kova_register_resource_change_callback(app, OnResource, p); },
    [](const char *app) { return kova_unregister_resource_change_callback(app, OtherResource); },
    reinterpret_cast<void *>(OnResource), reinterpret_cast<void *>(OtherResource), "RscChangeRegId",
    "RscChangeUnRegId", "AppRscChanged", "(%s, 2, 0, 640, 480, 30)", true, {1, 0, 640, 480, 30, 0}};

const Registry kMaxRez{
    [](const char *app, Probe *p) { return kova_register_max_video_resolution_changed_callback(app, OnMaxRez, p); },
    [](const char *app) { return kova_unregister_max_video_resolution_changed_callback(app, OtherMaxRez); },
    reinterpret_cast<void *>(OnMaxRez), reinterpret_cast<void *>(OtherMaxRez), "MaxVideoRegId", "MaxVideoUnRegId",
    "MaxRezChanged", "(%s, 640, 480, 30)", false, {640, 480, 30}};

class RegistryTest : public KovaTest, public ::testing::WithParamInterface<Registry> {
 protected:
  const Registry &R() const { return GetParam(); }
  void Signal(const char *app) { Emit(R().signal, g_variant_new_parsed(R().signal_args, app)); }
  int Subscriptions() {  // each live one logs every signal once, registered application or not
    const int before = doubles::CountLogPrefix(std::string("signal (") + R().signal + ")");
    Signal("anyone");
    Sync();
    return doubles::CountLogPrefix(std::string("signal (") + R().signal + ")") - before;
  }
};

// One subscription for all entries, dropped with the last; a signal reaches the callback of its application
// only, which may unregister itself.
TEST_P(RegistryTest, ApplicationsShareOneSubscriptionDroppedWithTheLast) {
  service().SetInt(R().reg_method, 0);
  service().SetInt(R().unreg_method, 0);
  Probe a, b;  // each unregisters the id it is given: a wrong one fails
  a.during = b.during = [&](const char *app_id) { EXPECT_EQ(R().unreg(app_id), 0); };
  ASSERT_EQ(R().reg("app.a", &a), 0);
  const Call call = LastCall(R().reg_method);  // [pid,] application, the callback's low 32 bits
  const std::string pid = R().with_pid ? std::to_string(getpid()) + ", " : "";
  const auto cb = std::to_string(static_cast<guint32>(reinterpret_cast<uintptr_t>(R().callback)));
  EXPECT_EQ(call.args.text(), "(" + std::to_string(call.args.i32(0)) + ", " + pid + "'app.a', " + cb + ")");
  EXPECT_TRUE(doubles::HasLog("[" + Hex(call.args.i32(0)) + "] (" + R().reg_method + ") success :: (0)"));
  ASSERT_EQ(R().reg("app.b", &b), 0);
  EXPECT_EQ(Subscriptions(), 1);

  Signal("app.b");
  ASSERT_TRUE(WaitUntil([&] { return !b.got.empty(); }));
  EXPECT_EQ(b.got, R().delivered);
  EXPECT_EQ(LastCall(R().unreg_method).args.u32(R().with_pid ? 3 : 2),
            static_cast<guint32>(reinterpret_cast<uintptr_t>(R().unreg_callback)));
  EXPECT_EQ(Subscriptions(), 1);  // app.a still holds it
  EXPECT_TRUE(a.got.empty());
  Signal("app.a");
  ASSERT_TRUE(WaitUntil([&] { return !a.got.empty(); }));
  EXPECT_EQ(Subscriptions(), 0);  // gone with the last, from inside its callback
  EXPECT_EQ(doubles::CountLogPrefix("failed to unregister app id("), 0);  // the service's 0 is no failure
  service().Set(R().reg_method, Answer::Error("org.zelta.Error.Failed", "no"));
  EXPECT_EQ(R().reg("app.c", &a), -1);  // a failed call registers nothing, nor drops a subscription it never made
  EXPECT_EQ(R().unreg("app.c"), -1);
  EXPECT_EQ(doubles::CountLogPrefix("unsubscribe "), 1);
}

// app.late's registration waits for the service, answered `answer`, while this thread unregisters `gone`
// (app.first, registered before, or app.late): no subscription outlives the entries, a refused one leaves none.
TEST_P(RegistryTest, RegistrationInFlightWhileTheMapChanges) {
  service().SetInt(R().reg_method, 0);
  service().SetInt(R().unreg_method, 0);
  struct Row { int answer; const char *gone; int subscribed; };
  for (const Row &r : {Row{0, "app.first", 1}, Row{0, "app.late", 0}, Row{-1, "app.first", 0}}) {
    if (r.gone == std::string("app.first")) R().reg("app.first", nullptr);
    service().SetInt(R().reg_method, r.answer);
    service().Hold(R().reg_method);
    const size_t calls = service().CallCount();
    std::future<int> reg = std::async(std::launch::async, [&] { return R().reg("app.late", nullptr); });
    ASSERT_TRUE(service().WaitForCalls(calls + 1));
    EXPECT_EQ(R().unreg(r.gone), 0);
    service().ReleaseHeld();
    EXPECT_EQ(reg.get(), r.answer);
    EXPECT_EQ(Subscriptions(), r.subscribed) << r.gone << r.answer;
    EXPECT_EQ(R().unreg("app.late"), r.subscribed ? 0 : -1);
  }
  EXPECT_EQ(doubles::CountLogPrefix("failed to register app id(app.late:", doubles::kError), 1);
}

INSTANTIATE_TEST_SUITE_P(Both, RegistryTest, ::testing::Values(kResource, kMaxRez));

TEST(ResourceRecord, PredicatesHoldForAnyNonZeroField) {
  for (int v : {0, 1, 2, -1}) {
    const kova_resource r{v, v, 480, 640, 30};
    EXPECT_EQ(kova_rsc_max_resolution_changed(&r), v != 0) << v;
    EXPECT_EQ(kova_rsc_audio_out_changed(&r), v != 0) << v;
  }
}

}  // namespace
}  // namespace kova_test

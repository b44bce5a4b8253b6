// The resource-change and maximum-resolution registries share one implementation and the same cases.
#include <gmock/gmock.h>
#include <unistd.h>

#include <functional>
#include <future>
#include <ostream>
#include <string>
#include <vector>

#include "kova_api.h"
#include "kova_test.h"

namespace kova_test {
namespace {

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
  service().Set(R().reg_method, Answer::Error("org.zelta.Error.Failed", "no"));
  EXPECT_EQ(R().reg("app.c", &a), -1);  // a failed call registers nothing
  EXPECT_EQ(R().unreg("app.c"), -1);
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

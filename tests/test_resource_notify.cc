// Per-application notifications: the resource-change and maximum-resolution
// registries share one implementation and run through the same cases.
#include <gmock/gmock.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <future>
#include <ostream>
#include <string>
#include <vector>

#include "kova_api.h"
#include "kova_test.h"

namespace kova_test {
namespace {

using ::testing::ElementsAre;
using Ints = std::vector<int>;

struct Probe {
  explicit Probe(std::string id) : app(std::move(id)) {}
  std::string app;  // the application this probe was registered for
  int calls = 0, wrong_app = 0;
  Ints got;                                  // what the callback was given
  std::function<void(const char *)> during;  // runs inside the callback
  void Seen(const char *app_id, void *data, Ints values) {
    ++calls;
    wrong_app += app != app_id || data != this;
    got = std::move(values);
    if (during) during(app_id);
  }
};

void OnResource(const char *app_id, kova_resource *r, void *user_data) {
  int w = 0, h = 0, f = 0;
  kova_rsc_get_video_max_resolution(r, &w, &h, &f);
  const Ints fields{r->max_resolution_changed, r->audio_out_changed, r->width, r->height, w, h, f};
  static_cast<Probe *>(user_data)->Seen(app_id, user_data, fields);
}

void OnMaxRez(const char *app_id, int width, int height, int framerate, void *user_data) {
  static_cast<Probe *>(user_data)->Seen(app_id, user_data, {width, height, framerate});
}

// One registry as the tests see it.
struct Registry {
  int (*reg)(const char *, Probe *);
  int (*unreg)(const char *);
  void *callback;
  const char *reg_method, *unreg_method;
  bool with_pid;  // the calls carry the process id before the application id
  const char *signal, *what;
  GVariant *(*signal_for)(const char *app);  // 640x480 at 30, logged as `received`
  const char *received;
  Ints delivered;  // what OnResource / OnMaxRez hand on from that signal
};

// gtest would otherwise print the parameter's bytes, padding included.
void PrintTo(const Registry &r, std::ostream *os) { *os << r.signal; }

const Registry kResource{
    [](const char *app, Probe *p) { return kova_register_resource_change_callback(app, OnResource, p); },
    [](const char *app) { return kova_unregister_resource_change_callback(app, OnResource); },
    reinterpret_cast<void *>(OnResource), "RscChangeRegId", "RscChangeUnRegId", true, "AppRscChanged", "resource",
    [](const char *app) { return g_variant_new("(siiiii)", app, 1, 0, 640, 480, 30); }, "1:0:640:480:30",
    {1, 0, 640, 480, 640, 480, 30}};

const Registry kMaxRez{
    [](const char *app, Probe *p) { return kova_register_max_video_resolution_changed_callback(app, OnMaxRez, p); },
    [](const char *app) { return kova_unregister_max_video_resolution_changed_callback(app, OnMaxRez); },
    reinterpret_cast<void *>(OnMaxRez), "MaxVideoRegId", "MaxVideoUnRegId", false, "MaxRezChanged", "max resolution",
    [](const char *app) { return g_variant_new("(siii)", app, 640, 480, 30); }, "640:480:30", {640, 480, 30}};

class RegistryTest : public KovaTest, public ::testing::WithParamInterface<Registry> {
 protected:
  void SetUp() override {
    KovaTest::SetUp();
    service().SetInt(R().reg_method, 0);
    service().SetInt(R().unreg_method, 0);
  }
  const Registry &R() const { return GetParam(); }
  std::string Cb() const {
    char buf[32];
    return std::string(buf, std::snprintf(buf, sizeof buf, "%p", R().callback));
  }
  std::string SubPrefix() const { return std::string("subscribe ") + R().what + " change ("; }
  int Subscribes() { return doubles::CountLogPrefix(SubPrefix()); }
  int Unsubscribes() { return doubles::CountLogPrefix(std::string("unsubscribe ") + R().what + " change("); }
  void Signal(const char *app) { Emit(R().signal, R().signal_for(app)); }
  void ExpectNotSubscribed() {  // a signal reaches no handler
    const std::string prefix = std::string("signal (") + R().signal + ")";
    const int before = doubles::CountLogPrefix(prefix);
    Signal("anyone");
    Sync();
    EXPECT_EQ(doubles::CountLogPrefix(prefix), before) << "a subscription is left";
  }
};

// One subscription for all entries, dropped with the last; a signal reaches
// only the callback of its application, a malformed one nothing.
TEST_P(RegistryTest, TwoApplicationsShareOneSubscription) {
  Probe a{"app.a"}, b{"app.b"};
  ASSERT_EQ(R().reg("app.a", &a), 0);
  const Call call = LastCall(R().reg_method);  // [pid,] application, callback (its low 32 bits)
  const std::string pid = R().with_pid ? std::to_string(getpid()) + ", " : "";
  const auto cb = std::to_string(static_cast<guint32>(reinterpret_cast<uintptr_t>(R().callback)));
  EXPECT_EQ(call.args.text(), "(" + std::to_string(call.args.i32(0)) + ", " + pid + "'app.a', " + cb + ")");
  const std::string sub = doubles::Messages().back();
  EXPECT_THAT(doubles::Messages(),
              ElementsAre("cb added (app.a:" + Cb() + ")", std::string("Method call '") + R().reg_method + "'",
                          "[" + Hex(call.args.i32(0)) + "] (" + R().reg_method + ") success :: (0)", sub));
  ASSERT_EQ(sub.rfind(SubPrefix(), 0), 0u);
  ASSERT_EQ(R().reg("app.b", &b), 0);
  EXPECT_EQ(Subscribes(), 1);

  doubles::ClearLogs();
  Signal("app.b");
  ASSERT_TRUE(WaitUntil([&] { return b.calls == 1; }));
  Emit(R().signal, g_variant_new("(s)", "app.b"));
  Sync();
  EXPECT_THAT(Ints({a.calls, b.calls, b.wrong_app}), ElementsAre(0, 1, 0));
  EXPECT_EQ(b.got, R().delivered);
  const std::string signal = std::string("signal (") + R().signal + ") ";
  EXPECT_THAT(doubles::Messages(),
              ElementsAre(signal + "received - (app.b:" + R().received + ")", "call cb(" + Cb() + ")",
                          signal + "ignored, unexpected type ((s))"));

  ASSERT_EQ(R().unreg("app.a"), 0);
  EXPECT_EQ(Unsubscribes(), 0);  // app.b still holds it
  ASSERT_EQ(R().unreg("app.b"), 0);
  const Call unreg = LastCall(R().unreg_method);
  EXPECT_EQ(unreg.args.text(), "(" + std::to_string(unreg.args.i32(0)) + ", " + pid + "'app.b', " + cb + ")");
  ExpectNotSubscribed();
}

// Refused locally: nothing is sent. Refused by the service: registration
// leaves no entry, unregistration still removes and drops the subscription.
TEST_P(RegistryTest, Refusals) {
  Probe p{"app.r"}, twin{"app.r"};
  EXPECT_EQ(R().unreg("app.none"), -1);
  EXPECT_EQ(R().reg(nullptr, &p), -1);
  EXPECT_THAT(doubles::Messages(), ElementsAre("not registered (app.none:" + Cb() + ")", "invalid param"));
  ASSERT_EQ(R().reg("app.r", &p), 0);
  EXPECT_EQ(R().reg("app.r", &twin), -1);
  Sync();
  EXPECT_EQ(service().CallCount(), 1u);

  service().SetInt(R().unreg_method, -1);
  EXPECT_EQ(R().unreg("app.r"), 0);
  ExpectNotSubscribed();

  service().SetInt(R().reg_method, -3);
  EXPECT_EQ(R().reg("app.r", &p), -1);
  EXPECT_TRUE(doubles::HasLog("failed to register app id(app.r:" + Cb() + ")", doubles::kError));
  ExpectNotSubscribed();
  // Gone: a retry is not "already registered", and any answer >= 0 is success.
  service().SetInt(R().reg_method, 7);
  EXPECT_EQ(R().reg("app.r", &p), 0);
  EXPECT_EQ(R().unreg("app.r"), 0);
}

// app.late's registration waits for the service, answered `answer`, while
// this thread unregisters `unregistered`: no subscription may outlive the
// entries, and one is live while app.late stays.
TEST_P(RegistryTest, RegistrationInFlightWhileTheMapChanges) {
  struct InFlight { bool first_registered; int answer; const char *unregistered; bool late_stays; };
  for (const InFlight &c : {InFlight{true, 0, "app.first", true}, InFlight{false, 0, "app.late", false},
                            InFlight{true, -1, "app.first", false}}) {
    SCOPED_TRACE(std::to_string(c.first_registered) + c.unregistered + std::to_string(c.answer));
    Probe first{"app.first"}, late{"app.late"};
    if (c.first_registered) {
      ASSERT_EQ(R().reg("app.first", &first), 0);
    }
    service().SetInt(R().reg_method, c.answer);
    service().Hold(R().reg_method);
    const size_t calls = service().CallCount();
    std::future<int> reg = std::async(std::launch::async, [&] { return R().reg("app.late", &late); });
    ASSERT_TRUE(service().WaitForCalls(calls + 1));
    EXPECT_EQ(R().unreg(c.unregistered), 0);
    service().ReleaseHeld();
    EXPECT_EQ(reg.get(), c.answer);
    EXPECT_EQ(Subscribes() - Unsubscribes(), c.late_stays ? 1 : 0);
    EXPECT_EQ(R().unreg("app.late"), c.late_stays ? 0 : -1);
    ExpectNotSubscribed();
  }
}

TEST_P(RegistryTest, CallbackMayUnregisterItsOwnIdAndRegisterAnother) {
  Probe late{"app.late"}, p{"app.self"};
  p.during = [&](const char *app_id) {
    EXPECT_EQ(R().unreg(app_id), 0);           // empties the map: the subscription goes
    EXPECT_EQ(R().reg("app.late", &late), 0);  // and comes back
  };
  late.during = [&](const char *app_id) { EXPECT_EQ(R().unreg(app_id), 0); };
  ASSERT_EQ(R().reg("app.self", &p), 0);
  Signal("app.self");
  ASSERT_TRUE(WaitUntil([&] { return p.calls == 1; }));
  Signal("app.late");
  ASSERT_TRUE(WaitUntil([&] { return late.calls == 1; }));
  EXPECT_EQ(Subscribes(), 2);  // dropped with app.self, taken again for app.late
  ExpectNotSubscribed();
}

INSTANTIATE_TEST_SUITE_P(Both, RegistryTest, ::testing::Values(kResource, kMaxRez),
                         [](const auto &p) { return std::string(p.param.signal); });

// Unregistration goes by application id alone; the callback given is only
// passed on to the service. An id may be in both registries at once.
void OtherResourceCallback(const char *, kova_resource *, void *) {}

using AppIdTest = KovaTest;

TEST_F(AppIdTest, UnregistrationMatchesTheIdAndSendsTheCallbackGiven) {
  for (const char *m : {"RscChangeRegId", "RscChangeUnRegId", "MaxVideoRegId", "MaxVideoUnRegId"}) {
    service().SetInt(m, 0);
  }
  Probe p{"app.x"};
  ASSERT_EQ(kova_register_resource_change_callback("app.x", OnResource, &p), 0);
  ASSERT_EQ(kova_register_max_video_resolution_changed_callback("app.x", OnMaxRez, &p), 0);
  EXPECT_EQ(kova_unregister_resource_change_callback("app.x", OtherResourceCallback), 0);
  EXPECT_EQ(LastCall("RscChangeUnRegId").args.u32(3),
            static_cast<guint32>(reinterpret_cast<uintptr_t>(&OtherResourceCallback)));
  Emit("MaxRezChanged", g_variant_new("(siii)", "app.x", 1, 2, 3));
  EXPECT_TRUE(WaitUntil([&] { return p.calls == 1; }));  // the other registry still holds app.x
  EXPECT_EQ(kova_unregister_max_video_resolution_changed_callback("app.x", OnMaxRez), 0);
}

}  // namespace
}  // namespace kova_test

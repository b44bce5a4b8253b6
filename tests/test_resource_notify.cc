// Per-application notifications: the resource-change and maximum-resolution
// registries share one implementation and run through the same cases.
#include <gmock/gmock.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <future>
#include <string>
#include <vector>

#include "kova_api.h"
#include "kova_private.h"
#include "kova_test.h"

namespace kova_test {
namespace {

using ::testing::ElementsAre;
using Ints = std::vector<int>;

struct Probe {
  explicit Probe(std::string id) : app(std::move(id)) {}
  std::string app;  // the application this probe was registered for
  int calls = 0, wrong_app = 0, width = 0, height = 0, framerate = 0;
  Ints record;                               // the kova_resource fields, in order
  std::function<void(const char *)> during;  // runs inside the callback
  void Seen(const char *app_id, void *data) {
    ++calls;
    wrong_app += app != app_id || data != this;
    if (during) during(app_id);
  }
};

void OnResource(const char *app_id, kova_resource *r, void *user_data) {
  auto *p = static_cast<Probe *>(user_data);
  p->record = {r->max_resolution_changed, r->audio_out_changed, r->height, r->width, r->framerate};
  kova_rsc_get_video_max_resolution(r, &p->width, &p->height, &p->framerate);
  p->Seen(app_id, user_data);
}

void OnResourceOther(const char *, kova_resource *, void *) {}

void OnMaxRez(const char *app_id, int width, int height, int framerate, void *user_data) {
  auto *p = static_cast<Probe *>(user_data);
  p->width = width, p->height = height, p->framerate = framerate;
  p->Seen(app_id, user_data);
}

// One registry as the tests see it.
struct Registry {
  int (*reg)(const char *, Probe *);
  int (*unreg)(const char *);
  void *callback;
  const char *reg_method, *unreg_method;
  size_t app_arg;  // position of the application id in the calls
  const char *signal, *what;
  GVariant *(*signal_for)(const char *app);  // 640x480 at 30, logged as `received`
  const char *received;
};

const Registry kResource{
    [](const char *app, Probe *p) { return kova_register_resource_change_callback(app, OnResource, p); },
    [](const char *app) { return kova_unregister_resource_change_callback(app, OnResource); },
    reinterpret_cast<void *>(OnResource), "RscChangeRegId", "RscChangeUnRegId", 2, "AppRscChanged", "resource",
    [](const char *app) { return g_variant_new("(siiiii)", app, 1, 0, 640, 480, 30); }, "1:0:640:480:30"};

const Registry kMaxRez{
    [](const char *app, Probe *p) { return kova_register_max_video_resolution_changed_callback(app, OnMaxRez, p); },
    [](const char *app) { return kova_unregister_max_video_resolution_changed_callback(app, OnMaxRez); },
    reinterpret_cast<void *>(OnMaxRez), "MaxVideoRegId", "MaxVideoUnRegId", 1, "MaxRezChanged", "max resolution",
    [](const char *app) { return g_variant_new("(siii)", app, 640, 480, 30); }, "640:480:30"};

void PrintTo(const Registry &r, std::ostream *os) { *os << r.signal; }

class NotifyTest : public KovaTest {
 protected:
  void SetUp() override {
    KovaTest::SetUp();
    for (const char *m : {"RscChangeRegId", "RscChangeUnRegId", "MaxVideoRegId", "MaxVideoUnRegId"}) {
      service().SetInt(m, 0);
    }
  }
};

class RegistryTest : public NotifyTest, public ::testing::WithParamInterface<Registry> {
 protected:
  const Registry &R() const { return GetParam(); }
  std::string Cb() const {
    char buf[32];
    return std::string(buf, std::snprintf(buf, sizeof buf, "%p", R().callback));
  }
  std::string Received(const char *app) {
    return std::string("signal (") + R().signal + ") received - (" + app + ":" + R().received + ")";
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
  // The arguments of the last call to method and the exact lines of an
  // operation the service accepted, ending in last.
  void ExpectCallLines(const char *verb, const char *app, const char *method, const std::string &last) {
    const Call call = LastCall(method);
    EXPECT_EQ(call.args.str(R().app_arg), app);
    EXPECT_EQ(call.args.u32(R().app_arg + 1), static_cast<guint32>(reinterpret_cast<uintptr_t>(R().callback)));
    if (R().app_arg == 2) {
      EXPECT_EQ(call.args.i32(1), static_cast<int>(getpid()));
    }
    EXPECT_THAT(doubles::Messages(), ElementsAre(std::string("cb ") + verb + " (" + app + ":" + Cb() + ")",
                                                 std::string("Method call '") + method + "'",
                                                 "[" + Hex(call.args.i32(0)) + "] (" + method + ") success :: (0)",
                                                 last));
  }
};

// One subscription for all entries, dropped with the last; a signal reaches
// only the callback of its application, a malformed one nothing.
TEST_P(RegistryTest, TwoApplicationsShareOneSubscription) {
  Probe a{"app.a"}, b{"app.b"};
  ASSERT_EQ(R().reg("app.a", &a), 0);
  const std::string sub = doubles::Messages().back();
  ASSERT_EQ(sub.rfind(SubPrefix(), 0), 0u);
  ExpectCallLines("added", "app.a", R().reg_method, sub);
  ASSERT_EQ(R().reg("app.b", &b), 0);
  EXPECT_EQ(Subscribes(), 1);
  doubles::ClearLogs();
  Signal("app.b");
  ASSERT_TRUE(WaitUntil([&] { return b.calls == 1; }));
  Signal("app.other");
  Emit(R().signal, g_variant_new("(s)", "app.b"));
  Sync();
  EXPECT_THAT(Ints({a.calls, b.calls, b.wrong_app}), ElementsAre(0, 1, 0));
  EXPECT_EQ(b.record, (R().app_arg == 2 ? Ints{1, 0, 480, 640, 30} : Ints{}));  // height before width
  const std::string ignored = std::string("signal (") + R().signal + ") ignored, unexpected type ((s))";
  EXPECT_THAT(doubles::Messages(),
              ElementsAre(Received("app.b"), "call cb(" + Cb() + ")", Received("app.other"), ignored));
  EXPECT_EQ(kova_rsc_get_video_max_resolution(nullptr, &b.width, &b.height, &b.framerate), -1);
  EXPECT_THAT(Ints({b.width, b.height, b.framerate}), ElementsAre(640, 480, 30));  // untouched
  ASSERT_EQ(R().unreg("app.a"), 0);
  doubles::ClearLogs();
  ASSERT_EQ(R().unreg("app.b"), 0);
  ExpectCallLines("removed", "app.b", R().unreg_method,
                  std::string("unsubscribe ") + R().what + " change(" + sub.substr(SubPrefix().size()));
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

  for (const Answer &answer : {Answer::Int(-3), Answer::Error("org.zelta.Error.Failed", "no")}) {
    service().Set(R().reg_method, answer);
    doubles::ClearLogs();
    EXPECT_EQ(R().reg("app.r", &p), -1);
    EXPECT_TRUE(doubles::HasLog("failed to register app id(app.r:" + Cb() + ")", doubles::kError));
    ExpectNotSubscribed();
  }
  // Gone: a retry is not "already registered", and any answer >= 0 is success.
  service().SetInt(R().reg_method, 7);
  EXPECT_EQ(R().reg("app.r", &p), 0);
  EXPECT_EQ(R().unreg("app.r"), 0);
}

// A service call waits while this thread changes the map. First the last
// unregistration: a signal meanwhile finds the map empty and calls nothing.
TEST_P(RegistryTest, ServiceCallsInFlightWhileTheMapChanges) {
  Probe e{"app.e"};
  ASSERT_EQ(R().reg("app.e", &e), 0);
  service().Hold(R().unreg_method);
  std::future<int> unreg = std::async(std::launch::async, [this] { return R().unreg("app.e"); });
  ASSERT_TRUE(service().WaitForCalls(2));
  Signal("app.e");
  EXPECT_TRUE(WaitUntil([] { return doubles::HasLog("empty list", doubles::kError); }));
  service().ReleaseHeld();
  EXPECT_EQ(unreg.get(), 0);
  EXPECT_EQ(Unsubscribes(), 1);

  // Then app.late's registration, answered `answer`, while `unregistered` goes;
  // no subscription may outlive the entries.
  struct InFlight { bool first_registered; int answer; const char *unregistered; bool late_stays; };
  for (const InFlight &c : {InFlight{true, 0, "app.first", true}, InFlight{false, 0, "app.late", false},
                            InFlight{true, -1, "app.first", false}}) {
    SCOPED_TRACE(std::to_string(c.first_registered) + c.unregistered + std::to_string(c.answer));
    doubles::ClearLogs();
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
    if (c.late_stays) {
      Signal("app.late");
      ASSERT_TRUE(WaitUntil([&] { return late.calls == 1; }));
      EXPECT_EQ(R().unreg("app.late"), 0);
    }
    EXPECT_EQ(Subscribes(), Unsubscribes());
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

// ---- What is particular to each registry ----

// Separate maps: an id may be in both. Unregistering matches the id alone and
// sends the callback it was given.
TEST_F(NotifyTest, RegistriesAreIndependent) {
  Probe rsc{"app.both"}, rez{"app.both"};
  ASSERT_EQ(kova_register_resource_change_callback("app.both", OnResource, &rsc), 0);
  ASSERT_EQ(kova_register_max_video_resolution_changed_callback("app.both", OnMaxRez, &rez), 0);
  EXPECT_EQ(kova_unregister_resource_change_callback("app.both", OnResourceOther), 0);
  EXPECT_EQ(LastCall("RscChangeUnRegId").args.u32(3),
            static_cast<guint32>(reinterpret_cast<uintptr_t>(OnResourceOther)));
  Emit("AppRscChanged", g_variant_new("(siiiii)", "app.both", 0, 1, 1, 2, 3));
  Emit("MaxRezChanged", g_variant_new("(siii)", "app.both", 1920, 1080, 60));
  ASSERT_TRUE(WaitUntil([&] { return rez.calls == 1; }));
  Sync();
  EXPECT_EQ(rsc.calls, 0);
  EXPECT_EQ(kova_unregister_max_video_resolution_changed_callback("app.both", OnMaxRez), 0);
}

}  // namespace
}  // namespace kova_test

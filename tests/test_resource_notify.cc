// Per-application notifications: the resource-change and the
// maximum-resolution registries, run through the same cases, plus what is
// particular to each.
#include <gmock/gmock.h>
#include <unistd.h>

#include <atomic>
#include <barrier>
#include <cstdio>
#include <future>
#include <string>
#include <thread>
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
  void *user_data = nullptr;
  kova_resource resource{};
  std::function<void(const char *)> during;
  void Seen(const char *app_id, void *data) {
    ++calls;
    wrong_app += app != app_id;
    user_data = data;
  }
};

void OnResource(const char *app_id, kova_resource *r, void *user_data) {
  auto *p = static_cast<Probe *>(user_data);
  p->Seen(app_id, user_data);
  p->resource = *r;
  kova_rsc_get_video_max_resolution(r, &p->width, &p->height, &p->framerate);
  if (p->during) p->during(app_id);
}

void OnResourceOther(const char *, kova_resource *, void *) {}

void OnMaxRez(const char *app_id, int width, int height, int framerate, void *user_data) {
  auto *p = static_cast<Probe *>(user_data);
  p->Seen(app_id, user_data);
  p->width = width, p->height = height, p->framerate = framerate;
  if (p->during) p->during(app_id);
}

std::string Ptr(const void *p) {
  char buf[32];
  return std::string(buf, std::snprintf(buf, sizeof buf, "%p", p));
}

// One registry as the tests see it.
struct Registry {
  const char *name;
  int (*reg)(const char *, Probe *);
  int (*unreg)(const char *);
  void *callback;
  const char *reg_method, *unreg_method;
  size_t app_arg;  // position of the application id in the calls
  const char *signal, *what;
  GVariant *(*signal_for)(const char *app);  // 640x480 at 30
  const char *received;                      // the "received" values for that signal
};

const Registry kResource{
    "resource",
    [](const char *app, Probe *p) { return kova_register_resource_change_callback(app, OnResource, p); },
    [](const char *app) { return kova_unregister_resource_change_callback(app, OnResource); },
    reinterpret_cast<void *>(OnResource), "RscChangeRegId", "RscChangeUnRegId", 2, "AppRscChanged", "resource",
    [](const char *app) { return g_variant_new("(siiiii)", app, 1, 0, 640, 480, 30); }, "1:0:640:480:30"};

const Registry kMaxRez{
    "max_resolution",
    [](const char *app, Probe *p) { return kova_register_max_video_resolution_changed_callback(app, OnMaxRez, p); },
    [](const char *app) { return kova_unregister_max_video_resolution_changed_callback(app, OnMaxRez); },
    reinterpret_cast<void *>(OnMaxRez), "MaxVideoRegId", "MaxVideoUnRegId", 1, "MaxRezChanged", "max resolution",
    [](const char *app) { return g_variant_new("(siii)", app, 640, 480, 30); }, "640:480:30"};

void PrintTo(const Registry &r, std::ostream *os) { *os << r.name; }

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
  std::string Cb() const { return Ptr(R().callback); }
  std::string Received(const char *app) {
    return std::string("signal (") + R().signal + ") received - (" + app + ":" + R().received + ")";
  }
  std::string SubPrefix() const { return std::string("subscribe ") + R().what + " change ("; }
  int Subscribes() { return doubles::CountLogPrefix(SubPrefix()); }
  int Unsubscribes() { return doubles::CountLogPrefix(std::string("unsubscribe ") + R().what + " change("); }
  void Signal(const char *app) { Emit(R().signal, R().signal_for(app)); }
  // Proves that no subscription is left: a signal reaches no handler.
  void ExpectNotSubscribed() {
    const std::string prefix = std::string("signal (") + R().signal + ")";
    const int before = doubles::CountLogPrefix(prefix);
    Signal("anyone");
    Sync();
    EXPECT_EQ(doubles::CountLogPrefix(prefix), before) << "a subscription is left";
  }
  // The exact lines of a (un)registration that the service accepted, and its
  // arguments (their types are checked against the interface at tear-down).
  void ExpectCallLines(const char *verb, const char *app, const char *method, const std::string &last) {
    const Call call = LastCall(method);
    EXPECT_EQ(call.args.str(R().app_arg), app);
    EXPECT_EQ(call.args.u32(R().app_arg + 1), static_cast<guint32>(reinterpret_cast<uintptr_t>(R().callback)));
    if (R().app_arg == 2) {
      EXPECT_EQ(call.args.i32(1), static_cast<int>(getpid()));
    }
    EXPECT_THAT(doubles::Messages(),
                ElementsAre(std::string("cb ") + verb + " (" + app + ":" + Cb() + ")",
                            std::string("Method call '") + method + "'",
                            "[" + Hex(call.args.i32(0)) + "] (" + method + ") success :: (0)", last));
  }
};

// Also: signals for nobody and malformed signals call nothing.
TEST_P(RegistryTest, TwoApplicationsShareOneSubscription) {
  Probe a{"app.a"}, b{"app.b"};
  ASSERT_EQ(R().reg("app.a", &a), 0);
  const std::string sub = doubles::Messages().back();
  ASSERT_EQ(sub.rfind(SubPrefix(), 0), 0u);
  const std::string id = sub.substr(SubPrefix().size());  // "<id>)"
  ExpectCallLines("added", "app.a", R().reg_method, sub);
  ASSERT_EQ(R().reg("app.b", &b), 0);
  EXPECT_EQ(Subscribes(), 1);
  doubles::ClearLogs();
  Signal("app.b");
  ASSERT_TRUE(WaitUntil([&] { return b.calls == 1; }));
  Signal("app.other");
  Emit(R().signal, g_variant_new("(s)", "app.b"));
  Emit(R().signal, nullptr);
  Sync();
  EXPECT_EQ(a.calls, 0);
  EXPECT_EQ(b.calls, 1);
  EXPECT_EQ(b.user_data, &b);
  EXPECT_EQ(b.wrong_app, 0);
  EXPECT_THAT(Ints({b.width, b.height, b.framerate}), ElementsAre(640, 480, 30));
  if (R().app_arg == 2) {  // the record keeps height before width; the accessors read it so
    const int *fields = reinterpret_cast<const int *>(&b.resource);
    EXPECT_THAT(Ints(fields, fields + 5), ElementsAre(1, 0, 480, 640, 30));
    EXPECT_TRUE(kova_rsc_max_resolution_changed(&b.resource));
    EXPECT_FALSE(kova_rsc_audio_out_changed(&b.resource));
  }
  const std::string ignored = std::string("signal (") + R().signal + ") ignored, unexpected type (";
  EXPECT_THAT(doubles::Messages(), ElementsAre(Received("app.b"), "call cb(" + Cb() + ")", Received("app.other"),
                                               ignored + "(s))", ignored + "())"));
  EXPECT_TRUE(doubles::HasLog(Received("app.b"), doubles::kInfo));
  EXPECT_EQ(doubles::CountLogPrefix(ignored, doubles::kError), 2);

  ASSERT_EQ(R().unreg("app.a"), 0);
  doubles::ClearLogs();
  ASSERT_EQ(R().unreg("app.b"), 0);  // the last one: only now the subscription goes
  ExpectCallLines("removed", "app.b", R().unreg_method, std::string("unsubscribe ") + R().what + " change(" + id);
  ExpectNotSubscribed();
}

// Refused locally: nothing is sent. Refused by the service: registration
// leaves no entry, unregistration still removes and drops the subscription.
TEST_P(RegistryTest, Refusals) {
  Probe p{"app.r"}, twin{"app.r"};
  EXPECT_EQ(R().unreg("app.none"), -1);
  EXPECT_EQ(R().reg(nullptr, &p), -1);
  EXPECT_EQ(R().reg("\xc3\x28", &p), -1);  // not UTF-8
  EXPECT_EQ(R().unreg(nullptr), -1);
  EXPECT_EQ(R().unreg("\xff"), -1);
  EXPECT_THAT(doubles::Messages(), ElementsAre("not registered (app.none:" + Cb() + ")", "invalid param",
                                               "invalid param", "invalid param", "invalid param"));
  EXPECT_EQ(doubles::CountLog("invalid param", doubles::kError), 4);
  ASSERT_EQ(R().reg("app.r", &p), 0);
  EXPECT_EQ(R().reg("app.r", &twin), -1);
  EXPECT_TRUE(doubles::HasLog("already registered (app.r:" + Cb() + ")", doubles::kError));
  Sync();
  EXPECT_EQ(service().CallCount(), 1u);
  Signal("app.r");
  ASSERT_TRUE(WaitUntil([&] { return p.calls == 1; }));
  EXPECT_EQ(twin.calls, 0);

  service().SetInt(R().unreg_method, -1);
  doubles::ClearLogs();
  EXPECT_EQ(R().unreg("app.r"), 0);
  EXPECT_TRUE(doubles::HasLog("failed to unregister app id(app.r:" + Cb() + ")", doubles::kError));
  EXPECT_EQ(Unsubscribes(), 1);
  ExpectNotSubscribed();

  struct Refusal { Answer answer; const char *line; };  // line: after "[<cmd>] (<method>) "
  for (const Refusal &r : {Refusal{Answer::Int(-3), "success :: (-3)"},
                           Refusal{Answer::Error("org.zelta.Error.Failed", "no"), "failed"},
                           Refusal{Answer::Value(g_variant_new("(s)", "0")), "failed"}}) {
    SCOPED_TRACE(r.line);
    service().Set(R().reg_method, r.answer);
    doubles::ClearLogs();
    EXPECT_EQ(R().reg("app.r", &p), -1);
    EXPECT_TRUE(doubles::HasLog("[" + Hex(LastCall(R().reg_method).args.i32(0)) + "] (" + R().reg_method + ") " +
                                r.line));
    EXPECT_TRUE(doubles::HasLog("failed to register app id(app.r:" + Cb() + ")", doubles::kError));
    EXPECT_TRUE(doubles::HasLog("cb removed (app.r:" + Cb() + ")", doubles::kInfo));
    EXPECT_EQ(Subscribes(), 0);
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
  EXPECT_EQ(Unsubscribes(), 0);
  service().ReleaseHeld();
  EXPECT_EQ(unreg.get(), 0);
  EXPECT_EQ(e.calls, 0);
  EXPECT_EQ(Unsubscribes(), 1);

  // Then registrations: no subscription may outlive the entries.
  // Whether app.first holds the subscription beforehand, the answer to app.late's
  // registration, who unregisters meanwhile, and whether app.late stays registered.
  struct InFlight { bool first_registered; int answer; const char *unregistered; bool late_registered; };
  for (const InFlight &c : {InFlight{true, -1, "app.first", false}, InFlight{true, 0, "app.first", true},
                            InFlight{false, 0, "app.late", false}}) {
    SCOPED_TRACE(std::to_string(c.first_registered) + c.unregistered + std::to_string(c.answer));
    doubles::ClearLogs();
    Probe first{"app.first"}, late{"app.late"};
    service().SetInt(R().reg_method, 0);
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
    if (c.late_registered) {
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
  ASSERT_EQ(R().reg("app.self", &p), 0);
  Signal("app.self");
  ASSERT_TRUE(WaitUntil([&] { return p.calls == 1; }));
  EXPECT_EQ(Subscribes(), 2);
  EXPECT_EQ(Unsubscribes(), 1);
  late.during = [&](const char *app_id) { EXPECT_EQ(R().unreg(app_id), 0); };
  Signal("app.late");
  ASSERT_TRUE(WaitUntil([&] { return late.calls == 1; }));
  EXPECT_EQ(Unsubscribes(), 2);
  ExpectNotSubscribed();
  EXPECT_EQ(p.calls, 1);
}

// Threads register and unregister at once, round after round: the map empties
// and refills, racing the first subscription and the last unsubscription.
// (Delivery while registrations come and go is test_stress's part.)
TEST_P(RegistryTest, ConcurrentRegistrationsLeaveNoSubscriptionBehind) {
  constexpr int kThreads = 4, kRounds = 30;
  std::atomic<int> failures{0}, done{0};
  std::barrier round(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      const std::string app = "app.t" + std::to_string(t);
      Probe p{app};
      for (int i = 0; i < kRounds; ++i) {
        round.arrive_and_wait();
        failures += R().reg(app.c_str(), &p) != 0;
        failures += R().unreg(app.c_str()) != 0;
      }
      ++done;
      g_main_context_wakeup(nullptr);
    });
  }
  EXPECT_TRUE(WaitUntil([&] { return done == kThreads; }, 60000));
  for (auto &th : threads) th.join();
  EXPECT_EQ(failures, 0);
  EXPECT_GE(Subscribes(), 1);
  EXPECT_EQ(Subscribes(), Unsubscribes());
  ExpectNotSubscribed();
}

INSTANTIATE_TEST_SUITE_P(Both, RegistryTest, ::testing::Values(kResource, kMaxRez),
                         [](const auto &p) { return std::string(p.param.name); });

// ---- What is particular to each registry ----

TEST_F(NotifyTest, NullRecordsOutputsAndCallbacksAreRefused) {
  const kova_resource r{};
  int w = -9, h = -9, f = -9;
  EXPECT_FALSE(kova_rsc_max_resolution_changed(nullptr));
  EXPECT_FALSE(kova_rsc_audio_out_changed(nullptr));
  EXPECT_EQ(kova_rsc_get_video_max_resolution(nullptr, &w, &h, &f), -1);
  EXPECT_EQ(kova_rsc_get_video_max_resolution(&r, nullptr, &h, &f), -1);
  EXPECT_EQ(kova_rsc_get_video_max_resolution(&r, &w, nullptr, &f), -1);
  EXPECT_EQ(kova_rsc_get_video_max_resolution(&r, &w, &h, nullptr), -1);
  EXPECT_THAT(Ints({w, h, f}), ElementsAre(-9, -9, -9));
  EXPECT_EQ(kova_register_resource_change_callback("a", nullptr, nullptr), -1);
  EXPECT_EQ(kova_unregister_resource_change_callback("a", nullptr), -1);
  EXPECT_EQ(kova_register_max_video_resolution_changed_callback("a", nullptr, nullptr), -1);
  EXPECT_EQ(kova_unregister_max_video_resolution_changed_callback("a", nullptr), -1);
  EXPECT_EQ(doubles::CountLog("invalid param", doubles::kError), 10);
  EXPECT_EQ(doubles::Logs().size(), 10u);
  Sync();
  EXPECT_EQ(service().CallCount(), 0u);
}

// The two registries are separate maps; the subscribe/unsubscribe names share
// the maximum-resolution one; unregistering matches the id alone.
TEST_F(NotifyTest, RegistriesAreIndependentAndAliasesShareOne) {
  Probe rsc{"app.both"}, rez{"app.both"};
  ASSERT_EQ(kova_register_resource_change_callback("app.both", OnResource, &rsc), 0);
  ASSERT_EQ(kova_subscribe_max_video_resolution_changed("app.both", OnMaxRez, &rez), 0);
  EXPECT_EQ(kova_register_max_video_resolution_changed_callback("app.both", OnMaxRez, &rez), -1);
  EXPECT_EQ(kova_unregister_resource_change_callback("app.both", OnResourceOther), 0);
  EXPECT_EQ(LastCall("RscChangeUnRegId").args.u32(3),
            static_cast<guint32>(reinterpret_cast<uintptr_t>(OnResourceOther)));
  EXPECT_TRUE(doubles::HasLog("cb removed (app.both:" + Ptr(reinterpret_cast<void *>(OnResourceOther)) + ")"));
  EXPECT_EQ(doubles::CountLogPrefix("unsubscribe resource change("), 1);
  Emit("AppRscChanged", g_variant_new("(siiiii)", "app.both", 0, 1, 1, 2, 3));
  Emit("MaxRezChanged", g_variant_new("(siii)", "app.both", 1920, 1080, 60));
  ASSERT_TRUE(WaitUntil([&] { return rez.calls == 1; }));
  Sync();
  EXPECT_EQ(rsc.calls, 0);
  EXPECT_THAT(Ints({rez.width, rez.height, rez.framerate}), ElementsAre(1920, 1080, 60));
  EXPECT_EQ(kova_unsubscribe_max_video_resolution_changed("app.both", OnMaxRez), 0);
  EXPECT_EQ(doubles::CountLogPrefix("unsubscribe max resolution change("), 1);
  EXPECT_EQ(kova_unregister_max_video_resolution_changed_callback("app.both", OnMaxRez), -1);
  EXPECT_TRUE(doubles::HasLog("not registered (app.both:" + Ptr(reinterpret_cast<void *>(OnMaxRez)) + ")"));
}

}  // namespace
}  // namespace kova_test

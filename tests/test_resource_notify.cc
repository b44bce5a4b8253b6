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

struct Probe {
  explicit Probe(std::string app = "") : expect_app(std::move(app)) {}
  std::string expect_app;  // the application this probe was registered for
  int calls = 0, wrong_app = 0, width = 0, height = 0, framerate = 0;
  void *user_data = nullptr;
  kova_resource resource{};
  std::function<void(const char *)> during;
  void Seen(const char *app_id, void *data) {
    ++calls;
    if (expect_app != app_id) ++wrong_app;
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
  std::snprintf(buf, sizeof buf, "%p", p);
  return buf;
}

// One registry as the tests see it.
struct Registry {
  const char *name;
  int (*reg)(const char *, Probe *);
  int (*unreg)(const char *);
  void *callback;
  const char *reg_method, *unreg_method, *signature;
  size_t app_arg;  // position of the application id in the calls
  const char *signal, *what;
  GVariant *(*signal_for)(const char *app);  // 640x480 at 30
  const char *received;                      // the "received" values for that signal
};

const Registry kResource{
    "resource",
    [](const char *app, Probe *p) { return kova_register_resource_change_callback(app, OnResource, p); },
    [](const char *app) { return kova_unregister_resource_change_callback(app, OnResource); },
    reinterpret_cast<void *>(OnResource), "RscChangeRegId", "RscChangeUnRegId", "(iisu)", 2, "AppRscChanged",
    "resource", [](const char *app) { return g_variant_new("(siiiii)", app, 1, 0, 640, 480, 30); },
    "1:0:640:480:30"};

const Registry kMaxRez{
    "max_resolution",
    [](const char *app, Probe *p) { return kova_register_max_video_resolution_changed_callback(app, OnMaxRez, p); },
    [](const char *app) { return kova_unregister_max_video_resolution_changed_callback(app, OnMaxRez); },
    reinterpret_cast<void *>(OnMaxRez), "MaxVideoRegId", "MaxVideoUnRegId", "(isu)", 1, "MaxRezChanged",
    "max resolution", [](const char *app) { return g_variant_new("(siii)", app, 640, 480, 30); }, "640:480:30"};

void PrintTo(const Registry &r, std::ostream *os) { *os << r.name; }

class RegistryTest : public KovaTest, public ::testing::WithParamInterface<Registry> {
 protected:
  void SetUp() override {
    KovaTest::SetUp();
    service().SetInt(R().reg_method, 0);
    service().SetInt(R().unreg_method, 0);
  }
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
  // The exact lines of a (un)registration that the service accepted.
  void ExpectCallLines(const char *verb, const char *app, const char *method, const std::string &last) {
    const Call call = LastCall(method);
    EXPECT_EQ(call.signature, R().signature);
    EXPECT_EQ(call.args.str(R().app_arg), app);
    EXPECT_THAT(doubles::Messages(),
                ElementsAre(std::string("cb ") + verb + " (" + app + ":" + Cb() + ")",
                            std::string("Method call '") + method + "'",
                            "[" + Hex(call.args.i32(0)) + "] (" + method + ") success :: (0)", last));
  }
};

TEST_P(RegistryTest, TwoApplicationsShareOneSubscription) {
  Probe a{"app.a"}, b{"app.b"};
  ASSERT_EQ(R().reg("app.a", &a), 0);
  const std::string sub = doubles::Messages().back();
  ASSERT_EQ(sub.rfind(SubPrefix(), 0), 0u);
  const int id = std::stoi(sub.substr(SubPrefix().size()));
  ASSERT_GT(id, 0);
  ExpectCallLines("added", "app.a", R().reg_method, sub);
  const Call reg = LastCall(R().reg_method);
  EXPECT_EQ(reg.args.u32(R().app_arg + 1), static_cast<guint32>(reinterpret_cast<uintptr_t>(R().callback)));
  if (R().app_arg == 2) {
    EXPECT_EQ(reg.args.i32(1), static_cast<int>(getpid()));
  }

  ASSERT_EQ(R().reg("app.b", &b), 0);
  EXPECT_EQ(Subscribes(), 1);
  doubles::ClearLogs();
  Signal("app.b");
  ASSERT_TRUE(WaitUntil([&] { return b.calls == 1; }));
  Sync();
  EXPECT_EQ(a.calls, 0);
  EXPECT_EQ(b.user_data, &b);
  EXPECT_EQ(b.wrong_app, 0);
  EXPECT_THAT(std::vector<int>({b.width, b.height, b.framerate}), ElementsAre(640, 480, 30));
  EXPECT_THAT(doubles::Messages(), ElementsAre(Received("app.b"), "call cb(" + Cb() + ")"));
  EXPECT_TRUE(doubles::HasLog(Received("app.b"), doubles::kInfo));

  ASSERT_EQ(R().unreg("app.a"), 0);
  EXPECT_EQ(Unsubscribes(), 0);
  Signal("app.b");
  ASSERT_TRUE(WaitUntil([&] { return b.calls == 2; }));
  doubles::ClearLogs();
  ASSERT_EQ(R().unreg("app.b"), 0);
  ExpectCallLines("removed", "app.b", R().unreg_method,
                  std::string("unsubscribe ") + R().what + " change(" + std::to_string(id) + ")");
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
  Sync();
  EXPECT_EQ(service().CallCount(), 0u);
  ASSERT_EQ(R().reg("app.r", &p), 0);
  doubles::ClearLogs();
  EXPECT_EQ(R().reg("app.r", &twin), -1);
  EXPECT_THAT(doubles::Messages(), ElementsAre("already registered (app.r:" + Cb() + ")"));
  Sync();
  EXPECT_EQ(service().CallsTo(R().reg_method).size(), 1u);
  EXPECT_TRUE(service().CallsTo(R().unreg_method).empty());
  Signal("app.r");
  ASSERT_TRUE(WaitUntil([&] { return p.calls == 1; }));
  EXPECT_EQ(twin.calls, 0);

  for (const Answer &answer : {Answer::Int(-1), Answer::Error("org.zelta.Error.Failed", "no")}) {
    service().Set(R().unreg_method, answer);
    doubles::ClearLogs();
    EXPECT_EQ(R().unreg("app.r"), 0);
    EXPECT_TRUE(doubles::HasLog("failed to unregister app id(app.r:" + Cb() + ")", doubles::kError));
    EXPECT_EQ(Unsubscribes(), 1);
    ExpectNotSubscribed();
    ASSERT_EQ(R().reg("app.r", &p), 0);
  }
  service().SetInt(R().unreg_method, 0);
  ASSERT_EQ(R().unreg("app.r"), 0);

  struct Refusal {
    Answer answer;
    const char *line;  // after "[<cmd>] (<method>) "
  };
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
    // Gone: a retry is not "already registered", and any answer >= 0 is success.
    service().SetInt(R().reg_method, 7);
    EXPECT_EQ(R().reg("app.r", &p), 0);
    EXPECT_EQ(R().unreg("app.r"), 0);
    EXPECT_EQ(doubles::CountLogPrefix("already registered"), 0);
  }
}

TEST_P(RegistryTest, SignalsForNobodyAndMalformedSignalsCallNothing) {
  Probe p{"app.s"};
  ASSERT_EQ(R().reg("app.s", &p), 0);
  doubles::ClearLogs();
  Signal("app.other");
  Emit(R().signal, g_variant_new("(s)", "app.s"));
  Emit(R().signal, g_variant_new("(iiii)", 1, 2, 3, 4));
  Emit(R().signal, nullptr);
  Sync();
  EXPECT_EQ(p.calls, 0);
  const std::string ignored = std::string("signal (") + R().signal + ") ignored, unexpected type (";
  EXPECT_THAT(doubles::Messages(),
              ElementsAre(Received("app.other"), ignored + "(s))", ignored + "(iiii))", ignored + "())"));
  EXPECT_EQ(doubles::CountLogPrefix(ignored, doubles::kError), 3);
  EXPECT_EQ(R().unreg("app.s"), 0);
}

// The last unregistration waits for the service while a signal arrives: the
// subscription is still there and the map already empty.
TEST_P(RegistryTest, SignalWhileTheMapIsEmptyLogsEmptyList) {
  Probe p{"app.e"};
  ASSERT_EQ(R().reg("app.e", &p), 0);
  service().Hold(R().unreg_method);
  const size_t calls = service().CallCount();
  std::future<int> unreg = std::async(std::launch::async, [this] { return R().unreg("app.e"); });
  ASSERT_TRUE(service().WaitForCalls(calls + 1));
  Signal("app.e");
  EXPECT_TRUE(WaitUntil([] { return doubles::HasLog("empty list", doubles::kError); }));
  EXPECT_EQ(Unsubscribes(), 0);
  service().ReleaseHeld();
  EXPECT_EQ(unreg.get(), 0);
  EXPECT_EQ(p.calls, 0);
  EXPECT_EQ(Unsubscribes(), 1);
}

// A registration waits for the service while this thread changes the map.
TEST_P(RegistryTest, RegistrationInFlightWhileTheMapChanges) {
  struct InFlight {
    bool first_registered;     // app.first holds the subscription beforehand
    Answer answer;             // to app.late's registration
    const char *unregistered;  // meanwhile
    int result;                // of app.late's registration
    bool late_registered;      // afterwards
  };
  for (const InFlight &c : {InFlight{true, Answer::Int(-1), "app.first", -1, false},
                            InFlight{true, Answer::Int(0), "app.first", 0, true},
                            InFlight{false, Answer::Int(0), "app.late", 0, false}}) {
    SCOPED_TRACE(c.result + c.late_registered * 10 + c.first_registered * 100);
    doubles::ClearLogs();
    Probe first{"app.first"}, late{"app.late"};
    service().SetInt(R().reg_method, 0);
    if (c.first_registered) {
      ASSERT_EQ(R().reg("app.first", &first), 0);
    }
    service().Set(R().reg_method, c.answer);
    service().Hold(R().reg_method);
    const size_t calls = service().CallCount();
    std::future<int> reg = std::async(std::launch::async, [&] { return R().reg("app.late", &late); });
    ASSERT_TRUE(service().WaitForCalls(calls + 1));
    EXPECT_EQ(R().unreg(c.unregistered), 0);
    service().ReleaseHeld();
    EXPECT_EQ(reg.get(), c.result);
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
  // The last one unregistering from inside its call drops the subscription.
  late.during = [&](const char *app_id) { EXPECT_EQ(R().unreg(app_id), 0); };
  Signal("app.late");
  ASSERT_TRUE(WaitUntil([&] { return late.calls == 1; }));
  EXPECT_EQ(Unsubscribes(), 2);
  ExpectNotSubscribed();
  EXPECT_EQ(p.calls, 1);
}

// Several threads register and unregister while signals arrive; the main loop
// dispatches on this thread. Phase one lets the map empty and refill round
// after round; phase two keeps one application registered throughout, which
// must miss no signal.
TEST_P(RegistryTest, ConcurrentRegistrationsWhileSignalsArrive) {
  constexpr int kThreads = 4, kRounds = 30, kSignals = 60;
  std::vector<std::string> ids;
  std::vector<Probe> probes(kThreads);
  for (int t = 0; t < kThreads; ++t) probes[t].expect_app = ids.emplace_back("app.t" + std::to_string(t));

  auto run_phase = [&](bool keeper) {
    std::atomic<int> failures{0}, done{0};
    // Every round starts together, so each one races its first subscription
    // and, without a keeper, its last unsubscription.
    std::barrier round(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&, t] {
        for (int i = 0; i < kRounds; ++i) {
          round.arrive_and_wait();
          if (R().reg(ids[t].c_str(), &probes[t]) != 0) ++failures;
          if (R().unreg(ids[t].c_str()) != 0) ++failures;
        }
        ++done;
        g_main_context_wakeup(nullptr);
      });
    }
    for (int s = 0; s < kSignals; ++s) {
      service().Emit(R().signal, R().signal_for(keeper && s % 2 ? "app.keeper" : ids[s % kThreads].c_str()));
      Drain();
    }
    EXPECT_TRUE(WaitUntil([&] { return done == kThreads; }, 60000));
    for (auto &th : threads) th.join();
    Sync();
    EXPECT_EQ(failures, 0);
    for (const Probe &p : probes) EXPECT_EQ(p.wrong_app, 0);
  };

  run_phase(false);
  EXPECT_GE(Subscribes(), 1);
  EXPECT_EQ(Subscribes(), Unsubscribes());
  doubles::ClearLogs();
  ExpectNotSubscribed();
  // One subscription, not several: one registration, one call per signal.
  Probe keeper{"app.keeper"};
  ASSERT_EQ(R().reg("app.keeper", &keeper), 0);
  Sync();
  run_phase(true);
  EXPECT_EQ(keeper.calls, kSignals / 2);
  EXPECT_EQ(keeper.wrong_app, 0);
  EXPECT_EQ(Unsubscribes(), 0);
  EXPECT_EQ(R().unreg("app.keeper"), 0);
  EXPECT_EQ(Unsubscribes(), 1);
}

INSTANTIATE_TEST_SUITE_P(Both, RegistryTest, ::testing::Values(kResource, kMaxRez),
                         [](const auto &p) { return std::string(p.param.name); });

// ---- What is particular to each registry ----

class ResourceNotifyTest : public KovaTest {
 protected:
  void SetUp() override {
    KovaTest::SetUp();
    for (const char *m : {"RscChangeRegId", "RscChangeUnRegId", "MaxVideoRegId", "MaxVideoUnRegId"}) {
      service().SetInt(m, 0);
    }
  }
};

TEST_F(ResourceNotifyTest, RecordKeepsHeightBeforeWidthAndAccessorsReadIt) {
  Probe p{"app.rec"};
  ASSERT_EQ(kova_register_resource_change_callback("app.rec", OnResource, &p), 0);
  Emit("AppRscChanged", g_variant_new("(siiiii)", "app.rec", 1, 0, 640, 480, 30));
  ASSERT_TRUE(WaitUntil([&] { return p.calls == 1; }));
  const int *fields = reinterpret_cast<const int *>(&p.resource);
  EXPECT_THAT(std::vector<int>(fields, fields + 5), ElementsAre(1, 0, 480, 640, 30));
  EXPECT_TRUE(kova_rsc_max_resolution_changed(&p.resource));
  EXPECT_FALSE(kova_rsc_audio_out_changed(&p.resource));
  EXPECT_EQ(kova_unregister_resource_change_callback("app.rec", OnResource), 0);

  const kova_resource other{7, -2, 0, 0, 0};
  EXPECT_TRUE(kova_rsc_max_resolution_changed(&other));
  EXPECT_TRUE(kova_rsc_audio_out_changed(&other));
  doubles::ClearLogs();
  EXPECT_FALSE(kova_rsc_max_resolution_changed(nullptr));
  EXPECT_FALSE(kova_rsc_audio_out_changed(nullptr));
  int w = -9, h = -9, f = -9;
  EXPECT_EQ(kova_rsc_get_video_max_resolution(nullptr, &w, &h, &f), -1);
  EXPECT_EQ(kova_rsc_get_video_max_resolution(&other, nullptr, &h, &f), -1);
  EXPECT_EQ(kova_rsc_get_video_max_resolution(&other, &w, nullptr, &f), -1);
  EXPECT_EQ(kova_rsc_get_video_max_resolution(&other, &w, &h, nullptr), -1);
  EXPECT_THAT(std::vector<int>({w, h, f}), ElementsAre(-9, -9, -9));
  // Null callbacks are refused too; with the six above, all "invalid param".
  EXPECT_EQ(kova_register_resource_change_callback("a", nullptr, nullptr), -1);
  EXPECT_EQ(kova_unregister_resource_change_callback("a", nullptr), -1);
  EXPECT_EQ(kova_register_max_video_resolution_changed_callback("a", nullptr, nullptr), -1);
  EXPECT_EQ(kova_unregister_max_video_resolution_changed_callback("a", nullptr), -1);
  EXPECT_EQ(kova_subscribe_max_video_resolution_changed(nullptr, OnMaxRez, nullptr), -1);
  EXPECT_EQ(kova_unsubscribe_max_video_resolution_changed("a", nullptr), -1);
  EXPECT_EQ(doubles::CountLog("invalid param", doubles::kError), 12);
  EXPECT_EQ(doubles::Logs().size(), 12u);
}

// The two registries are separate maps; the subscribe/unsubscribe names share
// the maximum-resolution one; unregistering matches the id alone.
TEST_F(ResourceNotifyTest, RegistriesAreIndependentAndAliasesShareOne) {
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
  EXPECT_THAT(std::vector<int>({rez.width, rez.height, rez.framerate}), ElementsAre(1920, 1080, 60));
  EXPECT_EQ(kova_unregister_max_video_resolution_changed_callback("app.both", OnMaxRez), 0);
  EXPECT_EQ(doubles::CountLogPrefix("unsubscribe max resolution change("), 1);
  EXPECT_EQ(kova_unsubscribe_max_video_resolution_changed("app.both", OnMaxRez), -1);
  EXPECT_TRUE(doubles::HasLog("not registered (app.both:" + Ptr(reinterpret_cast<void *>(OnMaxRez)) + ")"));
}

}  // namespace
}  // namespace kova_test

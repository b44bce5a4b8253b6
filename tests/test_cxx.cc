// The C++ layer's own logic: ownership of closures, unregistration on
// destruction, moves, the shared best-quality registration (its barrier is
// test_host's), ranges, null strings and presence. Built as C++17 without
// exceptions, as a user might.
#include <gmock/gmock.h>
#include <signal.h>

#include <functional>
#include <kova/kova.hpp>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "kova_test.h"

static_assert(!std::is_copy_constructible_v<kova::Subscription>, "a subscription is not copied");
static_assert(std::is_same_v<decltype(std::declval<kova::Result<kova::ZoneList>>().value()), kova::ZoneList>,
              "a temporary's value is moved out: a range-for over it keeps it");
static_assert(kova::to_c(kova::Policy::Game) == KOVA_RSC_POLICY_GAME, "enums keep the C values");
static_assert(kova::to_c(static_cast<kova::Codec>(9)) == 9, "a value the header does not name passes through");

namespace kova_test {
namespace {

// Every family's template, instantiated with a move-only callable as a user might (compiled, not run).
struct MoveOnly {
  std::unique_ptr<int> held;
  template <typename... A>
  void operator()(A &&...) {}
};
[[maybe_unused]] void EveryFamilyCompiles() {
  for (auto *on : {kova::on_video_stop<MoveOnly>, kova::on_audio_stop<MoveOnly>, kova::on_audio_resync<MoveOnly>,
                   kova::on_audio_focus_changed<MoveOnly>, kova::on_audio_focus_zone_changed<MoveOnly>,
                   kova::on_policy_changed<MoveOnly>, kova::on_best_quality_zone_switched<MoveOnly>}) {
    (void)on(MoveOnly{});
  }
  (void)kova::on_max_resolution_changed(std::string("a"), MoveOnly{});
  kova::watch_service(MoveOnly{});
  (void)kova::audio_focus_zone();
}

using ::testing::ElementsAre;

class CxxTest : public KovaTest {
 protected:
  void Request(int player) { Emit("PlayerVideoStart", g_variant_new("(ii)", 1, player)); }
  void Switch(int first) { Emit("BestQualitZoneSwitched", g_variant_new("(iii)", first, 0, 0)); }
  static int Drops() { return doubles::CountLogPrefix("unsubscribe best quality zone switched (", doubles::kInfo); }
};

// The closure lives as long as its subscription; moves carry it, a moved-from one does nothing.
TEST_F(CxxTest, ASubscriptionOwnsItsClosureAndUnregistersWhenDestroyed) {
  auto alive = std::make_shared<int>(0);
  std::vector<int> seen;
  kova::Result<kova::Subscription> made = kova::on_video_start([alive, &seen](int player) { seen.push_back(player); });
  ASSERT_TRUE(made);
  kova::Subscription first = std::move(made).value(), second;
  EXPECT_EQ(alive.use_count(), 2);
  Request(1);
  ASSERT_TRUE(WaitUntil([&] { return seen.size() == 1; }));
  second = std::move(first);  // the registration moves, not the closure
  EXPECT_FALSE(first.active());
  first.reset();
  Request(2);
  ASSERT_TRUE(WaitUntil([&] { return seen.size() == 2; }));
  second = kova::on_video_start([](int) {}).value();  // assigning over it unregisters the old one
  Drain();
  EXPECT_EQ(alive.use_count(), 1);
  Request(3);
  Sync();
  EXPECT_THAT(seen, ElementsAre(1, 2));
  EXPECT_FALSE(kova::on_video_start(std::function<void(int)>()));  // an empty callable is refused
  // A per-application subscription unregisters by its own copy of the id: the id is free again after it.
  service().SetInt("RscChangeRegId", 0);
  for (int round = 0; round < 2; ++round) {
    EXPECT_TRUE(kova::on_resource_changed(std::string("x.app"), [](auto &&...) {}));
  }
}

// Destroyed from inside its own callback: it returns at once, the closure goes when the call returns.
TEST_F(CxxTest, ASubscriptionDestroyedInItsOwnCallbackKeepsTheClosureUntilTheCallReturns) {
  for (bool best_quality : {false, true}) {
    SCOPED_TRACE(best_quality ? "best quality" : "video start");
    kova::Subscription sub;
    auto alive = std::make_shared<int>(0);
    std::weak_ptr<int> watch = alive;
    int calls = 0;
    auto body = [alive = std::move(alive), &sub, &calls, watch] {
      ++calls;
      sub.reset();
      EXPECT_FALSE(watch.expired());  // still inside: the closure must be there
    };
    sub = best_quality ? kova::on_best_quality_zone_switched([b = std::move(body)](int, int, int) { b(); }).value()
                       : kova::on_video_start([b = std::move(body)](int) { b(); }).value();
    best_quality ? Switch(1) : Request(1);
    ASSERT_TRUE(WaitUntil([&] { return watch.expired(); }));
    best_quality ? Switch(2) : Request(2);
    Sync();
    EXPECT_EQ(calls, 1);
  }
  EXPECT_EQ(Drops(), 1);  // just after the delivery
}

// All best-quality subscriptions share one C registration, made by the first and dropped with the last; a
// subscription made during a delivery is first called for the next one; one destroyed (here on another thread)
// before its turn is skipped, and its closure is gone when the destruction returns.
TEST_F(CxxTest, BestQualitySubscriptionsShareOneRegistrationAndKeepTheDeliveryRules) {
  std::vector<std::string> seen;
  kova::Subscription a, b, c;
  auto keep = std::make_shared<int>(0);
  const std::weak_ptr<int> b_closure = keep;
  bool b_closure_gone = false;
  a = kova::on_best_quality_zone_switched([&](int first, int, int) {
        seen.push_back("a" + std::to_string(first));
        if (first != 1) return;
        std::thread([&] {
          b.reset();
          b_closure_gone = b_closure.expired();
        }).join();
        c = kova::on_best_quality_zone_switched([&](int f, int, int) { seen.push_back("c" + std::to_string(f)); })
                .value();
      }).value();
  b = kova::on_best_quality_zone_switched(
          [&seen, held = std::move(keep)](int first, int, int) { seen.push_back("b" + std::to_string(first)); })
          .value();
  Switch(1);
  ASSERT_TRUE(WaitUntil([&] { return !seen.empty(); }));
  Switch(2);
  ASSERT_TRUE(WaitUntil([&] { return seen.size() == 3; }));
  EXPECT_THAT(seen, ElementsAre("a1", "a2", "c2"));
  EXPECT_TRUE(b_closure_gone);
  for (kova::Subscription *s : {&a, &c}) s->reset();
  EXPECT_EQ(doubles::CountLogPrefix("subscribe best quality zone switched (", doubles::kInfo), 1);
  EXPECT_EQ(Drops(), 1);  // at once: no delivery under way
}

TEST_F(CxxTest, ZoneListsAreRangesAndListsAndRecordsFreeThemselves) {
  service().Set("GetMultiviewZoneIds", Answer::Value(g_variant_new_parsed("([(1, 10, 'a'), (2, 20, '')],)")));
  std::string text;
  for (const kova::Zone &z : kova::ZoneList::fetch().value()) {
    text += std::to_string(z.id()) + ":" + std::to_string(z.scaler_id()) + ":" + std::string(z.app_id()) + " ";
  }
  EXPECT_EQ(text, "1:10:a 2:20: ");
  service().Set("GetMultiviewZoneIds", Answer::Value(g_variant_new_parsed("(@a(iis) [],)")));
  EXPECT_EQ(kova::ZoneList::fetch().error(), -1);

  kova::AppList apps = kova::AppList().add(1, "a").add_priorities("b", 2, 3);
  kova::PolicyInfo info = kova::PolicyInfo("owner").apps(std::move(apps)).remove_all_current_apps();
  EXPECT_EQ(apps.get(), nullptr);  // moved into the record, which frees it
  EXPECT_EQ(kova_app_list_get_count(kova_policy_info_get_app_list(info.get())), 2);
  EXPECT_TRUE(info.get()->remove_all_current_apps && info.status());

  // A refused application is left out and remembered: neither that list nor a record holding it is sent.
  kova::AppList refused = kova::AppList().add(4, "\xff").add(5, "c");
  EXPECT_EQ(refused.size(), 1u);
  const size_t calls = service().CallCount();
  EXPECT_EQ(kova::set_policy_app_zones(kova::Policy::Game, refused).error(), -1);
  EXPECT_EQ(kova::PolicyInfo("owner").apps(std::move(refused)).apply(kova::Policy::Game).error(), -1);
  Sync();
  EXPECT_EQ(service().CallCount(), calls);
}

// How each wrapper maps the C result: "ok" with its value, or "error" with the code.
std::string Out(const kova::Result<void> &r) {
  return r ? "ok" + std::string(r.error() ? "!" : "") : "error " + std::to_string(r.error());
}
template <typename T, typename Show>
std::string Out(const kova::Result<T> &r, Show show) {
  return r ? "ok " + show(*r) + (r.error() ? "!" : "") : "error " + std::to_string(r.error());
}
std::string Int(int v) { return std::to_string(v); }

TEST_F(CxxTest, EachWrapperMapsTheCResult) {
  const auto out = [](auto v) { return std::to_string(static_cast<int>(v)); };
  const auto rez = [](const kova::Resolution &r) {
    return Int(r.width) + "x" + Int(r.height) + "@" + Int(r.framerate);
  };
  const kova::AppList apps = kova::AppList().add(1, "a");
  const struct { const char *method, *reply; std::function<std::string()> call; const char *result; } rows[] = {
      {"PlayerRequestPlay", "(2,)", [&] { return Out(kova::request_play(1), out); }, "ok 2"},
      {"PlayerRequestPlay", "(-3,)", [&] { return Out(kova::request_play(1), out); }, "error -1"},
      {"GetExtSpkInfoAudioOut", "(-3,)", [&] { return Out(kova::speaker_audio_out("s"), out); }, "error -3"},
      {"RegisterExtSpkInfo", "(-2,)", [] { return Out(kova::register_speaker("s", 1), Int); }, "ok -2"},
      {"RegisterExtSpkInfo", nullptr, [] { return Out(kova::register_speaker("s", 1), Int); }, "error -1"},
      {"UnregisterExtSpkInfo", "(4,)", [] { return Out(kova::unregister_speaker("s", 1), Int); }, "ok 4"},
      {"UnregisterExtSpkInfo", nullptr, [] { return Out(kova::unregister_speaker("s", 1), Int); }, "error -1"},
      {"SwitchBestQaulityZone", "(7,)", [] { return Out(kova::switch_best_quality_zone(1, 0), Int); }, "ok 7"},
      {"SwitchBestQaulityZone", nullptr, [] { return Out(kova::switch_best_quality_zone(1, 0), Int); }, "error -1"},
      {"RestoreBestQualityZone", "(-3,)", [] { return Out(kova::restore_best_quality_zone(), Int); }, "ok -3"},
      {"RestoreBestQualityZone", nullptr, [] { return Out(kova::restore_best_quality_zone(), Int); }, "error -1"},
      {"SetAppToZone", "(5,)", [] { return Out(kova::assign_app_to_zone("a", 1)); }, "error -1"},
      {"GetAudioFocus", "(4,)", [] { return Out(kova::audio_focus(), Int); }, "ok 4"},
      {"GetLastAudioFocus", "(-3,)", [] { return Out(kova::last_audio_focus(), Int); }, "ok -3"},
      {"GetFocusedZone", "(3, 30, 'a')", [] { return Out(kova::focused_zone(), [](auto &z) { return Int(z.id()); }); },
       "ok 3"},
      {"GetMaxVideo", "(640, 480, 25)", [&] { return Out(kova::max_video_resolution("a"), rez); }, "ok 640x480@25"},
      {"GetMaxVideo", nullptr, [&] { return Out(kova::max_video_resolution("a"), rez); }, "error -1"},
      {"GetCapableCatId", "(-4,)", [] { return Out(kova::capable_category(1, "a", 3000), Int); }, "error -4"},
      {"GetCapableCatId", "(-2,)", [] { return Out(kova::capable_category(1, "a", 3000), Int); }, "ok -2"},
      {"SetPreAssignedAppList", "(5,)", [&] { return Out(kova::set_pre_assigned_apps(apps)); }, "error -1"},
      {"RegisterAppList", "(5,)", [&] { return Out(kova::register_app_list(1, apps)); }, "error -1"},
  };
  doubles::SetMarker("/tmp/.rsc_policy_activated", true);  // an audio output category goes to the service
  doubles::SetCategories(doubles::Predicate::kAudioOut, {3000});
  for (const auto &row : rows) {
    service().Set(row.method, row.reply ? Answer::Value(g_variant_new_parsed(row.reply)) : Answer());
    EXPECT_EQ(row.call(), row.result) << row.method << " " << (row.reply ? row.reply : "error");
  }
}

// A null string (a null C string, a string_view without data) reaches the C API as null: its failure, no crash.
TEST_F(CxxTest, NullStringsGiveTheFailureResult) {
  const char *none = nullptr;
  const std::string_view no_data;
  const std::function<int()> rows[] = {
      [&] { return kova::on_resource_changed(none, [](auto &&...) {}).error(); },
      [&] { return kova::on_max_resolution_changed(no_data, [](auto &&...) {}).error(); },
      [&] { return kova::assign_app_to_zone(none, 1).error(); },
      [&] { return kova::AppList().add(1, no_data).status().error(); },
      [&] { return kova::PolicyInfo(none).apps(kova::AppList()).apply(kova::Policy::Game).error(); },
  };
  for (const std::function<int()> &row : rows) EXPECT_EQ(row(), -1);
  Sync();
  EXPECT_EQ(service().CallCount(), 0u);
}

TEST_F(CxxTest, PresenceFollowsTheServiceName) {
  std::vector<bool> seen;
  kova::Presence presence =
      kova::watch_service([&seen, held = std::make_unique<int>()](bool present) { seen.push_back(present); });
  ASSERT_TRUE(WaitUntil([&] { return seen.size() == 1; }));
  StopService();
  ASSERT_TRUE(WaitUntil([&] { return seen.size() == 2; }));
  FakeKova again(TestBus()->address());
  ASSERT_TRUE(WaitUntil([&] { return seen.size() == 3; }));
  EXPECT_THAT(seen, ElementsAre(true, false, true));
}

// The C++ example plays once per appearance of kova-sim: it registers again after a restart.
TEST(CxxExample, RegistersAgainAfterTheServiceRestarts) {
  const std::string markers = MakeTempDir("kova-cxx-markers");
  g_setenv("PELK_ROOT", markers.c_str(), TRUE);
  const char *sim_argv[] = {KOVA_SIM_PATH, "--marker-root", markers.c_str(), nullptr};
  const char *example_argv[] = {KOVA_CXX_EXAMPLE, "7", "2", nullptr};
  g_autoptr(GSubprocess) example = g_subprocess_newv(example_argv, G_SUBPROCESS_FLAGS_STDOUT_PIPE, nullptr);
  g_autoptr(GDataInputStream) out = g_data_input_stream_new(g_subprocess_get_stdout_pipe(example));
  const auto until = [&](const std::string &line) {
    std::string all;
    for (gchar *l; (l = g_data_input_stream_read_line(out, nullptr, nullptr, nullptr)) != nullptr; g_free(l)) {
      all += std::string(l) + "\n";
      if (line == l) {
        g_free(l);
        return true;
      }
    }
    ADD_FAILURE() << "no line \"" << line << "\" in:\n" << all;
    return false;
  };
  for (int run = 1; run <= 2; ++run) {
    g_autoptr(GSubprocess) sim = g_subprocess_newv(sim_argv, G_SUBPROCESS_FLAGS_STDOUT_SILENCE, nullptr);
    ASSERT_TRUE(until("player 7 is playing (service run " + std::to_string(run) + ")"));
    if (run == 1) {
      g_subprocess_send_signal(sim, SIGTERM);
      ASSERT_TRUE(until("the service went away: waiting for it to come back"));
    }
    EXPECT_TRUE(g_subprocess_wait_check(run == 1 ? sim : example, nullptr, nullptr));  // the example ends after run 2
    if (run == 2) {
      g_subprocess_send_signal(sim, SIGTERM);
      g_subprocess_wait(sim, nullptr, nullptr);
    }
  }
  RemoveTree(markers);
}

}  // namespace
}  // namespace kova_test

// Many threads at once on the one shared connection: synchronous and
// fire-and-forget calls, and registrations of every notification made and
// undone while the service emits and a main-loop thread delivers. No reply may
// reach the wrong caller, no identifier repeat, no event reach the wrong
// registration, twice, or after its unregistration returned.
#include <gmock/gmock.h>

#include <atomic>
#include <climits>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "kova_api.h"
#include "kova_private.h"
#include "kova_test.h"

namespace kova_test {
namespace {

constexpr int kCallers = 3, kCalls = 300, kRegistrars = 3, kCycles = 11;

struct Registration {
  int registry = 0, thread = 0;
  unsigned int handle = 0;
  std::atomic<int> unregistered_at{INT_MAX};  // events numbered from here on came after unregistration
  std::mutex mutex;
  std::vector<int> seen;
  void Seen(int seq) {
    std::lock_guard<std::mutex> lock(mutex);
    seen.push_back(seq);
  }
};
Registration *Of(void *p) { return static_cast<Registration *>(p); }

std::string AppId(int thread) { return "stress.t" + std::to_string(thread); }
void OnPlayer(int seq, void *r) { Of(r)->Seen(seq); }
void OnZone(kova_zone *z, void *r) { Of(r)->Seen(z->id); }
void OnPolicy(kova_policy_info *info, void *r) { Of(r)->Seen(kova_policy_info_get_policy(info)); }
void OnResource(const char *, kova_resource *res, void *r) { Of(r)->Seen(res->width); }
void OnMaxRez(const char *, int width, int, int, void *r) { Of(r)->Seen(width); }
template <int N>
void OnBest(int seq, int, int, void *r) {
  Of(r)->Seen(seq);
}
constexpr kova_best_quality_zone_switched_cb kBest[kRegistrars] = {OnBest<0>, OnBest<1>, OnBest<2>};

// One registry: how to register and unregister, and the event of sequence number seq.
struct Registry {
  const char *signal;
  bool (*reg)(Registration *);
  bool (*unreg)(Registration *);
  GVariant *(*event)(int seq, int app_thread);
  bool per_app;
};
template <unsigned int (*Reg)(kova_player_video_request_cb, void *), int (*Unreg)(unsigned int)>
Registry Player(const char *signal) {
  return {signal, [](Registration *r) { return (r->handle = Reg(OnPlayer, r)) != 0 && r->handle != UINT_MAX; },
          [](Registration *r) { return Unreg(r->handle) == 0; },
          [](int seq, int) { return g_variant_new("(ii)", seq, seq); }, false};
}
GVariant *FocusEvent(int seq, int) { return g_variant_new("(iiis)", 0, seq, 0, "a"); }
const std::vector<Registry> kRegistries = {
    Player<kova_register_player_video_start_request_callback, kova_unregister_player_video_start_request_callback>(
        "PlayerVideoStart"),
    Player<kova_register_player_audio_resync_request_callback, kova_unregister_player_audio_resync_request_callback>(
        "PlayerAudioResync"),
    {"AudioFocusChanged",
     [](Registration *r) {
       return (r->handle = kova_register_audio_focus_changed_callback(OnPlayer, r)) != 0 && r->handle != UINT_MAX;
     },
     [](Registration *r) { return kova_unregister_audio_focus_changed_callback(r->handle) == 0; }, FocusEvent, false},
    {"AudioFocusChanged",
     [](Registration *r) { return (r->handle = kova_subscribe_audio_focus_zone_changed(OnZone, r)) != 0; },
     [](Registration *r) { return kova_unsubscribe_audio_focus_zone_changed(r->handle) == 0; }, FocusEvent, false},
    {"PolicyChanged",
     [](Registration *r) {
       return (r->handle = kova_register_resource_policy_changed_callback(OnPolicy, r)) != 0 && r->handle != UINT_MAX;
     },
     [](Registration *r) { return kova_unregister_resource_policy_changed_callback(r->handle) == 0; },
     [](int seq, int) { return g_variant_new_parsed("(0, %i, [(1, 'a')])", seq); }, false},
    {"BestQualitZoneSwitched",
     [](Registration *r) { return kova_register_best_quality_zone_switched_callback(kBest[r->thread], r) == 0; },
     [](Registration *r) { return kova_unregister_best_quality_zone_switched_callback(kBest[r->thread]) == 0; },
     [](int seq, int) { return g_variant_new("(iii)", seq, 0, 0); }, false},
    {"AppRscChanged",
     [](Registration *r) { return kova_register_resource_change_callback(AppId(r->thread).c_str(), OnResource, r) == 0; },
     [](Registration *r) { return kova_unregister_resource_change_callback(AppId(r->thread).c_str(), OnResource) == 0; },
     [](int seq, int t) { return g_variant_new("(siiiii)", AppId(t).c_str(), 1, 0, seq, 1, 1); }, true},
    {"MaxRezChanged",
     [](Registration *r) {
       return kova_register_max_video_resolution_changed_callback(AppId(r->thread).c_str(), OnMaxRez, r) == 0;
     },
     [](Registration *r) {
       return kova_unregister_max_video_resolution_changed_callback(AppId(r->thread).c_str(), OnMaxRez) == 0;
     },
     [](int seq, int t) { return g_variant_new("(siii)", AppId(t).c_str(), seq, 1, 1); }, true},
};
const size_t kKinds = kRegistries.size();

// Event seq is of registry seq % kinds; per-application events name thread
// (seq / kinds) % (registrars + 1), the last being a thread nobody is.
int AppThread(int seq) { return (seq / static_cast<int>(kKinds)) % (kRegistrars + 1); }
bool MeantFor(int seq, const Registration &r) {
  const Registry &of = kRegistries[static_cast<size_t>(seq) % kKinds];
  return std::string(of.signal) == kRegistries[r.registry].signal && (!of.per_app || AppThread(seq) == r.thread);
}

int Answer(int player) { return player % 977 + 1; }  // a reply handed to the wrong caller shows

using StressTest = KovaTest;

TEST_F(StressTest, CallsAndRegistrationsOnManyThreadsLoseAndMisdeliverNothing) {
  service().SetHandler("PlayerVideoStartDone", [](const Call &c) { return Answer::Int(Answer(c.args.i32(1))); });
  for (const char *m : {"RscChangeRegId", "RscChangeUnRegId", "MaxVideoRegId", "MaxVideoUnRegId"}) service().SetInt(m, 0);
  const int first_cmd = _kova_get_command_id();
  GMainLoop *loop = g_main_loop_new(nullptr, FALSE);
  std::thread dispatcher([loop] { g_main_loop_run(loop); });
  std::atomic<int> next_seq{0}, failures{0};
  std::atomic<bool> stop{false};
  std::thread emitter([&] {
    const std::string client = g_dbus_connection_get_unique_name(_kova_dbus_get_connection());
    while (!stop) {
      for (size_t k = 0; k < kKinds; ++k) {
        const int seq = next_seq++;
        const Registry &r = kRegistries[static_cast<size_t>(seq) % kKinds];
        service().Emit(r.signal, r.event(seq, AppThread(seq)));
      }
      // A round trip to the library's connection keeps the signals from piling up.
      g_autoptr(GVariant) pong = g_dbus_connection_call_sync(service().connection(), client.c_str(), "/",
                                                             "org.freedesktop.DBus.Peer", "Ping", nullptr, nullptr,
                                                             G_DBUS_CALL_FLAGS_NONE, 10000, nullptr, nullptr);
    }
  });
  std::vector<std::thread> threads;
  for (int t = 0; t < kCallers; ++t) {
    threads.emplace_back([t, &failures] {
      for (int i = 0; i < kCalls; ++i) {
        const int player = (t + 1) * 100000 + i;
        const bool ok = i % 4 == 3 ? kova_player_request_stop(player) == 0
                                   : kova_player_video_start_done(player) == Answer(player);
        if (!ok) ++failures;
      }
    });
  }
  std::vector<std::unique_ptr<Registration>> regs;
  for (int n = 0; n < kRegistrars * kCycles; ++n) {
    regs.push_back(std::make_unique<Registration>());
    regs.back()->thread = n / kCycles;
    regs.back()->registry = (n / kCycles + n) % static_cast<int>(kKinds);
  }
  for (int t = 0; t < kRegistrars; ++t) {
    threads.emplace_back([&, t] {
      for (int c = 0; c < kCycles; ++c) {
        Registration &r = *regs[static_cast<size_t>(t * kCycles + c)];
        const Registry &registry = kRegistries[static_cast<size_t>(r.registry)];
        if (!registry.reg(&r)) ++failures;
        RoundTrip(service());  // the match rule is in place before events count
        const int from = next_seq;
        for (bool got = false; !got && next_seq < from + 500; std::this_thread::yield()) {  // one of its own came
          std::lock_guard<std::mutex> lock(r.mutex);
          for (int seq : r.seen) got = got || (seq >= from && MeantFor(seq, r));
        }
        if (!registry.unreg(&r)) ++failures;
        r.unregistered_at = next_seq.load();
      }
    });
  }
  for (std::thread &th : threads) th.join();
  stop = true;
  emitter.join();
  g_idle_add([](gpointer l) { return g_main_loop_quit(static_cast<GMainLoop *>(l)), G_SOURCE_REMOVE; }, loop);
  dispatcher.join();
  g_main_loop_unref(loop);
  const int last_cmd = _kova_get_command_id();
  Sync();
  EXPECT_EQ(failures, 0);

  // Every call once, and every identifier drawn in between sent once.
  std::map<std::pair<std::string, int>, int> calls;
  std::set<int> ids;
  for (const Call &c : service().Calls()) {
    if (c.signature == "(ii)") ++calls[{c.method, c.args.i32(1)}];
    EXPECT_TRUE(ids.insert(c.args.i32(0)).second) << "identifier sent twice";
  }
  EXPECT_EQ(calls.size(), static_cast<size_t>(kCallers * kCalls));
  EXPECT_EQ(ids.size(), static_cast<size_t>(last_cmd - first_cmd - 1));
  for (const auto &[call, n] : calls) EXPECT_EQ(n, 1) << call.first << " " << call.second;
  for (const auto &r : regs) {
    std::set<int> once;
    for (int seq : r->seen) {
      EXPECT_TRUE(MeantFor(seq, *r)) << kRegistries[r->registry].signal << " got event " << seq;
      EXPECT_TRUE(once.insert(seq).second) << kRegistries[r->registry].signal << " got " << seq << " twice";
      EXPECT_LT(seq, r->unregistered_at) << kRegistries[r->registry].signal << " called after unregistration";
    }
  }
}

}  // namespace
}  // namespace kova_test

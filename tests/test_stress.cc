// Many threads at once on the one shared connection: synchronous calls,
// fire-and-forget calls and callback registrations, while the service emits
// signals that a main-loop thread dispatches. Nothing may be lost, duplicated
// or delivered to the wrong registration.
#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
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

// Callers make at least kMinCalls calls each and go on until the registration
// threads are done (so that calls and registrations overlap), up to kMaxCalls.
constexpr int kSyncThreads = 3;
constexpr int kFireThreads = 2;
constexpr int kMinCalls = 100;
constexpr int kMaxCalls = 1500;
// Fire-and-forget calls queue without limit; a round trip every so many keeps
// the queue (and the test's memory) small.
constexpr int kFiresPerRoundTrip = 10;
// Thread t registers registry (t * kCyclesPerThread + c) % (number of
// registries) in cycle c, so the threads hold registrations of the same
// registry at the same time.
constexpr int kRegistrationThreads = 3;
constexpr int kCyclesPerThread = 22;
// Events of its own kind that each registration must see while surely active.
constexpr int kEventsPerWindow = 3;
constexpr int kWaitMs = 10000;

struct Registration;

// One notification registry under stress: registers a callback whose user data
// is a Registration, and says how the service emits an event that carries a
// sequence number, which the callback hands back to Registration::Seen.
// Registries that share a signal see each other's events. Where the library
// filters by application id, addressed_to gives the registration thread whose
// id an event carries (kRegistrationThreads: an id nobody registered); null
// means every registration of the signal.
struct Registry {
  const char *name;
  const char *signal;
  bool (*subscribe)(Registration *registration);
  bool (*unsubscribe)(Registration *registration);
  GVariant *(*event)(int seq);
  int (*addressed_to)(int seq);
  // The service's methods that a registration and an unregistration call.
  const char *register_method;
  const char *unregister_method;
};

struct Registration {
  const Registry *registry = nullptr;
  int index = 0;
  // The registering thread. Its registrations never overlap in time, so the
  // application id and the best-quality function of a thread are its own.
  int thread = 0;
  unsigned int handle = 0;
  // Sequence numbers whose events are surely delivered: [window_begin, window_end).
  int window_begin = 0;
  int window_end = 0;
  // Events numbered from here on were emitted after unregistration returned.
  int unregistered_at = INT_MAX;
  std::vector<int> seen;  // guarded by Stress::mutex

  void Seen(int seq);
};

// State shared by the threads of one stress run.
struct Stress {
  std::mutex mutex;
  std::condition_variable changed;
  std::atomic<int> next_seq{0};
};
Stress *g_stress = nullptr;

void Registration::Seen(int seq) {
  {
    std::lock_guard<std::mutex> lock(g_stress->mutex);
    seen.push_back(seq);
  }
  g_stress->changed.notify_all();
}

Registration *Of(void *user_data) { return static_cast<Registration *>(user_data); }

std::string AppId(int thread) { return "stress.t" + std::to_string(thread); }

// Handle registries: a handle of 0 or all bits set is a failure.
template <typename Cb, unsigned int (*Register)(Cb, void *), Cb callback>
bool SubscribeHandle(Registration *r) {
  r->handle = Register(callback, r);
  return r->handle != 0 && r->handle != UINT_MAX;
}
template <typename Result, Result (*Unregister)(unsigned int)>
bool UnsubscribeHandle(Registration *r) {
  return Unregister(r->handle) == 0;
}

// Player requests.
void OnPlayerRequest(int player_id, void *user_data) { Of(user_data)->Seen(player_id); }
GVariant *PlayerRequest(int seq) { return g_variant_new("(ii)", seq, seq); }
template <unsigned int (*Register)(kova_player_video_request_cb, void *), int (*Unregister)(unsigned int)>
Registry PlayerRegistry(const char *name, const char *signal) {
  return {name,
          signal,
          SubscribeHandle<kova_player_video_request_cb, Register, OnPlayerRequest>,
          UnsubscribeHandle<int, Unregister>,
          PlayerRequest,
          nullptr,
          nullptr,
          nullptr};
}

// Audio focus, as a zone id and as a zone record.
GVariant *FocusChange(int seq) { return g_variant_new("(iiis)", 0, seq, 0, "stress.focus"); }
void OnFocusZone(kova_zone *zone, void *user_data) { Of(user_data)->Seen(kova_zone_get_id(zone)); }

// Best quality: a function is registered at most once, so each thread has its own.
template <int thread>
void OnBestQuality(int first, int, int, void *user_data) {
  Of(user_data)->Seen(first);
}
kova_best_quality_zone_switched_cb BestQualityCallback(int thread) {
  static const kova_best_quality_zone_switched_cb callbacks[] = {OnBestQuality<0>, OnBestQuality<1>,
                                                                 OnBestQuality<2>};
  static_assert(sizeof(callbacks) / sizeof(callbacks[0]) == kRegistrationThreads, "one per thread");
  return callbacks[thread];
}
bool SubscribeBestQuality(Registration *r) {
  return kova_register_best_quality_zone_switched_callback(BestQualityCallback(r->thread), r) == 0;
}
bool UnsubscribeBestQuality(Registration *r) {
  return kova_unregister_best_quality_zone_switched_callback(BestQualityCallback(r->thread)) == 0;
}
GVariant *BestQualitySwitch(int seq) { return g_variant_new("(iii)", seq, seq, seq); }

const std::vector<Registry> &Registries();

// Per-application notifications: the event of seq carries the id of one
// thread in turn, or an id nobody registered.
int AppOf(int seq) { return (seq / static_cast<int>(Registries().size())) % (kRegistrationThreads + 1); }
void OnResource(const char *, kova_resource *resource, void *user_data) { Of(user_data)->Seen(resource->width); }
void OnMaxResolution(const char *, int width, int, int, void *user_data) { Of(user_data)->Seen(width); }
bool SubscribeResource(Registration *r) {
  return kova_register_resource_change_callback(AppId(r->thread).c_str(), OnResource, r) == 0;
}
bool UnsubscribeResource(Registration *r) {
  return kova_unregister_resource_change_callback(AppId(r->thread).c_str(), OnResource) == 0;
}
bool SubscribeMaxResolution(Registration *r) {
  return kova_register_max_video_resolution_changed_callback(AppId(r->thread).c_str(), OnMaxResolution, r) == 0;
}
bool UnsubscribeMaxResolution(Registration *r) {
  return kova_unregister_max_video_resolution_changed_callback(AppId(r->thread).c_str(), OnMaxResolution) == 0;
}
GVariant *ResourceChange(int seq) {
  return g_variant_new("(siiiii)", AppId(AppOf(seq)).c_str(), 1, 0, seq, 1080, 60);
}
GVariant *MaxResolutionChange(int seq) { return g_variant_new("(siii)", AppId(AppOf(seq)).c_str(), seq, 1080, 60); }

// Policy changes.
void OnPolicy(kova_policy_info *info, void *user_data) { Of(user_data)->Seen(kova_policy_info_get_policy(info)); }
GVariant *PolicyChange(int seq) {
  GVariantBuilder apps;
  g_variant_builder_init(&apps, G_VARIANT_TYPE("a(is)"));
  g_variant_builder_add(&apps, "(is)", 1, "stress.policy");
  return g_variant_new("(iia(is))", 0, seq, &apps);
}

const std::vector<Registry> &Registries() {
  static const std::vector<Registry> registries = {
      PlayerRegistry<kova_register_player_video_start_request_callback,
                     kova_unregister_player_video_start_request_callback>("video start", "PlayerVideoStart"),
      PlayerRegistry<kova_register_player_video_stop_request_callback,
                     kova_unregister_player_video_stop_request_callback>("video stop", "PlayerVideoStop"),
      PlayerRegistry<kova_register_player_audio_start_request_callback,
                     kova_unregister_player_audio_start_request_callback>("audio start", "PlayerAudioStart"),
      PlayerRegistry<kova_register_player_audio_stop_request_callback,
                     kova_unregister_player_audio_stop_request_callback>("audio stop", "PlayerAudioStop"),
      PlayerRegistry<kova_register_player_audio_resync_request_callback,
                     kova_unregister_player_audio_resync_request_callback>("audio resync", "PlayerAudioResync"),
      {"audio focus", "AudioFocusChanged",
       SubscribeHandle<kova_player_audio_request_cb, kova_register_audio_focus_changed_callback, OnPlayerRequest>,
       UnsubscribeHandle<int, kova_unregister_audio_focus_changed_callback>, FocusChange, nullptr, nullptr,
       nullptr},
      {"audio focus zone", "AudioFocusChanged",
       SubscribeHandle<kova_audio_focus_zone_changed_cb, kova_subscribe_audio_focus_zone_changed, OnFocusZone>,
       UnsubscribeHandle<int, kova_unsubscribe_audio_focus_zone_changed>, FocusChange, nullptr, nullptr, nullptr},
      {"best quality", "BestQualitZoneSwitched", SubscribeBestQuality, UnsubscribeBestQuality, BestQualitySwitch,
       nullptr, nullptr, nullptr},
      {"resource change", "AppRscChanged", SubscribeResource, UnsubscribeResource, ResourceChange, AppOf,
       "RscChangeRegId", "RscChangeUnRegId"},
      {"max resolution", "MaxRezChanged", SubscribeMaxResolution, UnsubscribeMaxResolution, MaxResolutionChange,
       AppOf, "MaxVideoRegId", "MaxVideoUnRegId"},
      {"policy", "PolicyChanged",
       SubscribeHandle<kova_policy_changed_cb, kova_register_resource_policy_changed_callback, OnPolicy>,
       UnsubscribeHandle<int, kova_unregister_resource_policy_changed_callback>, PolicyChange, nullptr, nullptr,
       nullptr},
  };
  return registries;
}

// Event seq belongs to one registry, round robin.
const Registry &RegistryOf(int seq) { return Registries()[static_cast<size_t>(seq) % Registries().size()]; }

bool MeantFor(int seq, const Registration &r) {
  const Registry &of = RegistryOf(seq);
  if (std::string(of.signal) != r.registry->signal) return false;
  return of.addressed_to == nullptr || of.addressed_to(seq) == r.thread;
}

struct Ack {
  int (*fn)(int);
  const char *method;
};
const Ack kAcks[] = {{kova_player_video_start_done, "PlayerVideoStartDone"},
                     {kova_player_video_stop_done, "PlayerVideoStopDone"},
                     {kova_player_audio_start_done, "PlayerAudioStartDone"},
                     {kova_player_audio_stop_done, "PlayerAudioStopDone"}};

struct Fire {
  int (*fn)(int);
  const char *method;
};
const Fire kFires[] = {{kova_player_unregister, "PlayerUnregister"},
                       {kova_player_request_stop, "PlayerRequestStop"}};

// Player ids that no two calls share: thread t, call i.
int PlayerId(int thread, int i) { return (thread + 1) * 100000 + i; }

// The service answers each acknowledgement with a value derived from the call,
// so that a reply handed to the wrong thread shows.
int AckAnswer(int player_id) { return player_id % 977 + 1; }

class StressTest : public KovaTest {
 protected:
  void SetUp() override {
    KovaTest::SetUp();
    g_stress = &stress_;
    for (const Ack &ack : kAcks) {
      service().SetHandler(ack.method, [](const Call &call) { return Answer::Int(AckAnswer(call.args.i32(1))); });
    }
    for (const Registry &registry : Registries()) {
      if (registry.register_method == nullptr) continue;
      service().SetInt(registry.register_method, 0);
      service().SetInt(registry.unregister_method, 0);
    }
  }
  void TearDown() override {
    g_stress = nullptr;
    KovaTest::TearDown();
  }

  // Round trip from the library's connection to the service without touching
  // any main context: what this thread sent before has reached the bus.
  bool RoundTrip() {
    GError *error = nullptr;
    GVariant *r = g_dbus_connection_call_sync(_kova_dbus_get_connection(), service_name_.c_str(), "/",
                                              "org.freedesktop.DBus.Peer", "Ping", nullptr, nullptr,
                                              G_DBUS_CALL_FLAGS_NONE, kWaitMs, nullptr, &error);
    g_clear_error(&error);
    if (r == nullptr) return false;
    g_variant_unref(r);
    return true;
  }

  // The service's emitting thread: one event of each registry per round, then
  // a round trip to the library's connection so that the signals never pile
  // up faster than the library reads them.
  void Emit() {
    GDBusConnection *service_conn = service().connection();
    const std::string client = g_dbus_connection_get_unique_name(_kova_dbus_get_connection());
    while (!stop_emitting_.load()) {
      for (size_t k = 0; k < Registries().size(); ++k) {
        const int seq = stress_.next_seq.fetch_add(1);
        const Registry &registry = RegistryOf(seq);
        g_dbus_connection_emit_signal(service_conn, nullptr, kServicePath, kServiceInterface, registry.signal,
                                      registry.event(seq), nullptr);
      }
      GVariant *r = g_dbus_connection_call_sync(service_conn, client.c_str(), "/", "org.freedesktop.DBus.Peer",
                                                "Ping", nullptr, nullptr, G_DBUS_CALL_FLAGS_NONE, kWaitMs, nullptr,
                                                nullptr);
      if (r != nullptr) g_variant_unref(r);
      stress_.changed.notify_all();
    }
  }

  // Waits until pred holds (under the stress mutex) or the time is up.
  bool WaitFor(const std::function<bool()> &pred) {
    std::unique_lock<std::mutex> lock(stress_.mutex);
    return stress_.changed.wait_for(lock, std::chrono::milliseconds(kWaitMs), pred);
  }

  int CountMeantFor(const Registration &r, int begin, int end) {
    int n = 0;
    for (int seq = begin; seq < end; ++seq) n += MeantFor(seq, r) ? 1 : 0;
    return n;
  }

  // One registration's life: register, make sure the bus has its match rule,
  // stay registered until it has seen kEventsPerWindow events of its own,
  // unregister.
  void Cycle(Registration *r) {
    if (!r->registry->subscribe(r)) {
      ADD_FAILURE() << r->registry->name << " #" << r->index << " not registered";
      return;
    }
    if (!RoundTrip()) failures_.fetch_add(1);
    r->window_begin = stress_.next_seq.load();
    WaitFor([&] { return CountMeantFor(*r, r->window_begin, stress_.next_seq.load()) >= kEventsPerWindow; });
    r->window_end = stress_.next_seq.load();
    // Every event of the window reaches the callback before it goes away.
    const bool complete = WaitFor([&] {
      int n = 0;
      for (int seq : r->seen) n += seq >= r->window_begin && seq < r->window_end && MeantFor(seq, *r) ? 1 : 0;
      return n >= CountMeantFor(*r, r->window_begin, r->window_end);
    });
    if (!complete) failures_.fetch_add(1);
    if (!r->registry->unsubscribe(r)) failures_.fetch_add(1);
    r->unregistered_at = stress_.next_seq.load();
  }

  Stress stress_;
  std::string service_name_;
  std::atomic<bool> stop_emitting_{false};
  std::atomic<int> failures_{0};
};

TEST_F(StressTest, ConcurrentCallsAndRegistrationsLoseAndMisdeliverNothing) {
  service_name_ = service().unique_name();
  const int first_cmd = _kova_get_command_id();

  GMainLoop *loop = g_main_loop_new(nullptr, FALSE);
  std::thread dispatcher([loop] { g_main_loop_run(loop); });
  std::thread emitter([this] { Emit(); });

  std::atomic<bool> registrars_done{false};
  std::vector<int> made(kSyncThreads + kFireThreads, 0);  // calls per caller thread
  std::atomic<int> wrong_replies{0};
  std::vector<std::thread> callers;
  for (int t = 0; t < kSyncThreads; ++t) {
    callers.emplace_back([t, &wrong_replies, &registrars_done, &made] {
      int i = 0;
      for (; i < kMaxCalls && (i < kMinCalls || !registrars_done.load()); ++i) {
        const int player = PlayerId(t, i);
        if (kAcks[i % 4].fn(player) != AckAnswer(player)) wrong_replies.fetch_add(1);
      }
      made[static_cast<size_t>(t)] = i;
    });
  }
  std::atomic<int> refused_fires{0};
  for (int t = kSyncThreads; t < kSyncThreads + kFireThreads; ++t) {
    callers.emplace_back([this, t, &refused_fires, &registrars_done, &made] {
      int i = 0;
      for (; i < kMaxCalls && (i < kMinCalls || !registrars_done.load()); ++i) {
        if (kFires[i % 2].fn(PlayerId(t, i)) != 0) refused_fires.fetch_add(1);
        if (i % kFiresPerRoundTrip == kFiresPerRoundTrip - 1 && !RoundTrip()) failures_.fetch_add(1);
      }
      made[static_cast<size_t>(t)] = i;
    });
  }
  std::vector<std::unique_ptr<Registration>> registrations;
  for (int n = 0; n < kRegistrationThreads * kCyclesPerThread; ++n) {
    auto r = std::make_unique<Registration>();
    r->index = n;
    r->thread = n / kCyclesPerThread;
    r->registry = &Registries()[static_cast<size_t>(n) % Registries().size()];
    registrations.push_back(std::move(r));
  }
  std::vector<std::thread> registrars;
  for (int t = 0; t < kRegistrationThreads; ++t) {
    registrars.emplace_back([this, t, &registrations] {
      for (int c = 0; c < kCyclesPerThread; ++c) {
        Cycle(registrations[static_cast<size_t>(t * kCyclesPerThread + c)].get());
      }
    });
  }

  for (std::thread &th : registrars) th.join();
  registrars_done = true;
  for (std::thread &th : callers) th.join();
  stop_emitting_ = true;
  emitter.join();
  // Quit from inside the loop, which may not be running yet.
  g_idle_add(
      [](gpointer l) -> gboolean {
        g_main_loop_quit(static_cast<GMainLoop *>(l));
        return G_SOURCE_REMOVE;
      },
      loop);
  dispatcher.join();
  g_main_loop_unref(loop);
  const int last_cmd = _kova_get_command_id();
  Sync();

  EXPECT_EQ(wrong_replies.load(), 0);
  EXPECT_EQ(refused_fires.load(), 0);
  EXPECT_EQ(failures_.load(), 0);

  // Calls: each exactly once, with the identifiers drawn in between (the
  // fake service checks each against the interface file). Player calls are keyed by player id,
  // the per-application registrations' calls by application id.
  std::map<std::pair<std::string, int>, int> expected;
  size_t total = 0;
  std::map<std::pair<std::string, std::string>, int> expected_app_calls;
  for (const auto &r : registrations) {
    if (r->registry->register_method == nullptr) continue;
    ++expected_app_calls[{r->registry->register_method, AppId(r->thread)}];
    ++expected_app_calls[{r->registry->unregister_method, AppId(r->thread)}];
    total += 2;
  }
  for (int t = 0; t < kSyncThreads + kFireThreads; ++t) {
    for (int i = 0; i < made[static_cast<size_t>(t)]; ++i) {
      const char *method = t < kSyncThreads ? kAcks[i % 4].method : kFires[i % 2].method;
      expected[{method, PlayerId(t, i)}] = 1;
      ++total;
    }
  }
  std::map<std::pair<std::string, int>, int> received;
  std::map<std::pair<std::string, std::string>, int> received_app_calls;
  std::set<int> ids;
  for (const Call &call : service().Calls()) {
    const int cmd = call.args.i32(0);
    ids.insert(cmd);
    if (call.signature != "(ii)") {
      // RscChange*(cmd, pid, app_id, callback) or MaxVideo*(cmd, app_id, callback).
      ++received_app_calls[{call.method, call.args.str(call.signature == "(iisu)" ? 2 : 1)}];
      continue;
    }
    ++received[{call.method, call.args.i32(1)}];
  }
  EXPECT_EQ(received, expected);
  EXPECT_EQ(received_app_calls, expected_app_calls);
  EXPECT_EQ(service().CallCount(), total);
  EXPECT_EQ(ids.size(), total) << "command identifiers repeated";
  std::set<int> drawn;
  for (int id = first_cmd + 1; id < last_cmd; ++id) drawn.insert(id);
  EXPECT_EQ(ids, drawn) << "an identifier was drawn but not sent, or sent but not drawn";

  // Registrations: distinct handles; only their own events, each once, every
  // one while surely registered, none after unregistration.
  std::set<unsigned int> handles;
  size_t handle_registrations = 0;  // the registries that hand out handles
  for (const auto &r : registrations) {
    if (r->handle != 0) {
      handles.insert(r->handle);
      ++handle_registrations;
    }
    std::set<int> once;
    for (int seq : r->seen) {
      EXPECT_TRUE(MeantFor(seq, *r)) << r->registry->name << " #" << r->index << " got event " << seq << " of "
                                     << RegistryOf(seq).name;
      EXPECT_TRUE(once.insert(seq).second) << r->registry->name << " #" << r->index << " got " << seq << " twice";
      EXPECT_LT(seq, r->unregistered_at) << r->registry->name << " #" << r->index << " called after unregistration";
    }
    EXPECT_GE(r->window_end - r->window_begin, kEventsPerWindow);
    for (int seq = r->window_begin; seq < r->window_end; ++seq) {
      if (MeantFor(seq, *r)) {
        EXPECT_EQ(once.count(seq), 1u) << r->registry->name << " #" << r->index << " lost " << seq;
      }
    }
  }
  EXPECT_EQ(handles.size(), handle_registrations);
  EXPECT_GT(handle_registrations, registrations.size() / 2);
}

}  // namespace
}  // namespace kova_test

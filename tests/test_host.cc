// What the library promises the process that loads it, for each kind of
// registry (a subscription per registration, a shared subscription with a
// list, a per-application map, and the C++ layer's shared registration): an unregistration made on another thread
// waits for the callback it ends; many threads calling and registering at once
// lose and misdeliver nothing; a forked child fails at once instead of blocking
// on the connection it inherited.
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstring>
#include <functional>
#include <future>
#include <kova/kova.hpp>
#include <map>
#include <mutex>
#include <set>
#include <thread>

#include "kova_api.h"
#include "kova_private.h"
#include "kova_test.h"

namespace kova_test {
namespace {

// One registration: the thread that made it and what its callback does with an event's number.
struct Reg {
  int thread = 0;
  unsigned int id = 0;
  kova::Subscription sub;
  std::function<void(int)> on;
};
void OnPlayer(int seq, void *r) { static_cast<Reg *>(r)->on(seq); }
template <int N>  // best-quality callbacks are told apart by their address: one per thread
void OnSwitch(int seq, int, int, void *r) {
  static_cast<Reg *>(r)->on(seq);
}
constexpr kova_best_quality_zone_switched_cb kSwitch[] = {OnSwitch<0>, OnSwitch<1>, OnSwitch<2>};
void OnResource(const char *, kova_resource *res, void *r) { static_cast<Reg *>(r)->on(res->width); }
std::string AppId(int thread) { return "app.t" + std::to_string(thread); }

struct Family {
  const char *kind, *signal;
  GVariant *(*event)(int seq, int thread);  // numbered seq, for the application of thread
  bool (*subscribe)(Reg *);
  bool (*unsubscribe)(Reg *);
  std::string (*last_line)(const Reg &);  // the unregistering thread's last line before its wait
};
const Family kFamilies[] = {
    {"subscription per registration", "PlayerAudioResync", [](int seq, int) { return g_variant_new("(ii)", 1, seq); },
     [](Reg *r) {
       r->id = kova_register_player_audio_resync_request_callback(OnPlayer, r);
       return r->id != 0 && r->id != UINT_MAX;
     },
     [](Reg *r) { return kova_unregister_player_audio_resync_request_callback(r->id) == 0; },
     [](const Reg &r) { return "unsubscribe done (" + std::to_string(r.id) + ")"; }},
    {"shared subscription with a list", "BestQualitZoneSwitched",
     [](int seq, int) { return g_variant_new("(iii)", seq, 2, 3); },
     [](Reg *r) { return kova_register_best_quality_zone_switched_callback(kSwitch[r->thread], r) == 0; },
     [](Reg *r) { return kova_unregister_best_quality_zone_switched_callback(kSwitch[r->thread]) == 0; },
     [](const Reg &r) {
       char line[64];
       std::snprintf(line, sizeof line, "cb (%p) is being invoked", reinterpret_cast<void *>(kSwitch[r.thread]));
       return std::string(line);
     }},
    {"per-application map", "AppRscChanged",
     [](int seq, int t) { return g_variant_new("(siiiii)", AppId(t).c_str(), 1, 0, seq, 480, 30); },
     [](Reg *r) { return kova_register_resource_change_callback(AppId(r->thread).c_str(), OnResource, r) == 0; },
     [](Reg *r) { return kova_unregister_resource_change_callback(AppId(r->thread).c_str(), OnResource) == 0; },
     [](const Reg &) { return std::string("unsubscribe resource change("); }},
    {"C++ shared best-quality registration", "BestQualitZoneSwitched",
     [](int seq, int) { return g_variant_new("(iii)", seq, 2, 3); },
     [](Reg *r) {
       auto made = kova::on_best_quality_zone_switched([r](int seq, int, int) { r->on(seq); });
       return made && (r->sub = std::move(made).value(), true);
     },
     [](Reg *r) { return r->sub.reset(), true; },
     [](const Reg &) { return std::string(); }},  // it logs nothing of its own before it waits
};
constexpr int kKinds = sizeof kFamilies / sizeof kFamilies[0];

class HostTest : public KovaTest {
 protected:
  void SetUp() override {
    KovaTest::SetUp();
    for (const char *method : {"RscChangeRegId", "RscChangeUnRegId"}) service().SetInt(method, 0);
  }
};

TEST_F(HostTest, UnregistrationOnAnotherThreadWaitsForTheRunningCallback) {
  for (const Family &f : kFamilies) {
    SCOPED_TRACE(f.kind);
    std::promise<void> entered;
    std::atomic<pid_t> unregistering{0};
    std::atomic<bool> returned{false}, done{false};
    bool returned_during_call = false, done_at_return = false;
    Reg reg;
    // Held until the unregistering thread sleeps after its last line (waiting for this call) or has returned.
    reg.on = [&](int) {
      entered.set_value();
      const std::string last_line = f.last_line(reg);
      for (const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
           !returned && std::chrono::steady_clock::now() < end; std::this_thread::yield()) {
        if (unregistering != 0 && doubles::CountLogPrefix(last_line) > 0 && Asleep(unregistering)) break;
      }
      returned_during_call = returned;
      done = true;
    };
    ASSERT_TRUE(f.subscribe(&reg));
    std::thread other([&] {
      if (entered.get_future().wait_for(std::chrono::seconds(10)) != std::future_status::ready) return;
      unregistering = ThisThread();
      EXPECT_TRUE(f.unsubscribe(&reg));
      done_at_return = done;
      returned = true;
    });
    Emit(f.signal, f.event(1, 0));
    EXPECT_TRUE(WaitUntil([&] { return done.load(); }));
    other.join();
    EXPECT_FALSE(returned_during_call);
    EXPECT_TRUE(done_at_return);
  }
}

// Callers and registrars on their own threads while the service emits and a main-loop thread delivers. No reply
// may reach the wrong caller, no identifier repeat, no event reach the wrong registration, twice, or after its
// unregistration returned.
TEST_F(HostTest, CallsAndRegistrationsOnManyThreadsLoseAndMisdeliverNothing) {
  constexpr int kCallers = 3, kCalls = 300, kRegistrars = 3, kCycles = 11;
  // Event seq is of family seq % kinds (two families share a signal); per-application ones name thread
  // (seq / kinds) % (registrars + 1), the last being a thread nobody is.
  const auto app_thread = [](int seq) { return seq / kKinds % (kRegistrars + 1); };
  const auto meant_for = [&](int seq, int family, int thread) {
    return std::strcmp(kFamilies[seq % kKinds].signal, kFamilies[family].signal) == 0 &&
           (family != 2 || app_thread(seq) == thread);
  };
  const auto answer = [](int player) { return player % 977 + 1; };  // a reply handed to the wrong caller shows
  service().SetHandler("PlayerVideoStartDone", [&](const Call &c) { return Answer::Int(answer(c.args.i32(1))); });
  const int first_cmd = _kova_get_command_id();
  GMainLoop *loop = g_main_loop_new(nullptr, FALSE);
  std::thread dispatcher([loop] { g_main_loop_run(loop); });
  std::atomic<int> next_seq{0}, failures{0};
  std::atomic<bool> stop{false};
  std::thread emitter([&] {
    while (!stop) {
      for (int k = 0; k < kKinds; ++k) {
        const int seq = next_seq++;
        service().Emit(kFamilies[seq % kKinds].signal, kFamilies[seq % kKinds].event(seq, app_thread(seq)));
      }
      RoundTrip(service());  // keeps the signals from piling up
    }
  });
  std::vector<std::thread> threads;
  for (int t = 0; t < kCallers; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0, player = (t + 1) * 100000; i < kCalls; ++i, ++player) {
        const bool ok = i % 4 == 3 ? kova_player_request_stop(player) == 0
                                   : kova_player_video_start_done(player) == answer(player);
        failures += !ok;
      }
    });
  }
  struct Record {
    int family = 0;
    Reg reg;
    std::mutex mutex;
    std::vector<int> seen;
    std::atomic<int> unregistered_at{INT_MAX};  // events numbered from here on came after unregistration
  };
  std::vector<std::unique_ptr<Record>> records;
  for (int n = 0; n < kRegistrars * kCycles; ++n) {
    Record &r = *records.emplace_back(std::make_unique<Record>());
    r.family = (n / kCycles + n) % kKinds;
    r.reg.thread = n / kCycles;
    r.reg.on = [&r](int seq) {
      std::lock_guard<std::mutex> lock(r.mutex);
      r.seen.push_back(seq);
    };
  }
  for (int t = 0; t < kRegistrars; ++t) {
    threads.emplace_back([&, t] {
      for (int c = 0; c < kCycles; ++c) {
        Record &r = *records[static_cast<size_t>(t * kCycles + c)];
        failures += !kFamilies[r.family].subscribe(&r.reg);
        RoundTrip(service());  // the match rule is in place before events count
        const int from = next_seq;
        for (bool got = false; !got && next_seq < from + 500; std::this_thread::yield()) {  // one of its own came
          std::lock_guard<std::mutex> lock(r.mutex);
          for (int seq : r.seen) got = got || (seq >= from && meant_for(seq, r.family, t));
        }
        failures += !kFamilies[r.family].unsubscribe(&r.reg);
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
  for (const auto &r : records) {
    std::set<int> once;
    for (int seq : r->seen) {
      SCOPED_TRACE(kFamilies[r->family].kind);
      EXPECT_TRUE(meant_for(seq, r->family, r->reg.thread)) << "got event " << seq;
      EXPECT_TRUE(once.insert(seq).second) << "got " << seq << " twice";
      EXPECT_LT(seq, r->unregistered_at) << "called after unregistration";
    }
  }
}

// The child inherits the parent's connection but not GDBus's worker thread.
void OnAnySwitch(int, int, int, void *) {}

TEST_F(HostTest, AForkedChildFailsAtOnceWithItsOwnPid) {
  service().SetInt("SetAudioFocus", 0);
  ASSERT_EQ(kova_set_audio_focus(1), 0);
  ASSERT_EQ(kova_register_best_quality_zone_switched_callback(OnAnySwitch, nullptr), 0);
  ASSERT_EQ(kova_unregister_best_quality_zone_switched_callback(OnAnySwitch), 0);  // the child must subscribe anew
  int out[2];
  ASSERT_EQ(pipe(out), 0);
  const pid_t child = fork();
  if (child == 0) {
    alarm(10);
    const auto start = std::chrono::steady_clock::now();
    const int focus = kova_set_audio_focus(2), bestzone = kova_register_best_quality_zone_switched_callback(OnAnySwitch, 0);
    char report[160];
    std::snprintf(report, sizeof report, "%d %d fast=%d own_pid=%d logged=%d,%d", focus, bestzone,
                  std::chrono::steady_clock::now() - start < std::chrono::seconds(1),
                  static_cast<unsigned>(_kova_get_command_id()) >> 16 == (getpid() & 0xFFFFu),
                  doubles::CountLogPrefix("no connection in pid ", doubles::kError),
                  doubles::CountLogPrefix("failed to get connection (the connection was inherited across fork()",
                                          doubles::kError));
    (void)!write(out[1], report, strlen(report));
    _exit(0);
  }
  close(out[1]);
  char report[160] = {};
  (void)!read(out[0], report, sizeof report - 1);
  close(out[0]);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status)) << status;
  EXPECT_STREQ(report, "-1 -1 fast=1 own_pid=1 logged=1,1");
  EXPECT_EQ(kova_set_audio_focus(3), 0);  // the parent's connection is untouched
}

}  // namespace
}  // namespace kova_test

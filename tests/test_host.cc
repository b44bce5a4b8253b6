// What the library promises the process that loads it: an unregistration made
// on another thread waits for the callback it ends, and a forked child fails
// at once instead of blocking on the connection it inherited.
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <future>
#include <thread>

#include "kova_api.h"
#include "kova_private.h"
#include "kova_test.h"

namespace kova_test {
namespace {

// A callback held until the unregistering thread sleeps after its last line
// before the wait (waiting for this call) or has returned (a broken promise).
struct Held {
  std::string last_line;
  std::promise<void> entered;
  std::atomic<pid_t> unregistering{0};
  std::atomic<bool> returned{false}, done{false};
  bool returned_during_call = false;
};
void Hold(void *p) {
  auto *h = static_cast<Held *>(p);
  h->entered.set_value();
  for (const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
       !h->returned && std::chrono::steady_clock::now() < end; std::this_thread::yield()) {
    if (h->unregistering != 0 && doubles::CountLogPrefix(h->last_line) > 0 && Asleep(h->unregistering)) break;
  }
  h->returned_during_call = h->returned;
  h->done = true;
}
void OnPlayer(int, void *h) { Hold(h); }
void OnSwitch(int, int, int, void *h) { Hold(h); }
void OnResource(const char *, kova_resource *, void *h) { Hold(h); }

unsigned int g_id = 0;
struct Family {
  const char *kind, *signal, *params;
  std::string (*subscribe)(Held *);  // the last line before the wait
  int (*unsubscribe)();
};
const Family kFamilies[] = {
    {"subscription per registration", "PlayerAudioResync", "(1, 7)",
     [](Held *h) {
       g_id = kova_register_player_audio_resync_request_callback(OnPlayer, h);
       return "unsubscribe done (" + std::to_string(g_id) + ")";
     },
     [] { return kova_unregister_player_audio_resync_request_callback(g_id); }},
    {"shared subscription with a list", "BestQualitZoneSwitched", "(1, 2, 3)",
     [](Held *h) {
       kova_register_best_quality_zone_switched_callback(OnSwitch, h);
       char line[64];
       std::snprintf(line, sizeof line, "cb (%p) is being invoked", reinterpret_cast<void *>(OnSwitch));
       return std::string(line);
     },
     [] { return kova_unregister_best_quality_zone_switched_callback(OnSwitch); }},
    {"per-application map", "AppRscChanged", "('app.held', 1, 0, 640, 480, 30)",
     [](Held *h) {
       kova_register_resource_change_callback("app.held", OnResource, h);
       return std::string("unsubscribe resource change(");
     },
     [] { return kova_unregister_resource_change_callback("app.held", OnResource); }},
};

using HostTest = KovaTest;

TEST_F(HostTest, UnregistrationOnAnotherThreadWaitsForTheRunningCallback) {
  for (const char *method : {"RscChangeRegId", "RscChangeUnRegId"}) service().SetInt(method, 0);
  for (const Family &f : kFamilies) {
    SCOPED_TRACE(f.kind);
    Held held;
    held.last_line = f.subscribe(&held);
    bool done_at_return = false;
    std::thread other([&] {
      if (held.entered.get_future().wait_for(std::chrono::seconds(10)) != std::future_status::ready) return;
      held.unregistering = ThisThread();
      EXPECT_EQ(f.unsubscribe(), 0);
      done_at_return = held.done;
      held.returned = true;
    });
    Emit(f.signal, g_variant_new_parsed(f.params));
    EXPECT_TRUE(WaitUntil([&] { return held.done.load(); }));
    other.join();
    EXPECT_FALSE(held.returned_during_call);
    EXPECT_TRUE(done_at_return);
  }
}

// The child inherits the parent's connection but not GDBus's worker thread.
TEST_F(HostTest, AForkedChildFailsAtOnceWithItsOwnPid) {
  service().SetInt("SetAudioFocus", 0);
  ASSERT_EQ(kova_set_audio_focus(1), 0);
  ASSERT_EQ(kova_register_best_quality_zone_switched_callback(OnSwitch, nullptr), 0);
  ASSERT_EQ(kova_unregister_best_quality_zone_switched_callback(OnSwitch), 0);  // the child must subscribe anew
  int out[2];
  ASSERT_EQ(pipe(out), 0);
  const pid_t child = fork();
  if (child == 0) {
    alarm(10);
    const auto start = std::chrono::steady_clock::now();
    const int focus = kova_set_audio_focus(2), bestzone = kova_register_best_quality_zone_switched_callback(OnSwitch, 0);
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

// What the library promises the process that loads it: an unregistration made
// on another thread waits for the callback it ends, and a forked child fails
// at once instead of blocking on the connection it inherited.
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <future>
#include <string>
#include <thread>

#include "kova_api.h"
#include "kova_private.h"
#include "kova_test.h"

namespace kova_test {
namespace {

// One delivery held inside its callback while another thread unregisters.
struct Held {
  std::string last_line;  // the unregistering thread's last log line before it may wait
  std::promise<void> entered;
  std::atomic<pid_t> unregistering{0};
  std::atomic<bool> returned{false};
  std::atomic<bool> callback_done{false};
  bool returned_during_callback = false;
  bool callback_done_at_return = false;
};

// Stays in the callback until the unregistering thread is asleep after its
// last line (waiting for this call to end) or has returned (a broken promise).
void Hold(void *user_data) {
  auto *h = static_cast<Held *>(user_data);
  h->entered.set_value();
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!h->returned && std::chrono::steady_clock::now() < deadline) {
    const pid_t tid = h->unregistering;
    if (tid != 0 && doubles::CountLogPrefix(h->last_line) > 0 && Asleep(tid)) break;
    std::this_thread::yield();
  }
  h->returned_during_callback = h->returned;
  h->callback_done = true;
}

std::string Pointer(const void *p) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%p", p);
  return buf;
}

struct Family {
  const char *kind;
  std::function<std::string(Held *)> subscribe;  // returns the last line before the wait
  const char *signal;
  std::function<GVariant *()> params;
  std::function<void()> unsubscribe;
};

unsigned int g_id = 0;
void PlayerCb(int, void *ud) { Hold(ud); }
void SwitchedCb(int, int, int, void *ud) { Hold(ud); }
void ResourceCb(const char *, kova_resource *, void *ud) { Hold(ud); }

const Family kFamilies[] = {
    {"subscription per registration",
     [](Held *h) {
       g_id = kova_register_player_audio_resync_request_callback(PlayerCb, h);
       return "unsubscribe done (" + std::to_string(g_id) + ")";
     },
     "PlayerAudioResync", [] { return g_variant_new("(ii)", 1, 7); },
     [] { EXPECT_EQ(kova_unregister_player_audio_resync_request_callback(g_id), 0); }},
    {"shared subscription with a list",
     [](Held *h) {
       EXPECT_EQ(kova_register_best_quality_zone_switched_callback(SwitchedCb, h), 0);
       return "cb (" + Pointer(reinterpret_cast<void *>(SwitchedCb)) + ") is being invoked";
     },
     "BestQualitZoneSwitched", [] { return g_variant_new("(iii)", 1, 2, 3); },
     [] { EXPECT_EQ(kova_unregister_best_quality_zone_switched_callback(SwitchedCb), 0); }},
    {"per-application map",
     [](Held *h) {
       EXPECT_EQ(kova_register_resource_change_callback("app.held", ResourceCb, h), 0);
       return std::string("unsubscribe resource change(");
     },
     "AppRscChanged", [] { return g_variant_new("(siiiii)", "app.held", 1, 0, 640, 480, 30); },
     [] { EXPECT_EQ(kova_unregister_resource_change_callback("app.held", ResourceCb), 0); }},
};

using HostTest = KovaTest;

TEST_F(HostTest, UnregistrationOnAnotherThreadWaitsForTheRunningCallback) {
  for (const char *method : {"RscChangeRegId", "RscChangeUnRegId"}) service().SetInt(method, 0);
  for (const Family &f : kFamilies) {
    SCOPED_TRACE(f.kind);
    Held held;
    held.last_line = f.subscribe(&held);
    std::thread other([&] {
      if (held.entered.get_future().wait_for(std::chrono::seconds(10)) != std::future_status::ready) return;
      held.unregistering = ThisThread();
      f.unsubscribe();
      held.callback_done_at_return = held.callback_done;
      held.returned = true;
    });
    Emit(f.signal, f.params());
    EXPECT_TRUE(WaitUntil([&] { return held.callback_done.load(); }));
    other.join();
    EXPECT_FALSE(held.returned_during_callback);
    EXPECT_TRUE(held.callback_done_at_return);
  }
}

// The child inherits the parent's connection but not GDBus's worker thread.
TEST_F(HostTest, AForkedChildFailsAtOnceWithItsOwnPid) {
  service().SetInt("SetAudioFocus", 0);
  ASSERT_EQ(kova_set_audio_focus(1), 0);
  ASSERT_EQ(kova_register_best_quality_zone_switched_callback(SwitchedCb, nullptr), 0);
  ASSERT_EQ(kova_unregister_best_quality_zone_switched_callback(SwitchedCb), 0);  // the child must subscribe anew
  int out[2];
  ASSERT_EQ(pipe(out), 0);
  const pid_t child = fork();
  if (child == 0) {
    alarm(10);
    const auto start = std::chrono::steady_clock::now();
    const int focus = kova_set_audio_focus(2);
    const int bestzone = kova_register_best_quality_zone_switched_callback(SwitchedCb, nullptr);
    const bool fast = std::chrono::steady_clock::now() - start < std::chrono::seconds(1);
    const bool own_pid = static_cast<unsigned>(_kova_get_command_id()) >> 16 == (getpid() & 0xFFFFu);
    const std::string report = std::to_string(focus) + " " + std::to_string(bestzone) + " fast=" +
                               std::to_string(fast) + " own_pid=" + std::to_string(own_pid) + " logged=" +
                               std::to_string(doubles::CountLogPrefix("no connection in pid ", doubles::kError)) +
                               "," +
                               std::to_string(doubles::CountLogPrefix("failed to get connection (the connection "
                                                                      "was inherited across fork()",
                                                                      doubles::kError));
    (void)!write(out[1], report.data(), report.size());
    _exit(0);
  }
  close(out[1]);
  std::string report;
  char buf[256];
  for (ssize_t n; (n = read(out[0], buf, sizeof buf)) > 0;) report.append(buf, static_cast<size_t>(n));
  close(out[0]);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status)) << status;
  EXPECT_EQ(report, "-1 -1 fast=1 own_pid=1 logged=1,1");
  EXPECT_EQ(kova_set_audio_focus(3), 0);  // the parent's connection is untouched
}

}  // namespace
}  // namespace kova_test

// kovactl as a user runs it, against kova-sim on a private bus: output lines and exit status.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <tuple>
#include <vector>

#include <glib.h>

#include "private_bus.h"

namespace {

using ::testing::HasSubstr;

// Reads one line, waiting with poll; "" on end of file or time-out.
std::string ReadLine(int fd) {
  std::string line;
  struct pollfd p = {fd, POLLIN, 0};
  for (char c; poll(&p, 1, 10000) > 0 && read(fd, &c, 1) == 1 && c != '\n';) line.push_back(c);
  return line;
}

// A process with its stdout on a pipe; terminated if still running at the end.
struct Child {
  explicit Child(std::vector<std::string> args) {
    std::vector<char *> argv;
    for (std::string &a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    const auto flags = static_cast<GSpawnFlags>(G_SPAWN_DO_NOT_REAP_CHILD | G_SPAWN_STDERR_TO_DEV_NULL);
    EXPECT_TRUE(g_spawn_async_with_pipes(nullptr, argv.data(), nullptr, flags, nullptr, nullptr, &pid, nullptr, &out,
                                         nullptr, nullptr));
  }
  ~Child() {
    if (pid > 0 && kill(pid, SIGTERM) == 0) Wait();
    if (out >= 0) close(out);
  }
  int Wait() {
    int status = 0;
    waitpid(pid, &status, 0);
    pid = 0;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }
  GPid pid = 0;
  int out = -1;
};

struct Outcome { int status; std::string out, err; };

// Runs kovactl with args (split as a shell would) to the end.
Outcome Kovactl(const std::string &args) {
  g_autofree gchar *path = g_shell_quote(KOVACTL_PATH);
  g_autofree gchar *out = nullptr;
  g_autofree gchar *err = nullptr;
  int status = 0;
  const bool ran = g_spawn_command_line_sync((path + (" " + args)).c_str(), &out, &err, &status, nullptr);
  return {ran && WIFEXITED(status) ? WEXITSTATUS(status) : -1, out ? out : "", err ? err : ""};
}

// One kova-sim on its own private bus for the suite; kovactl finds both through the environment.
class KovactlTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    markers_ = kova_test::MakeTempDir("kovactl-markers");
    g_setenv("PELK_ROOT", markers_.c_str(), TRUE);
    sim_ = new Child({KOVA_SIM_PATH, "--private-bus", "--marker-root", markers_});
    const std::string address = ReadLine(sim_->out);
    ASSERT_EQ(address.rfind("DBUS_SYSTEM_BUS_ADDRESS=unix:", 0), 0u) << address;
    for (const char *bus : {"DBUS_SYSTEM_BUS_ADDRESS", "DBUS_SESSION_BUS_ADDRESS"}) {  // never the host's
      g_setenv(bus, address.c_str() + address.find('=') + 1, TRUE);
    }
    ASSERT_EQ(ReadLine(sim_->out), "ready");
  }
  static void TearDownTestSuite() {
    delete sim_;  // terminated: it removes its markers and its bus
    kova_test::RemoveTree(markers_);
  }
  static inline Child *sim_ = nullptr;
  static inline std::string markers_;
};

// In order: later rows rely on what earlier ones did to the service.
TEST_F(KovactlTest, EveryFamilyPrintsItsResultAndExitsByIt) {
  const std::tuple<const char *, int, const char *> cases[] = {
      {"player done audio-stop 5", 1, "player-done result=-1\n"},  // nothing to acknowledge
      {"speaker register bar 2", 0, "speaker-register result=0\n"},
      {"zones assign app.one 2", 0, "zone-assign result=0\n"},
      {"--json zones focused", 0, "{\"event\":\"focused-zone\",\"zone\":2,\"scaler\":1,\"app\":\"app.one\"}\n"},
      {"best-zone switch 2 0", 0, "best-zone-switch result=0\n"},
      {"resolution get app.one", 0, "max-resolution result=0 width=3840 height=2160 framerate=60\n"},
      {"category 1 app.one 1010", 0, "capable-category result=1010\n"},
      {"policy set 2 owner app.one:1:2", 0, "policy-set result=0\n"},
  };
  for (const auto &[args, status, out] : cases) {
    const Outcome o = Kovactl(args);
    EXPECT_EQ(o.status, status) << args << ": " << o.err;
    EXPECT_EQ(o.out, out) << args;
  }
  const Outcome bad = Kovactl("player play five");
  EXPECT_EQ(bad.status, 2);
  EXPECT_THAT(bad.err, HasSubstr("player id must be an integer, not 'five'"));
}

TEST_F(KovactlTest, HelpOnEveryLevel) {
  const Outcome top = Kovactl("--help");
  EXPECT_EQ(top.status, 0);
  for (const std::string family :
       {"player", "speaker", "zones", "focus", "best-zone", "resolution", "category", "policy", "monitor"}) {
    EXPECT_THAT(top.out, HasSubstr("kovactl " + family));
    EXPECT_THAT(Kovactl(family + " --help").out, HasSubstr("kovactl " + family)) << family;
  }
}

TEST_F(KovactlTest, MonitorPrintsEventsAsTheyArrive) {
  ASSERT_EQ(Kovactl("focus set 1").status, 0);  // a known start: the change below is one
  Child monitor({KOVACTL_PATH, "--json", "monitor", "-n", "3", "--app", "app.watch"});
  ASSERT_EQ(ReadLine(monitor.out), "{\"event\":\"ready\"}");
  ASSERT_EQ(Kovactl("focus set 2").out, "audio-focus-set result=0\n");
  ASSERT_EQ(Kovactl("policy internal 0").status, 0);
  std::vector<std::string> events = {ReadLine(monitor.out), ReadLine(monitor.out), ReadLine(monitor.out)};
  EXPECT_EQ(monitor.Wait(), 0);
  // One focus change reaches both focus subscriptions; then the policy change.
  EXPECT_THAT(events, ::testing::UnorderedElementsAre(
                          "{\"event\":\"audio-focus-changed\",\"zone\":2}",
                          ::testing::StartsWith("{\"event\":\"audio-focus-zone-changed\",\"zone\":2,\"scaler\":1,"),
                          "{\"event\":\"policy-changed\",\"policy\":0,\"apps\":[]}"));
}

}  // namespace

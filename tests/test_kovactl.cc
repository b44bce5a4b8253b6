// kovactl as a user runs it: a subprocess against kova-sim on a private bus,
// checked by its output lines and exit status.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include <glib.h>

#include "private_bus.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr int kTimeoutMs = 10000;

// Reads one line, waiting with poll; "" on end of file or time-out.
std::string ReadLine(int fd) {
  std::string line;
  for (;;) {
    struct pollfd p = {fd, POLLIN, 0};
    if (poll(&p, 1, kTimeoutMs) <= 0) return line;
    char c;
    if (read(fd, &c, 1) != 1 || c == '\n') return line;
    line.push_back(c);
  }
}

std::vector<std::string> Lines(const std::string &text) {
  std::vector<std::string> out;
  gchar **parts = g_strsplit(text.c_str(), "\n", -1);
  for (gchar **p = parts; *p; ++p) {
    if (**p) out.emplace_back(*p);
  }
  g_strfreev(parts);
  return out;
}

struct Outcome {
  int status = -1;
  std::string out;
  std::string err;
};

// A process with its stdout on a pipe; killed if still running at the end.
struct Child {
  GPid pid = 0;
  int out = -1;
  ~Child() {
    if (pid > 0) {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
    }
    if (out >= 0) close(out);
  }
  int Wait() {
    int status = 0;
    waitpid(pid, &status, 0);
    pid = 0;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }
};

class KovactlTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    std::string error;
    bus_ = kova_test::PrivateBus::Start(&error).release();
    ASSERT_NE(bus_, nullptr) << error;
    markers_ = new std::string(kova_test::MakeTempDir("kovactl-markers"));
    sim_ = new Child();
    ASSERT_TRUE(Spawn({KOVA_SIM_PATH, "--marker-root", *markers_}, sim_));
    // kova-sim prints "ready" once it serves.
    std::string line;
    do {
      line = ReadLine(sim_->out);
    } while (!line.empty() && line != "ready");
    ASSERT_EQ(line, "ready");
  }
  static void TearDownTestSuite() {
    if (sim_ != nullptr && sim_->pid > 0) {
      kill(sim_->pid, SIGTERM);
      sim_->Wait();
    }
    delete sim_;
    delete bus_;
    if (markers_ != nullptr) kova_test::RemoveTree(*markers_);
    delete markers_;
  }

  static std::vector<std::string> Env() {
    std::vector<std::string> env = {"DBUS_SYSTEM_BUS_ADDRESS=" + bus_->address(),
                                    "DBUS_SESSION_BUS_ADDRESS=" + bus_->address(), "PELK_ROOT=" + *markers_};
    for (char **e = environ; *e; ++e) {
      std::string s = *e;
      if (s.rfind("DBUS_", 0) != 0 && s.rfind("PELK_ROOT=", 0) != 0) env.push_back(s);
    }
    return env;
  }

  // NULL-terminated pointers into strings, as the spawn functions take them.
  static std::vector<char *> Pointers(const std::vector<std::string> &strings) {
    std::vector<char *> out;
    for (const std::string &s : strings) out.push_back(const_cast<char *>(s.c_str()));
    out.push_back(nullptr);
    return out;
  }

  static bool Spawn(const std::vector<std::string> &args, Child *child) {
    std::vector<std::string> env = Env();
    std::vector<char *> argv = Pointers(args), envp = Pointers(env);
    GError *err = nullptr;
    bool ok = g_spawn_async_with_pipes(nullptr, argv.data(), envp.data(),
                                       static_cast<GSpawnFlags>(G_SPAWN_DO_NOT_REAP_CHILD | G_SPAWN_STDERR_TO_DEV_NULL),
                                       nullptr, nullptr, &child->pid, nullptr, &child->out, nullptr, &err);
    if (!ok) {
      ADD_FAILURE() << err->message;
      g_error_free(err);
    }
    return ok;
  }

  // Runs kovactl to the end.
  static Outcome Run(std::vector<std::string> args) {
    args.insert(args.begin(), KOVACTL_PATH);
    std::vector<std::string> env = Env();
    std::vector<char *> argv = Pointers(args), envp = Pointers(env);
    Outcome o;
    gchar *out = nullptr;
    gchar *err = nullptr;
    GError *error = nullptr;
    int wait_status = 0;
    if (!g_spawn_sync(nullptr, argv.data(), envp.data(), G_SPAWN_DEFAULT, nullptr, nullptr, &out, &err,
                      &wait_status, &error)) {
      ADD_FAILURE() << error->message;
      g_error_free(error);
      return o;
    }
    o.status = WIFEXITED(wait_status) ? WEXITSTATUS(wait_status) : -1;
    o.out = out;
    o.err = err;
    g_free(out);
    g_free(err);
    return o;
  }

  static kova_test::PrivateBus *bus_;
  static std::string *markers_;
  static Child *sim_;
};

kova_test::PrivateBus *KovactlTest::bus_ = nullptr;
std::string *KovactlTest::markers_ = nullptr;
Child *KovactlTest::sim_ = nullptr;

TEST_F(KovactlTest, PlayerFamilyPrintsResultsAndExitsZero) {
  Outcome o = Run({"player", "register", "5"});
  EXPECT_EQ(o.status, 0) << o.err;
  EXPECT_EQ(o.out, "player-register result=5\n");
  o = Run({"player", "play", "5"});
  EXPECT_EQ(o.status, 0) << o.err;
  EXPECT_THAT(o.out, StartsWith("player-play result=0 audio_out="));
  o = Run({"--json", "player", "audio-out", "5"});
  EXPECT_EQ(o.status, 0) << o.err;
  EXPECT_EQ(o.out, "{\"event\":\"player-audio-out\",\"result\":0,\"audio_out\":1}\n");
  EXPECT_EQ(Run({"player", "unregister", "5"}).status, 0);
}

TEST_F(KovactlTest, ZonesAndFocusThroughTheService) {
  Outcome o = Run({"zones", "assign", "app.one", "2"});
  EXPECT_EQ(o.status, 0) << o.err;
  o = Run({"zones", "list"});
  EXPECT_EQ(o.status, 0) << o.err;
  EXPECT_THAT(Lines(o.out), ElementsAre("zone zone=1 scaler=0 app=", "zone zone=2 scaler=1 app=app.one"));
  o = Run({"zones", "focused"});
  EXPECT_EQ(o.out, "focused-zone zone=2 scaler=1 app=app.one\n");
  EXPECT_EQ(Run({"focus", "set", "2"}).status, 0);
  o = Run({"focus", "get"});
  EXPECT_EQ(o.out, "audio-focus result=0 zone=2\n");
  o = Run({"focus", "is", "app.one"});
  EXPECT_EQ(o.out, "audio-focused result=1\n");
}

TEST_F(KovactlTest, ServiceRefusalExitsOne) {
  // The application is in no zone, so the service refuses to remove it.
  Outcome o = Run({"zones", "remove", "nobody.here", "1"});
  EXPECT_EQ(o.status, 1);
  EXPECT_EQ(o.out, "zone-remove result=-1\n");
}

TEST_F(KovactlTest, BadUsageExitsTwoWithAMessage) {
  struct Case {
    std::vector<std::string> args;
    const char *message;
  };
  const Case cases[] = {
      {{}, "a family is needed"},
      {{"bogus"}, "unknown family 'bogus'"},
      {{"player", "play", "five"}, "player id must be an integer, not 'five'"},
      {{"player", "play"}, "usage: kovactl player play ID"},
      {{"zones", "spin"}, "unknown command for zones: spin"},
      {{"--frobnicate", "zones", "list"}, "unknown option '--frobnicate'"},
      {{"monitor", "-n", "0"}, "the count must be positive"},
  };
  for (const Case &c : cases) {
    Outcome o = Run(c.args);
    EXPECT_EQ(o.status, 2) << c.message;
    EXPECT_THAT(o.err, HasSubstr(c.message));
    EXPECT_EQ(o.out, "");
  }
}

TEST_F(KovactlTest, HelpOnEveryLevel) {
  Outcome top = Run({"--help"});
  EXPECT_EQ(top.status, 0);
  for (const char *family : {"player", "speaker", "zones", "focus", "best-zone", "resolution", "category", "policy",
                             "monitor"}) {
    EXPECT_THAT(top.out, HasSubstr(std::string("kovactl ") + family)) << family;
    Outcome one = Run({family, "--help"});
    EXPECT_EQ(one.status, 0) << family;
    EXPECT_THAT(one.out, HasSubstr(std::string("kovactl ") + family)) << family;
  }
  Outcome leaf = Run({"zones", "list", "--help"});
  EXPECT_EQ(leaf.status, 0);
  EXPECT_THAT(leaf.out, HasSubstr("kovactl zones list [--multiview]"));
}

TEST_F(KovactlTest, MonitorPrintsEventsAsTheyArrive) {
  ASSERT_EQ(Run({"focus", "set", "1"}).status, 0);  // a known start: the change below is one
  Child monitor;
  ASSERT_TRUE(Spawn({KOVACTL_PATH, "--json", "monitor", "-n", "3", "--app", "app.watch"}, &monitor));
  ASSERT_EQ(ReadLine(monitor.out), "{\"event\":\"ready\"}");
  ASSERT_EQ(Run({"focus", "set", "2"}).status, 0);
  ASSERT_EQ(Run({"policy", "internal", "0"}).status, 0);
  std::vector<std::string> events = {ReadLine(monitor.out), ReadLine(monitor.out), ReadLine(monitor.out)};
  EXPECT_EQ(monitor.Wait(), 0);
  // One focus change reaches both focus subscriptions; then the policy change.
  EXPECT_THAT(events, ::testing::UnorderedElementsAre(
                          "{\"event\":\"audio-focus-changed\",\"zone\":2}",
                          StartsWith("{\"event\":\"audio-focus-zone-changed\",\"zone\":2,\"scaler\":1,"),
                          "{\"event\":\"policy-changed\",\"policy\":0,\"apps\":[]}"));
}

TEST_F(KovactlTest, MonitorWithFewerEventsThanAskedExitsOne) {
  Child monitor;
  ASSERT_TRUE(Spawn({KOVACTL_PATH, "monitor", "-n", "1", "-t", "1"}, &monitor));
  ASSERT_EQ(ReadLine(monitor.out), "ready");
  EXPECT_EQ(monitor.Wait(), 1);
}

}  // namespace

// kovactl as a user runs it, against kova-sim on a private bus: output lines and exit status.
#include <gio/gio.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <string>
#include <utility>
#include <vector>

#include "private_bus.h"

namespace {

using ::testing::Pair;

// The next line of in; "" at its end.
std::string Line(GDataInputStream *in) {
  g_autofree gchar *line = g_data_input_stream_read_line(in, nullptr, nullptr, nullptr);
  return line ? line : "";
}

// Runs kovactl with args (split as a shell would) to the end: its exit status, and stdout then stderr.
std::pair<int, std::string> Kovactl(const std::string &args) {
  g_autofree gchar *path = g_shell_quote(KOVACTL_PATH);
  g_autofree gchar *out = nullptr;
  g_autofree gchar *err = nullptr;
  int status = 0;
  g_spawn_command_line_sync((path + (" " + args)).c_str(), &out, &err, &status, nullptr);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, std::string(out ? out : "") + (err ? err : "")};
}

// One kova-sim on its own private bus for the suite; kovactl finds both through the environment.
class KovactlTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    markers_ = kova_test::MakeTempDir("kovactl-markers");
    g_setenv("PELK_ROOT", markers_.c_str(), TRUE);
    const char *argv[] = {KOVA_SIM_PATH, "--private-bus", "--marker-root", markers_.c_str(), nullptr};
    sim_ = g_subprocess_newv(argv, G_SUBPROCESS_FLAGS_STDOUT_PIPE, nullptr);
    g_autoptr(GDataInputStream) out = g_data_input_stream_new(g_subprocess_get_stdout_pipe(sim_));
    const std::string address = Line(out);  // DBUS_SYSTEM_BUS_ADDRESS=...
    g_setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str() + address.find('=') + 1, TRUE);
    ASSERT_EQ(Line(out), "PELK_ROOT=" + markers_);
    ASSERT_EQ(Line(out), "ready");  // and nothing more on stdout
  }
  static void TearDownTestSuite() {
    g_subprocess_send_signal(sim_, SIGTERM);  // it removes its markers and its bus
    g_subprocess_wait(sim_, nullptr, nullptr);
    g_clear_object(&sim_);
    kova_test::RemoveTree(markers_);
  }
  static inline std::string markers_;
  static inline GSubprocess *sim_ = nullptr;
};

TEST_F(KovactlTest, ExitsByTheResultOrTheUsageAndHelps) {
  EXPECT_THAT(Kovactl("player done audio-stop 5"), Pair(1, "player-done result=-1\n"));  // nothing to acknowledge
  EXPECT_THAT(Kovactl("player play five"), Pair(2, ::testing::HasSubstr("player id must be an integer, not 'five'")));
  EXPECT_THAT(Kovactl("--help"), Pair(0, ::testing::HasSubstr("kovactl monitor")));
}

TEST_F(KovactlTest, MonitorPrintsEventsAsTheyArrive) {
  const char *argv[] = {KOVACTL_PATH, "--json", "monitor", "-n", "3", "--app", "app.watch", nullptr};
  g_autoptr(GSubprocess) monitor = g_subprocess_newv(argv, G_SUBPROCESS_FLAGS_STDOUT_PIPE, nullptr);
  g_autoptr(GDataInputStream) out = g_data_input_stream_new(g_subprocess_get_stdout_pipe(monitor));
  ASSERT_EQ(Line(out), "{\"event\":\"ready\"}");
  ASSERT_THAT(Kovactl("focus set 2"), Pair(0, "audio-focus-set result=0\n"));  // from zone 1: two focus events
  ASSERT_THAT(Kovactl("policy internal 0"), Pair(0, "policy-internal result=0\n"));
  EXPECT_TRUE(g_subprocess_wait_check(monitor, nullptr, nullptr));  // -n 3: it ends after three
  EXPECT_THAT((std::vector<std::string>{Line(out), Line(out), Line(out)}), ::testing::UnorderedElementsAre(
      "{\"event\":\"audio-focus-changed\",\"zone\":2}", "{\"event\":\"policy-changed\",\"policy\":0,\"apps\":[]}",
      ::testing::StartsWith("{\"event\":\"audio-focus-zone-changed\",\"zone\":2,\"scaler\":1,")));
}

}  // namespace

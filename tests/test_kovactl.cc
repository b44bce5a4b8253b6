// kovactl as a user runs it, against kova-sim on a private bus: output lines, exit status and the
// reasons it gives.
#include <gio/gio.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "private_bus.h"

namespace {

using ::testing::HasSubstr;

std::string Line(GDataInputStream *in) {
  g_autofree gchar *line = g_data_input_stream_read_line(in, nullptr, nullptr, nullptr);
  return line ? line : "";
}

// Runs a command line (kovactl standing for the binary) to its end: exit status, stdout then stderr.
std::pair<int, std::string> Sh(const std::string &line) {
  const std::string command = std::regex_replace(
      std::regex_replace(line, std::regex("\\bkovactl\\b"), KOVACTL_PATH), std::regex("^kova-sim\\b"), KOVA_SIM_PATH);
  g_autofree gchar *out = nullptr;
  g_autofree gchar *err = nullptr;
  int status = 0;
  g_spawn_command_line_sync(command.c_str(), &out, &err, &status, nullptr);
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
    started_ = Line(out) == "PELK_ROOT=" + markers_ && Line(out) == "ready";
  }
  // A suite that could not start its service fails each test (rather than skipping it).
  void SetUp() override { ASSERT_TRUE(started_) << "kova-sim did not start as expected"; }
  static void TearDownTestSuite() {
    g_subprocess_send_signal(sim_, SIGTERM);  // it removes its markers and its bus
    g_subprocess_wait(sim_, nullptr, nullptr);
    g_clear_object(&sim_);
    kova_test::RemoveTree(markers_);
  }
  static inline std::string markers_;
  static inline GSubprocess *sim_ = nullptr;
  static inline bool started_ = false;
};

struct Row {
  const char *line;
  int status;
  const char *output;  // a part of stdout and stderr
};

TEST_F(KovactlTest, EachFamilyAnswersWithItsResultItsSourceOrWhyNot) {
  const Row rows[] = {
      {"kovactl", 2, "Usage: kovactl"},
      {"kovactl player", 2, "kovactl: player needs a command"},
      {"kovactl player bogus", 2, "kovactl: unknown command 'bogus' of player"},
      {"kovactl --version", 0, "kovactl 0.1.0"},
      {"kovactl zones layout --help", 0, "none (0), single (1), multiview (2), changing (3)"},
      {"kovactl player play five", 2, "player id must be an integer, not 'five'"},
      {"kovactl player register 10 7", 0, "player-register result=10\n"},
      // Help lists the names each argument takes, from the tables that parse them.
      {"kovactl speaker register --help", 0, "OUTPUT  none (0), main (1), sub (2) or an integer"},
      {"kovactl player done --help", 0, "REQUEST  video-start (0), video-stop (1), audio-start (2), audio-stop (3)\n"},
      {"kovactl resolution policy --help", 0,
       "POLICY  default (0), multiview (1), game (2) or an integer\n  CODEC   h264 (0), hevc (1), vp9 (2), av1 (3) or"},
      {"kovactl player play 10", 0, "player-play result=0 audio_out=1 source=service\n"},
      {"kovactl player done audio-stop 5 --json", 1,
       "{\"kind\":\"player-done\",\"result\":-1,\"error\":\"the library answered -1 ("},
      {"kovactl player audio-out 10", 0, "source=platform"},  // no policy active: the resource manager
      {"env -u PELK_ROOT kovactl player play 3", 0, "source=library\nkovactl: warning: the service's ready marker"},
      {"kovactl player play 99", 1, "kovactl: player-play: [" /* the library's reason */},
      {"kovactl speaker register bar sub", 0, "speaker-register result=0"},
      {"kovactl speaker register baz 7", 1, "speaker-register result=-1 error="},  // kova-sim knows outputs 1 and 2
      {"kovactl zones layout multiview", 0, "layout result=0"},
      {"kovactl zones list --all", 2, "unknown option '--all'"},
      {"kovactl zones list --json", 0, "{\"kind\":\"zone\",\"zone\":1,\"scaler\":0,\"app\":\"\"}"},
      {"kovactl -v resolution policy game h264", 0, "success policy(2)/codec(0)/(1920*1080)-(30)"},
      {"kovactl policy app-zones game a.app", 2, "APP:ZONE expected, not 'a.app'"},
      {"kovactl policy internal default", 0, "policy-internal result=0"},
      {"kovactl status", 0, "org.zelta.tv.system.resource: owner :1."},
      {"kovactl status", 0, "  players:\n    -\n      id: 10\n      value: 7\n"},
      {"kovactl status", 0, "\n  app_lists: -\n"},  // empty: on its key's line
      {"kovactl status", 0,
       "\nfocused zone     1 (scaler 0, app -)\naudio focus      1 (last none)\npolicy           0 (owner -;"},
      {"kovactl status", 0, " (kova-sim)\nready marker     present ("},
      {"kovactl --json status", 0, "\"registered_apps\":{\"resource_change\":[],\"max_resolution\":[]}"},
      {"kovactl --json status", 0, "\"ready\":true,\"policy_active\":false}"},
      {"kovactl player done video-start 10", 0, "player-done result=0\n"},
      {"kovactl player stop 10", 0, "player-stop result=0\n"},
      {"kovactl player unregister 10", 0, "player-unregister result=0\n"},
      {"kovactl speaker audio-out bar", 0, "speaker-audio-out result=0 audio_out=2 source=service\n"},
      {"kovactl speaker unregister bar 2", 0, "speaker-unregister result=0\n"},
      {"kovactl zones assign tv.app 1", 0, "zone-assign result=0\n"},
      {"kovactl zones preassign radio.app 2", 0, "zone-preassign result=0\n"},
      {"kovactl zones remove tv.app 2", 1, "zone-remove result=-1 error="},
      {"kovactl zones focused", 0, "focused-zone result=0 zone=1 scaler=0 app=tv.app\n"},
      {"kovactl zones removable radio.app 2", 0, "zone-removable result=0\n"},
      {"kovactl zones clear-removable", 0, "zone-clear-removable result=0\n"},
      {"kovactl focus set 2", 0, "audio-focus-set result=0\n"},
      {"kovactl focus get", 0, "audio-focus result=0 zone=2\n"},
      {"kovactl focus last", 0, "last-audio-focus result=0 zone=1\n"},
      {"kovactl focus last 1", 2, "usage: kovactl focus last\n"},  // a command without arguments shows none
      {"kovactl focus is radio.app", 0, "audio-focused result=1\n"},
      {"kovactl focus is '\xff'", 1, "audio-focused result=-1 error=\"invalid param\""},
      {"kovactl focus zone", 0, "audio-focus-zone result=0 zone=1 scaler=0 app=tv.app\n"},  // the focused zone
      {"kovactl best-zone switch 2 1", 0, "best-zone-switch result=0\n"},
      {"kovactl best-zone switch 2 -1", 1, "error=\"invalid param (2:-1)\""},  // the zone, then the option
      {"kovactl best-zone restore", 0, "best-zone-restore result=0\n"},
      {"kovactl resolution get tv.app", 0, "max-resolution result=0 width=3840 height=2160 framerate=60\n"},
      {"kovactl category 1 app.c 5", 0, "capable-category result=5 source=library\n"},
      {"kovactl category 1 app.c 2005", 0, "capable-category result=2005 source=service\n"},  // an audio decoder
      {"kovactl policy set game '\xff'", 1, "policy-set result=-1 error=\"invalid owner name\""},
      {"kovactl policy set game owner --remove-all", 0, "policy-set result=0\n"},
      {"kovactl status", 0, "\npolicy           2 (owner owner;"},
      {"kovactl zones list", 0, "zone zone=1 scaler=0 app=-\n"},  // tv.app was removed
      {"kovactl zones assign tv.app 1", 0, "zone-assign result=0\n"},
      {"kovactl policy set game owner", 0, "policy-set result=0\n"},
      {"kovactl zones list", 0, "zone zone=1 scaler=0 app=tv.app\n"},  // kept without --remove-all
      {"kovactl policy set game owner tv.app:1:2 --remove-all", 0, "policy-set result=0\n"},
      {"kovactl zones list", 0, "zone zone=1 scaler=0 app=-\n"},
      {"kovactl policy preassign radio.app:2", 0, "policy-preassign result=0\n"},
      {"kovactl --json status", 0, "\"policy\":{\"value\":2,\"owner\":\"owner\"}"},
      {"kovactl policy preassign", 0, "policy-preassign result=0\n"},
      {"kovactl policy register-list 1 tv.app:1:2 b.app", 0, "app-list-register result=0\n"},
      {"kovactl --json status", 0, "\"app_lists\":{\"1\":[\"b.app:0:0\",\"tv.app:1:2\"]}"},
      {"kovactl policy unregister-list 1 tv.app", 0, "app-list-unregister result=0\n"},
      {"kovactl monitor -t -1", 2, "above 0 and at most 30 days, not '-1'"},
      {"kovactl monitor -t 0", 2, "above 0 and at most 30 days, not '0'"},
      {"kovactl monitor -t 2592000.001", 2, "at most 30 days, not '2592000.001'"},  // its milliseconds fit a guint
      {"kovactl monitor -n 0", 2, "the count must be above 0"},
      {"kova-sim --sh-syntax", 3, "is already owned"},  // on the suite's bus, which the suite's sim serves
      {"kova-sim --ready-fd 0", 3, "is already owned"},  // descriptor 0 is as good as any
      {"kova-sim --config /nonexistent", 2, "/nonexistent: cannot read the file"},
      {"kova-sim extra", 2, "unexpected argument 'extra'"},
      {"kovactl monitor --register-app ''", 2, "needs a non-empty application id"},
      // JSON stays valid UTF-8: a byte that is not becomes U+FFFD.
      {"kovactl --json monitor --register-app '\xff' -n 1", 1,
       "{\"kind\":\"monitor-register-app\",\"app\":\"\xef\xbf\xbd\",\"error\":\"invalid param"},
      {"kovactl monitor -t 0.1 --json", 0, "{\"kind\":\"ready\"}"},
      {"kovactl monitor --register-app a.app -t 0.1", 0, "registered a.app with the service for resource"},
      {"timeout 0.2 kovactl monitor", 124, ""},  // needs no option: still watching when the time is up
  };
  for (const Row &r : rows) {
    const auto [status, output] = Sh(r.line);
    EXPECT_EQ(status, r.status) << r.line << "\n" << output;
    EXPECT_THAT(output, HasSubstr(r.output)) << r.line;
  }
  // The markers kova-sim made can be read by players running as other users.
  const mode_t mask = umask(0);
  umask(mask);
  struct stat made {};
  EXPECT_EQ(stat((markers_ + "/tmp").c_str(), &made) == 0 ? made.st_mode & 07777 : 0, 0755u & ~mask);
  EXPECT_EQ(stat((markers_ + "/tmp/.kova_ready").c_str(), &made) == 0 ? made.st_mode & 07777 : 0, 0644u & ~mask);
}

// Passive: the monitor registers nothing, and names each field as the interface does.
TEST_F(KovactlTest, MonitorWatchesWithoutRegisteringAndNamesTheFields) {
  ASSERT_EQ(Sh("kovactl focus set 1").first, 0);  // so that the next one is a change
  // Bounded from outside, so that a monitor that stops too early shows.
  const char *argv[] = {"timeout", "20", KOVACTL_PATH, "monitor", "-n", "3", "--json", "--brief", nullptr};
  const char *text_argv[] = {KOVACTL_PATH, "monitor", "-n", "1", nullptr};
  g_autoptr(GSubprocess) monitor = g_subprocess_newv(argv, G_SUBPROCESS_FLAGS_STDOUT_PIPE, nullptr);
  g_autoptr(GSubprocess) text = g_subprocess_newv(text_argv, G_SUBPROCESS_FLAGS_STDOUT_PIPE, nullptr);
  g_autoptr(GDataInputStream) out = g_data_input_stream_new(g_subprocess_get_stdout_pipe(monitor));
  g_autoptr(GDataInputStream) text_out = g_data_input_stream_new(g_subprocess_get_stdout_pipe(text));
  ASSERT_EQ(Line(out), "{\"kind\":\"ready\"}");
  ASSERT_EQ(Line(text_out), "ready");
  ASSERT_EQ(Sh("kovactl focus set 2").first, 0);
  ASSERT_EQ(Sh("kovactl policy app-zones multiview tv.app:1").first, 0);
  ASSERT_EQ(Sh("kovactl policy set game owner a.app:3").first, 0);
  EXPECT_TRUE(g_subprocess_wait_check(monitor, nullptr, nullptr));  // -n 3: it ends after three
  EXPECT_THAT(Line(out), ::testing::MatchesRegex("\\{\"kind\":\"signal\",\"signal\":\"AudioFocusChanged\","
                                                 "\"change_id\":\"[0-9A-F]{8}\",\"zone_id\":2,\"scaler_id\":1,"
                                                 "\"app_id\":\"[^\"]*\"\\}"));
  EXPECT_THAT(Line(out), HasSubstr("\"policy\":1,\"apps\":[{\"app\":\"tv.app\",\"zone\":1}]}"));
  EXPECT_THAT(Line(out), HasSubstr("\"policy\":2,\"apps\":[{\"app\":\"a.app\",\"zone\":0}]}"));
  EXPECT_TRUE(g_subprocess_wait_check(text, nullptr, nullptr));
  EXPECT_THAT(Line(text_out), ::testing::MatchesRegex("[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} :1\\.[0-9]+ "
                                                      "AudioFocusChanged change_id=[0-9A-F]{8} zone_id=2 .*"));
}

// Every command the help lists can be completed, and takes the arguments its usage shows: one fewer or one
// more is a usage error, as many as it needs is not.
TEST_F(KovactlTest, EveryCommandTheHelpListsIsCompletedAndTakesTheArgumentsItsUsageShows) {
  std::ifstream file(KOVACTL_COMPLETION);
  const std::string script{std::istreambuf_iterator<char>(file), {}};
  const std::string help = Sh("kovactl --help").second;
  const std::regex command("\n  kovactl ([a-z-]+)(?: ([a-z-]+))?((?: [A-Z[][^ ]*)*)");
  int commands = 0;
  for (std::sregex_iterator it(help.begin(), help.end(), command), end; it != end; ++it, ++commands) {
    const std::string name = (*it)[1].str() + ((*it)[2].matched ? " " + (*it)[2].str() : "");
    for (size_t i = 1; i <= 2; ++i) {
      if ((*it)[i].matched) {
        EXPECT_THAT(script, HasSubstr((*it)[i].str())) << name;
      }
    }
    if (name == "monitor") continue;  // options only, and it would wait
    std::istringstream words((*it)[3].str());
    size_t required = 0, most = 0;
    bool variadic = false;
    for (std::string w; words >> w; ++most) {
      required += w[0] != '[';
      variadic = variadic || w.find("...") != std::string::npos;
    }
    const auto run = [&](size_t n) {
      std::string line = "kovactl " + name;
      for (size_t i = 0; i < n; ++i) line += " 1";
      return Sh(line);
    };
    const std::string usage = "usage: kovactl " + name;
    EXPECT_THAT(run(required).first, ::testing::AnyOf(0, 1)) << name;  // neither bad usage nor a crash
    if (required > 0) {
      EXPECT_THAT(run(required - 1).second, HasSubstr(usage)) << name << ": too few";
    }
    if (!variadic) {
      EXPECT_THAT(run(most + 1).second, HasSubstr(usage)) << name << ": too many";
    }
  }
  EXPECT_GT(commands, 30);
}

}  // namespace

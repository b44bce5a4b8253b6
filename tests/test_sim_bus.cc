// kova-sim as a process: started on a private bus, driven with plain GDBus
// calls (and, once, through libkova-api), stopped with signals. The rules
// themselves are checked in test_sim_rules; here only the glue.
#include <fcntl.h>
#include <gio/gio.h>
#include <glib-unix.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "kova_api.h"
#include "private_bus.h"

namespace {

using ::testing::HasSubstr;

constexpr const char *kName = "org.zelta.tv.system.resource";
constexpr const char *kPath = "/Org/Zelta/TV/System/Resource";
constexpr int kTimeoutMs = 10000;
std::unique_ptr<kova_test::PrivateBus> g_bus;

// One bus for the whole binary: the library's shared connection outlives tests.
class BusEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    std::string error;
    g_bus = kova_test::PrivateBus::Start(&error);
    ASSERT_TRUE(g_bus) << error;
    g_bus->ExportAsSystemBus();
  }
  void TearDown() override {
    if (GDBusConnection *shared = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr)) {
      g_dbus_connection_set_exit_on_close(shared, FALSE);
      g_object_unref(shared);
    }
    g_bus.reset();
  }
};
const auto *const kEnv = ::testing::AddGlobalTestEnvironment(new BusEnvironment);

// Iterates the default main context until done() or the time-out.
bool WaitUntil(const std::function<bool()> &done) {
  bool timed_out = false;
  guint timer = g_timeout_add(
      kTimeoutMs, [](gpointer flag) { return *static_cast<bool *>(flag) = true, G_SOURCE_REMOVE; }, &timed_out);
  while (!done() && !timed_out) g_main_context_iteration(nullptr, TRUE);
  if (!timed_out) g_source_remove(timer);
  return done();
}

// Reads fd up to a newline (one_line) or its end, waiting with poll.
std::string Read(int fd, bool one_line) {
  std::string text;
  char c;
  for (struct pollfd p = {fd, POLLIN, 0}; poll(&p, 1, kTimeoutMs) > 0 && read(fd, &c, 1) == 1;) {
    if (one_line && c == '\n') break;
    text.push_back(c);
  }
  return text;
}

// A sample value of type t in GVariant text: 1, 'a', and one-element arrays.
std::string Sample(const GVariantType *t) {
  if (g_variant_type_is_array(t)) return "[" + Sample(g_variant_type_element(t)) + "]";
  if (!g_variant_type_is_tuple(t)) return g_variant_type_equal(t, G_VARIANT_TYPE_STRING) ? "'a'" : "1";
  std::string text;
  for (const GVariantType *e = g_variant_type_first(t); e != nullptr; e = g_variant_type_next(e)) {
    text += (text.empty() ? "" : ", ") + Sample(e);
  }
  return "(" + text + (g_variant_type_n_items(t) == 1 ? ",)" : ")");
}

// Each test starts its own kova-sim, with a marker root and its ready
// descriptor, stdout and stderr on pipes.
class SimBusTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(g_bus);
    dir_ = kova_test::MakeTempDir("kova-sim-test");
    client_ = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);  // the library's too
    ASSERT_NE(client_, nullptr);
  }
  void TearDown() override {
    if (pid_ > 0) Stop(SIGKILL);
    g_object_unref(client_);
    while (g_main_context_iteration(nullptr, FALSE)) {
    }
    kova_test::RemoveTree(dir_);
  }

  // bus: another DBUS_SYSTEM_BUS_ADDRESS for it.
  void Spawn(const std::vector<std::string> &extra, const char *bus = nullptr) {
    std::vector<std::string> args = {KOVA_SIM_PATH, "--marker-root", dir_, "--ready-fd", "3"};
    args.insert(args.end(), extra.begin(), extra.end());
    std::vector<char *> argv;
    for (std::string &a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    int ready[2];
    ASSERT_TRUE(g_unix_open_pipe(ready, FD_CLOEXEC, nullptr));
    // Any GLib warning in the service (a reply of the wrong type, say) kills it.
    gchar **env = g_environ_setenv(g_get_environ(), "G_DEBUG", "fatal-warnings", TRUE);
    if (bus != nullptr) env = g_environ_setenv(env, "DBUS_SYSTEM_BUS_ADDRESS", bus, TRUE);
    const int target = 3;
    EXPECT_TRUE(g_spawn_async_with_pipes_and_fds(nullptr, argv.data(), env, G_SPAWN_DO_NOT_REAP_CHILD, nullptr,
                                                 nullptr, -1, -1, -1, &ready[1], &target, 1, &pid_, nullptr, &out_,
                                                 &err_, nullptr));
    g_strfreev(env);
    close(ready[1]);
    ready_ = ready[0];
  }
  ::testing::AssertionResult StartSim(const std::vector<std::string> &extra = {}) {
    Spawn(extra);
    if (Read(ready_, true) == "ready") return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "not ready; status " << Wait() << ": " << err_text_;
  }
  // Sends sig and returns the exit status (negative: killed by that signal).
  int Stop(int sig = SIGTERM) {
    kill(pid_, sig);
    return Wait();
  }
  // Collects stderr up to its end, then the exit status.
  int Wait() {
    err_text_ = Read(err_, false);
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    for (int fd : {out_, err_, ready_}) close(fd);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }

  // The reply as text, or "error: <D-Bus error name or message>". The types
  // are those of the arguments and the reply when given.
  std::string Call(const char *method, const std::string &args_text, const char *in = nullptr,
                   const char *out = nullptr) {
    GVariant *args = g_variant_parse(in ? G_VARIANT_TYPE(in) : nullptr, args_text.c_str(), nullptr, nullptr, nullptr);
    GError *err = nullptr;
    GVariant *reply = g_dbus_connection_call_sync(client_, kName, kPath, kName, method, args,
                                                  out ? G_VARIANT_TYPE(out) : nullptr, G_DBUS_CALL_FLAGS_NONE,
                                                  kTimeoutMs, nullptr, &err);
    if (args != nullptr) g_variant_unref(args);  // parsed with a full reference, which the call does not take
    gchar *text = reply ? g_variant_print(reply, FALSE) : g_dbus_error_get_remote_error(err);
    const std::string result = reply ? text : std::string("error: ") + (text ? text : err->message);
    g_free(text);
    g_clear_error(&err);
    if (reply != nullptr) g_variant_unref(reply);
    return result;
  }
  std::string WriteConfig(const std::string &text) {
    std::ofstream(dir_ + "/kova.conf") << text;
    return dir_ + "/kova.conf";
  }
  bool Exists(const std::string &rel) const { return access((dir_ + rel).c_str(), F_OK) == 0; }

  std::string dir_, err_text_;
  GDBusConnection *client_ = nullptr;
  GPid pid_ = -1;
  int out_ = -1, err_ = -1, ready_ = -1;
};

TEST_F(SimBusTest, ArraysGoBothWaysAndVerboseLogsCallsAndSignals) {
  ASSERT_TRUE(StartSim({"-v"}));
  EXPECT_EQ(Call("SetResourcePolicyAppToZone", "(1, 3, 100, 1, [(2, 'tv')])"), "(0,)");
  EXPECT_EQ(Call("GetMultiviewZoneIds", "(2,)"), "([(1, 0, ''), (2, 1, 'tv')],)");
  EXPECT_EQ(Call("SetAudioFocus", "(7, 2)"), "(0,)");
  EXPECT_EQ(Call("SwitchBestQaulityZone", "(8, 2, 4)"), "(0,)");
  EXPECT_EQ(Stop(), 0);
  // Signals are logged as emitted, by the one emitter the player path below
  // proves on the bus.
  EXPECT_THAT(err_text_, HasSubstr("[00000007] SetAudioFocus(7, 2) -> (0,)"));
  EXPECT_THAT(err_text_, HasSubstr("signal PolicyChanged(1, 3, [(2, 'tv')])"));
  EXPECT_THAT(err_text_, HasSubstr("signal AudioFocusChanged(7, 2, 1, 'tv')"));
  EXPECT_THAT(err_text_, HasSubstr("signal BestQualitZoneSwitched(2, 1, 4)"));
}

TEST_F(SimBusTest, AFailedStartExitsWithItsStatusAndAMessage) {
  const auto daemon = [this](const char *method, GVariant *args) {
    GVariant *r = g_dbus_connection_call_sync(client_, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                              "org.freedesktop.DBus", method, args, G_VARIANT_TYPE("(u)"),
                                              G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
    if (r != nullptr) g_variant_unref(r);
    return r != nullptr;
  };
  // Hold the service's name: the configuration is read before the bus is joined.
  ASSERT_TRUE(daemon("RequestName", g_variant_new("(su)", kName, 4u)));
  const std::string no_bus = "unix:path=" + dir_ + "/no-bus";
  const struct {
    std::vector<std::string> args;
    const char *bus;
    int status;
    std::string message;
  } cases[] = {
      {{"stray"}, nullptr, 2, "unexpected argument 'stray' (see --help)"},
      {{"--config", WriteConfig("zones = 2\nzones = 7\n")}, nullptr, 2,
       "bad configuration: " + dir_ + "/kova.conf:2: zones: 7 is out of range 1..4"},
      {{"--config", dir_ + "/missing.conf"}, nullptr, 2,
       "bad configuration: " + dir_ + "/missing.conf: cannot read the file"},
      {{}, no_bus.c_str(), 1, "cannot connect to " + no_bus},
      {{}, nullptr, 3, "the bus name org.zelta.tv.system.resource is already owned"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.message);
    Spawn(c.args, c.bus);
    EXPECT_NE(Read(ready_, true), "ready");
    EXPECT_EQ(Wait(), c.status);
    EXPECT_THAT(err_text_, HasSubstr("kova-sim: " + c.message));
    EXPECT_FALSE(Exists(c.status == 3 ? "/tmp/.kova_ready" : "/tmp"));
  }
  EXPECT_TRUE(daemon("ReleaseName", g_variant_new("(s)", kName)));
}

TEST_F(SimBusTest, MarkersFollowTheServiceAndThePolicyAndGoAtShutdown) {
  for (int sig : {SIGTERM, SIGINT}) {
    SCOPED_TRACE(sig);
    ASSERT_TRUE(StartSim());
    EXPECT_TRUE(Exists("/tmp/.kova_ready"));
    EXPECT_FALSE(Exists("/tmp/.rsc_policy_activated"));
    EXPECT_EQ(Call("SetResourcePolicyWithOwner", "(1, 3, 100, 'owner', 0)"), "(0,)");
    EXPECT_TRUE(Exists("/tmp/.rsc_policy_activated"));
    EXPECT_EQ(Call("SetResourcePolicyInternal", "(2, uint32 0, 100)"), "(0,)");
    EXPECT_FALSE(Exists("/tmp/.rsc_policy_activated"));
    EXPECT_EQ(Call("SetResourcePolicyInternal", "(3, uint32 2, 100)"), "(0,)");
    EXPECT_TRUE(Exists("/tmp/.rsc_policy_activated"));
    EXPECT_EQ(Stop(sig), 0) << err_text_;
    EXPECT_FALSE(Exists("/tmp"));  // the directory was ours too
  }
  // A marker it did not create is left alone.
  ASSERT_EQ(mkdir((dir_ + "/tmp").c_str(), 0755), 0);
  std::ofstream(dir_ + "/tmp/.kova_ready") << "";
  ASSERT_TRUE(StartSim());
  EXPECT_EQ(Stop(), 0);
  EXPECT_TRUE(Exists("/tmp/.kova_ready"));
}

// Every method the service describes, called with arguments of its types, is
// answered with a reply of its types (a wrong one would kill the service: see
// G_DEBUG in Spawn); other arguments are refused.
TEST_F(SimBusTest, EveryDescribedMethodIsAnsweredAndOtherArgumentsRefused) {
  ASSERT_TRUE(StartSim());
  GVariant *xml = g_dbus_connection_call_sync(client_, kName, kPath, "org.freedesktop.DBus.Introspectable",
                                              "Introspect", nullptr, G_VARIANT_TYPE("(s)"), G_DBUS_CALL_FLAGS_NONE,
                                              kTimeoutMs, nullptr, nullptr);
  ASSERT_NE(xml, nullptr);
  const char *text = nullptr;
  g_variant_get(xml, "(&s)", &text);
  GDBusNodeInfo *node = g_dbus_node_info_new_for_xml(text, nullptr);
  g_variant_unref(xml);
  ASSERT_NE(node, nullptr);
  const GDBusInterfaceInfo *iface = g_dbus_node_info_lookup_interface(node, kName);
  ASSERT_NE(iface, nullptr);
  auto signature = [](GDBusArgInfo **args) {
    std::string s = "(";
    for (GDBusArgInfo **a = args; a != nullptr && *a != nullptr; ++a) s += (*a)->signature;
    return s + ")";
  };
  size_t methods = 0;
  for (GDBusMethodInfo **m = iface->methods; *m != nullptr; ++m, ++methods) {
    const std::string in = signature((*m)->in_args), out = signature((*m)->out_args);
    EXPECT_THAT(Call((*m)->name, Sample(G_VARIANT_TYPE(in.c_str())), in.c_str(), out.c_str()),
                ::testing::Not(::testing::StartsWith("error")))
        << (*m)->name << in;
  }
  g_dbus_node_info_unref(node);
  EXPECT_EQ(methods, 41u);  // as many as the library calls
  EXPECT_EQ(Call("SetAppToZone", "(1, 2, 'app')"), "error: org.freedesktop.DBus.Error.InvalidArgs");
  EXPECT_EQ(Call("PlayerRequestPlay", "(1,)"), "error: org.freedesktop.DBus.Error.InvalidArgs");
  EXPECT_EQ(Call("SetResourcePolicyInternal", "(1, 2, 3)"), "error: org.freedesktop.DBus.Error.InvalidArgs");
  EXPECT_EQ(Call("SwitchBestQualityZone", "(1, 2, 3)"), "error: org.freedesktop.DBus.Error.UnknownMethod");
  EXPECT_EQ(Call("SetAppToZone", "(1, 'app', 2)"), "(0,)");  // still serving
  EXPECT_EQ(Stop(), 0) << err_text_;
}

// A player's life through libkova-api itself, against the service. The
// holder never acknowledges its stop: the service's timer hands over.
TEST_F(SimBusTest, PlayersThroughTheLibrary) {
  ASSERT_TRUE(StartSim({"--config", WriteConfig("video_decoders = 1\nstop_timeout_ms = 100\n")}));
  g_setenv("PELK_ROOT", dir_.c_str(), TRUE);  // the library finds the ready marker there
  std::vector<std::string> seen;
  struct Tag {
    const char *what;
    std::vector<std::string> *seen;
  } tags[] = {{"video start ", &seen}, {"video stop ", &seen}, {"audio start ", &seen}, {"audio stop ", &seen}};
  const auto note = [](int id, void *tag) {
    static_cast<Tag *>(tag)->seen->push_back(static_cast<Tag *>(tag)->what + std::to_string(id));
  };
  const unsigned ids[] = {kova_register_player_video_start_request_callback(note, &tags[0]),
                          kova_register_player_video_stop_request_callback(note, &tags[1]),
                          kova_register_player_audio_start_request_callback(note, &tags[2]),
                          kova_register_player_audio_stop_request_callback(note, &tags[3])};
  EXPECT_EQ(kova_player_register(10, 0), 10);
  EXPECT_EQ(kova_player_register(20, 0), 20);
  kova_audio_out_e out = static_cast<kova_audio_out_e>(0);
  ASSERT_EQ(kova_player_request_play(10, &out), 0);
  EXPECT_EQ(out, KOVA_AUDIO_OUT_MAIN);
  ASSERT_TRUE(WaitUntil([&] { return seen.size() >= 2; }));
  EXPECT_EQ(kova_player_video_start_done(10), 0);
  EXPECT_EQ(kova_player_audio_start_done(10), 0);

  ASSERT_EQ(kova_player_request_play(20, &out), 0);
  ASSERT_TRUE(WaitUntil([&] { return seen.size() >= 6; }));
  EXPECT_THAT(seen, ::testing::ElementsAre("video start 10", "audio start 10", "video stop 10", "audio stop 10",
                                           "video start 20", "audio start 20"));
  EXPECT_EQ(kova_player_video_stop_done(10), -1);  // too late: the service's verdict comes through
  EXPECT_EQ(kova_player_video_start_done(20), 0);

  EXPECT_EQ(kova_player_unregister(10) + kova_player_unregister(20), 0);
  kova_unregister_player_video_start_request_callback(ids[0]);
  kova_unregister_player_video_stop_request_callback(ids[1]);
  kova_unregister_player_audio_start_request_callback(ids[2]);
  kova_unregister_player_audio_stop_request_callback(ids[3]);
  g_unsetenv("PELK_ROOT");
  EXPECT_EQ(Stop(), 0) << err_text_;
}

}  // namespace

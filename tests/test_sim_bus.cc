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

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

constexpr const char *kName = "org.zelta.tv.system.resource";
constexpr const char *kPath = "/Org/Zelta/TV/System/Resource";
constexpr const char *kIface = "org.zelta.tv.system.resource";
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

GDBusConnection *Connect(const std::string &address) {
  GDBusConnection *conn = g_dbus_connection_new_for_address_sync(
      address.c_str(),
      static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                        G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
      nullptr, nullptr, nullptr);
  if (conn != nullptr) g_dbus_connection_set_exit_on_close(conn, FALSE);
  return conn;
}

// A kova-sim child with its stdout, stderr and ready descriptor (3) on pipes.
class Sim {
 public:
  explicit Sim(std::vector<std::string> args) {
    args.insert(args.begin(), KOVA_SIM_PATH);
    std::vector<char *> argv;
    for (std::string &a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    int ready[2];
    if (!g_unix_open_pipe(ready, FD_CLOEXEC, nullptr)) return;
    // Any GLib warning in the service (a reply of the wrong type, say) kills it.
    gchar **env = g_environ_setenv(g_get_environ(), "G_DEBUG", "fatal-warnings", TRUE);
    const int target = 3;
    if (!g_spawn_async_with_pipes_and_fds(nullptr, argv.data(), env, G_SPAWN_DO_NOT_REAP_CHILD, nullptr, nullptr,
                                          -1, -1, -1, &ready[1], &target, 1, &pid_, nullptr, &out_, &err_,
                                          nullptr)) {
      pid_ = -1;
    }
    g_strfreev(env);
    close(ready[1]);
    ready_ = ready[0];
  }
  ~Sim() {
    if (pid_ > 0) Terminate(SIGKILL);
    for (int fd : {out_, err_, ready_}) {
      if (fd >= 0) close(fd);
    }
  }

  bool WaitReady() { return Read(ready_, true) == "ready"; }
  int out() const { return out_; }
  const std::string &err() const { return err_text_; }
  // Sends sig and returns the exit status (negative: killed by that signal).
  int Terminate(int sig = SIGTERM) {
    kill(pid_, sig);
    return Wait();
  }
  // Collects stderr up to its end, then the exit status.
  int Wait() {
    err_text_ += Read(err_, false);
    int status = 0;
    while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }

 private:
  GPid pid_ = -1;
  int out_ = -1, err_ = -1, ready_ = -1;
  std::string err_text_;
};

class SimBusTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(g_bus);
    dir_ = kova_test::MakeTempDir("kova-sim-test");
    ASSERT_FALSE(dir_.empty());
    client_ = Connect(g_bus->address());
    ASSERT_NE(client_, nullptr);
  }
  void TearDown() override {
    sim_.reset();
    if (client_ != nullptr) {
      g_dbus_connection_close_sync(client_, nullptr, nullptr);
      g_object_unref(client_);
    }
    while (g_main_context_iteration(nullptr, FALSE)) {
    }
    kova_test::RemoveTree(dir_);
  }

  std::string WriteConfig(const std::string &text) {
    const std::string path = dir_ + "/kova.conf";
    std::ofstream(path) << text;
    return path;
  }
  // Starts the service with a marker root and a ready descriptor.
  ::testing::AssertionResult StartSim(std::vector<std::string> extra = {}) {
    std::vector<std::string> args = {"--marker-root", dir_, "--ready-fd", "3"};
    args.insert(args.end(), extra.begin(), extra.end());
    sim_ = std::make_unique<Sim>(args);
    if (sim_->WaitReady()) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "not ready; status " << sim_->Wait() << ": " << sim_->err();
  }

  // The reply as text, or "error: <D-Bus error name or message>". The types
  // are those of the arguments and the reply when given.
  std::string Call(const char *method, const char *args_text, const char *in = nullptr, const char *out = nullptr,
                   GDBusConnection *conn = nullptr) {
    GError *err = nullptr;
    GVariant *args = g_variant_parse(in ? G_VARIANT_TYPE(in) : nullptr, args_text, nullptr, nullptr, &err);
    GVariant *reply = args == nullptr ? nullptr
                                      : g_dbus_connection_call_sync(conn ? conn : client_, kName, kPath, kIface, method,
                                                                    args, out ? G_VARIANT_TYPE(out) : nullptr,
                                                                    G_DBUS_CALL_FLAGS_NONE, kTimeoutMs, nullptr, &err);
    if (args != nullptr) g_variant_unref(args);  // parsed with a full reference, which the call does not take
    gchar *text = reply ? g_variant_print(reply, FALSE) : g_dbus_error_get_remote_error(err);
    const std::string result = reply ? text : std::string("error: ") + (text ? text : err->message);
    g_free(text);
    g_clear_error(&err);
    if (reply != nullptr) g_variant_unref(reply);
    return result;
  }
  bool Exists(const std::string &rel) const { return access((dir_ + rel).c_str(), F_OK) == 0; }

  std::string dir_;
  GDBusConnection *client_ = nullptr;
  std::unique_ptr<Sim> sim_;
};

TEST_F(SimBusTest, FocusChangesAreSignalledAndLoggedWithVerbose) {
  ASSERT_TRUE(StartSim({"-v"}));
  EXPECT_EQ(Call("SetAppToZone", "(1, 'tv', 2)"), "(0,)");
  EXPECT_EQ(Call("GetFocusedZone", "(2,)"), "(2, 1, 'tv')");
  EXPECT_EQ(Call("SetAudioFocus", "(7, 2)"), "(0,)");
  EXPECT_EQ(Call("SwitchBestQaulityZone", "(8, 2, 4)"), "(0,)");
  EXPECT_EQ(sim_->Terminate(), 0);
  // Signals are logged as emitted, by the one emitter the player path below
  // proves on the bus.
  EXPECT_THAT(sim_->err(), HasSubstr("[00000007] SetAudioFocus(7, 2) -> (0,)"));
  EXPECT_THAT(sim_->err(), HasSubstr("signal AudioFocusChanged(7, 2, 1, 'tv')"));
  EXPECT_THAT(sim_->err(), HasSubstr("signal BestQualitZoneSwitched(2, 1, 4)"));
}

TEST_F(SimBusTest, AFailedStartExitsWithItsStatusAndAMessage) {
  // Hold the service's name: the configuration is read before the bus is joined.
  GVariant *r = g_dbus_connection_call_sync(client_, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                            "org.freedesktop.DBus", "RequestName", g_variant_new("(su)", kName, 4u),
                                            G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
  ASSERT_NE(r, nullptr);
  g_variant_unref(r);
  struct Case {
    std::vector<std::string> args;
    int status;
    std::string message;
  };
  const Case cases[] = {
      {{"--config", WriteConfig("zones = 2\nzones = 7\n")}, 2, "bad configuration: " + dir_ + "/kova.conf:2: zones: 7 is out of range 1..4"},
      {{"--config", dir_ + "/missing.conf"}, 2, "bad configuration: " + dir_ + "/missing.conf: cannot read the file"},
      {{}, 3, "the bus name org.zelta.tv.system.resource is already owned"},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.message);
    std::vector<std::string> args = {"--marker-root", dir_, "--ready-fd", "3"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    Sim sim(args);
    EXPECT_FALSE(sim.WaitReady());
    EXPECT_EQ(sim.Wait(), c.status);
    EXPECT_THAT(sim.err(), HasSubstr("kova-sim: " + c.message));
    EXPECT_FALSE(Exists(c.status == 2 ? "/tmp" : "/tmp/.kova_ready"));
  }
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
    EXPECT_EQ(sim_->Terminate(sig), 0) << sim_->err();
    EXPECT_FALSE(Exists("/tmp"));  // the directory was ours too
  }
  // A marker it did not create is left alone.
  ASSERT_EQ(mkdir((dir_ + "/tmp").c_str(), 0755), 0);
  std::ofstream(dir_ + "/tmp/.kova_ready") << "";
  ASSERT_TRUE(StartSim());
  EXPECT_EQ(sim_->Terminate(), 0);
  EXPECT_TRUE(Exists("/tmp/.kova_ready"));
}

// Every method with the argument and reply tuples the library uses: the
// service's own description agrees, a call with such arguments is answered
// with such a reply, and other arguments are refused.
struct MethodCase {
  const char *name;
  const char *in;
  const char *out;  // "" for the fire-and-forget methods
  const char *args;
};

TEST_F(SimBusTest, EveryMethodHasTheLibrarysSignatures) {
  const MethodCase cases[] = {
      {"PlayerRegister", "(iii)", "", "(1, 10, 0)"},
      {"PlayerUnregister", "(ii)", "", "(1, 10)"},
      {"PlayerRequestStop", "(ii)", "", "(1, 10)"},
      {"PlayerRequestPlay", "(ii)", "(i)", "(1, 10)"},
      {"PlayerVideoStartDone", "(ii)", "(i)", "(1, 10)"},
      {"PlayerVideoStopDone", "(ii)", "(i)", "(1, 10)"},
      {"PlayerAudioStartDone", "(ii)", "(i)", "(1, 10)"},
      {"PlayerAudioStopDone", "(ii)", "(i)", "(1, 10)"},
      {"GetPlayerAudioOut", "(ii)", "(i)", "(1, 10)"},
      {"RegisterExtSpkInfo", "(isi)", "(i)", "(1, 'spk', 1)"},
      {"UnregisterExtSpkInfo", "(isi)", "(i)", "(1, 'spk', 1)"},
      {"GetExtSpkInfoAudioOut", "(is)", "(i)", "(1, 'spk')"},
      {"GetMultiviewZoneIds", "(i)", "(a(iis))", "(1,)"},
      {"GetMultiviewZoneList", "(i)", "(a(is))", "(1,)"},
      {"SetAppToZone", "(isi)", "(i)", "(1, 'a', 1)"},
      {"RemoveAppFromZone", "(isi)", "(i)", "(1, 'a', 1)"},
      {"SetPreAssignedAppToZone", "(isi)", "(i)", "(1, 'a', 1)"},
      {"SetRemovableAppToZone", "(isi)", "", "(1, 'a', 1)"},
      {"ClearRemovableAppToZone", "(i)", "", "(1,)"},
      {"NotifyLayoutState", "(ii)", "(i)", "(1, 2)"},
      {"GetFocusedZone", "(i)", "(iis)", "(1,)"},
      {"SwitchBestQaulityZone", "(iii)", "(i)", "(1, 2, 0)"},
      {"RestoreBestQualityZone", "(i)", "(i)", "(1,)"},
      {"SetAudioFocus", "(ii)", "(i)", "(1, 2)"},
      {"GetAudioFocus", "(i)", "(i)", "(1,)"},
      {"GetLastAudioFocus", "(i)", "(i)", "(1,)"},
      {"IsAudioFocused", "(is)", "(i)", "(1, 'a')"},
      {"RscChangeRegId", "(iisu)", "(i)", "(1, 100, 'a', 4096)"},
      {"RscChangeUnRegId", "(iisu)", "(i)", "(1, 100, 'a', 4096)"},
      {"MaxVideoRegId", "(isu)", "(i)", "(1, 'a', 4096)"},
      {"MaxVideoUnRegId", "(isu)", "(i)", "(1, 'a', 4096)"},
      {"GetMaxVideo", "(is)", "(iii)", "(1, 'a')"},
      {"PolicyGetMaxVideo", "(iii)", "(iii)", "(1, 2, 3)"},
      {"GetCapableCatId", "(iisii)", "(i)", "(1, 10, 'a', 1010, 100)"},
      {"SetResourcePolicyWithOwner", "(iiisi)", "(i)", "(1, 3, 100, 'o', 1)"},
      {"SetResourcePolicyWithAppList", "(iiisiia(sii))", "(i)", "(1, 3, 100, 'o', 0, 1, [('a', 1, 2)])"},
      {"SetResourcePolicyInternal", "(iui)", "(i)", "(1, 3, 100)"},
      {"SetResourcePolicyAppToZone", "(iiiia(is))", "(i)", "(1, 3, 100, 1, [(1, 'a')])"},
      {"SetPreAssignedAppList", "(ia(is))", "(i)", "(1, [(1, 'a')])"},
      {"RegisterAppList", "(iiia(sii))", "(i)", "(1, 2, 1, [('a', 1, 2)])"},
      {"UnregisterAppList", "(iiia(s))", "(i)", "(1, 2, 1, [('a',)])"},
  };
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
  GDBusInterfaceInfo *iface = g_dbus_node_info_lookup_interface(node, kIface);
  ASSERT_NE(iface, nullptr);
  auto signature = [](GDBusArgInfo **args) {
    std::string s = "(";
    for (GDBusArgInfo **a = args; a != nullptr && *a != nullptr; ++a) s += (*a)->signature;
    return s + ")";
  };
  size_t described = 0;
  while (iface->methods[described] != nullptr) ++described;
  EXPECT_EQ(described, std::size(cases));
  for (const MethodCase &c : cases) {
    SCOPED_TRACE(c.name);
    GDBusMethodInfo *m = g_dbus_interface_info_lookup_method(iface, c.name);
    ASSERT_NE(m, nullptr);
    const char *out = *c.out == '\0' ? "()" : c.out;
    EXPECT_EQ(signature(m->in_args), c.in);
    EXPECT_EQ(signature(m->out_args), out);
    EXPECT_STREQ(g_dbus_annotation_info_lookup(m->annotations, "org.freedesktop.DBus.Method.NoReply"),
                 *c.out == '\0' ? "true" : nullptr);
    EXPECT_THAT(Call(c.name, c.args, c.in, out), Not(StartsWith("error")));
  }
  g_dbus_node_info_unref(node);
  EXPECT_EQ(Call("SetAppToZone", "(1, 2, 'app')"), "error: org.freedesktop.DBus.Error.InvalidArgs");
  EXPECT_EQ(Call("PlayerRequestPlay", "(1,)"), "error: org.freedesktop.DBus.Error.InvalidArgs");
  EXPECT_EQ(Call("SetResourcePolicyInternal", "(1, 2, 3)"), "error: org.freedesktop.DBus.Error.InvalidArgs");
  EXPECT_EQ(Call("SwitchBestQualityZone", "(1, 2, 3)"), "error: org.freedesktop.DBus.Error.UnknownMethod");
  EXPECT_EQ(Call("SetAppToZone", "(1, 'app', 2)"), "(0,)");  // still serving
  EXPECT_EQ(sim_->Terminate(), 0) << sim_->err();
}

TEST_F(SimBusTest, PrivateBusPrintsItsAddressThenReady) {
  sim_ = std::make_unique<Sim>(std::vector<std::string>{"--private-bus", "--marker-root", dir_});
  const std::string line = Read(sim_->out(), true);
  ASSERT_EQ(line.rfind("DBUS_SYSTEM_BUS_ADDRESS=", 0), 0u) << line;
  ASSERT_EQ(Read(sim_->out(), true), "ready");
  const std::string address = line.substr(line.find('=') + 1);
  ASSERT_NE(address, g_bus->address());
  GDBusConnection *own = Connect(address);
  ASSERT_NE(own, nullptr);
  EXPECT_EQ(Call("GetAudioFocus", "(1,)", nullptr, nullptr, own), "(1,)");
  EXPECT_EQ(Call("GetAudioFocus", "(1,)"), "error: org.freedesktop.DBus.Error.ServiceUnknown");  // not on ours
  EXPECT_EQ(sim_->Terminate(), 0) << sim_->err();
  g_dbus_connection_close_sync(own, nullptr, nullptr);
  g_object_unref(own);
}

void Note(void *seen, const std::string &what) { static_cast<std::vector<std::string> *>(seen)->push_back(what); }

// A player's life through libkova-api itself, against the service. The
// holder never acknowledges its stop: the service's timer hands over.
TEST_F(SimBusTest, PlayersThroughTheLibrary) {
  ASSERT_TRUE(StartSim({"--config", WriteConfig("video_decoders = 1\nstop_timeout_ms = 100\n")}));
  g_setenv("PELK_ROOT", dir_.c_str(), TRUE);  // the library finds the ready marker there
  std::vector<std::string> seen;
  const unsigned ids[] = {
      kova_register_player_video_start_request_callback(
          [](int id, void *s) { Note(s, "video start " + std::to_string(id)); }, &seen),
      kova_register_player_video_stop_request_callback(
          [](int id, void *s) { Note(s, "video stop " + std::to_string(id)); }, &seen),
      kova_register_player_audio_start_request_callback(
          [](int id, void *s) { Note(s, "audio start " + std::to_string(id)); }, &seen),
      kova_register_player_audio_stop_request_callback(
          [](int id, void *s) { Note(s, "audio stop " + std::to_string(id)); }, &seen)};
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
  EXPECT_THAT(seen, ElementsAre("video start 10", "audio start 10", "video stop 10", "audio stop 10",
                                "video start 20", "audio start 20"));
  EXPECT_EQ(kova_player_video_stop_done(10), -1);  // too late: the service's verdict comes through
  EXPECT_EQ(kova_player_video_start_done(20), 0);

  EXPECT_EQ(kova_player_unregister(10), 0);
  EXPECT_EQ(kova_player_unregister(20), 0);
  EXPECT_EQ(kova_unregister_player_video_start_request_callback(ids[0]), 0);
  EXPECT_EQ(kova_unregister_player_video_stop_request_callback(ids[1]), 0);
  EXPECT_EQ(kova_unregister_player_audio_start_request_callback(ids[2]), 0);
  EXPECT_EQ(kova_unregister_player_audio_stop_request_callback(ids[3]), 0);
  g_unsetenv("PELK_ROOT");
  EXPECT_EQ(sim_->Terminate(), 0) << sim_->err();
}

}  // namespace

// kova-sim as a process: started on a private bus, driven with plain GDBus
// calls (and, once, through libkova-api), stopped with signals.
#include <fcntl.h>
#include <gio/gio.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "kova_api.h"
#include "private_bus.h"

extern char **environ;

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

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
bool WaitUntil(const std::function<bool()> &done, int timeout_ms = kTimeoutMs) {
  bool timed_out = false;
  guint timer = g_timeout_add(
      static_cast<guint>(timeout_ms),
      [](gpointer flag) -> gboolean {
        *static_cast<bool *>(flag) = true;
        return G_SOURCE_REMOVE;
      },
      &timed_out);
  while (!done() && !timed_out) g_main_context_iteration(nullptr, TRUE);
  if (!timed_out) g_source_remove(timer);
  return done();
}

// Reads one line from fd, waiting with poll (no sleeping); "" on EOF/time-out.
std::string ReadLine(int fd, int timeout_ms = kTimeoutMs) {
  std::string line;
  for (;;) {
    struct pollfd p = {fd, POLLIN, 0};
    if (poll(&p, 1, timeout_ms) <= 0) return line;
    char c;
    if (read(fd, &c, 1) != 1 || c == '\n') return line;
    line.push_back(c);
  }
}

std::string ReadAll(int fd) {
  std::string out;
  for (;;) {
    struct pollfd p = {fd, POLLIN, 0};
    if (poll(&p, 1, kTimeoutMs) <= 0) return out;
    char buf[4096];
    ssize_t n = read(fd, buf, sizeof buf);
    if (n <= 0) return out;
    out.append(buf, static_cast<size_t>(n));
  }
}

// A kova-sim child with its stdout, stderr and ready descriptor (3) on pipes.
class Sim {
 public:
  Sim(std::vector<std::string> args) {
    int out[2], err[2], ready[2];
    if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0 || pipe2(ready, O_CLOEXEC) != 0) return;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_adddup2(&actions, err[1], 2);
    posix_spawn_file_actions_adddup2(&actions, ready[1], 3);
    args.insert(args.begin(), KOVA_SIM_PATH);
    std::vector<char *> argv;
    for (std::string &a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    // Any GLib warning in the service (a reply of the wrong type, say) kills it.
    std::vector<std::string> env_strings = {"G_DEBUG=fatal-warnings"};
    for (char **e = environ; *e != nullptr; ++e) {
      if (std::string(*e).rfind("G_DEBUG=", 0) != 0) env_strings.emplace_back(*e);
    }
    std::vector<char *> env;
    for (std::string &e : env_strings) env.push_back(e.data());
    env.push_back(nullptr);
    if (posix_spawn(&pid_, KOVA_SIM_PATH, &actions, nullptr, argv.data(), env.data()) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
    close(out[1]);
    close(err[1]);
    close(ready[1]);
    out_ = out[0];
    err_ = err[0];
    ready_ = ready[0];
  }
  ~Sim() {
    if (pid_ > 0) Terminate(SIGKILL);
    for (int fd : {out_, err_, ready_}) {
      if (fd >= 0) close(fd);
    }
  }

  bool WaitReady() { return ReadLine(ready_) == "ready"; }
  int out() const { return out_; }

  // Sends sig and returns the exit status (negative: killed by that signal).
  int Terminate(int sig = SIGTERM) {
    kill(pid_, sig);
    return Wait();
  }
  // Collects stderr up to its end, then the exit status.
  int Wait() {
    err_text_ += ReadAll(err_);
    int status = 0;
    while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }
  const std::string &err() const { return err_text_; }

 private:
  pid_t pid_ = -1;
  int out_ = -1, err_ = -1, ready_ = -1;
  std::string err_text_;
};

class SimBusTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(g_bus);
    dir_ = kova_test::MakeTempDir("kova-sim-test");
    ASSERT_FALSE(dir_.empty());
    GError *err = nullptr;
    client_ = g_dbus_connection_new_for_address_sync(
        g_bus->address().c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, &err);
    ASSERT_NE(client_, nullptr) << err->message;
    g_dbus_connection_set_exit_on_close(client_, FALSE);
    subscription_ = g_dbus_connection_signal_subscribe(client_, nullptr, kIface, nullptr, kPath, nullptr,
                                                       G_DBUS_SIGNAL_FLAGS_NONE, &SimBusTest::OnSignal, this,
                                                       nullptr);
  }
  void TearDown() override {
    sim_.reset();
    if (client_ != nullptr) {
      g_dbus_connection_signal_unsubscribe(client_, subscription_);
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

  // The reply as text, or "error: <D-Bus error name>".
  std::string Call(const char *method, const char *args_text, GDBusConnection *conn = nullptr) {
    GError *err = nullptr;
    GVariant *args = g_variant_parse(nullptr, args_text, nullptr, nullptr, &err);
    if (args == nullptr) {
      std::string msg = err->message;
      g_error_free(err);
      return "bad test arguments: " + msg;
    }
    GVariant *reply = g_dbus_connection_call_sync(conn ? conn : client_, kName, kPath, kIface, method, args, nullptr,
                                                  G_DBUS_CALL_FLAGS_NONE, kTimeoutMs, nullptr, &err);
    g_variant_unref(args);  // g_variant_parse gives a full reference, which the call does not take
    if (reply == nullptr) {
      gchar *name = g_dbus_error_get_remote_error(err);
      std::string out = std::string("error: ") + (name ? name : err->message);
      g_free(name);
      g_error_free(err);
      return out;
    }
    gchar *text = g_variant_print(reply, FALSE);
    std::string out = text;
    g_free(text);
    g_variant_unref(reply);
    return out;
  }
  // Fire-and-forget, as the library sends its five no-reply methods.
  void Send(const char *method, const char *args_text) {
    GVariant *args = g_variant_parse(nullptr, args_text, nullptr, nullptr, nullptr);
    ASSERT_NE(args, nullptr) << args_text;
    g_dbus_connection_call(client_, kName, kPath, kIface, method, args, nullptr, G_DBUS_CALL_FLAGS_NONE, -1,
                           nullptr, nullptr, nullptr);
    g_variant_unref(args);
  }

  bool WaitForSignals(size_t n) {
    return WaitUntil([&] { return signals_.size() >= n; });
  }
  // Proves that no further signal is on its way: a round trip to the service,
  // then whatever is queued is dispatched.
  void SyncSignals() {
    Call("GetAudioFocus", "(0,)");
    while (g_main_context_iteration(nullptr, FALSE)) {
    }
  }
  bool Exists(const std::string &rel) const { return access((dir_ + rel).c_str(), F_OK) == 0; }

  static void OnSignal(GDBusConnection *, const char *, const char *, const char *, const char *name,
                       GVariant *params, gpointer self) {
    gchar *text = g_variant_print(params, FALSE);
    static_cast<SimBusTest *>(self)->signals_.push_back(std::string(name) + text);
    g_free(text);
  }

  std::string dir_;
  GDBusConnection *client_ = nullptr;
  guint subscription_ = 0;
  std::unique_ptr<Sim> sim_;
  std::vector<std::string> signals_;
};

TEST_F(SimBusTest, SecondPlayerOnTheOnlyDecoderAsksTheFirstToStop) {
  ASSERT_TRUE(StartSim({"--config", WriteConfig("video_decoders = 1\n")}));
  Send("PlayerRegister", "(1, 10, 0)");
  Send("PlayerRegister", "(2, 20, 0)");
  EXPECT_EQ(Call("PlayerRequestPlay", "(100, 10)"), "(1,)");
  ASSERT_TRUE(WaitForSignals(2));
  EXPECT_THAT(signals_, ElementsAre("PlayerVideoStart(100, 10)", "PlayerAudioStart(100, 10)"));
  EXPECT_EQ(Call("PlayerVideoStartDone", "(101, 10)"), "(0,)");
  signals_.clear();

  EXPECT_EQ(Call("PlayerRequestPlay", "(200, 20)"), "(1,)");
  ASSERT_TRUE(WaitForSignals(2));
  EXPECT_THAT(signals_, ElementsAre("PlayerVideoStop(200, 10)", "PlayerAudioStop(200, 10)"));
  signals_.clear();
  EXPECT_EQ(Call("PlayerVideoStopDone", "(102, 10)"), "(0,)");
  SyncSignals();
  EXPECT_TRUE(signals_.empty());  // the audio stop is still awaited
  EXPECT_EQ(Call("PlayerAudioStopDone", "(103, 10)"), "(0,)");
  ASSERT_TRUE(WaitForSignals(2));
  EXPECT_THAT(signals_, ElementsAre("PlayerVideoStart(200, 20)", "PlayerAudioStart(200, 20)"));
  EXPECT_EQ(Call("GetPlayerAudioOut", "(104, 20)"), "(1,)");
  EXPECT_EQ(Call("GetPlayerAudioOut", "(105, 10)"), "(0,)");
  EXPECT_EQ(sim_->Terminate(), 0) << sim_->err();
}

TEST_F(SimBusTest, AHolderThatNeverAcknowledgesLosesItsDecoderAtTheTimeout) {
  ASSERT_TRUE(StartSim({"--config", WriteConfig("video_decoders = 1\nstop_timeout_ms = 100\n")}));
  Send("PlayerRegister", "(1, 10, 0)");
  Send("PlayerRegister", "(2, 20, 0)");
  Call("PlayerRequestPlay", "(100, 10)");
  Call("PlayerRequestPlay", "(200, 20)");
  ASSERT_TRUE(WaitForSignals(6));
  EXPECT_THAT(std::vector<std::string>(signals_.begin() + 4, signals_.end()),
              ElementsAre("PlayerVideoStart(200, 20)", "PlayerAudioStart(200, 20)"));
  EXPECT_EQ(Call("PlayerVideoStopDone", "(3, 10)"), "(-1,)");  // no longer awaited
  EXPECT_EQ(sim_->Terminate(), 0) << sim_->err();
}

TEST_F(SimBusTest, FocusChangesAreSignalledAndLoggedWithVerbose) {
  ASSERT_TRUE(StartSim({"-v"}));
  EXPECT_EQ(Call("SetAppToZone", "(1, 'tv', 2)"), "(0,)");
  EXPECT_EQ(Call("GetFocusedZone", "(2,)"), "(2, 1, 'tv')");
  EXPECT_EQ(Call("SetAudioFocus", "(7, 2)"), "(0,)");
  EXPECT_EQ(Call("SwitchBestQaulityZone", "(8, 2, 4)"), "(0,)");
  ASSERT_TRUE(WaitForSignals(2));
  EXPECT_THAT(signals_, ElementsAre("AudioFocusChanged(7, 2, 1, 'tv')", "BestQualitZoneSwitched(2, 1, 4)"));
  EXPECT_EQ(Call("GetLastAudioFocus", "(9,)"), "(1,)");
  EXPECT_EQ(Call("IsAudioFocused", "(10, 'tv')"), "(1,)");
  EXPECT_EQ(sim_->Terminate(), 0);
  EXPECT_THAT(sim_->err(), HasSubstr("[00000007] SetAudioFocus(7, 2) -> (0,)"));
  EXPECT_THAT(sim_->err(), HasSubstr("signal AudioFocusChanged(7, 2, 1, 'tv')"));
}

TEST_F(SimBusTest, ABadConfigurationExitsWithAMessage) {
  struct Case {
    std::string config_path;
    const char *message;
  };
  const Case cases[] = {
      {WriteConfig("zones = 2\nzones = 7\n"), ":2: zones: 7 is out of range 1..4"},
      {dir_ + "/missing.conf", "missing.conf: cannot read the file"},
  };
  for (const Case &c : cases) {
    Sim sim({"--marker-root", dir_, "--config", c.config_path});
    EXPECT_EQ(sim.Wait(), 2) << c.config_path;
    EXPECT_THAT(sim.err(), HasSubstr("kova-sim: bad configuration: " + c.config_path)) << c.config_path;
    EXPECT_THAT(sim.err(), HasSubstr(c.message));
  }
  EXPECT_FALSE(Exists("/tmp"));
}

TEST_F(SimBusTest, ANameAlreadyOwnedExitsWithAMessage) {
  GError *err = nullptr;
  GVariant *r = g_dbus_connection_call_sync(client_, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                            "org.freedesktop.DBus", "RequestName", g_variant_new("(su)", kName, 4u),
                                            G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &err);
  ASSERT_NE(r, nullptr) << err->message;
  g_variant_unref(r);
  Sim sim({"--marker-root", dir_, "--ready-fd", "3"});
  EXPECT_FALSE(sim.WaitReady());
  EXPECT_EQ(sim.Wait(), 3);
  EXPECT_THAT(sim.err(), HasSubstr("kova-sim: the bus name org.zelta.tv.system.resource is already owned"));
  EXPECT_FALSE(Exists("/tmp/.kova_ready"));
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
}

TEST_F(SimBusTest, AMarkerItDidNotCreateIsLeftAlone) {
  ASSERT_EQ(mkdir((dir_ + "/tmp").c_str(), 0755), 0);
  std::ofstream(dir_ + "/tmp/.kova_ready") << "";
  ASSERT_TRUE(StartSim());
  EXPECT_EQ(sim_->Terminate(), 0);
  EXPECT_TRUE(Exists("/tmp/.kova_ready"));
}

TEST_F(SimBusTest, CallsOfTheWrongSignatureAreRejected) {
  ASSERT_TRUE(StartSim());
  EXPECT_EQ(Call("SetAppToZone", "(1, 2, 'app')"), "error: org.freedesktop.DBus.Error.InvalidArgs");
  EXPECT_EQ(Call("PlayerRequestPlay", "(1,)"), "error: org.freedesktop.DBus.Error.InvalidArgs");
  EXPECT_EQ(Call("SetResourcePolicyInternal", "(1, 2, 3)"), "error: org.freedesktop.DBus.Error.InvalidArgs");
  EXPECT_EQ(Call("SwitchBestQualityZone", "(1, 2, 3)"), "error: org.freedesktop.DBus.Error.UnknownMethod");
  EXPECT_EQ(Call("SetAppToZone", "(1, 'app', 2)"), "(0,)");  // still serving
  EXPECT_EQ(sim_->Terminate(), 0);
}

// Every method with the argument and reply tuples the library uses: the
// service's own description agrees, and a call with such arguments is
// answered with such a reply.
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
  GError *err = nullptr;
  GVariant *xml = g_dbus_connection_call_sync(client_, kName, kPath, "org.freedesktop.DBus.Introspectable",
                                              "Introspect", nullptr, G_VARIANT_TYPE("(s)"), G_DBUS_CALL_FLAGS_NONE,
                                              kTimeoutMs, nullptr, &err);
  ASSERT_NE(xml, nullptr) << err->message;
  const char *text = nullptr;
  g_variant_get(xml, "(&s)", &text);
  GDBusNodeInfo *node = g_dbus_node_info_new_for_xml(text, &err);
  g_variant_unref(xml);
  ASSERT_NE(node, nullptr) << err->message;
  GDBusInterfaceInfo *iface = g_dbus_node_info_lookup_interface(node, kIface);
  ASSERT_NE(iface, nullptr);

  auto signature = [](GDBusArgInfo **args) {
    std::string s = "(";
    for (GDBusArgInfo **a = args; a != nullptr && *a != nullptr; ++a) s += (*a)->signature;
    return s + ")";
  };
  size_t described = 0;
  for (GDBusMethodInfo **m = iface->methods; *m != nullptr; ++m) ++described;
  EXPECT_EQ(described, std::size(cases));
  for (const MethodCase &c : cases) {
    SCOPED_TRACE(c.name);
    GDBusMethodInfo *m = g_dbus_interface_info_lookup_method(iface, c.name);
    ASSERT_NE(m, nullptr);
    const bool no_reply = *c.out == '\0';
    EXPECT_EQ(signature(m->in_args), c.in);
    EXPECT_EQ(signature(m->out_args), no_reply ? "()" : c.out);
    EXPECT_STREQ(g_dbus_annotation_info_lookup(m->annotations, "org.freedesktop.DBus.Method.NoReply"),
                 no_reply ? "true" : nullptr);

    GVariant *args = g_variant_parse(G_VARIANT_TYPE(c.in), c.args, nullptr, nullptr, &err);
    ASSERT_NE(args, nullptr) << err->message;
    GVariant *reply = g_dbus_connection_call_sync(client_, kName, kPath, kIface, c.name, args,
                                                  G_VARIANT_TYPE(no_reply ? "()" : c.out), G_DBUS_CALL_FLAGS_NONE,
                                                  kTimeoutMs, nullptr, &err);
    g_variant_unref(args);
    EXPECT_NE(reply, nullptr) << err->message;
    if (reply != nullptr) g_variant_unref(reply);
    g_clear_error(&err);
  }
  g_dbus_node_info_unref(node);
  EXPECT_EQ(sim_->Terminate(), 0) << sim_->err();
}

TEST_F(SimBusTest, PrivateBusPrintsItsAddressThenReady) {
  sim_ = std::make_unique<Sim>(std::vector<std::string>{"--private-bus", "--marker-root", dir_});
  const std::string line = ReadLine(sim_->out());
  ASSERT_EQ(line.rfind("DBUS_SYSTEM_BUS_ADDRESS=", 0), 0u) << line;
  ASSERT_EQ(ReadLine(sim_->out()), "ready");
  const std::string address = line.substr(line.find('=') + 1);
  ASSERT_NE(address, g_bus->address());
  GError *err = nullptr;
  GDBusConnection *own = g_dbus_connection_new_for_address_sync(
      address.c_str(),
      static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                        G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
      nullptr, nullptr, &err);
  ASSERT_NE(own, nullptr) << err->message;
  g_dbus_connection_set_exit_on_close(own, FALSE);
  EXPECT_EQ(Call("GetAudioFocus", "(1,)", own), "(1,)");
  EXPECT_EQ(Call("GetAudioFocus", "(1,)"), "error: org.freedesktop.DBus.Error.ServiceUnknown");  // not on ours
  EXPECT_EQ(sim_->Terminate(), 0) << sim_->err();
  g_dbus_connection_close_sync(own, nullptr, nullptr);
  g_object_unref(own);
}

// A player's life through libkova-api itself, against the service.
struct Requests {
  std::vector<std::string> seen;
};
void OnVideoStart(int id, void *r) { static_cast<Requests *>(r)->seen.push_back("video start " + std::to_string(id)); }
void OnVideoStop(int id, void *r) { static_cast<Requests *>(r)->seen.push_back("video stop " + std::to_string(id)); }
void OnAudioStart(int id, void *r) { static_cast<Requests *>(r)->seen.push_back("audio start " + std::to_string(id)); }
void OnAudioStop(int id, void *r) { static_cast<Requests *>(r)->seen.push_back("audio stop " + std::to_string(id)); }

TEST_F(SimBusTest, PlayersThroughTheLibrary) {
  ASSERT_TRUE(StartSim({"--config", WriteConfig("video_decoders = 1\n")}));
  g_setenv("PELK_ROOT", dir_.c_str(), TRUE);  // the library finds the ready marker there
  Requests r;
  const unsigned ids[] = {kova_register_player_video_start_request_callback(&OnVideoStart, &r),
                          kova_register_player_video_stop_request_callback(&OnVideoStop, &r),
                          kova_register_player_audio_start_request_callback(&OnAudioStart, &r),
                          kova_register_player_audio_stop_request_callback(&OnAudioStop, &r)};
  EXPECT_EQ(kova_player_register(10, 0), 10);
  EXPECT_EQ(kova_player_register(20, 0), 20);
  kova_audio_out_e out = static_cast<kova_audio_out_e>(0);
  ASSERT_EQ(kova_player_request_play(10, &out), 0);
  EXPECT_EQ(out, KOVA_AUDIO_OUT_MAIN);
  ASSERT_TRUE(WaitUntil([&] { return r.seen.size() >= 2; }));
  EXPECT_EQ(kova_player_video_start_done(10), 0);
  EXPECT_EQ(kova_player_audio_start_done(10), 0);

  ASSERT_EQ(kova_player_request_play(20, &out), 0);
  ASSERT_TRUE(WaitUntil([&] { return r.seen.size() >= 4; }));
  EXPECT_EQ(kova_player_video_stop_done(10), 0);
  EXPECT_EQ(kova_player_audio_stop_done(10), 0);
  ASSERT_TRUE(WaitUntil([&] { return r.seen.size() >= 6; }));
  EXPECT_THAT(r.seen, ElementsAre("video start 10", "audio start 10", "video stop 10", "audio stop 10",
                                  "video start 20", "audio start 20"));
  EXPECT_EQ(kova_player_video_start_done(20), 0);
  EXPECT_EQ(kova_player_video_start_done(20), -1);  // the service's verdict comes through

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

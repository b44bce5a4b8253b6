// kova-sim as a process on a private bus, driven with plain GDBus calls and
// once through libkova-api; its rules are checked in test_sim_rules.
#include <gio/gio.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "kova_api.h"
#include "private_bus.h"

namespace {

using ::testing::HasSubstr;

constexpr const char *kName = "org.zelta.tv.system.resource", *kPath = "/Org/Zelta/TV/System/Resource";
constexpr const char *kBus = "org.freedesktop.DBus", *kBusPath = "/org/freedesktop/DBus";
constexpr int kTimeoutMs = 10000;
std::unique_ptr<kova_test::PrivateBus> g_bus;
GDBusConnection *g_client = nullptr;  // the system connection, shared with the library

// One bus for the whole binary: the library's shared connection outlives the tests.
class BusEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    std::string error;
    g_bus = kova_test::PrivateBus::Start(&error);
    ASSERT_TRUE(g_bus) << error;
    g_bus->ExportAsSystemBus();
    g_client = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    g_dbus_connection_set_exit_on_close(g_client, FALSE);  // the bus goes first
    g_setenv("G_DEBUG", "fatal-warnings", TRUE);  // for kova-sim: see Start
  }
  void TearDown() override {
    g_clear_object(&g_client);
    g_bus.reset();
  }
};
const auto *const kEnv = ::testing::AddGlobalTestEnvironment(new BusEnvironment);

// Reads fd up to a newline (one_line) or its end, waiting with poll.
std::string Read(int fd, bool one_line) {
  std::string text;
  struct pollfd p = {fd, POLLIN, 0};
  for (char c; poll(&p, 1, kTimeoutMs) > 0 && read(fd, &c, 1) == 1 && !(one_line && c == '\n');) text.push_back(c);
  return text;
}

// A sample value of type t in GVariant text: 1, 'a', and one-element arrays.
std::string Sample(const GVariantType *t) {
  if (g_variant_type_is_array(t)) return "[" + Sample(g_variant_type_element(t)) + "]";
  if (!g_variant_type_is_tuple(t)) return g_variant_type_equal(t, G_VARIANT_TYPE_STRING) ? "'a'" : "1";
  std::string text;
  for (const GVariantType *e = g_variant_type_first(t); e; e = g_variant_type_next(e)) text += ", " + Sample(e);
  return "(" + text.substr(text.empty() ? 0 : 2) + (g_variant_type_n_items(t) == 1 ? ",)" : ")");
}

class SimBusTest : public ::testing::Test {
 protected:
  void SetUp() override { dir_ = kova_test::MakeTempDir("kova-sim-test"); }
  void TearDown() override {
    if (pid_ > 0) Stop(SIGKILL);
    kova_test::RemoveTree(dir_);
  }

  // True once it says "ready" on stdout. Any GLib warning (a reply of the wrong type, say) kills it.
  bool Start(std::vector<std::string> args = {}) {
    args.insert(args.begin(), {KOVA_SIM_PATH, "--marker-root", dir_});
    std::vector<char *> argv;
    for (std::string &a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    EXPECT_TRUE(g_spawn_async_with_pipes(nullptr, argv.data(), nullptr, G_SPAWN_DO_NOT_REAP_CHILD, nullptr, nullptr,
                                         &pid_, nullptr, &out_, &err_, nullptr));
    return Read(out_, true) == "ready";
  }
  // Sends sig, collects stderr and returns the exit status (negative: killed).
  int Stop(int sig = SIGTERM) {
    kill(pid_, sig);
    err_text_ = Read(err_, false);
    int status = 0;
    waitpid(std::exchange(pid_, -1), &status, 0);
    for (int fd : {out_, err_}) close(fd);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }

  // The reply as text, or "error: " and the error's message.
  std::string Call(const char *method, const std::string &text, const GVariantType *type = nullptr,
                   const char *dest = kName, const char *path = kPath) {
    g_autoptr(GVariant) args = g_variant_parse(type, text.c_str(), nullptr, nullptr, nullptr);
    g_autoptr(GError) err = nullptr;
    g_autoptr(GVariant) reply = g_dbus_connection_call_sync(g_client, dest, path, dest, method, args, nullptr,
                                                            G_DBUS_CALL_FLAGS_NONE, kTimeoutMs, nullptr, &err);
    g_autofree gchar *printed = reply ? g_variant_print(reply, FALSE) : nullptr;
    return reply ? printed : std::string("error: ") + err->message;
  }
  std::string Write(const char *config) {
    EXPECT_TRUE(g_file_set_contents((dir_ + "/kova.conf").c_str(), config, -1, nullptr));
    return dir_ + "/kova.conf";
  }
  bool Exists(const std::string &rel) const { return access((dir_ + rel).c_str(), F_OK) == 0; }

  std::string dir_, err_text_;
  GPid pid_ = -1;
  int out_ = -1, err_ = -1;
};

TEST_F(SimBusTest, AFailedStartExitsWithItsStatusAndAMessage) {
  // Hold the service's name: the configuration is read before the bus is joined.
  ASSERT_EQ(Call("RequestName", "('org.zelta.tv.system.resource', uint32 4)", nullptr, kBus, kBusPath), "(1,)");
  const std::tuple<std::vector<std::string>, int, std::string> cases[] = {
      {{"--config", Write("zones = 2\nzones = 7\n")}, 2,
       "bad configuration: " + dir_ + "/kova.conf:2: zones: 7 is out of range 1..4"},
      {{}, 3, "the bus name org.zelta.tv.system.resource is already owned"},
  };
  for (const auto &[args, status, message] : cases) {
    EXPECT_FALSE(Start(args));
    EXPECT_EQ(Stop(), status);
    EXPECT_THAT(err_text_, HasSubstr("kova-sim: " + message));
    EXPECT_FALSE(Exists(status == 3 ? "/tmp/.kova_ready" : "/tmp"));
  }
  EXPECT_EQ(Call("ReleaseName", "('org.zelta.tv.system.resource',)", nullptr, kBus, kBusPath), "(1,)");
}

std::vector<std::string> g_seen;  // the player callbacks' log

// A player's life through libkova-api (the holder never acknowledges its stop: the service's timer
// hands over), then every method the service describes, called with arguments of its types.
TEST_F(SimBusTest, ServesTheLibraryAndAnswersEveryDescribedMethod) {
  ASSERT_TRUE(g_mkdir_with_parents((dir_ + "/tmp").c_str(), 0755) == 0 &&  // a ready marker not its own: it stays
              g_file_set_contents((dir_ + "/tmp/.kova_ready").c_str(), "", 0, nullptr));
  ASSERT_TRUE(Start({"-v", "--config", Write("video_decoders = 1\nstop_timeout_ms = 100\n")}));
  g_setenv("PELK_ROOT", dir_.c_str(), TRUE);  // the library finds the ready marker there
  const auto note = [](int id, void *what) { g_seen.push_back(static_cast<const char *>(what) + std::to_string(id)); };
  kova_register_player_video_start_request_callback(note, const_cast<char *>("video start "));
  kova_register_player_video_stop_request_callback(note, const_cast<char *>("video stop "));
  EXPECT_EQ(kova_player_register(10, 0) + kova_player_register(20, 0), 30);
  kova_audio_out_e out = static_cast<kova_audio_out_e>(0);
  ASSERT_EQ(kova_player_request_play(10, &out), 0);
  EXPECT_EQ(out, KOVA_AUDIO_OUT_MAIN);
  ASSERT_EQ(kova_player_request_play(20, &out), 0);
  bool late = false;  // the main loop runs until the hand-over or the time-out
  const auto expire = [](gpointer l) { return *static_cast<bool *>(l) = true, FALSE; };
  const guint timer = g_timeout_add(kTimeoutMs, expire, &late);
  while (g_seen.size() < 3 && !late) g_main_context_iteration(nullptr, TRUE);
  if (!late) g_source_remove(timer);
  EXPECT_THAT(g_seen, ::testing::ElementsAre("video start 10", "video stop 10", "video start 20"));
  EXPECT_EQ(kova_player_video_stop_done(10), -1);  // too late: the service's verdict comes through

  EXPECT_EQ(Call("SetResourcePolicyAppToZone", "(1, 3, 100, 1, [(2, 'tv')])"), "(0,)");  // to the verbose log
  EXPECT_TRUE(Exists("/tmp/.rsc_policy_activated"));
  g_autoptr(GVariant) xml = g_dbus_connection_call_sync(g_client, kName, kPath, "org.freedesktop.DBus.Introspectable",
                                                        "Introspect", nullptr, G_VARIANT_TYPE("(s)"),
                                                        G_DBUS_CALL_FLAGS_NONE, kTimeoutMs, nullptr, nullptr);
  const char *text = "";
  if (xml != nullptr) g_variant_get(xml, "(&s)", &text);
  g_autoptr(GDBusNodeInfo) node = g_dbus_node_info_new_for_xml(text, nullptr);
  const GDBusInterfaceInfo *iface = node ? g_dbus_node_info_lookup_interface(node, kName) : nullptr;
  ASSERT_NE(iface, nullptr);
  size_t methods = 0;
  for (GDBusMethodInfo **m = iface->methods; *m != nullptr; ++m, ++methods) {
    std::string in = "(";
    for (GDBusArgInfo **a = (*m)->in_args; a != nullptr && *a != nullptr; ++a) in += (*a)->signature;
    in += ")";
    const GVariantType *type = G_VARIANT_TYPE(in.c_str());
    EXPECT_THAT(Call((*m)->name, Sample(type), type), ::testing::Not(::testing::StartsWith("error"))) << (*m)->name;
  }
  EXPECT_EQ(methods, 41u);  // as many as the library calls
  EXPECT_EQ(Stop(SIGINT), 0) << err_text_;
  EXPECT_TRUE(Exists("/tmp/.kova_ready"));
  EXPECT_FALSE(Exists("/tmp/.rsc_policy_activated"));
  EXPECT_THAT(err_text_, HasSubstr("] SetResourcePolicyAppToZone(1, 3, 100, 1, [(2, 'tv')]) -> (0,)"));
}

}  // namespace

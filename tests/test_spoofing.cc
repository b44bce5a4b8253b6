// The service's system-bus policy keeps other users from impersonating it: a peer running as
// nobody can call and hear the service but cannot own its name, and its "PlayerVideoStop" never
// reaches a player's callback. A process of its own: the library connects once, to this bus.
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <regex>

#include "fake_kova.h"
#include "kova_api.h"
#include "kova_private.h"
#include "platform_doubles.h"
#include "private_bus.h"

namespace kova_test {
namespace {

// Everything allowed to everyone: what the peer is refused, the service's policy refuses.
constexpr const char *kOpenBus =
    "<policy context=\"default\"><allow user=\"*\"/><allow own=\"*\"/><allow send_destination=\"*\"/>"
    "<allow send_type=\"signal\"/><allow receive_sender=\"*\"/><allow receive_type=\"signal\"/></policy>\n";

std::string ReadFile(const char *path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

bool WriteFile(const std::string &path, const std::string &text, mode_t mode) {
  return g_file_set_contents(path.c_str(), text.data(), static_cast<gssize>(text.size()), nullptr) &&
         chmod(path.c_str(), mode) == 0;
}

// The fixture's Sync, without the fixture: one round trip, then dispatch.
void RoundTrip(const FakeKova &service) {
  GVariant *r = g_dbus_connection_call_sync(_kova_dbus_get_connection(), service.unique_name().c_str(), "/",
                                            "org.freedesktop.DBus.Peer", "Ping", nullptr, nullptr,
                                            G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, nullptr);
  ASSERT_NE(r, nullptr);
  g_variant_unref(r);
  while (g_main_context_iteration(nullptr, FALSE)) {
  }
}

void OnStop(int player_id, void *user_data) { static_cast<std::vector<int> *>(user_data)->push_back(player_id); }
void OnProbe(GDBusConnection *, const gchar *, const gchar *, const gchar *, const gchar *, GVariant *, gpointer n) {
  ++*static_cast<int *>(n);
}

TEST(Spoofing, OnlyTheServiceUserOwnsTheNameAndEmitsItsSignals) {
  if (geteuid() != 0) GTEST_SKIP() << "the peer runs as nobody through setpriv, which needs root";
  doubles::Reset();

  // The bus socket and the peer live where nobody can reach them; the service runs as root.
  const std::string dir = MakeTempDir("kova-spoof");
  ASSERT_EQ(chmod(dir.c_str(), 0755), 0);
  const std::string policy = std::regex_replace(ReadFile(KOVA_POLICY_TEMPLATE), std::regex("@KOVA_SERVICE_USER@"),
                                                "root");
  ASSERT_TRUE(WriteFile(dir + "/service.conf", policy, 0644));
  const std::string peer = dir + "/spoof_peer";
  ASSERT_TRUE(WriteFile(peer, ReadFile(KOVA_SPOOF_PEER), 0755));
  PrivateBus::Options options;
  options.socket_path = dir + "/bus";
  options.replace_policy = true;
  options.extra_config = std::string(kOpenBus) + "<include>" + dir + "/service.conf</include>\n";
  std::string error;
  std::unique_ptr<PrivateBus> bus = PrivateBus::Start(options, &error);
  ASSERT_TRUE(bus) << error;
  bus->ExportAsSystemBus();

  // The service owns the name and precedes its answer to the peer with a signal.
  auto service = std::make_unique<FakeKova>(bus->address());
  ASSERT_TRUE(service->ok()) << service->error();
  service->SetHandler("PlayerVideoStopDone", [service_conn = service->connection()](const Call &call) {
    g_dbus_connection_emit_signal(service_conn, nullptr, kServicePath, kServiceInterface, "PlayerAudioResync",
                                  g_variant_new("(ii)", 9, call.args.i32(1)), nullptr);
    return Answer::Int(5);
  });

  std::vector<int> stops;
  const unsigned int handle = kova_register_player_video_stop_request_callback(OnStop, &stops);
  ASSERT_TRUE(handle != 0u && handle != UINT_MAX);
  GDBusConnection *conn = _kova_dbus_get_connection();
  int probes = 0;
  const guint probe = g_dbus_connection_signal_subscribe(conn, nullptr, "org.zelta.tv.test.Probe", "PlayerVideoStop",
                                                         kServicePath, nullptr, G_DBUS_SIGNAL_FLAGS_NONE, OnProbe,
                                                         &probes, nullptr);
  RoundTrip(*service);  // the match rules are in place

  const char *argv[] = {"setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups", peer.c_str(),
                        g_dbus_connection_get_unique_name(conn), nullptr};
  gchar *out = nullptr, *err = nullptr;
  ASSERT_TRUE(g_spawn_sync(nullptr, const_cast<gchar **>(argv), nullptr, G_SPAWN_SEARCH_PATH, nullptr, nullptr, &out,
                           &err, nullptr, nullptr));
  // Another user may call the service and hear its replies and signals (naming player 666), not own its name.
  EXPECT_STREQ(out, "own: org.freedesktop.DBus.Error.AccessDenied\ncall: (5,)\nsignal: 666\n") << err;
  g_free(out);
  g_free(err);

  // The peer's call was answered after its signals reached the bus; one round
  // trip later, anything the bus let through has been dispatched.
  RoundTrip(*service);
  EXPECT_TRUE(stops.empty()) << "a spoofed PlayerVideoStop reached the callback";
  EXPECT_EQ(probes, 1);  // the bus carries the peer's other signals: the refusal is the service's policy
  // The service's own request does arrive.
  service->Emit("PlayerVideoStop", g_variant_new("(ii)", 3, 7));
  RoundTrip(*service);
  EXPECT_THAT(stops, ::testing::ElementsAre(7));

  g_dbus_connection_signal_unsubscribe(conn, probe);
  EXPECT_EQ(kova_unregister_player_video_stop_request_callback(handle), 0);
  service.reset();
  g_dbus_connection_set_exit_on_close(conn, FALSE);
  while (g_main_context_iteration(nullptr, FALSE)) {
  }
  bus.reset();
  RemoveTree(dir);
}

}  // namespace
}  // namespace kova_test


// The service's system-bus policy keeps other users from impersonating it: a peer running as
// nobody can call the service but cannot own its name, and its "PlayerVideoStop" never reaches
// a player's callback. A process of its own: the library connects once, to this bus.
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>

#include "fake_kova.h"
#include "kova_api.h"
#include "kova_private.h"
#include "private_bus.h"

namespace kova_test {
namespace {

// Everything allowed to everyone: what the peer is refused, the service's policy refuses.
constexpr const char *kOpenBus =
    "<policy context=\"default\"><allow user=\"*\"/><allow own=\"*\"/><allow send_destination=\"*\"/>"
    "<allow send_type=\"signal\"/><allow receive_sender=\"*\"/><allow receive_type=\"signal\"/></policy>\n";

void OnStop(int player_id, void *user_data) { static_cast<std::vector<int> *>(user_data)->push_back(player_id); }

TEST(Spoofing, OnlyTheServiceUserOwnsTheNameAndEmitsItsSignals) {
  if (geteuid() != 0) GTEST_SKIP() << "the peer runs as nobody through setpriv, which needs root";
  // The bus socket and the peer live where nobody can reach them; the service runs as root.
  const std::string dir = MakeTempDir("kova-spoof"), peer = dir + "/spoof_peer";
  ASSERT_EQ(chmod(dir.c_str(), 0755), 0);
  std::ifstream policy_template(KOVA_POLICY_TEMPLATE);
  const std::string policy(std::istreambuf_iterator<char>(policy_template), {});
  std::ofstream(dir + "/service.conf") << std::regex_replace(policy, std::regex("@KOVA_SERVICE_USER@"), "root");
  ASSERT_TRUE(std::filesystem::copy_file(KOVA_SPOOF_PEER, peer));
  ASSERT_EQ(chmod(peer.c_str(), 0755), 0);
  PrivateBus::Options options;
  options.socket_path = dir + "/bus";
  options.replace_policy = true;
  options.extra_config = std::string(kOpenBus) + "<include>" + dir + "/service.conf</include>\n";
  std::string error;
  std::unique_ptr<PrivateBus> bus = PrivateBus::Start(options, &error);
  ASSERT_TRUE(bus) << error;
  bus->ExportAsSystemBus();
  auto service = std::make_unique<FakeKova>(bus->address());
  ASSERT_TRUE(service->ok()) << service->error();
  service->SetInt("PlayerVideoStopDone", 5);

  std::vector<int> stops;
  kova_register_player_video_stop_request_callback(OnStop, &stops);
  GDBusConnection *conn = _kova_dbus_get_connection();
  ASSERT_TRUE(service->RoundTrip(conn));  // the match rules are in place

  const char *argv[] = {"setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups", peer.c_str(),
                        g_dbus_connection_get_unique_name(conn), nullptr};
  g_autofree gchar *out = nullptr;
  g_autofree gchar *err = nullptr;
  // The sanitizer options name files inside the checkout, which nobody may not read.
  g_auto(GStrv) env = g_environ_unsetenv(g_get_environ(), "TSAN_OPTIONS");
  ASSERT_TRUE(g_spawn_sync(nullptr, const_cast<gchar **>(argv), env, G_SPAWN_SEARCH_PATH, nullptr, nullptr, &out,
                           &err, nullptr, nullptr));
  // Another user may call the service, not own its name.
  EXPECT_STREQ(out, "own: org.freedesktop.DBus.Error.AccessDenied\ncall: (5,)\n") << err;

  // The peer's call was answered after its signals reached the bus: one round trip dispatches them.
  ASSERT_TRUE(service->RoundTrip(conn));
  EXPECT_TRUE(stops.empty()) << "a spoofed PlayerVideoStop reached the callback";
  service->Emit("PlayerVideoStop", g_variant_new("(ii)", 3, 7));
  ASSERT_TRUE(service->RoundTrip(conn));
  EXPECT_THAT(stops, ::testing::ElementsAre(7));

  g_dbus_connection_set_exit_on_close(conn, FALSE);
  service.reset();
  bus.reset();
  RemoveTree(dir);
}

}  // namespace
}  // namespace kova_test

// The library's first bus use finds no bus; once one is there, the next call
// connects. Runs in a process of its own, since the connection is cached for
// the life of the process.
#include <gtest/gtest.h>
#include <unistd.h>

#include "fake_kova.h"
#include "kova_api.h"
#include "kova_private.h"
#include "platform_doubles.h"
#include "private_bus.h"

namespace kova_test {
namespace {

TEST(NoBus, FirstUseFailsThenTheNextCallConnects) {
  doubles::Reset();
  const std::string dir = MakeTempDir("kova-nobus");
  const std::string socket = dir + "/bus";
  g_setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + socket).c_str(), TRUE);
  g_setenv("DBUS_SESSION_BUS_ADDRESS", ("unix:path=" + socket).c_str(), TRUE);

  EXPECT_EQ(kova_player_unregister(1), -1);
  EXPECT_EQ(doubles::CountLogPrefix("g_bus_get_sync() error (", doubles::kError), 1);
  // The first identifier of a process is its pid shifted into the upper half.
  char first[64];
  std::snprintf(first, sizeof first, "[%08X] (PlayerUnregister) failed",
                static_cast<unsigned>(getpid()) << 16);
  EXPECT_TRUE(doubles::HasLog(first, doubles::kError));
  GVariant *reply = nullptr;
  EXPECT_EQ(_kova_dbus_method_call("Probe", g_variant_new("(i)", 1), &reply), -1);
  EXPECT_EQ(kova_register_player_video_start_request_callback([](int, void *) {}, nullptr), UINT_MAX);
  EXPECT_TRUE(doubles::HasLog("(PlayerVideoStart) failed", doubles::kError));
  EXPECT_EQ(kova_unregister_player_video_start_request_callback(5), -1);

  PrivateBus::Options options;
  options.socket_path = socket;
  std::string error;
  std::unique_ptr<PrivateBus> bus = PrivateBus::Start(options, &error);
  ASSERT_TRUE(bus) << error;
  FakeKova service(bus->address());
  ASSERT_TRUE(service.ok()) << service.error();

  EXPECT_EQ(kova_player_unregister(2), 0);
  ASSERT_TRUE(service.WaitForCalls(1));
  EXPECT_EQ(service.Calls()[0].method, "PlayerUnregister");
  EXPECT_EQ(service.Calls()[0].args.i32(1), 2);
  g_dbus_connection_set_exit_on_close(_kova_dbus_get_connection(), FALSE);
  RemoveTree(dir);
}

}  // namespace
}  // namespace kova_test


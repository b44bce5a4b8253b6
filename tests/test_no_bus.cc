// The library's first bus use finds no bus; once one is there, the next call connects.
// Runs in a process of its own, since the connection is cached for the life of the process.
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
  const std::string dir = MakeTempDir("kova-nobus");
  PrivateBus::Options options;
  options.socket_path = dir + "/bus";
  g_setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + options.socket_path).c_str(), TRUE);

  EXPECT_EQ(kova_player_unregister(1), -1);
  // The first identifier of a process is its pid shifted into the upper half.
  g_autofree gchar *first = g_strdup_printf("[%08X] (PlayerUnregister) failed", static_cast<unsigned>(getpid()) << 16);
  EXPECT_TRUE(doubles::HasLog(first, doubles::kError)) << first;
  // Without a connection the service link and every unsubscription answer -1.
  GVariant *reply = nullptr;
  EXPECT_EQ(_kova_dbus_method_call("PlayerVideoStartDone", g_variant_new("(ii)", 1, 2), &reply), -1);
  EXPECT_EQ(_kova_dbus_method_call_async_with_no_reply("PlayerRegister", g_variant_new("(iii)", 1, 2, 3)), -1);
  for (int (*unsubscribe)(unsigned int) :
       {kova_unregister_player_video_start_request_callback, kova_unregister_audio_focus_changed_callback,
        kova_unsubscribe_audio_focus_zone_changed, kova_unregister_resource_policy_changed_callback}) {
    EXPECT_EQ(unsubscribe(5), -1);
  }

  std::string error;
  std::unique_ptr<PrivateBus> bus = PrivateBus::Start(options, &error);
  ASSERT_TRUE(bus) << error;
  FakeKova service(bus->address());
  ASSERT_TRUE(service.ok()) << service.error();
  EXPECT_EQ(kova_player_unregister(2), 0);
  ASSERT_TRUE(service.WaitForCalls(1));
  EXPECT_EQ(service.CallsTo("PlayerUnregister").at(0).args.i32(1), 2);
  g_dbus_connection_set_exit_on_close(_kova_dbus_get_connection(), FALSE);
  RemoveTree(dir);
}

}  // namespace
}  // namespace kova_test

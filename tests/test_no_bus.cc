// No bus at first use: every call and registration fails with its own result;
// once a bus is there, the next call connects. A process of its own, since the
// connection is cached for the life of the process.
#include <glib.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>

#include "fake_kova.h"
#include "kova_api.h"
#include "kova_private.h"
#include "platform_doubles.h"
#include "private_bus.h"

namespace kova_test {
namespace {

void OnSwitch(int, int, int, void *) {}

TEST(NoBus, EveryCallFailsThenTheNextOneConnects) {
  const std::string dir = MakeTempDir("kova-nobus");
  PrivateBus::Options options;
  options.socket_path = dir + "/bus";
  g_setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + options.socket_path).c_str(), TRUE);

  EXPECT_EQ(kova_player_unregister(1), -1);
  // The first identifier of a process is its pid shifted into the upper half.
  const unsigned first = static_cast<unsigned>(getpid()) << 16;
  g_autofree gchar *failed = g_strdup_printf("[%08X] (PlayerUnregister) failed", first);
  EXPECT_TRUE(doubles::HasLog(failed, doubles::kError)) << failed;
  // Fire-and-forget zone calls log the identifier in lower-case hexadecimal.
  EXPECT_EQ(kova_set_removable_app_zone_info("org.app", 1), -1);
  g_autofree gchar *lower = g_strdup_printf("[%08x] SetRemovableAppToZone failed", first + 1);
  EXPECT_TRUE(doubles::HasLog(lower, doubles::kError)) << lower;
  // The service link and every unsubscription answer -1.
  GVariant *reply = nullptr;
  EXPECT_EQ(_kova_dbus_method_call("PlayerVideoStartDone", g_variant_new("(ii)", 1, 2), &reply), -1);
  EXPECT_EQ(_kova_dbus_method_call_async_with_no_reply("PlayerRegister", g_variant_new("(iii)", 1, 2, 3)), -1);
  for (int (*unsubscribe)(unsigned int) :
       {kova_unregister_player_video_start_request_callback, kova_unregister_audio_focus_changed_callback,
        kova_unsubscribe_audio_focus_zone_changed, kova_unregister_resource_policy_changed_callback}) {
    EXPECT_EQ(unsubscribe(5), -1);
  }
  // Registrations fail with their own results, and a failed one leaves no record.
  EXPECT_EQ(kova_register_audio_focus_changed_callback([](int, void *) {}, nullptr), UINT_MAX);
  EXPECT_EQ(kova_subscribe_audio_focus_zone_changed([](kova_zone *, void *) {}, nullptr), 0u);
  EXPECT_EQ(kova_register_best_quality_zone_switched_callback(OnSwitch, nullptr), -1);
  EXPECT_EQ(kova_unregister_best_quality_zone_switched_callback(OnSwitch), -1);
  void *list = reinterpret_cast<void *>(0x1);
  EXPECT_EQ(kova_get_zone_list(&list), -1);
  EXPECT_EQ(list, reinterpret_cast<void *>(0x1));

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

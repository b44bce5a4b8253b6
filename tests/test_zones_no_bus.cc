// Zones and focus when no system bus can be reached; its own process, since
// the library keeps its connection once made.
#include <gmock/gmock.h>
#include <glib.h>
#include <unistd.h>

#include <climits>
#include <cstdio>

#include "kova_api.h"
#include "platform_doubles.h"
#include "private_bus.h"

namespace kova_test {
namespace {

void OnSwitch(int, int, int, void *) {}

TEST(ZonesNoBus, EveryCallFailsWithoutAConnection) {
  doubles::Reset();
  const std::string dir = MakeTempDir("kova-zones-nobus");
  const std::string address = "unix:path=" + dir + "/bus";
  g_setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), TRUE);
  g_setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), TRUE);

  // Fire-and-forget calls log the command id in lower-case hexadecimal.
  EXPECT_EQ(kova_set_removable_app_zone_info("org.app", 1), -1);
  EXPECT_EQ(kova_clear_removable_app_zone_info(), -1);
  unsigned cmd = static_cast<unsigned>(getpid()) << 16;  // the first command id
  char line[64];
  for (const char *method : {"SetRemovableAppToZone", "ClearRemovableAppToZone"}) {
    std::snprintf(line, sizeof line, "[%08x] %s failed", cmd++, method);
    EXPECT_TRUE(doubles::HasLog(line, doubles::kError)) << line;
  }

  // A failed registration takes its record out again.
  doubles::ClearLogs();
  char cb[32];
  std::snprintf(cb, sizeof cb, "(%p)", reinterpret_cast<void *>(OnSwitch));
  EXPECT_EQ(kova_register_best_quality_zone_switched_callback(OnSwitch, nullptr), -1);
  EXPECT_THAT(doubles::Messages(), testing::ElementsAre(">>", std::string("cb added ") + cb,
                                                        testing::StartsWith("failed to get connection ("),
                                                        std::string("cb removed ") + cb));
  EXPECT_EQ(kova_unregister_best_quality_zone_switched_callback(OnSwitch), -1);
  EXPECT_TRUE(doubles::HasLog(std::string("not registered cb ") + cb, doubles::kError));

  // The two audio focus subscriptions fail differently.
  EXPECT_EQ(kova_register_audio_focus_changed_callback([](int, void *) {}, nullptr), UINT_MAX);
  EXPECT_EQ(kova_subscribe_audio_focus_zone_changed([](kova_zone *, void *) {}, nullptr), 0u);
  EXPECT_EQ(doubles::CountLog("(AudioFocusChanged) failed", doubles::kError), 2);
  EXPECT_EQ(kova_unregister_audio_focus_changed_callback(5), -1);
  EXPECT_EQ(kova_unsubscribe_audio_focus_zone_changed(5), -1);

  void *list = reinterpret_cast<void *>(0x1);
  EXPECT_EQ(kova_get_zone_list(&list), -1);
  EXPECT_EQ(list, reinterpret_cast<void *>(0x1));
  EXPECT_EQ(doubles::CountLogPrefix("g_bus_get_sync() error (", doubles::kError), 5);
  RemoveTree(dir);
}

}  // namespace
}  // namespace kova_test

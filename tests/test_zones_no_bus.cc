// Zones and focus when no system bus can be reached; its own process, as the library keeps its connection.
#include <glib.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>

#include "kova_api.h"
#include "platform_doubles.h"
#include "private_bus.h"

namespace kova_test {
namespace {

void OnSwitch(int, int, int, void *) {}

TEST(ZonesNoBus, EveryCallFailsWithoutAConnection) {
  const std::string dir = MakeTempDir("kova-zones-nobus");
  g_setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + dir + "/bus").c_str(), TRUE);

  // Fire-and-forget calls log the command id in lower-case hexadecimal.
  EXPECT_EQ(kova_set_removable_app_zone_info("org.app", 1), -1);
  g_autofree gchar *line =
      g_strdup_printf("[%08x] SetRemovableAppToZone failed", static_cast<unsigned>(getpid()) << 16);
  EXPECT_TRUE(doubles::HasLog(line, doubles::kError)) << line;

  // A failed registration takes its record out again.
  EXPECT_EQ(kova_register_best_quality_zone_switched_callback(OnSwitch, nullptr), -1);
  EXPECT_EQ(kova_unregister_best_quality_zone_switched_callback(OnSwitch), -1);
  g_autofree gchar *missing = g_strdup_printf("not registered cb (%p)", reinterpret_cast<void *>(OnSwitch));
  EXPECT_TRUE(doubles::HasLog(missing, doubles::kError)) << missing;

  EXPECT_EQ(kova_register_audio_focus_changed_callback([](int, void *) {}, nullptr), UINT_MAX);
  EXPECT_EQ(kova_subscribe_audio_focus_zone_changed([](kova_zone *, void *) {}, nullptr), 0u);

  void *list = reinterpret_cast<void *>(0x1);
  EXPECT_EQ(kova_get_zone_list(&list), -1);
  EXPECT_EQ(list, reinterpret_cast<void *>(0x1));
  RemoveTree(dir);
}

}  // namespace
}  // namespace kova_test

// Zones and focus without a system bus: what each call answers when the
// connection cannot be made. Its own process, since the library keeps its
// connection once made.
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

using ::testing::ElementsAre;

void OnSwitch(int, int, int, void *) {}
void OnFocus(int, void *) {}
void OnFocusZone(kova_zone *, void *) {}

std::string Ptr(kova_best_quality_zone_switched_cb cb) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%p", reinterpret_cast<void *>(cb));
  return buf;
}

TEST(ZonesNoBus, EveryCallFailsWithoutAConnection) {
  doubles::Reset();
  const std::string dir = MakeTempDir("kova-zones-nobus");
  const std::string address = "unix:path=" + dir + "/bus";
  g_setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), TRUE);
  g_setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), TRUE);

  // Fire-and-forget calls: the lower-case hexadecimal line.
  const unsigned first = static_cast<unsigned>(getpid()) << 16;
  char line[64];
  EXPECT_EQ(kova_set_removable_app_zone_info("org.app", 1), -1);
  std::snprintf(line, sizeof line, "[%08x] SetRemovableAppToZone failed", first);
  EXPECT_TRUE(doubles::HasLog(line, doubles::kError)) << line;
  EXPECT_EQ(kova_clear_removable_app_zone_info(), -1);
  std::snprintf(line, sizeof line, "[%08x] ClearRemovableAppToZone failed", first + 1);
  EXPECT_TRUE(doubles::HasLog(line, doubles::kError)) << line;

  // A failed registration takes its record out again.
  doubles::ClearLogs();
  EXPECT_EQ(kova_register_best_quality_zone_switched_callback(OnSwitch, nullptr), -1);
  std::vector<std::string> m = doubles::Messages();
  ASSERT_EQ(m.size(), 4u);
  EXPECT_EQ(m[0], ">>");
  EXPECT_EQ(m[1], "cb added (" + Ptr(OnSwitch) + ")");
  EXPECT_EQ(m[2].rfind("failed to get connection (", 0), 0u) << m[2];
  EXPECT_EQ(m[3], "cb removed (" + Ptr(OnSwitch) + ")");
  EXPECT_EQ(kova_unregister_best_quality_zone_switched_callback(OnSwitch), -1);
  EXPECT_TRUE(doubles::HasLog("not registered cb (" + Ptr(OnSwitch) + ")", doubles::kError));

  // The two audio focus subscriptions fail differently.
  doubles::ClearLogs();
  EXPECT_EQ(kova_register_audio_focus_changed_callback(OnFocus, nullptr), UINT_MAX);
  EXPECT_EQ(kova_subscribe_audio_focus_zone_changed(OnFocusZone, nullptr), 0u);
  EXPECT_EQ(doubles::CountLog("(AudioFocusChanged) failed", doubles::kError), 2);
  EXPECT_EQ(kova_unregister_audio_focus_changed_callback(5), -1);
  EXPECT_EQ(kova_unsubscribe_audio_focus_zone_changed(5), -1);

  // Synchronous queries.
  void *list = reinterpret_cast<void *>(0x1);
  EXPECT_EQ(kova_get_zone_list(&list), -1);
  EXPECT_EQ(list, reinterpret_cast<void *>(0x1));
  EXPECT_EQ(doubles::CountLogPrefix("g_bus_get_sync() error (", doubles::kError), 5);
  RemoveTree(dir);
}

}  // namespace
}  // namespace kova_test


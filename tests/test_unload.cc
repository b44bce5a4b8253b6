// A host that loads the library with dlopen and lets it go with dlclose: GDBus
// still calls the library's free functions and handlers afterwards, so the
// library must stay mapped. This executable does not link the library.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <atomic>
#include <string>

#include "fake_kova.h"
#include "kova_api.h"
#include "private_bus.h"

namespace kova_test {
namespace {

std::atomic<int> g_hits{0};
template <typename... A>
void OnAny(A...) {  // one for every family's callback type
  ++g_hits;
}

void *g_lib = nullptr;
template <typename F>
F Fn(const std::string &name) {
  void *f = dlsym(g_lib, name.c_str());
  EXPECT_NE(f, nullptr) << name;
  return reinterpret_cast<F>(f);
}
// A library function looked up by name, typed as the header declares it (the test does not link the library).
#define KOVA_FN(name) Fn<decltype(&name)>(#name)
#define KOVA_CYCLE(reg, unreg) EXPECT_EQ(KOVA_FN(unreg)(KOVA_FN(reg)(OnAny, nullptr)), 0) << #reg

TEST(Unload, DlcloseLeavesTheLibraryMappedForGDBus) {
  std::string error;
  std::unique_ptr<PrivateBus> bus = PrivateBus::Start(&error);
  ASSERT_TRUE(bus) << error;
  bus->ExportAsSystemBus();
  FakeKova service(bus->address());
  ASSERT_TRUE(service.ok()) << service.error();
  for (const char *m : {"RscChangeRegId", "RscChangeUnRegId", "MaxVideoRegId", "MaxVideoUnRegId"}) service.SetInt(m, 0);

  ASSERT_NE(g_lib = dlopen(KOVA_LIBRARY, RTLD_NOW | RTLD_LOCAL), nullptr) << dlerror();
  // Every family registered and unregistered, so that GDBus has free functions to call.
  KOVA_CYCLE(kova_register_player_video_start_request_callback, kova_unregister_player_video_start_request_callback);
  KOVA_CYCLE(kova_register_player_video_stop_request_callback, kova_unregister_player_video_stop_request_callback);
  KOVA_CYCLE(kova_register_player_audio_start_request_callback, kova_unregister_player_audio_start_request_callback);
  KOVA_CYCLE(kova_register_player_audio_stop_request_callback, kova_unregister_player_audio_stop_request_callback);
  KOVA_CYCLE(kova_register_player_audio_resync_request_callback, kova_unregister_player_audio_resync_request_callback);
  KOVA_CYCLE(kova_register_audio_focus_changed_callback, kova_unregister_audio_focus_changed_callback);
  KOVA_CYCLE(kova_register_resource_policy_changed_callback, kova_unregister_resource_policy_changed_callback);
  KOVA_CYCLE(kova_subscribe_audio_focus_zone_changed, kova_unsubscribe_audio_focus_zone_changed);
  const auto best = KOVA_FN(kova_register_best_quality_zone_switched_callback);
  const auto unbest = KOVA_FN(kova_unregister_best_quality_zone_switched_callback);
  EXPECT_EQ(best(OnAny, nullptr) + unbest(OnAny), 0);
  const auto on_resource = KOVA_FN(kova_register_resource_change_callback);
  const auto on_rez = KOVA_FN(kova_register_max_video_resolution_changed_callback);
  EXPECT_EQ(on_resource("app.u", OnAny, nullptr) + KOVA_FN(kova_unregister_resource_change_callback)("app.u", OnAny) +
                on_rez("app.u", OnAny, nullptr) +
                KOVA_FN(kova_unregister_max_video_resolution_changed_callback)("app.u", OnAny),
            0);
  // And some left subscribed across the unload.
  const unsigned int player = KOVA_FN(kova_register_player_video_start_request_callback)(OnAny, nullptr);
  EXPECT_EQ(best(OnAny, nullptr) + on_resource("app.u", OnAny, nullptr), 0);

  ASSERT_EQ(dlclose(g_lib), 0);
  void *still = dlopen(KOVA_LIBRARY, RTLD_NOW | RTLD_NOLOAD);
  ASSERT_NE(still, nullptr) << "the library was unmapped";
  dlclose(still);

  g_autoptr(GDBusConnection) conn = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
  ASSERT_NE(conn, nullptr);
  ASSERT_TRUE(service.RoundTrip(conn));  // the pending free functions run here
  service.Emit("PlayerVideoStart", g_variant_new("(ii)", 1, 7));
  service.Emit("BestQualitZoneSwitched", g_variant_new("(iii)", 1, 2, 3));
  service.Emit("AppRscChanged", g_variant_new("(siiiii)", "app.u", 1, 0, 640, 480, 30));
  ASSERT_TRUE(service.RoundTrip(conn));
  EXPECT_EQ(g_hits, 3);

  // Loaded again, it is the same library with the same registrations: they go, leaving nothing at exit.
  ASSERT_NE(g_lib = dlopen(KOVA_LIBRARY, RTLD_NOW | RTLD_LOCAL), nullptr);
  EXPECT_EQ(KOVA_FN(kova_unregister_player_video_start_request_callback)(player), 0);
  EXPECT_EQ(KOVA_FN(kova_unregister_best_quality_zone_switched_callback)(OnAny), 0);
  EXPECT_EQ(KOVA_FN(kova_unregister_resource_change_callback)("app.u", OnAny), 0);
  dlclose(g_lib);
  ASSERT_TRUE(service.RoundTrip(conn));
  g_dbus_connection_set_exit_on_close(conn, FALSE);
}

}  // namespace
}  // namespace kova_test

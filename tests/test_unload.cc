// A host that loads the library with dlopen and lets it go with dlclose: GDBus
// still calls the library's free functions and handlers afterwards, so the
// library must stay mapped. This executable does not link the library.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>

#include "fake_kova.h"
#include "private_bus.h"

namespace kova_test {
namespace {

std::atomic<int> g_hits{0};
extern "C" void OnPlayer(int, void *) { ++g_hits; }
extern "C" void OnSwitched(int, int, int, void *) { ++g_hits; }
extern "C" void OnResource(const char *, void *, void *) { ++g_hits; }
extern "C" void OnRez(const char *, int, int, int, void *) { ++g_hits; }
extern "C" void OnZone(void *, void *) { ++g_hits; }

void RoundTrip(GDBusConnection *conn, const FakeKova &service) {
  g_autoptr(GVariant) r = g_dbus_connection_call_sync(conn, service.unique_name().c_str(), "/",
                                                      "org.freedesktop.DBus.Peer", "Ping", nullptr, nullptr,
                                                      G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, nullptr);
  ASSERT_NE(r, nullptr);
  while (g_main_context_iteration(nullptr, FALSE)) {
  }
}

TEST(Unload, DlcloseLeavesTheLibraryMappedForGDBus) {
  std::string error;
  std::unique_ptr<PrivateBus> bus = PrivateBus::Start(&error);
  ASSERT_TRUE(bus) << error;
  bus->ExportAsSystemBus();
  FakeKova service(bus->address());
  ASSERT_TRUE(service.ok()) << service.error();
  for (const char *m : {"RscChangeRegId", "RscChangeUnRegId", "MaxVideoRegId", "MaxVideoUnRegId"}) service.SetInt(m, 0);

  void *lib = dlopen(KOVA_LIBRARY, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(lib, nullptr) << dlerror();
  auto fn = [&](const char *name) {
    void *f = dlsym(lib, name);
    EXPECT_NE(f, nullptr) << name;
    return f;
  };
  using RegId = unsigned int (*)(void (*)(), void *);
  using UnregId = int (*)(unsigned int);
  const auto cb = [](auto f) { return reinterpret_cast<void (*)()>(f); };
  // Every family registered and unregistered, so that GDBus has free functions to call.
  for (const std::string family : {"player_video_start_request", "player_video_stop_request",
                                   "player_audio_start_request", "player_audio_stop_request",
                                   "player_audio_resync_request", "audio_focus_changed", "resource_policy_changed"}) {
    auto reg = reinterpret_cast<RegId>(fn(("kova_register_" + family + "_callback").c_str()));
    auto unreg = reinterpret_cast<UnregId>(fn(("kova_unregister_" + family + "_callback").c_str()));
    EXPECT_EQ(unreg(reg(cb(OnPlayer), nullptr)), 0) << family;
  }
  auto zone_sub = reinterpret_cast<RegId>(fn("kova_subscribe_audio_focus_zone_changed"));
  EXPECT_EQ(reinterpret_cast<UnregId>(fn("kova_unsubscribe_audio_focus_zone_changed"))(zone_sub(cb(OnZone), nullptr)),
            0);
  using RegFn = int (*)(void (*)(), void *);
  using UnregFn = int (*)(void (*)());
  auto switched = reinterpret_cast<RegFn>(fn("kova_register_best_quality_zone_switched_callback"));
  EXPECT_EQ(switched(cb(OnSwitched), nullptr), 0);
  EXPECT_EQ(reinterpret_cast<UnregFn>(fn("kova_unregister_best_quality_zone_switched_callback"))(cb(OnSwitched)), 0);
  using RegApp = int (*)(const char *, void (*)(), void *);
  using UnregApp = int (*)(const char *, void (*)());
  auto rsc = reinterpret_cast<RegApp>(fn("kova_register_resource_change_callback"));
  auto rez = reinterpret_cast<RegApp>(fn("kova_register_max_video_resolution_changed_callback"));
  EXPECT_EQ(rsc("app.u", cb(OnResource), nullptr), 0);
  EXPECT_EQ(reinterpret_cast<UnregApp>(fn("kova_unregister_resource_change_callback"))("app.u", cb(OnResource)), 0);
  EXPECT_EQ(rez("app.u", cb(OnRez), nullptr), 0);
  EXPECT_EQ(reinterpret_cast<UnregApp>(fn("kova_unregister_max_video_resolution_changed_callback"))("app.u",
                                                                                                     cb(OnRez)),
            0);
  // And some left subscribed across the unload.
  const unsigned int player = reinterpret_cast<RegId>(fn("kova_register_player_video_start_request_callback"))(
      cb(OnPlayer), nullptr);
  EXPECT_EQ(switched(cb(OnSwitched), nullptr), 0);
  EXPECT_EQ(rsc("app.u", cb(OnResource), nullptr), 0);

  ASSERT_EQ(dlclose(lib), 0);
  void *still = dlopen(KOVA_LIBRARY, RTLD_NOW | RTLD_NOLOAD);
  EXPECT_NE(still, nullptr) << "the library was unmapped";
  if (still != nullptr) dlclose(still);

  g_autoptr(GDBusConnection) conn = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
  ASSERT_NE(conn, nullptr);
  RoundTrip(conn, service);  // the pending free functions run here
  service.Emit("PlayerVideoStart", g_variant_new("(ii)", 1, 7));
  service.Emit("BestQualitZoneSwitched", g_variant_new("(iii)", 1, 2, 3));
  service.Emit("AppRscChanged", g_variant_new("(siiiii)", "app.u", 1, 0, 640, 480, 30));
  RoundTrip(conn, service);
  EXPECT_EQ(g_hits, 3);

  // Loaded again, it is the same library with the same registrations.
  lib = dlopen(KOVA_LIBRARY, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(lib, nullptr);
  EXPECT_EQ(reinterpret_cast<UnregId>(fn("kova_unregister_player_video_start_request_callback"))(player), 0);
  EXPECT_EQ(reinterpret_cast<UnregFn>(fn("kova_unregister_best_quality_zone_switched_callback"))(cb(OnSwitched)), 0);
  EXPECT_EQ(reinterpret_cast<UnregApp>(fn("kova_unregister_resource_change_callback"))("app.u", cb(OnResource)), 0);
  dlclose(lib);
  RoundTrip(conn, service);
  g_dbus_connection_set_exit_on_close(conn, FALSE);
}

}  // namespace
}  // namespace kova_test

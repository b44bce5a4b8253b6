// kova-sim as a process on a private bus, driven with plain GDBus calls and
// once through libkova-api; its rules are checked in test_sim_rules.
#include <gio/gio.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <string>

#include "kova_api.h"
#include "private_bus.h"

namespace {

constexpr const char *kName = "org.zelta.tv.system.resource", *kPath = "/Org/Zelta/TV/System/Resource";

// A sample value of type t in GVariant text: 1, 'a', and one-element arrays.
std::string Sample(const GVariantType *t) {
  if (g_variant_type_is_array(t)) return "[" + Sample(g_variant_type_element(t)) + "]";
  if (!g_variant_type_is_tuple(t)) return g_variant_type_equal(t, G_VARIANT_TYPE_STRING) ? "'a'" : "1";
  std::string text;
  for (const GVariantType *e = g_variant_type_first(t); e; e = g_variant_type_next(e)) text += ", " + Sample(e);
  return "(" + text.substr(text.empty() ? 0 : 2) + (g_variant_type_n_items(t) == 1 ? ",)" : ")");
}

// A bad configuration fails the start. A good one serves a player's start through libkova-api
// (which waits for the ready marker) and every method it describes, called with arguments of its types.
TEST(SimBus, RefusesABadConfigurationAndServesTheLibraryAndEveryDescribedMethod) {
  const std::string dir = kova_test::MakeTempDir("kova-sim-test"), conf = dir + "/kova.conf";
  const char *argv[] = {KOVA_SIM_PATH, "--marker-root", dir.c_str(), "--config", conf.c_str(), "-v", nullptr};
  ASSERT_TRUE(g_file_set_contents(conf.c_str(), "zones = 2\nzones = 7\n", -1, nullptr));
  g_autoptr(GSubprocess) bad = g_subprocess_newv(argv, G_SUBPROCESS_FLAGS_STDERR_PIPE, nullptr);
  g_autofree gchar *err = nullptr;
  ASSERT_TRUE(g_subprocess_communicate_utf8(bad, nullptr, nullptr, nullptr, &err, nullptr));
  EXPECT_EQ(g_subprocess_get_exit_status(bad), 2);
  EXPECT_THAT(err, ::testing::HasSubstr("kova-sim: bad configuration: " + conf + ":2: zones: 7 is out of range 1..4"));

  std::string error;
  const auto bus = kova_test::PrivateBus::Start(&error);  // when it goes, so does kova-sim
  ASSERT_TRUE(bus) << error;
  bus->ExportAsSystemBus();
  g_autoptr(GDBusConnection) client = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);  // the library's too
  g_dbus_connection_set_exit_on_close(client, FALSE);
  ASSERT_TRUE(g_file_set_contents(conf.c_str(), "# the defaults\n", -1, nullptr));
  g_setenv("PELK_ROOT", dir.c_str(), TRUE);
  ASSERT_EQ(g_mkdir_with_parents((dir + "/tmp").c_str(), 0700), 0);  // for the library's wait on the marker
  g_autoptr(GSubprocess) sim = g_subprocess_newv(argv, G_SUBPROCESS_FLAGS_STDERR_PIPE, nullptr);
  static int started = 0;
  kova_register_player_video_start_request_callback([](int id, void *) { started = id; }, nullptr);
  ASSERT_EQ(kova_player_register(10, 0), 10);
  kova_audio_out_e out{};
  ASSERT_EQ(kova_player_request_play(10, &out), 0);
  EXPECT_EQ(out, KOVA_AUDIO_OUT_MAIN);
  g_autoptr(GVariant) xml = g_dbus_connection_call_sync(client, kName, kPath, "org.freedesktop.DBus.Introspectable",
                                                        "Introspect", nullptr, G_VARIANT_TYPE("(s)"),
                                                        G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
  // The start signal follows the play reply; wait for it on the main loop (a timer wakes it at the latest).
  const guint tick = g_timeout_add(50, [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr);
  for (const gint64 end = g_get_monotonic_time() + 5 * G_USEC_PER_SEC; started != 10 && g_get_monotonic_time() < end;) {
    g_main_context_iteration(nullptr, TRUE);
  }
  g_source_remove(tick);
  EXPECT_EQ(started, 10);
  // Its own state, on its debug interface: the player holds one of the two decoders.
  g_autoptr(GVariant) state = g_dbus_connection_call_sync(
      client, kName, "/Org/Zelta/TV/System/Resource/Debug", "org.zelta.tv.system.resource.Debug", "GetState",
      nullptr, G_VARIANT_TYPE("(a{sv})"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
  ASSERT_NE(state, nullptr);
  g_autofree gchar *state_text = g_variant_print(state, FALSE);
  EXPECT_THAT(state_text, ::testing::HasSubstr("[{'id': <10>, 'value': <0>, 'state': <'playing'>, 'audio_out': <1>"));
  EXPECT_THAT(state_text, ::testing::HasSubstr("'decoders': <{'total': <2>, 'free': <1>}>"));
  EXPECT_THAT(state_text, ::testing::HasSubstr("'last_audio_focus': <0>, 'layout_state': <0>"));

  ASSERT_NE(xml, nullptr);
  const char *text = nullptr;
  g_variant_get(xml, "(&s)", &text);
  g_autoptr(GDBusNodeInfo) node = g_dbus_node_info_new_for_xml(text, nullptr);
  const GDBusInterfaceInfo *iface = node ? g_dbus_node_info_lookup_interface(node, kName) : nullptr;
  ASSERT_NE(iface, nullptr);
  size_t methods = 0;
  for (GDBusMethodInfo **m = iface->methods; *m != nullptr; ++m, ++methods) {
    std::string in = "()";
    for (GDBusArgInfo **a = (*m)->in_args; *a != nullptr; ++a) in.insert(in.size() - 1, (*a)->signature);
    const GVariantType *type = G_VARIANT_TYPE(in.c_str());
    g_autoptr(GVariant) args = g_variant_parse(type, Sample(type).c_str(), nullptr, nullptr, nullptr);
    g_autoptr(GVariant) reply = g_dbus_connection_call_sync(client, kName, kPath, kName, (*m)->name, args, nullptr,
                                                            G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
    EXPECT_NE(reply, nullptr) << (*m)->name;
  }
  EXPECT_EQ(methods, 41u);  // as many as the library calls
  g_subprocess_send_signal(sim, SIGINT);
  g_autofree gchar *log = nullptr;
  ASSERT_TRUE(g_subprocess_communicate_utf8(sim, nullptr, nullptr, nullptr, &log, nullptr));
  EXPECT_EQ(g_subprocess_get_exit_status(sim), 0) << log;
  EXPECT_THAT(log, ::testing::HasSubstr("] SetResourcePolicyAppToZone(1, 1, 1, 1, [(1, 'a')]) -> (0,)"));
  EXPECT_FALSE(g_file_test((dir + "/tmp/.kova_ready").c_str(), G_FILE_TEST_EXISTS));  // its own marker goes
  kova_test::RemoveTree(dir);
}

}  // namespace

// The service side of the benchmarks: owns the kova service's name on the bus
// given as argument and answers every method call of its interface with "(i)"
// 0 straight from the connection's worker thread (calls that expect no reply
// are only read). Prints "ready" once it owns the name; runs until killed.
#include <gio/gio.h>

#include <cstdio>

namespace {

constexpr const char *kName = "org.zelta.tv.system.resource";

GDBusMessage *Answer(GDBusConnection *connection, GDBusMessage *message, gboolean incoming, gpointer) {
  if (!incoming || g_dbus_message_get_message_type(message) != G_DBUS_MESSAGE_TYPE_METHOD_CALL ||
      g_strcmp0(g_dbus_message_get_interface(message), kName) != 0) {
    return message;
  }
  if ((g_dbus_message_get_flags(message) & G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED) == 0) {
    GDBusMessage *reply = g_dbus_message_new_method_reply(message);
    g_dbus_message_set_body(reply, g_variant_new("(i)", 0));
    g_dbus_connection_send_message(connection, reply, G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr);
    g_object_unref(reply);
  }
  g_object_unref(message);
  return nullptr;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s BUS_ADDRESS\n", argv[0]);
    return 2;
  }
  GError *error = nullptr;
  GDBusConnection *c = g_dbus_connection_new_for_address_sync(
      argv[1],
      static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                        G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
      nullptr, nullptr, &error);
  if (c == nullptr) {
    std::fprintf(stderr, "echo service: %s\n", error->message);
    return 1;
  }
  g_dbus_connection_add_filter(c, Answer, nullptr, nullptr);
  GVariant *r = g_dbus_connection_call_sync(c, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                            "org.freedesktop.DBus", "RequestName",
                                            g_variant_new("(su)", kName, 4u /* do not queue */),
                                            G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error);
  if (r == nullptr) {
    std::fprintf(stderr, "echo service: %s\n", error->message);
    return 1;
  }
  g_variant_unref(r);
  std::printf("ready\n");
  std::fflush(stdout);
  GMainLoop *loop = g_main_loop_new(nullptr, FALSE);
  g_main_loop_run(loop);
  return 0;
}

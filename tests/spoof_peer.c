/* A peer of another user on the bus, run by test_spoofing: tries to own the
 * service's name, emits the service's "PlayerVideoStop" (broadcast and
 * addressed to the client named on the command line), then calls a method of
 * the service. One line per outcome. */
#include <gio/gio.h>
#include <stdio.h>

#define NAME "org.zelta.tv.system.resource"
#define PATH "/Org/Zelta/TV/System/Resource"
#define SPOOFED_PLAYER 666

/* The reply of a call, or the name of its error. */
static void report(const char *what, GVariant *reply, GError **error) {
  gchar *text = reply != NULL ? g_variant_print(reply, FALSE) : g_dbus_error_get_remote_error(*error);
  printf("%s: %s\n", what, text != NULL ? text : (*error)->message);
  g_free(text);
  if (reply != NULL) g_variant_unref(reply);
  g_clear_error(error);
}

int main(int argc, char **argv) {
  GError *error = NULL;
  GDBusConnection *c = argc == 2 ? g_bus_get_sync(G_BUS_TYPE_SYSTEM, NULL, &error) : NULL;
  if (c == NULL) return 2;
  report("own",
         g_dbus_connection_call_sync(c, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                     "RequestName", g_variant_new("(su)", NAME, 4u), G_VARIANT_TYPE("(u)"),
                                     G_DBUS_CALL_FLAGS_NONE, -1, NULL, &error),
         &error);

  /* The bus handles a connection's messages in order: once the call below has
   * reached the service, it has routed or dropped both signals. */
  g_dbus_connection_emit_signal(c, NULL, PATH, NAME, "PlayerVideoStop", g_variant_new("(ii)", 1, SPOOFED_PLAYER),
                                NULL);
  g_dbus_connection_emit_signal(c, argv[1], PATH, NAME, "PlayerVideoStop",
                                g_variant_new("(ii)", 2, SPOOFED_PLAYER), NULL);
  report("call",
         g_dbus_connection_call_sync(c, NAME, PATH, NAME, "PlayerVideoStopDone",
                                     g_variant_new("(ii)", 4, SPOOFED_PLAYER), G_VARIANT_TYPE("(i)"),
                                     G_DBUS_CALL_FLAGS_NONE, -1, NULL, &error),
         &error);
  g_object_unref(c);
  return 0;
}

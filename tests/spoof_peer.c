/* A peer of another user on the bus, run by test_spoofing: tries to own the
 * service's name, emits the service's "PlayerVideoStop" (broadcast and
 * addressed to the client named on the command line), emits a signal of
 * another interface as a probe, calls a method of the service and waits for
 * the service's "PlayerAudioResync". Prints one line per outcome. */
#include <gio/gio.h>
#include <stdio.h>

#define NAME "org.zelta.tv.system.resource"
#define PATH "/Org/Zelta/TV/System/Resource"
#define PROBE_INTERFACE "org.zelta.tv.test.Probe"
#define SPOOFED_PLAYER 666

static void on_resync(GDBusConnection *c, const gchar *sender, const gchar *path, const gchar *iface,
                      const gchar *signal, GVariant *params, gpointer user_data) {
  (void)c, (void)sender, (void)path, (void)iface, (void)signal;
  if (g_variant_is_of_type(params, G_VARIANT_TYPE("(ii)"))) g_variant_get_child(params, 1, "i", user_data);
}

static gboolean on_timeout(gpointer flag) {
  *(gboolean *)flag = TRUE;
  return G_SOURCE_REMOVE;
}

int main(int argc, char **argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: %s CLIENT_UNIQUE_NAME\n", argv[0]);
    return 2;
  }
  GError *error = NULL;
  GDBusConnection *c = g_bus_get_sync(G_BUS_TYPE_SYSTEM, NULL, &error);
  if (c == NULL) {
    printf("connect: %s\n", error->message);
    return 1;
  }
  gint resync_player = 0;
  guint sub = g_dbus_connection_signal_subscribe(c, NULL, NAME, "PlayerAudioResync", PATH, NULL,
                                                 G_DBUS_SIGNAL_FLAGS_NONE, on_resync, &resync_player, NULL);

  GVariant *r = g_dbus_connection_call_sync(c, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                            "org.freedesktop.DBus", "RequestName", g_variant_new("(su)", NAME, 4u),
                                            G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, -1, NULL, &error);
  if (r != NULL) {
    guint32 result = 0;
    g_variant_get(r, "(u)", &result);
    printf("own: %u\n", result);
    g_variant_unref(r);
  } else {
    gchar *remote = g_dbus_error_get_remote_error(error);
    printf("own: %s\n", g_strcmp0(remote, "org.freedesktop.DBus.Error.AccessDenied") == 0 ? "denied" : remote);
    g_free(remote);
    g_clear_error(&error);
  }

  /* The spoofed requests, then the probe; the bus handles a connection's
   * messages in order, so once the call below has reached the service, the
   * bus has routed or dropped every one of them. */
  g_dbus_connection_emit_signal(c, NULL, PATH, NAME, "PlayerVideoStop", g_variant_new("(ii)", 1, SPOOFED_PLAYER),
                                NULL);
  g_dbus_connection_emit_signal(c, argv[1], PATH, NAME, "PlayerVideoStop",
                                g_variant_new("(ii)", 2, SPOOFED_PLAYER), NULL);
  g_dbus_connection_emit_signal(c, NULL, PATH, PROBE_INTERFACE, "PlayerVideoStop",
                                g_variant_new("(ii)", 3, SPOOFED_PLAYER), NULL);

  r = g_dbus_connection_call_sync(c, NAME, PATH, NAME, "PlayerVideoStopDone",
                                  g_variant_new("(ii)", 4, SPOOFED_PLAYER), G_VARIANT_TYPE("(i)"),
                                  G_DBUS_CALL_FLAGS_NONE, -1, NULL, &error);
  if (r != NULL) {
    gint32 v = 0;
    g_variant_get(r, "(i)", &v);
    printf("call: %d\n", v);
    g_variant_unref(r);
  } else {
    printf("call: %s\n", error->message);
    g_clear_error(&error);
  }

  /* The service emitted "PlayerAudioResync" before it answered. */
  gboolean timed_out = FALSE;
  guint timer = g_timeout_add(5000, on_timeout, &timed_out);
  while (resync_player == 0 && !timed_out) g_main_context_iteration(NULL, TRUE);
  if (!timed_out) g_source_remove(timer);
  printf("signal: %d\n", resync_player);

  g_dbus_connection_signal_unsubscribe(c, sub);
  g_object_unref(c);
  return 0;
}

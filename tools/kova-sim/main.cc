// kova-sim: a reference kova service for developing and testing against
// libkova-api without the TV. See README.md for the rules it follows.
#include <fcntl.h>
#include <glib-unix.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "bus_daemon.h"
#include "config.h"
#include "markers.h"
#include "rules.h"
#include "service.h"

namespace {

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;
constexpr int kExitNameOwned = 3;

struct Options {
  gchar *config = nullptr;
  gchar *marker_root = nullptr;
  gboolean private_bus = FALSE;
  gint ready_fd = -1;
  gboolean verbose = FALSE;
  ~Options() {
    g_free(config);
    g_free(marker_root);
  }
};

int Fail(int status, const std::string &message) {
  std::fprintf(stderr, "kova-sim: %s\n", message.c_str());
  return status;
}

bool ParseOptions(int *argc, char ***argv, Options *o, std::string *error) {
  const GOptionEntry entries[] = {
      {"config", 'c', 0, G_OPTION_ARG_FILENAME, &o->config, "Read resources and rules from FILE (key = value)",
       "FILE"},
      {"marker-root", 'm', 0, G_OPTION_ARG_FILENAME, &o->marker_root,
       "Put the marker files under DIR (DIR/tmp/.kova_ready), as PELK_ROOT=DIR expects", "DIR"},
      {"private-bus", 'p', 0, G_OPTION_ARG_NONE, &o->private_bus,
       "Start a dbus-daemon of our own and print DBUS_SYSTEM_BUS_ADDRESS=... on stdout", nullptr},
      {"ready-fd", 'r', 0, G_OPTION_ARG_INT, &o->ready_fd, "Write \"ready\" to descriptor N, then close it", "N"},
      {"verbose", 'v', 0, G_OPTION_ARG_NONE, &o->verbose, "Log every call and signal to stderr", nullptr},
      {nullptr, 0, 0, G_OPTION_ARG_NONE, nullptr, nullptr, nullptr},
  };
  GOptionContext *ctx = g_option_context_new("- a reference kova service");
  g_option_context_set_summary(ctx,
                               "Serves org.zelta.tv.system.resource on the system bus named by\n"
                               "DBUS_SYSTEM_BUS_ADDRESS (or on --private-bus) and prints \"ready\" once it serves.");
  g_option_context_set_description(ctx,
                                   "Exit status: 0 after SIGINT or SIGTERM, 1 when the bus fails, 2 for a bad\n"
                                   "command line or configuration, 3 when the bus name is already owned.\n");
  g_option_context_add_main_entries(ctx, entries, nullptr);
  GError *err = nullptr;
  bool ok = g_option_context_parse(ctx, argc, argv, &err);
  if (!ok) {
    *error = err->message;
    g_error_free(err);
  } else if (*argc > 1) {
    ok = false;
    *error = std::string("unexpected argument '") + (*argv)[1] + "'";
  } else if (o->ready_fd != -1 && (o->ready_fd < 0 || fcntl(o->ready_fd, F_GETFD) < 0)) {
    ok = false;
    *error = "--ready-fd " + std::to_string(o->ready_fd) + " is not an open descriptor";
  }
  g_option_context_free(ctx);
  return ok;
}

struct Loop {
  GMainLoop *loop = g_main_loop_new(nullptr, FALSE);
  int status = 0;
  ~Loop() { g_main_loop_unref(loop); }
  void Quit(int s) {
    status = s;
    g_main_loop_quit(loop);
  }
};

void OnClosed(GDBusConnection *, gboolean, GError *, gpointer loop) {
  std::fprintf(stderr, "kova-sim: the bus connection closed\n");
  static_cast<Loop *>(loop)->Quit(kExitFailure);
}

}  // namespace

int main(int argc, char **argv) {
  // A reader that goes away must not take the service with it.
  signal(SIGPIPE, SIG_IGN);

  Options options;
  std::string error;
  if (!ParseOptions(&argc, &argv, &options, &error)) return Fail(kExitUsage, error + " (see --help)");

  kova_sim::Config config;
  if (options.config != nullptr && !kova_sim::LoadConfig(options.config, &config, &error)) {
    return Fail(kExitUsage, "bad configuration: " + error);
  }

  std::unique_ptr<kova_sim::BusDaemon> daemon;
  std::string address;
  if (options.private_bus) {
    daemon = kova_sim::BusDaemon::Start(&error);
    if (!daemon) return Fail(kExitFailure, error);
    address = daemon->address();
    std::printf("DBUS_SYSTEM_BUS_ADDRESS=%s\n", address.c_str());
    std::fflush(stdout);
  } else if (const char *env = std::getenv("DBUS_SYSTEM_BUS_ADDRESS"); env != nullptr && env[0] != '\0') {
    address = env;
  } else {
    GError *err = nullptr;
    gchar *a = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, &err);
    if (a == nullptr) {
      error = err->message;
      g_error_free(err);
      return Fail(kExitFailure, "no system bus: " + error);
    }
    address = a;
    g_free(a);
  }

  GError *err = nullptr;
  GDBusConnection *connection = g_dbus_connection_new_for_address_sync(
      address.c_str(),
      static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                        G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
      nullptr, nullptr, &err);
  if (connection == nullptr) {
    error = err->message;
    g_error_free(err);
    return Fail(kExitFailure, "cannot connect to " + address + ": " + error);
  }
  g_dbus_connection_set_exit_on_close(connection, FALSE);

  int status = 0;
  {
    Loop loop;
    kova_sim::Kova kova(config);
    kova_sim::Markers markers(options.marker_root ? options.marker_root : "");
    kova_sim::Service service(kova, markers, options.verbose);
    const gulong closed_id =
        g_signal_connect_data(connection, "closed", reinterpret_cast<GCallback>(&OnClosed), &loop, nullptr,
                              static_cast<GConnectFlags>(0));
    if (!service.Register(connection, &error)) {
      status = Fail(kExitFailure, error);
    } else if (!service.OwnName(&error)) {
      status = Fail(kExitNameOwned, error);
    } else if (!markers.Raise(kova_sim::kReadyMarker, &error)) {
      status = Fail(kExitFailure, error);
    } else {
      auto quit = [](gpointer l) -> gboolean {
        static_cast<Loop *>(l)->Quit(0);
        return G_SOURCE_CONTINUE;
      };
      const guint sigint = g_unix_signal_add(SIGINT, quit, &loop);
      const guint sigterm = g_unix_signal_add(SIGTERM, quit, &loop);
      std::printf("ready\n");
      std::fflush(stdout);
      if (options.ready_fd >= 0) {
        (void)!write(options.ready_fd, "ready\n", 6);
        close(options.ready_fd);
      }
      g_main_loop_run(loop.loop);
      status = loop.status;
      g_source_remove(sigint);
      g_source_remove(sigterm);
    }
    // Clients must not see the service as ready once it stops serving.
    markers.LowerAll();
    g_signal_handler_disconnect(connection, closed_id);
  }
  g_dbus_connection_close_sync(connection, nullptr, nullptr);
  g_object_unref(connection);
  return status;
}

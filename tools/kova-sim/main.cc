// kova-sim: a reference kova service for developing and testing against
// libkova-api without the TV. See README.md for the rules it follows.
#include <fcntl.h>
#include <glib-unix.h>
#include <glib/gstdio.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "bus_daemon.h"
#include "config.h"
#include "debug.h"
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
  gboolean sh_syntax = FALSE;
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
      {"sh-syntax", 's', 0, G_OPTION_ARG_NONE, &o->sh_syntax,
       "Go to the background once serving and print shell assignments to eval: the bus address, the marker "
       "root (a new temporary one unless -m) and the service's pid",
       nullptr},
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

// A value quoted for sh.
std::string Quoted(const std::string &v) {
  std::string out = "'";
  for (char c : v) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

std::string Assignments(const std::string &address, const std::string &marker_root) {
  std::string out;
  const auto put = [&out](const char *name, const std::string &value) {
    out += std::string(name) + "=" + value + "; export " + name + ";\n";
  };
  put("DBUS_SYSTEM_BUS_ADDRESS", Quoted(address));
  if (!marker_root.empty()) put("PELK_ROOT", Quoted(marker_root));
  put("KOVA_SIM_PID", std::to_string(getpid()));
  return out;
}

// --sh-syntax: the parent waits for the service to be ready, prints what the
// child wrote to *fd and exits; the child goes on in the background. Called
// before GLib starts any thread. Returns -1 in the child, else the parent's
// exit status.
int Background(int *fd) {
  int fds[2];
  if (pipe(fds) != 0) return Fail(kExitFailure, "pipe failed");
  const pid_t child = fork();
  if (child < 0) return Fail(kExitFailure, "fork failed");
  if (child == 0) {
    close(fds[0]);
    setsid();
    const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    dup2(null, STDIN_FILENO);
    dup2(null, STDOUT_FILENO);
    close(null);
    *fd = fds[1];
    return -1;
  }
  close(fds[1]);
  std::string text;
  char buf[512];
  for (ssize_t n; (n = read(fds[0], buf, sizeof buf)) > 0;) text.append(buf, static_cast<size_t>(n));
  close(fds[0]);
  if (!text.empty()) {
    std::fputs(text.c_str(), stdout);
    return 0;
  }
  int status = 0;
  waitpid(child, &status, 0);  // it said why on stderr
  return WIFEXITED(status) && WEXITSTATUS(status) != 0 ? WEXITSTATUS(status) : kExitFailure;
}

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

  // The marker root: given, or made (and removed at the end) for --sh-syntax,
  // so that the printed PELK_ROOT always names the service's markers.
  std::string marker_root = options.marker_root ? options.marker_root : "";
  bool own_marker_root = false;
  if (marker_root.empty() && options.sh_syntax) {
    gchar *dir = g_dir_make_tmp("kova-sim-markers-XXXXXX", nullptr);
    if (dir == nullptr) return Fail(kExitFailure, "cannot make a marker directory");
    marker_root = dir;
    g_free(dir);
    own_marker_root = true;
  }
  int sh_fd = -1;
  if (options.sh_syntax) {
    if (const int status = Background(&sh_fd); status >= 0) return status;
  }

  std::unique_ptr<kova_sim::BusDaemon> daemon;
  std::string address;
  if (options.private_bus) {
    daemon = kova_sim::BusDaemon::Start(&error);
    if (!daemon) return Fail(kExitFailure, error);
    address = daemon->address();
    std::printf("DBUS_SYSTEM_BUS_ADDRESS=%s\n", address.c_str());
    if (!marker_root.empty()) std::printf("PELK_ROOT=%s\n", marker_root.c_str());
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
    kova_sim::Markers markers(marker_root);
    kova_sim::Service service(kova, markers, options.verbose);
    kova_sim::Debug debug(kova);
    const gulong closed_id =
        g_signal_connect_data(connection, "closed", reinterpret_cast<GCallback>(&OnClosed), &loop, nullptr,
                              static_cast<GConnectFlags>(0));
    if (!service.Register(connection, &error) || !debug.Register(connection, &error)) {
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
      if (sh_fd >= 0) {
        const std::string text = Assignments(address, marker_root);
        (void)!write(sh_fd, text.data(), text.size());
        close(sh_fd);
        sh_fd = -1;
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
  if (own_marker_root) g_rmdir(marker_root.c_str());
  return status;
}

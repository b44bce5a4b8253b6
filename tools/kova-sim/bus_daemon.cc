#include "bus_daemon.h"

#include <glib.h>
#include <glib/gstdio.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

namespace kova_sim {

std::unique_ptr<BusDaemon> BusDaemon::Start(std::string *error) {
  std::unique_ptr<BusDaemon> bus(new BusDaemon());
  GError *err = nullptr;
  gchar *dir = g_dir_make_tmp("kova-sim-bus-XXXXXX", &err);
  if (dir == nullptr) {
    *error = std::string("cannot make a directory for the bus: ") + err->message;
    g_error_free(err);
    return nullptr;
  }
  bus->dir_ = dir;
  g_free(dir);
  const std::string config_path = bus->dir_ + "/bus.conf";
  const std::string config =
      "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
      " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
      "<busconfig>\n"
      "  <listen>unix:path=" + bus->dir_ + "/bus</listen>\n"
      "  <auth>EXTERNAL</auth>\n"
      "  <policy context=\"default\">\n"
      "    <allow send_destination=\"*\" eavesdrop=\"true\"/>\n"
      "    <allow eavesdrop=\"true\"/>\n"
      "    <allow own=\"*\"/>\n"
      "  </policy>\n"
      "</busconfig>\n";
  if (!g_file_set_contents(config_path.c_str(), config.c_str(), -1, &err)) {
    *error = std::string("cannot write the bus configuration: ") + err->message;
    g_error_free(err);
    return nullptr;
  }
  std::string config_arg = "--config-file=" + config_path;
  // On PATH, or where the system keeps it: an installed kova-sim may run with
  // nothing but its own bin/ on PATH.
  std::string program = "/usr/bin/dbus-daemon";
  if (gchar *found = g_find_program_in_path("dbus-daemon")) {
    program = found;
    g_free(found);
  }
  std::vector<char *> argv = {program.data(), const_cast<char *>("--nofork"),
                              const_cast<char *>("--nopidfile"), config_arg.data(),
                              const_cast<char *>("--print-address=1"), nullptr};
  GPid pid;
  int out_fd = -1;
  // The daemon goes with us even if we are killed outright.
  auto child_setup = [](gpointer) { prctl(PR_SET_PDEATHSIG, SIGTERM); };
  if (!g_spawn_async_with_pipes(nullptr, argv.data(), nullptr,
                                // Its complaints (an fd limit it may not raise) are not the user's business.
                                static_cast<GSpawnFlags>(G_SPAWN_SEARCH_PATH | G_SPAWN_DO_NOT_REAP_CHILD |
                                                         G_SPAWN_STDERR_TO_DEV_NULL),
                                child_setup, nullptr, &pid, nullptr, &out_fd, nullptr, &err)) {
    *error = std::string("cannot start dbus-daemon: ") + err->message;
    g_error_free(err);
    return nullptr;
  }
  bus->pid_ = pid;
  // It prints its address once it listens.
  std::string address;
  char c;
  ssize_t n;
  while ((n = read(out_fd, &c, 1)) == 1 || (n < 0 && errno == EINTR)) {
    if (n != 1) continue;
    if (c == '\n') break;
    address.push_back(c);
  }
  close(out_fd);
  if (address.empty()) {
    *error = "dbus-daemon did not print an address";
    return nullptr;
  }
  bus->address_ = address;
  return bus;
}

BusDaemon::~BusDaemon() {
  if (pid_ > 0) {
    kill(pid_, SIGTERM);
    int status;
    while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
  }
  if (!dir_.empty()) {
    g_unlink((dir_ + "/bus.conf").c_str());
    g_unlink((dir_ + "/bus").c_str());
    g_rmdir(dir_.c_str());
  }
}

}  // namespace kova_sim

#include "private_bus.h"

#include <glib.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

namespace kova_test {

std::string MakeTempDir(const char *prefix) {
  g_autofree gchar *dir = g_dir_make_tmp((std::string(prefix) + "-XXXXXX").c_str(), nullptr);
  return dir ? dir : "";
}

void RemoveTree(const std::string &path) {
  std::error_code ignored;
  if (!path.empty()) std::filesystem::remove_all(path, ignored);
}

std::unique_ptr<PrivateBus> PrivateBus::Start(const Options &options, std::string *error) {
  std::unique_ptr<PrivateBus> bus(new PrivateBus());
  bus->dir_ = MakeTempDir("kova-bus");
  const std::string socket = options.socket_path.empty() ? bus->dir_ + "/bus" : options.socket_path;
  const std::string config = bus->dir_ + "/bus.conf";
  const std::string text =
      "<busconfig><listen>unix:path=" + socket + "</listen><auth>EXTERNAL</auth>" +
      (options.replace_policy ? "" : "<policy context=\"default\"><allow send_destination=\"*\" eavesdrop=\"true\"/>"
                                     "<allow eavesdrop=\"true\"/><allow own=\"*\"/></policy>") +
      options.extra_config + "</busconfig>\n";
  const std::string config_arg = "--config-file=" + config;
  const char *argv[] = {"dbus-daemon", "--nofork", "--nopidfile", config_arg.c_str(), "--print-address=1", nullptr};
  int out = -1;
  GError *err = nullptr;
  // The daemon dies with the test process, also when a sanitizer aborts it.
  const auto die_with_us = [](gpointer) { prctl(PR_SET_PDEATHSIG, SIGTERM); };
  if (!g_file_set_contents(config.c_str(), text.c_str(), -1, &err) ||
      !g_spawn_async_with_pipes(nullptr, const_cast<gchar **>(argv), nullptr,
                                static_cast<GSpawnFlags>(G_SPAWN_SEARCH_PATH | G_SPAWN_DO_NOT_REAP_CHILD |
                                                         G_SPAWN_STDERR_TO_DEV_NULL),
                                die_with_us, nullptr, &bus->pid_, nullptr, &out, nullptr, &err)) {
    *error = err->message;
    g_error_free(err);
    return nullptr;
  }
  // It prints its address once it listens.
  for (char c; read(out, &c, 1) == 1 && c != '\n';) bus->address_.push_back(c);
  close(out);
  if (bus->address_.empty()) {
    *error = "dbus-daemon did not print an address";
    return nullptr;
  }
  return bus;
}

PrivateBus::~PrivateBus() {
  if (pid_ > 0) {
    kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
  }
  RemoveTree(dir_);
}

void PrivateBus::ExportAsSystemBus() const {
  g_setenv("DBUS_SYSTEM_BUS_ADDRESS", address_.c_str(), TRUE);
  g_setenv("DBUS_SESSION_BUS_ADDRESS", address_.c_str(), TRUE);
}

}  // namespace kova_test

#include "private_bus.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <vector>

#include <glib.h>

namespace kova_test {

std::string MakeTempDir(const char *prefix) {
  std::string tmpl = std::string(g_get_tmp_dir()) + "/" + prefix + "-XXXXXX";
  std::vector<char> buf(tmpl.begin(), tmpl.end());
  buf.push_back('\0');
  if (mkdtemp(buf.data()) == nullptr) return {};
  return buf.data();
}

void RemoveTree(const std::string &path) {
  if (path.empty() || path == "/") return;
  GDir *dir = g_dir_open(path.c_str(), 0, nullptr);
  if (dir != nullptr) {
    while (const char *name = g_dir_read_name(dir)) {
      std::string child = path + "/" + name;
      if (g_file_test(child.c_str(), G_FILE_TEST_IS_DIR) && !g_file_test(child.c_str(), G_FILE_TEST_IS_SYMLINK)) {
        RemoveTree(child);
      } else {
        unlink(child.c_str());
      }
    }
    g_dir_close(dir);
  }
  rmdir(path.c_str());
}

std::unique_ptr<PrivateBus> PrivateBus::Start(const Options &options, std::string *error) {
  std::unique_ptr<PrivateBus> bus(new PrivateBus());
  std::string socket = options.socket_path;
  if (socket.empty()) {
    bus->dir_ = MakeTempDir("kova-bus");
    if (bus->dir_.empty()) {
      *error = "mkdtemp failed";
      return nullptr;
    }
    bus->own_dir_ = true;
    socket = bus->dir_ + "/bus";
  } else {
    bus->dir_ = MakeTempDir("kova-bus");
    bus->own_dir_ = true;
  }
  std::string config_path = bus->dir_ + "/bus.conf";
  {
    std::ofstream config(config_path);
    config << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
              " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
              "<busconfig>\n"
              "  <listen>unix:path="
           << socket
           << "</listen>\n"
              "  <auth>EXTERNAL</auth>\n";
    if (!options.replace_policy) {
      config << "  <policy context=\"default\">\n"
                "    <allow send_destination=\"*\" eavesdrop=\"true\"/>\n"
                "    <allow eavesdrop=\"true\"/>\n"
                "    <allow own=\"*\"/>\n"
                "  </policy>\n";
    }
    config << options.extra_config << "</busconfig>\n";
  }

  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) {
    *error = std::string("pipe: ") + std::strerror(errno);
    return nullptr;
  }
  std::string config_arg = "--config-file=" + config_path;
  const char *argv[] = {"dbus-daemon", "--nofork", "--nopidfile", config_arg.c_str(), "--print-address=3", nullptr};
  const pid_t parent = getpid();
  pid_t pid = fork();
  if (pid < 0) {
    close(fds[0]);
    close(fds[1]);
    *error = std::string("fork: ") + std::strerror(errno);
    return nullptr;
  }
  if (pid == 0) {
    // The daemon dies with the test process, also when a sanitizer aborts it,
    // and does not hold the test's output open (CTest waits for that to close).
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) _exit(127);
    int devnull = open("/dev/null", O_RDWR);
    dup2(devnull, STDIN_FILENO);
    dup2(devnull, STDOUT_FILENO);
    dup2(devnull, STDERR_FILENO);
    dup2(fds[1], 3);
    execvp(argv[0], const_cast<char *const *>(argv));
    _exit(127);
  }
  close(fds[1]);
  bus->pid_ = pid;
  // The daemon prints its address once it listens: read up to the newline.
  std::string address;
  char c;
  ssize_t n;
  while ((n = read(fds[0], &c, 1)) == 1 || (n < 0 && errno == EINTR)) {
    if (n == 1) {
      if (c == '\n') break;
      address.push_back(c);
    }
  }
  close(fds[0]);
  if (address.empty()) {
    *error = "dbus-daemon did not print an address";
    return nullptr;
  }
  bus->address_ = address;
  return bus;
}

PrivateBus::~PrivateBus() {
  if (pid_ > 0) {
    kill(pid_, SIGTERM);
    int status;
    while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
  }
  if (own_dir_) RemoveTree(dir_);
}

void PrivateBus::ExportAsSystemBus() const {
  g_setenv("DBUS_SYSTEM_BUS_ADDRESS", address_.c_str(), TRUE);
  g_setenv("DBUS_SESSION_BUS_ADDRESS", address_.c_str(), TRUE);
}

}  // namespace kova_test

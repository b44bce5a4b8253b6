#include "bench_env.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "kova_api.h"

namespace kova_bench {

std::unique_ptr<BenchBus> BenchBus::Start(std::string *error) {
  std::unique_ptr<BenchBus> env(new BenchBus());
  env->bus_ = kova_test::PrivateBus::Start(error);
  if (!env->bus_) return nullptr;
  env->bus_->ExportAsSystemBus();

  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) {
    *error = std::string("pipe: ") + std::strerror(errno);
    return nullptr;
  }
  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid < 0) {
    *error = std::string("fork: ") + std::strerror(errno);
    return nullptr;
  }
  if (pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) _exit(127);
    dup2(fds[1], STDOUT_FILENO);
    execl(KOVA_BENCH_ECHO, KOVA_BENCH_ECHO, env->bus_->address().c_str(), static_cast<char *>(nullptr));
    _exit(127);
  }
  close(fds[1]);
  env->echo_ = pid;
  std::string line;
  char c;
  ssize_t n;
  while ((n = read(fds[0], &c, 1)) == 1 || (n < 0 && errno == EINTR)) {
    if (n == 1) {
      if (c == '\n') break;
      line.push_back(c);
    }
  }
  close(fds[0]);
  if (line != "ready") {
    *error = "the echo service did not start";
    return nullptr;
  }
  return env;
}

BenchBus::~BenchBus() {
  if (echo_ > 0) {
    kill(echo_, SIGTERM);
    int status;
    while (waitpid(echo_, &status, 0) < 0 && errno == EINTR) {
    }
  }
}

bool RoundTrip(GDBusConnection *c) {
  GVariant *r = g_dbus_connection_call_sync(c, kName, "/", "org.freedesktop.DBus.Peer", "Ping", nullptr, nullptr,
                                            G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
  if (r == nullptr) return false;
  g_variant_unref(r);
  return true;
}

bool SyncLibrary(GDBusConnection *, int n) {
  for (int i = 0; i < n; ++i) {
    if (kova_player_video_start_done(1) != 0) return false;
  }
  return true;
}

bool SyncBare(GDBusConnection *c, int n) {
  for (int i = 0; i < n; ++i) {
    GVariant *r = g_dbus_connection_call_sync(c, kName, kPath, kName, kSyncMethod, g_variant_new("(ii)", 0x10000, 1),
                                              nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
    if (r == nullptr) return false;
    gint32 v = -1;
    g_variant_get(r, "(i)", &v);
    g_variant_unref(r);
    if (v != 0) return false;
  }
  return true;
}

bool FireLibrary(GDBusConnection *c, int n) {
  for (int i = 0; i < n; ++i) kova_player_request_stop(1);
  return RoundTrip(c);
}

bool FireBare(GDBusConnection *c, int n) {
  for (int i = 0; i < n; ++i) {
    g_dbus_connection_call(c, kName, kPath, kName, kFireMethod, g_variant_new("(ii)", 0x10000, 1), nullptr,
                           G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr, nullptr);
  }
  return RoundTrip(c);
}

}  // namespace kova_bench

#include "pelk.h"

#include <poll.h>
#include <sys/inotify.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

namespace {

bool exists(const std::string &path) { return access(path.c_str(), F_OK) == 0; }

long long now_ms() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

}  // namespace

extern "C" int PelkWaitEvent(const char *event_path, int timeout_ms) {
  if (event_path == nullptr || event_path[0] == '\0') return -1;
  std::string path = event_path;
  if (const char *root = std::getenv("PELK_ROOT"); root != nullptr && root[0] != '\0') {
    path = std::string(root) + path;
  }
  if (exists(path)) return 0;
  if (timeout_ms <= 0) return 1;

  std::string::size_type slash = path.rfind('/');
  std::string dir = slash == std::string::npos ? "." : (slash == 0 ? "/" : path.substr(0, slash));
  int fd = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
  if (fd < 0) return 1;
  int result = 1;
  if (inotify_add_watch(fd, dir.c_str(), IN_CREATE | IN_MOVED_TO | IN_ATTRIB) >= 0) {
    const long long deadline = now_ms() + timeout_ms;
    // Check again after the watch is in place: the file may have appeared in between.
    while (!exists(path)) {
      long long left = deadline - now_ms();
      if (left <= 0) break;
      struct pollfd pfd = {fd, POLLIN, 0};
      int n = poll(&pfd, 1, static_cast<int>(left));
      if (n < 0 && errno != EINTR) break;
      if (n > 0) {
        char buf[4096];
        while (read(fd, buf, sizeof buf) > 0) {
        }
      }
    }
    result = exists(path) ? 0 : 1;
  }
  close(fd);
  return result;
}

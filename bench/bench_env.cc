#include "bench_env.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

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

}  // namespace kova_bench

// The platform stand-ins themselves: marker events with inotify and the log line.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>

#include "marlo.h"
#include "pelk.h"

namespace {

TEST(PelkStandIn, AbsentOrWokenByTheMarker) {
  const std::string marker = std::filesystem::temp_directory_path() / ("pelk-" + std::to_string(getpid()));
  unsetenv("PELK_ROOT");
  EXPECT_NE(PelkWaitEvent(marker.c_str(), 0), 0);
  std::thread creator([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // the event comes later
    close(open(marker.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
  });
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(PelkWaitEvent(marker.c_str(), 10000), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));  // woken by inotify, not the time limit
  creator.join();
  unlink(marker.c_str());
}

// What the stand-in writes to stderr in a child whose MARLO_LOG_LEVEL is level
// (null: unset), which reads the level once.
std::string Written(const char *level, void (*body)()) {
  int fds[2];
  if (pipe(fds) != 0) return "pipe failed";
  const pid_t child = fork();
  if (child == 0) {
    if (level != nullptr) setenv("MARLO_LOG_LEVEL", level, 1);
    dup2(fds[1], STDERR_FILENO);
    body();
    _exit(0);
  }
  close(fds[1]);
  std::string out;
  char buf[256];
  for (ssize_t n; (n = read(fds[0], buf, sizeof buf)) > 0;) out.append(buf, static_cast<size_t>(n));
  close(fds[0]);
  waitpid(child, nullptr, 0);
  return out;
}

void InfoAndError() {
  __marlo_print(2, 4, "KOVA_API", "%s: %s(%d) > %s", "f.cc", "fn", 12, ">>");
  __marlo_print(2, 6, "KOVA_API", "failed %d", -1);
}

TEST(MarloStandIn, WritesOneReadableLinePerCallAtTheLevelAskedFor) {
  const std::string info = "I/KOVA_API(2): f.cc: fn(12) > >>\n", error = "E/KOVA_API(2): failed -1\n";
  EXPECT_EQ(Written(nullptr, InfoAndError), error);  // quiet by default
  EXPECT_EQ(Written("silent", InfoAndError), "");
  EXPECT_EQ(Written("4", InfoAndError), info + error);
  EXPECT_EQ(Written("info", [] {
              InfoAndError();
              __marlo_print(-13, 9, nullptr, "odd");
              __marlo_print(2, 4, "KOVA_API", "%s!", std::string(700, 'x').c_str());  // past the stack buffer
            }),
            info + error + "?/(-13): odd\nI/KOVA_API(2): " + std::string(700, 'x') + "!\n");
}

}  // namespace

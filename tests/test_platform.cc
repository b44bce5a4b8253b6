// The platform stand-ins themselves: marker events with inotify and the log line.
#include <fcntl.h>
#include <gtest/gtest.h>
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

TEST(MarloStandIn, WritesOneReadableLinePerCall) {
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  int saved = dup(STDERR_FILENO);
  dup2(fds[1], STDERR_FILENO);
  __marlo_print(2, 4, "KOVA_API", "%s: %s(%d) > %s", "f.cc", "fn", 12, ">>");
  __marlo_print(2, 6, "KOVA_API", "failed %d", -1);
  __marlo_print(-13, 9, nullptr, "odd");
  // Longer than the stand-in's stack buffer.
  const std::string long_text(700, 'x');
  __marlo_print(2, 4, "KOVA_API", "%s!", long_text.c_str());
  dup2(saved, STDERR_FILENO);
  close(saved);
  close(fds[1]);
  std::string out;
  char buf[256];
  for (ssize_t n; (n = read(fds[0], buf, sizeof buf)) > 0;) out.append(buf, static_cast<size_t>(n));
  close(fds[0]);
  EXPECT_EQ(out, "I/KOVA_API(2): f.cc: fn(12) > >>\nE/KOVA_API(2): failed -1\n?/(-13): odd\n"
                 "I/KOVA_API(2): " + long_text + "!\n");
}

}  // namespace

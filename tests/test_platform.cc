// The platform stand-ins themselves: marker events with inotify and the log line.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>

#include "brask.h"
#include "marlo.h"
#include "ostel.h"
#include "pelk.h"

namespace {

TEST(PelkStandIn, AbsentOrWokenByTheMarker) {
  const std::string marker = std::filesystem::temp_directory_path() / ("pelk-" + std::to_string(getpid()));
  unsetenv("PELK_ROOT");
  EXPECT_EQ(PelkWaitEvent(nullptr, 0) + PelkWaitEvent("", 0), -2);
  EXPECT_EQ(PelkWaitEvent(marker.c_str(), 0), 1);
  EXPECT_EQ(PelkWaitEvent(marker.c_str(), 1), 1);  // the time runs out
  const std::string other = marker + ".other";
  std::thread creator([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // the events come later, another file's first
    close(open(other.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    close(open(marker.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
  });
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(PelkWaitEvent(marker.c_str(), 10000), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));  // woken by inotify, not the time limit
  creator.join();
  unlink(marker.c_str());
  unlink(other.c_str());
}

// What the stand-in writes to stderr in a child whose MARLO_LOG_LEVEL is level
// (null: unset), which reads the level once.
std::string Written(const char *level, void (*body)()) {
  int fds[2];
  if (pipe(fds) != 0) return "pipe failed";
  const pid_t child = fork();
  if (child == 0) {
    level != nullptr ? setenv("MARLO_LOG_LEVEL", level, 1) : unsetenv("MARLO_LOG_LEVEL");
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
              __marlo_print(-130, 9, nullptr, "odd");
              __marlo_print(2, 4, "KOVA_API", "%s!", std::string(700, 'x').c_str());  // past the stack buffer
            }),
            info + error + "?/(-130): odd\nI/KOVA_API(2): " + std::string(700, 'x') + "!\n");
}

// The category numbering brask.h documents, at each range's edges; option bits come off, errors pass.
TEST(CategoryStandIns, RangesAndOptionBitsAsDocumented) {
  const struct {
    bool (*is)(int);
    int first, last;
  } ranges[] = {{ostel_is_video_decoder_category, 1000, 1199}, {ostel_is_mjpeg_decoder_category, 1200, 1209},
                {ostel_is_audio_decoder_category, 2000, 2099},  {ostel_is_audio_out_category, 3000, 3009},
                {ostel_is_video_scaler_category, 4000, 4009},   {ostel_is_hdmi_dedicated_scaler_category, 4009, 4009}};
  for (const auto &r : ranges) {
    EXPECT_TRUE(!r.is(r.first - 1) && r.is(r.first) && r.is(r.last) && !r.is(r.last + 1)) << r.first;
  }
  EXPECT_EQ(brask_unmask_category_options(1011 | 0x10000), 1011);
  EXPECT_EQ(brask_unmask_category_options(0) + brask_unmask_category_options(-5), -5);
  EXPECT_EQ(brask_get_active_audio_out(0) * 10 + brask_get_active_audio_out(-1), 9);  // main; -1 for no player
  unsetenv("MARLO_LOG_LEVEL");  // read at this process's first line
  EXPECT_EQ(__marlo_print(2, 6, "T", nullptr), -1);
  EXPECT_EQ(__marlo_print(2, 4, "T", "below the default level"), 0);
}

}  // namespace

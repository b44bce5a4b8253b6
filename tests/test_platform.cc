// The platform stand-ins themselves: marker events with inotify, the category
// ranges and the log line.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>

#include <glib.h>

#include "brask.h"
#include "marlo.h"
#include "ostel.h"
#include "pelk.h"

namespace {

void Touch(const std::string &path) { close(open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644)); }

TEST(PelkStandIn, AbsentPresentWokenAndUnderTheRootPrefix) {
  using std::chrono::steady_clock;
  gchar *tmp = g_dir_make_tmp("pelk-XXXXXX", nullptr);
  ASSERT_NE(tmp, nullptr);
  const std::string dir = tmp, marker = dir + "/marker";
  g_free(tmp);
  g_unsetenv("PELK_ROOT");
  EXPECT_NE(PelkWaitEvent(nullptr, 0), 0);
  auto start = steady_clock::now();
  EXPECT_NE(PelkWaitEvent(marker.c_str(), 150), 0);
  EXPECT_GE(steady_clock::now() - start, std::chrono::milliseconds(150));  // absent after the whole wait
  std::thread creator([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // the event comes later
    Touch(marker);
  });
  start = steady_clock::now();
  EXPECT_EQ(PelkWaitEvent(marker.c_str(), 10000), 0);
  EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(5));  // woken by inotify, not the time limit
  creator.join();
  EXPECT_EQ(PelkWaitEvent(marker.c_str(), 0), 0);
  // PELK_ROOT keeps the markers out of the real /tmp.
  EXPECT_EQ(mkdir((dir + "/tmp").c_str(), 0755), 0);
  g_setenv("PELK_ROOT", dir.c_str(), TRUE);
  EXPECT_NE(PelkWaitEvent("/tmp/.kova_ready", 0), 0);
  Touch(dir + "/tmp/.kova_ready");
  EXPECT_EQ(PelkWaitEvent("/tmp/.kova_ready", 0), 0);
  g_unsetenv("PELK_ROOT");
  std::filesystem::remove_all(dir);
}

TEST(CategoryStandIns, RangesAndUnmasking) {
  EXPECT_EQ(brask_unmask_category_options(1010 | 0x10000), 1010);
  EXPECT_EQ(brask_unmask_category_options(-1), -1);
  for (int c : {1000, 1199}) EXPECT_TRUE(ostel_is_video_decoder_category(c)) << c;
  EXPECT_FALSE(ostel_is_video_decoder_category(1200));
  EXPECT_TRUE(ostel_is_mjpeg_decoder_category(1200));
  EXPECT_FALSE(ostel_is_audio_out_category(2000));
  EXPECT_TRUE(ostel_is_hdmi_dedicated_scaler_category(4009));
  EXPECT_FALSE(ostel_is_hdmi_dedicated_scaler_category(4000));
  EXPECT_LT(brask_get_active_audio_out(-1), 0);
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

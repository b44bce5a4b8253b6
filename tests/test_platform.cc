// The platform stand-ins themselves: marker events with inotify, the category
// classification and the log line.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

#include <glib.h>

#include "brask.h"
#include "marlo.h"
#include "ostel.h"
#include "pelk.h"
#include "tarn_system_resource.h"

namespace {

class PelkTest : public ::testing::Test {
 protected:
  void SetUp() override {
    gchar *dir = g_dir_make_tmp("pelk-XXXXXX", nullptr);
    ASSERT_NE(dir, nullptr);
    dir_ = dir;
    g_free(dir);
    g_unsetenv("PELK_ROOT");
  }
  void TearDown() override {
    unlink((dir_ + "/marker").c_str());
    unlink((dir_ + "/tmp/.kova_ready").c_str());
    rmdir((dir_ + "/tmp").c_str());
    rmdir(dir_.c_str());
    g_unsetenv("PELK_ROOT");
  }
  void Touch(const std::string &path) { close(open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644)); }
  std::string dir_;
};

TEST_F(PelkTest, PresentAndAbsentWithoutWaiting) {
  const std::string marker = dir_ + "/marker";
  EXPECT_NE(PelkWaitEvent(marker.c_str(), 0), 0);
  Touch(marker);
  EXPECT_EQ(PelkWaitEvent(marker.c_str(), 0), 0);
  EXPECT_EQ(PelkWaitEvent(marker.c_str(), 3000), 0);
  EXPECT_NE(PelkWaitEvent(nullptr, 0), 0);
}

TEST_F(PelkTest, AbsentAfterTheWholeWait) {
  const std::string marker = dir_ + "/marker";
  auto start = std::chrono::steady_clock::now();
  EXPECT_NE(PelkWaitEvent(marker.c_str(), 150), 0);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(150));
}

TEST_F(PelkTest, WakesWhenTheMarkerAppearsDuringTheWait) {
  const std::string marker = dir_ + "/marker";
  std::thread creator([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // the event comes later
    Touch(marker);
  });
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(PelkWaitEvent(marker.c_str(), 10000), 0);
  // Woken by inotify, long before the time limit.
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
  creator.join();
}

TEST_F(PelkTest, RootPrefixKeepsMarkersOutOfTheRealTmp) {
  ASSERT_EQ(mkdir((dir_ + "/tmp").c_str(), 0755), 0);
  g_setenv("PELK_ROOT", dir_.c_str(), TRUE);
  EXPECT_NE(PelkWaitEvent("/tmp/.kova_ready", 0), 0);
  Touch(dir_ + "/tmp/.kova_ready");
  EXPECT_EQ(PelkWaitEvent("/tmp/.kova_ready", 0), 0);
}

TEST(CategoryStandIns, ClassificationAndUnmasking) {
  EXPECT_EQ(brask_unmask_category_options(1010 | 0x10000), 1010);
  EXPECT_EQ(brask_unmask_category_options(3000), 3000);
  EXPECT_EQ(brask_unmask_category_options(-1), -1);
  for (int c : {1010, 1011, 1152, 1153, 1000, 1199}) EXPECT_TRUE(ostel_is_video_decoder_category(c)) << c;
  EXPECT_FALSE(ostel_is_video_decoder_category(1200));
  EXPECT_TRUE(ostel_is_mjpeg_decoder_category(1200));
  EXPECT_TRUE(ostel_is_audio_decoder_category(2000));
  EXPECT_TRUE(ostel_is_audio_out_category(3001));
  EXPECT_FALSE(ostel_is_audio_out_category(2000));
  EXPECT_TRUE(ostel_is_video_scaler_category(4009));
  EXPECT_TRUE(ostel_is_hdmi_dedicated_scaler_category(4009));
  EXPECT_FALSE(ostel_is_hdmi_dedicated_scaler_category(4000));
  EXPECT_TRUE(ostel_support_hdmi_dedicated_scaler());
  EXPECT_FALSE(ostel_is_h264_interlaced_limited_model());
  EXPECT_FALSE(ostel_is_h264_portrait_seamless_playback_limited_model());
  EXPECT_EQ(brask_get_active_audio_out(3), 1);
  EXPECT_LT(brask_get_active_audio_out(-1), 0);
  EXPECT_EQ(resource_set_cpu_inheritance(0, "kova", 2000), 0);
  EXPECT_EQ(resource_clear_cpu_inheritance(0, "kova"), 0);
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
  EXPECT_EQ(out, "I/KOVA_API(2): f.cc: fn(12) > >>\nE/KOVA_API(2): failed -1\n?/(-13): odd\nI/KOVA_API(2): " + long_text + "!\n");
}

}  // namespace

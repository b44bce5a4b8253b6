// Maximum-resolution queries and the capable-category lookup.
#include <gmock/gmock.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <vector>

#include "kova_api.h"
#include "kova_private.h"
#include "kova_test.h"

// The monotonic clock the capable-category lookup reads in this executable;
// always just before the next whole second, so that rounding up would show.
static std::atomic<long> g_clock_sec{0};

extern "C" __attribute__((visibility("default"))) int _kova_monotonic_clock_hook(struct timespec *ts) {
  ts->tv_sec = g_clock_sec;
  ts->tv_nsec = 999999999;
  return 0;
}

namespace kova_test {
namespace {

using ::testing::ElementsAre;
using Ints = std::vector<int>;
using ResolutionTest = KovaTest;

// Each query copies the answer as it comes (also zero or below) or, when the
// call fails, leaves the outputs alone. Invalid arguments send nothing.
TEST_F(ResolutionTest, QueriesCopyTheAnswerOrLeaveTheOutputsAlone) {
  int w = 7, h = 8, f = 9;
  EXPECT_EQ(kova_get_max_video_resolution(nullptr, &w, &h, &f), -1);
  EXPECT_THAT(doubles::Messages(), ElementsAre("invalid param"));  // and no "Method call"

  service().Set("GetMaxVideo", Answer::Value(g_variant_new("(iii)", -1, 0, 30)));
  service().Set("PolicyGetMaxVideo", Answer::Value(g_variant_new("(iii)", 0, -2, 60)));
  EXPECT_EQ(kova_get_max_video_resolution("app.v", &w, &h, &f), 0);
  EXPECT_THAT(Ints({w, h, f}), ElementsAre(-1, 0, 30));
  EXPECT_EQ(LastCall("GetMaxVideo").args.str(1), "app.v");
  // A codec the header does not list goes as it is.
  EXPECT_EQ(kova_policy_get_max_resolution(KOVA_RSC_POLICY_GAME, static_cast<kova_video_codec_e>(9), &w, &h, &f), 0);
  EXPECT_THAT(Ints({w, h, f}), ElementsAre(0, -2, 60));
  const Call policy = LastCall("PolicyGetMaxVideo");
  EXPECT_EQ(policy.args.text(), "(" + std::to_string(policy.args.i32(0)) + ", 2, 9)");
  const std::string success = "[" + Hex(policy.args.i32(0)) + "] (PolicyGetMaxVideo) success ";
  EXPECT_TRUE(doubles::HasLog(success + "policy(2)/codec(9)/(0*-2)-(60)", doubles::kInfo));

  service().Set("GetMaxVideo", Answer::Value(g_variant_new("(i)", 1)));  // malformed
  doubles::ClearLogs();
  EXPECT_EQ(kova_get_max_video_resolution("app.v", &w, &h, &f), -1);
  EXPECT_THAT(Ints({w, h, f}), ElementsAre(0, -2, 60));
  const std::string cmd = "[" + Hex(LastCall("GetMaxVideo").args.i32(0)) + "] (GetMaxVideo) ";
  EXPECT_THAT(doubles::Messages(), ElementsAre("Method call 'GetMaxVideo'", cmd + "unexpected reply type ((i))",
                                               cmd + "failed"));
}

constexpr int kOption = 0x10000;  // an option bit that unmasking removes

class CapabilityTest : public KovaTest {
 protected:
  void SetUp() override {
    KovaTest::SetUp();
    doubles::SetOptionMask(kOption);
    doubles::SetCategories(doubles::Predicate::kVideoDecoder, {1000, 1010, 1011, 1012, 1152, 1153});
    doubles::SetCategories(doubles::Predicate::kAudioDecoder, {2000});
    doubles::SetCategories(doubles::Predicate::kAudioOut, {3000});
    doubles::SetCategories(doubles::Predicate::kVideoScaler, {4000, 4009});
    doubles::SetCategories(doubles::Predicate::kHdmiDedicatedScaler, {4009});
    service().SetInt("GetCapableCatId", 4242);
  }
  static void SetMode(bool normal) {
    doubles::SetMarker("/tmp/.rsc_policy_activated", normal ? doubles::Marker::kAbsent : doubles::Marker::kPresent);
  }
};

enum Facts : unsigned { kNone = 0, kInterlaced = 1, kPortrait = 2, kHdmi = 4 };  // of the model and device

TEST_F(CapabilityTest, AsksTheServiceOnlyWhenTheTableSays) {
  struct Row { bool normal; int category; long clock_sec; unsigned facts; bool asked; };
  // clang-format off
  for (const Row &c : {
      Row{false, 2000,           3,   kNone,                 true},   // outside normal mode: always
      Row{true,  3000,           20,  kNone,                 false},  // audio: after 20 whole seconds
      Row{true,  3000,           21,  kNone,                 true},
      Row{true,  1010,           100, kInterlaced,           true},   // H.264 on a limited model
      Row{true,  1011,           100, kPortrait,             true},
      Row{true,  1152,           100, kInterlaced,           true},
      Row{true,  1153 | kOption, 100, kPortrait,             true},
      Row{true,  1012,           100, kInterlaced|kPortrait, false},  // not one of the H.264 categories
      Row{true,  4009 | kOption, 100, kHdmi,                 true},   // the HDMI-dedicated scaler
      Row{true,  4000,           100, kHdmi,                 false},
      Row{true,  4009,           100, kNone,                 false}}) {
    // clang-format on
    SCOPED_TRACE(std::to_string(c.category) + (c.normal ? " normal, " : " policy, ") + std::to_string(c.clock_sec));
    SetMode(c.normal);
    g_clock_sec = c.clock_sec;
    doubles::SetH264InterlacedLimited(c.facts & kInterlaced);
    doubles::SetH264PortraitSeamlessLimited(c.facts & kPortrait);
    doubles::SetSupportHdmiDedicatedScaler(c.facts & kHdmi);
    EXPECT_EQ(kova_get_capable_category_id(7, "app.c", c.category), c.asked ? 4242 : c.category);
  }
}

// An unsupported category comes back before the readiness check and spends no
// identifier; a supported one while the service is not ready spends one.
TEST_F(CapabilityTest, CategoryUnaskedWhenUnsupportedOrNotReady) {
  int before = _kova_get_command_id();
  EXPECT_EQ(kova_get_capable_category_id(1, "a", 5000 | kOption), 5000 | kOption);
  EXPECT_EQ(_kova_get_command_id(), before + 1);
  doubles::SetMarker("/tmp/.kova_ready", doubles::Marker::kAbsent);
  SetMode(false);
  before = _kova_get_command_id();
  EXPECT_EQ(kova_get_capable_category_id(1, "a", 1000), 1000);
  EXPECT_EQ(_kova_get_command_id(), before + 2);
  EXPECT_EQ(doubles::PelkCalls().back().timeout_ms, 0);  // the readiness check does not wait
}

// Without an application id (or with one the bus cannot carry) or a category:
// the category comes back in normal mode, -4 otherwise.
TEST_F(CapabilityTest, InvalidArgumentsDependOnTheMode) {
  struct Case { const char *app; int category; bool normal; int result; };
  for (const Case &c : {Case{"a", 0, true, 0}, Case{"\xff", 1000, true, 1000}, Case{nullptr, 5, false, -4}}) {
    SetMode(c.normal);
    doubles::ClearLogs();
    EXPECT_EQ(kova_get_capable_category_id(3, c.app, c.category), c.result) << c.category;
  }
  EXPECT_THAT(doubles::Messages(), ElementsAre("player_id(3), app_id(null), category(5)", "invalid param (0:5)"));
}

// The category goes with its option bits; the answer comes back as it is.
TEST_F(CapabilityTest, ServiceAnswersAreReturnedAsTheyCome) {
  SetMode(false);
  EXPECT_EQ(kova_get_capable_category_id(7, "app.c", 1000 | kOption), 4242);
  const Call call = LastCall("GetCapableCatId");
  EXPECT_EQ(call.args.text(), "(" + std::to_string(call.args.i32(0)) + ", 7, 'app.c', " +
                                  std::to_string(1000 | kOption) + ", " + std::to_string(getpid()) + ")");
  const auto logged = [](const Call &c) { return "[" + Hex(c.args.i32(0)) + "] _kova_dbus_method_call() "; };
  EXPECT_TRUE(doubles::HasLog(logged(call) + "success, method return value is (4242)", doubles::kInfo));
  service().Set("GetCapableCatId", Answer::Error("org.zelta.Error.Failed", "no"));
  EXPECT_EQ(kova_get_capable_category_id(7, "app.c", 1000), -1);
  EXPECT_TRUE(doubles::HasLog(logged(LastCall("GetCapableCatId")) + "for GET_CAPABLE_CATEGORY_ID is failed",
                              doubles::kError));
}

}  // namespace
}  // namespace kova_test

// Maximum-resolution queries and the capable-category lookup.
#include <gmock/gmock.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <vector>

#include "kova_api.h"
#include "kova_private.h"
#include "kova_test.h"

// The monotonic clock the capable-category lookup reads in this executable.
static std::atomic<long> g_clock_sec{0};
static std::atomic<long> g_clock_nsec{0};

extern "C" __attribute__((visibility("default"))) int _kova_monotonic_clock_hook(struct timespec *ts) {
  ts->tv_sec = g_clock_sec;
  ts->tv_nsec = g_clock_nsec;
  return 0;
}

namespace kova_test {
namespace {

using ::testing::ElementsAre;

// ---- Maximum resolution ----

class ResolutionTest : public KovaTest {};

TEST_F(ResolutionTest, BothNamesSendTheSameCallAndFillTheOutputs) {
  service().Set("GetMaxVideo", Answer::Value(g_variant_new("(iii)", 640, 480, 30)));
  for (auto fn : {kova_get_max_video_resolution, kova_get_allowed_max_video_resolution}) {
    doubles::ClearLogs();
    int w = 0, h = 0, f = 0;
    EXPECT_EQ(fn("app.v", &w, &h, &f), 0);
    EXPECT_THAT(std::vector<int>({w, h, f}), ElementsAre(640, 480, 30));
    Call call = LastCall("GetMaxVideo");
    EXPECT_EQ(call.signature, "(is)");
    EXPECT_EQ(call.args.str(1), "app.v");
    EXPECT_THAT(doubles::Messages(),
                ElementsAre("Method call 'GetMaxVideo'",
                            "[" + Hex(call.args.i32(0)) + "] (GetMaxVideo) success (640*480)-(30)"));
  }
  // Whatever the service says is copied, also a width of zero or below.
  service().Set("GetMaxVideo", Answer::Value(g_variant_new("(iii)", -1, 0, 0)));
  int w = 5, h = 5, f = 5;
  EXPECT_EQ(kova_get_max_video_resolution("app.v", &w, &h, &f), 0);
  EXPECT_THAT(std::vector<int>({w, h, f}), ElementsAre(-1, 0, 0));
}

TEST_F(ResolutionTest, PolicyQuerySendsPolicyAndCodecUnchanged) {
  service().Set("PolicyGetMaxVideo", Answer::Value(g_variant_new("(iii)", 1920, 1080, 60)));
  int w = 0, h = 0, f = 0;
  EXPECT_EQ(kova_policy_get_max_resolution(KOVA_RSC_POLICY_GAME, KOVA_VIDEO_CODEC_HEVC, &w, &h, &f), 0);
  EXPECT_THAT(std::vector<int>({w, h, f}), ElementsAre(1920, 1080, 60));
  Call call = LastCall("PolicyGetMaxVideo");
  EXPECT_EQ(call.signature, "(iii)");
  EXPECT_EQ(call.args.i32(1), KOVA_RSC_POLICY_GAME);
  EXPECT_EQ(call.args.i32(2), KOVA_VIDEO_CODEC_HEVC);
  EXPECT_TRUE(
      doubles::HasLog("[" + Hex(call.args.i32(0)) + "] (PolicyGetMaxVideo) success policy(2)/codec(1)/(1920*1080)-(60)",
                      doubles::kInfo));
  // Values the header does not list pass through too.
  EXPECT_EQ(kova_policy_get_max_resolution(static_cast<kova_rsc_policy_e>(77), static_cast<kova_video_codec_e>(9), &w,
                                           &h, &f),
            0);
  EXPECT_EQ(LastCall("PolicyGetMaxVideo").args.i32(1), 77);
  EXPECT_EQ(LastCall("PolicyGetMaxVideo").args.i32(2), 9);
}

TEST_F(ResolutionTest, FailedQueriesLeaveTheOutputsAlone) {
  const Answer failures[] = {Answer::Error("org.zelta.Error.Failed", "no"), Answer::Value(g_variant_new("(ii)", 1, 2))};
  for (const Answer &answer : failures) {
    service().Set("GetMaxVideo", answer);
    service().Set("PolicyGetMaxVideo", answer);
    int w = 7, h = 8, f = 9;
    EXPECT_EQ(kova_get_max_video_resolution("app.v", &w, &h, &f), -1);
    EXPECT_TRUE(
        doubles::HasLog("[" + Hex(LastCall("GetMaxVideo").args.i32(0)) + "] (GetMaxVideo) failed", doubles::kError));
    EXPECT_EQ(kova_policy_get_max_resolution(KOVA_RSC_POLICY_DEFAULT, KOVA_VIDEO_CODEC_H264, &w, &h, &f), -1);
    EXPECT_TRUE(doubles::HasLog("[" + Hex(LastCall("PolicyGetMaxVideo").args.i32(0)) + "] (PolicyGetMaxVideo) failed",
                                doubles::kError));
    EXPECT_THAT(std::vector<int>({w, h, f}), ElementsAre(7, 8, 9));
  }
  StopService();
  int w = 7, h = 8, f = 9;
  EXPECT_EQ(kova_get_allowed_max_video_resolution("app.v", &w, &h, &f), -1);
  EXPECT_THAT(std::vector<int>({w, h, f}), ElementsAre(7, 8, 9));
}

TEST_F(ResolutionTest, NullArgumentsAreReportedInOrderAndSendNothing) {
  int v = 0;
  struct Case {
    int *w, *h, *f;
    const char *message;
  };
  for (const Case &c : {Case{nullptr, nullptr, nullptr, "invalid width"}, Case{nullptr, &v, &v, "invalid width"},
                        Case{&v, nullptr, nullptr, "invalid height"}, Case{&v, &v, nullptr, "invalid framerate"}}) {
    doubles::ClearLogs();
    EXPECT_EQ(kova_policy_get_max_resolution(KOVA_RSC_POLICY_DEFAULT, KOVA_VIDEO_CODEC_H264, c.w, c.h, c.f), -1);
    EXPECT_THAT(doubles::Messages(), ElementsAre(c.message));
    EXPECT_EQ(doubles::Logs().front().priority, doubles::kError);
  }
  doubles::ClearLogs();
  for (auto fn : {kova_get_max_video_resolution, kova_get_allowed_max_video_resolution}) {
    EXPECT_EQ(fn(nullptr, &v, &v, &v), -1);
    EXPECT_EQ(fn("\xe2\x82", &v, &v, &v), -1);  // truncated UTF-8
    EXPECT_EQ(fn("a", nullptr, &v, &v), -1);
    EXPECT_EQ(fn("a", &v, nullptr, &v), -1);
    EXPECT_EQ(fn("a", &v, &v, nullptr), -1);
  }
  EXPECT_EQ(doubles::CountLog("invalid param", doubles::kError), 10);
  EXPECT_EQ(doubles::Logs().size(), 10u);
  Sync();
  EXPECT_EQ(service().CallCount(), 0u);
}

// ---- Capable category ----

constexpr int kOption = 0x10000;  // an option bit that unmasking removes

class CapabilityTest : public KovaTest {
 protected:
  void SetUp() override {
    KovaTest::SetUp();
    doubles::SetOptionMask(kOption);
    doubles::SetCategories(doubles::Predicate::kVideoDecoder, {1000, 1010, 1011, 1012, 1151, 1152, 1153});
    doubles::SetCategories(doubles::Predicate::kAudioDecoder, {2000});
    doubles::SetCategories(doubles::Predicate::kAudioOut, {3000});
    doubles::SetCategories(doubles::Predicate::kVideoScaler, {4000, 4009});
    doubles::SetCategories(doubles::Predicate::kMjpegDecoder, {1200});
    doubles::SetCategories(doubles::Predicate::kHdmiDedicatedScaler, {4009});
    g_clock_sec = 100;
    g_clock_nsec = 0;
    service().SetInt("GetCapableCatId", 4242);
  }
  static void SetMode(bool normal) {
    doubles::SetMarker("/tmp/.rsc_policy_activated", normal ? doubles::Marker::kAbsent : doubles::Marker::kPresent);
  }
};

// Model and device facts of a row.
enum Facts : unsigned { kNone = 0, kInterlaced = 1, kPortrait = 2, kHdmi = 4 };

struct CapCase {
  const char *name;
  bool normal;
  int category;  // as the caller passes it
  long clock_sec;
  long clock_nsec;
  unsigned facts;
  bool asked;
  bool h264_checked;  // the model's H.264 limits were consulted
};

void PrintTo(const CapCase &c, std::ostream *os) { *os << c.name; }

class CapabilityTableTest : public CapabilityTest, public ::testing::WithParamInterface<CapCase> {};

TEST_P(CapabilityTableTest, AsksTheServiceOnlyWhenTheTableSays) {
  const CapCase &c = GetParam();
  SetMode(c.normal);
  g_clock_sec = c.clock_sec;
  g_clock_nsec = c.clock_nsec;
  doubles::SetH264InterlacedLimited(c.facts & kInterlaced);
  doubles::SetH264PortraitSeamlessLimited(c.facts & kPortrait);
  doubles::SetSupportHdmiDedicatedScaler(c.facts & kHdmi);
  const int before = _kova_get_command_id();

  const int result = kova_get_capable_category_id(7, "app.c", c.category);

  EXPECT_EQ(_kova_get_command_id(), before + 2);  // one identifier drawn, sent or not
  const int plain = c.category & ~kOption;
  EXPECT_EQ(doubles::HasLog("category(" + std::to_string(c.category) + ")/unmasked(" + std::to_string(plain) + ")",
                            doubles::kInfo),
            c.normal);
  const auto predicates = doubles::PredicateCalls();
  EXPECT_EQ(std::count(predicates.begin(), predicates.end(), "h264_interlaced") > 0, c.h264_checked);
  Sync();
  if (!c.asked) {
    EXPECT_EQ(result, c.category);
    EXPECT_EQ(service().CallCount(), 0u);
    return;
  }
  EXPECT_EQ(result, 4242);
  Call call = LastCall("GetCapableCatId");
  EXPECT_EQ(call.signature, "(iisii)");
  EXPECT_EQ(call.args.i32(0), before + 1);
  EXPECT_EQ(call.args.i32(1), 7);
  EXPECT_EQ(call.args.str(2), "app.c");
  EXPECT_EQ(call.args.i32(3), c.category);  // with its option bits
  EXPECT_EQ(call.args.i32(4), static_cast<int>(getpid()));
  EXPECT_TRUE(doubles::HasLog(
      "[" + Hex(before + 1) + "] _kova_dbus_method_call() success, method return value is (4242)", doubles::kInfo));
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Rows, CapabilityTableTest, ::testing::Values(
    //       name                        normal category        clock s, ns     facts                  asked  h264
    // Outside normal mode every supported category is asked about.
    CapCase{"policy_active_video",        false, 1000,           100, 0,         kNone,                 true,  false},
    CapCase{"policy_active_audio_early",  false, 2000,           3,   0,         kNone,                 true,  false},
    // Normal mode, audio: only from 21 whole seconds of monotonic time on.
    CapCase{"audio_out_at_20s",           true,  3000,           20,  999999999, kNone,                 false, false},
    CapCase{"audio_out_at_21s",           true,  3000,           21,  0,         kNone,                 true,  false},
    CapCase{"audio_decoder_at_20s",       true,  2000 | kOption, 20,  0,         kInterlaced | kHdmi,   false, false},
    CapCase{"audio_decoder_at_21s",       true,  2000 | kOption, 21,  0,         kNone,                 true,  false},
    // Normal mode, H.264 decoders on a limited model.
    CapCase{"h264_1010_interlaced",       true,  1010,           100, 0,         kInterlaced,           true,  true},
    CapCase{"h264_1011_portrait",         true,  1011,           100, 0,         kPortrait,             true,  true},
    CapCase{"h264_1152_interlaced",       true,  1152,           100, 0,         kInterlaced,           true,  true},
    CapCase{"h264_1153_portrait_masked",  true,  1153 | kOption, 100, 0,         kPortrait,             true,  true},
    // ... not limited: on to the HDMI scaler row.
    CapCase{"h264_unlimited_no_hdmi",     true,  1010,           100, 0,         kNone,                 false, true},
    CapCase{"h264_unlimited_hdmi_device", true,  1010,           100, 0,         kHdmi,                 false, true},
    // Neighbours of the H.264 values do not consult the model.
    CapCase{"video_1012_limited",         true,  1012,           100, 0,         kInterlaced|kPortrait, false, false},
    CapCase{"video_1151_limited",         true,  1151,           100, 0,         kInterlaced|kPortrait, false, false},
    // Normal mode, the HDMI-dedicated scaler on a device that has one.
    CapCase{"hdmi_scaler",                true,  4009,           100, 0,         kHdmi,                 true,  false},
    CapCase{"hdmi_scaler_masked",         true,  4009 | kOption, 100, 0,         kHdmi,                 true,  false},
    CapCase{"other_scaler",               true,  4000,           100, 0,         kHdmi,                 false, false},
    CapCase{"hdmi_scaler_no_hdmi_device", true,  4009,           100, 0,         kNone,                 false, false},
    CapCase{"mjpeg",                      true,  1200,           100, 0,         kHdmi,                 false, false}),
    [](const auto &p) { return std::string(p.param.name); });
// clang-format on

TEST_F(CapabilityTest, InterlacedLimitShortCircuitsThePortraitQuestion) {
  doubles::SetH264InterlacedLimited(true);
  EXPECT_EQ(kova_get_capable_category_id(1, "a", 1010), 4242);
  EXPECT_THAT(doubles::PredicateCalls(),
              ElementsAre("video_decoder 1010", "audio_decoder 1010", "audio_out 1010", "h264_interlaced"));
}

// An unsupported category comes back before the readiness check; a supported
// one while the service is not ready comes back after it, one identifier later.
TEST_F(CapabilityTest, CategoryComesBackUnaskedWhenUnsupportedOrNotReady) {
  const int before = _kova_get_command_id();
  EXPECT_EQ(kova_get_capable_category_id(1, "a", 5000 | kOption), 5000 | kOption);
  EXPECT_THAT(doubles::PredicateCalls(), ElementsAre("video_decoder 5000", "audio_decoder 5000", "audio_out 5000",
                                                     "video_scaler 5000", "mjpeg_decoder 5000"));
  EXPECT_TRUE(doubles::PelkCalls().empty());
  EXPECT_EQ(_kova_get_command_id(), before + 1);
  EXPECT_THAT(doubles::Messages(),
              ElementsAre("player_id(1), app_id(a), category(" + std::to_string(5000 | kOption) + ")"));
  doubles::SetMarker("/tmp/.kova_ready", doubles::Marker::kAbsent);
  for (bool normal : {true, false}) {
    SetMode(normal);
    doubles::ClearLogs();
    const int start = _kova_get_command_id();
    EXPECT_EQ(kova_get_capable_category_id(1, "a", 1000), 1000);
    EXPECT_EQ(_kova_get_command_id(), start + 2);
    EXPECT_THAT(doubles::Messages(), ElementsAre("player_id(1), app_id(a), category(1000)"));
    EXPECT_EQ(doubles::PelkCalls().back().path, "/tmp/.kova_ready");
    EXPECT_EQ(doubles::PelkCalls().back().timeout_ms, 0);
  }
  Sync();
  EXPECT_EQ(service().CallCount(), 0u);
}

TEST_F(CapabilityTest, InvalidArgumentsDependOnTheMode) {
  struct Case {
    const char *app;
    int category;
    bool normal;
    int result;
    const char *log;
  };
  const Case cases[] = {
      {"a", 0, true, 0, "invalid param (1:0)"},
      {"a", 0, false, -4, "invalid param (0:0)"},
      {nullptr, 5, true, 5, "invalid param (1:5)"},
      {nullptr, 5, false, -4, "invalid param (0:5)"},
      {"\xff", 1000, true, 1000, "invalid param (1:1000)"},
  };
  for (const Case &c : cases) {
    SetMode(c.normal);
    doubles::ClearLogs();
    EXPECT_EQ(kova_get_capable_category_id(3, c.app, c.category), c.result) << c.log;
    ASSERT_EQ(doubles::Logs().size(), 2u) << c.log;
    EXPECT_EQ(doubles::Logs()[1].message, c.log);
    EXPECT_EQ(doubles::Logs()[1].priority, doubles::kError);
  }
  EXPECT_EQ(doubles::Messages().front(), "player_id(3), app_id(\xff), category(1000)");
  doubles::ClearLogs();
  kova_get_capable_category_id(3, nullptr, 1);
  EXPECT_EQ(doubles::Messages().front(), "player_id(3), app_id(null), category(1)");
  Sync();
  EXPECT_EQ(service().CallCount(), 0u);
}

TEST_F(CapabilityTest, ServiceAnswersAreReturnedAsTheyCome) {
  SetMode(false);
  service().SetInt("GetCapableCatId", -7);
  EXPECT_EQ(kova_get_capable_category_id(1, "a", 1000), -7);

  for (const Answer &answer :
       {Answer::Error("org.zelta.Error.Failed", "no"), Answer::Value(g_variant_new("(u)", 1u))}) {
    service().Set("GetCapableCatId", answer);
    doubles::ClearLogs();
    EXPECT_EQ(kova_get_capable_category_id(1, "a", 1000), -1);
    EXPECT_TRUE(doubles::HasLog("[" + Hex(LastCall("GetCapableCatId").args.i32(0)) +
                                    "] _kova_dbus_method_call() for GET_CAPABLE_CATEGORY_ID is failed",
                                doubles::kError));
  }
}

}  // namespace
}  // namespace kova_test

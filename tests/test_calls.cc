// The service link, and the calls that decide before asking: readiness, normal mode, the capable category.
#include <gmock/gmock.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "kova_api.h"
#include "kova_private.h"
#include "kova_test.h"

extern "C" const size_t kova_c_api_count;

namespace kova_test {
namespace {

using CallTest = KovaTest;

TEST(CommandId, PidInUpperHalfCounterInLowerSpillingOver) {
  EXPECT_EQ(kova::make_command_id(65536 + 7, 3), 7 * 65536 + 3);  // only the pid's low 16 bits survive
  // The counter is not reduced to 16 bits: from 65536 on it spills into the pid half.
  EXPECT_EQ(kova::make_command_id(101, 65536), kova::make_command_id(101, 0));
  const int first = _kova_get_command_id();
  EXPECT_EQ(static_cast<unsigned>(first) >> 16, static_cast<unsigned>(getpid()) & 0xFFFFu);
  EXPECT_EQ(_kova_get_command_id(), first + 1);
}

TEST_F(CallTest, OnlySynchronousCallsAreBracketedByCpuInheritanceEvenWhenTheyFail) {
  AllowOffInterfaceCalls();  // made-up methods exercise the transport itself
  service().SetInt("Probe", 5);
  GVariant *reply = nullptr;
  ASSERT_EQ(_kova_dbus_method_call("Probe", g_variant_new("(ii)", 1, 2), &reply), 0);
  ASSERT_NE(reply, nullptr);
  g_clear_pointer(&reply, g_variant_unref);
  EXPECT_EQ(LastCall("Probe").args.text(), "(1, 2)");
  const doubles::LogLine line = doubles::Logs().at(0);
  EXPECT_TRUE(line.buffer == 2 && line.tag == "KOVA_API" && line.priority == doubles::kInfo) << line.tag;
  EXPECT_THAT(line.text,
              testing::MatchesRegex(R"(kova_private\.cc: _kova_dbus_method_call\([0-9]+\) > Method call 'Probe')"));

  service().Set("Probe", Answer::Error("org.zelta.Error.Busy", "busy now"));
  EXPECT_EQ(_kova_dbus_method_call("Probe", g_variant_new("(i)", 1), &reply), -1);
  EXPECT_EQ(reply, nullptr);
  EXPECT_TRUE(
      doubles::HasLog("Method Call 'Probe' Failed (GDBus.Error:org.zelta.Error.Busy: busy now)", doubles::kError));

  ASSERT_EQ(_kova_dbus_method_call_async_with_no_reply("Notice", g_variant_new("(is)", 9, "x")), 0);
  Sync();
  EXPECT_TRUE(LastCall("Notice").no_reply_expected);
  EXPECT_THAT(doubles::Timeline(), testing::ElementsAre("set 0 kova 2000", "call Probe", "clear 0 kova",
                                                        "set 0 kova 2000", "call Probe", "clear 0 kova", "call Notice"));
  StopService();  // fire-and-forget needs no service
  EXPECT_EQ(_kova_dbus_method_call_async_with_no_reply("Notice", g_variant_new("(i)", 1)), 0);
}

// The tuple is floating; a refusal must still sink and release it (the sanitizer build's leak check).
TEST_F(CallTest, NullMethodNameIsRefusedAndTheTupleReleased) {
  GVariant *reply = nullptr;
  EXPECT_EQ(_kova_dbus_method_call(nullptr, g_variant_new("(i)", 1), &reply), -1);
  EXPECT_EQ(_kova_dbus_method_call_async_with_no_reply(nullptr, g_variant_new("(i)", 1)), -1);
  EXPECT_EQ(doubles::CountLog("Invalid Argument", doubles::kError), 2);
  Sync();
  EXPECT_EQ(service().CallCount(), 0u);
}

void CountRequest(int, void *user_data) { ++*static_cast<int *>(user_data); }

TEST_F(CallTest, SubscriptionMatchesInterfaceMemberAndPath) {
  int hits = 0;
  const unsigned int id = kova_register_player_video_start_request_callback(CountRequest, &hits);
  service().EmitOnPath("/Other", kServiceInterface, "PlayerVideoStart", g_variant_new("(ii)", 1, 2));
  service().EmitOnPath(kServicePath, "org.other.Interface", "PlayerVideoStart", g_variant_new("(ii)", 1, 2));
  Emit("PlayerVideoStart", g_variant_new("(ii)", 1, 2));
  ASSERT_TRUE(WaitUntil([&] { return hits > 0; }));
  Sync();
  EXPECT_EQ(hits, 1);
  EXPECT_EQ(kova_unregister_player_video_start_request_callback(id), 0);
}

TEST(PublicHeader, CompilesAsCAndLinks) { EXPECT_GT(kova_c_api_count, 0u); }

using ::testing::ElementsAre;

// Registration waits for readiness and fails without it, unsent; the audio out questions answer main at once.
TEST_F(CallTest, OnlyRegistrationWaitsForReadinessAndTheAudioOutQuestionsAnswerMainWithoutIt) {
  EXPECT_EQ(kova_player_register(42, 7), 42);
  EXPECT_EQ(doubles::PelkCalls().at(0).second, 3000);
  doubles::SetMarker("/tmp/.kova_ready", false);
  const int next = _kova_get_command_id() + 1;  // none is spent on the registration never sent
  EXPECT_EQ(kova_player_register(42, 7), -1);
  EXPECT_TRUE(doubles::HasLog("Kova is not ready", doubles::kError));
  kova_audio_out_e play = static_cast<kova_audio_out_e>(9), speaker = play;
  EXPECT_EQ(kova_player_request_play(1, &play), 0);
  EXPECT_EQ(kova_get_extspk_info_audio_out("bar", &speaker), 0);
  EXPECT_EQ(play + speaker, 2 * KOVA_AUDIO_OUT_MAIN);
  EXPECT_TRUE(doubles::HasLog("[" + Hex(next) + "] kova is not ready, return main audio out", doubles::kInfo));
  EXPECT_EQ(doubles::PelkCalls().back().second, 0);
  Sync();
  EXPECT_EQ(service().CallCount(), 1u);
}

TEST_F(CallTest, AudioOutAsksTheResourceManagerInNormalModeAndTheServiceOtherwise) {
  doubles::SetActiveAudioOutMask(3);  // main wins over sub
  kova_player_audio_out_e out = KOVA_PLAYER_AUDIO_OUT_NONE;
  EXPECT_EQ(kova_get_player_audio_out(6, &out), 0);
  EXPECT_EQ(out, KOVA_PLAYER_AUDIO_OUT_MAIN);
  doubles::SetMarker("/tmp/.rsc_policy_activated", true);
  service().SetInt("GetPlayerAudioOut", 2);
  EXPECT_EQ(kova_get_player_audio_out(6, &out), 0);
  EXPECT_EQ(out, KOVA_PLAYER_AUDIO_OUT_SUB);
  EXPECT_THAT(doubles::AudioOutQueries(), ElementsAre(6));  // asked once, in normal mode
}

void OnRequest(int player_id, void *user_data) { static_cast<std::vector<int> *>(user_data)->push_back(player_id); }

#define FAMILY(signal, name) \
  { signal, kova_register_player_##name##_request_callback, kova_unregister_player_##name##_request_callback }
const struct {
  const char *signal;
  unsigned int (*reg)(kova_player_video_request_cb, void *);
  int (*unreg)(unsigned int);
} kFamilies[] = {FAMILY("PlayerVideoStart", video_start), FAMILY("PlayerVideoStop", video_stop),
                 FAMILY("PlayerAudioStart", audio_start), FAMILY("PlayerAudioStop", audio_stop),
                 FAMILY("PlayerAudioResync", audio_resync)};

TEST_F(CallTest, EachRequestSignalReachesOnlyItsOwnCallbackUntilUnregistered) {
  std::vector<int> received[5];
  unsigned int ids[5];
  for (int i = 0; i < 5; ++i) ids[i] = kFamilies[i].reg(OnRequest, &received[i]);
  for (int i = 0; i < 5; ++i) {
    Emit(kFamilies[i].signal, g_variant_new("(ii)", 0x12AB, 7 + i));
    ASSERT_TRUE(WaitUntil([&] { return !received[i].empty(); })) << kFamilies[i].signal;
    EXPECT_EQ(kFamilies[i].unreg(ids[i]), 0);
    Emit(kFamilies[i].signal, g_variant_new("(ii)", 2, 3));
  }
  Sync();
  for (int i = 0; i < 5; ++i) EXPECT_THAT(received[i], ElementsAre(7 + i)) << kFamilies[i].signal;
}

constexpr int kOption = 0x10000;  // an option bit that unmasking removes
constexpr const char *kPolicyMarker = "/tmp/.rsc_policy_activated";  // present: not normal mode

enum Facts : unsigned { kNone = 0, kInterlaced = 1, kPortrait = 2, kHdmi = 4, kPolicyMode = 8 };

// An unsupported category comes back before the readiness check and spends no identifier. A supported one goes
// to the service when the table says; its answer comes back as it is, a failed call as -1.
TEST_F(CallTest, CategoryAsksTheServiceOnlyWhenTheTableSays) {
  doubles::SetOptionMask(kOption);
  doubles::SetCategories(doubles::Predicate::kVideoDecoder, {1000, 1010, 1011, 1012, 1152, 1153});
  doubles::SetCategories(doubles::Predicate::kAudioOut, {3000});
  doubles::SetCategories(doubles::Predicate::kVideoScaler, {4000, 4009});
  doubles::SetCategories(doubles::Predicate::kHdmiDedicatedScaler, {4009});
  service().SetInt("GetCapableCatId", 4242);
  const int before = _kova_get_command_id();
  EXPECT_EQ(kova_get_capable_category_id(1, "a", 5000 | kOption), 5000 | kOption);
  EXPECT_EQ(_kova_get_command_id(), before + 1);
  struct Row { int category; unsigned facts; bool asked; long clock_sec = 100; };
  for (const Row &c : {Row{3000, kPolicyMode, true, 3},                          // outside normal mode: always
                       Row{3000, kNone, false, 20}, Row{3000, kNone, true, 21},  // audio: after 20 whole seconds
                       Row{1010, kInterlaced, true}, Row{1011, kPortrait, true},  // H.264 on a limited model
                       Row{1152, kInterlaced, true}, Row{1153 | kOption, kPortrait, true},
                       Row{1012, kInterlaced | kPortrait, false},  // not one of the H.264 categories
                       Row{4009 | kOption, kHdmi, true},           // the HDMI-dedicated scaler
                       Row{4000, kHdmi, false}, Row{4009, kNone, false}}) {
    doubles::SetMarker(kPolicyMarker, c.facts & kPolicyMode);
    doubles::SetMonotonicSeconds(c.clock_sec);
    doubles::SetModel(c.facts & kHdmi, c.facts & kInterlaced, c.facts & kPortrait);
    EXPECT_EQ(kova_get_capable_category_id(7, "app.c", c.category), c.asked ? 4242 : c.category) << c.clock_sec;
  }
  const Call call = LastCall("GetCapableCatId");  // with the option bits
  EXPECT_EQ(call.args.text(), "(" + std::to_string(call.args.i32(0)) + ", 7, 'app.c', " +
                                  std::to_string(4009 | kOption) + ", " + std::to_string(getpid()) + ")");
  const std::string line = "] _kova_dbus_method_call() ";
  EXPECT_TRUE(doubles::HasLog("[" + Hex(call.args.i32(0)) + line + "success, method return value is (4242)"));
  service().Set("GetCapableCatId", Answer::Error("org.zelta.Error.Failed", "no"));
  EXPECT_EQ(kova_get_capable_category_id(7, "app.c", 3000), -1);
  const std::string failed = "[" + Hex(LastCall("GetCapableCatId").args.i32(0)) + line;
  EXPECT_TRUE(doubles::HasLog(failed + "for GET_CAPABLE_CATEGORY_ID is failed", doubles::kError));
  EXPECT_EQ(kova_get_capable_category_id(3, nullptr, 5), 5);  // no application id: in normal mode, the category
}

}  // namespace
}  // namespace kova_test

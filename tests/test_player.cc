// Player control: lifecycle calls, request notifications, external speakers.
#include <gmock/gmock.h>

#include "kova_api.h"
#include "kova_private.h"
#include "kova_test.h"

namespace kova_test {
namespace {

using ::testing::ElementsAre;

class PlayerTest : public KovaTest {};

TEST_F(PlayerTest, LifecycleCallsDoNotWaitTheOthersMapTheReplyAndOnlyRegistrationNeedsReadiness) {
  service().SetInt("PlayerRequestPlay", 2);
  service().SetInt("GetExtSpkInfoAudioOut", -3);
  service().Set("RegisterExtSpkInfo", Answer::Error("org.zelta.Error.Failed", "no"));
  EXPECT_EQ(kova_player_register(42, 7), 42);  // unscripted, so the service's error goes unseen
  EXPECT_EQ(kova_player_unregister(5), 0);
  kova_audio_out_e play = static_cast<kova_audio_out_e>(9), speaker = play;
  EXPECT_EQ(kova_player_request_play(11, &play), 0);
  EXPECT_EQ(static_cast<int>(play), 2);
  EXPECT_EQ(kova_get_extspk_info_audio_out("bar", &speaker), -3);  // negative answers come back as they are
  EXPECT_EQ(kova_extspk_info_register("bar", 8), -1);
  EXPECT_TRUE(doubles::HasLog("[" + Hex(LastCall("RegisterExtSpkInfo").args.i32(0)) + "] (RegisterExtSpkInfo) failed"));
  std::vector<std::string> wire;  // method and the arguments after the command id
  for (const Call &c : service().Calls()) wire.push_back(c.method + c.args.text().substr(c.args.text().find(',')));
  EXPECT_THAT(wire, ElementsAre("PlayerRegister, 42, 7)", "PlayerUnregister, 5)", "PlayerRequestPlay, 11)",
                                "GetExtSpkInfoAudioOut, 'bar')", "RegisterExtSpkInfo, 'bar', 8)"));

  // Registration waits for readiness and fails without it (unsent); the audio out questions answer main at once.
  EXPECT_EQ(doubles::PelkCalls().at(0).timeout_ms, 3000);
  doubles::SetMarker("/tmp/.kova_ready", doubles::Marker::kAbsent);
  const int next = _kova_get_command_id() + 1;  // none is spent on the registration never sent
  EXPECT_EQ(kova_player_register(42, 7), -1);
  EXPECT_EQ(kova_player_request_play(1, &play), 0);
  EXPECT_EQ(play, KOVA_AUDIO_OUT_MAIN);
  EXPECT_TRUE(doubles::HasLog("[" + Hex(next) + "] kova is not ready, return main audio out", doubles::kInfo));
  EXPECT_EQ(doubles::PelkCalls().back().timeout_ms, 0);
}

TEST_F(PlayerTest, AudioOutAsksTheResourceManagerInNormalModeAndTheServiceOtherwise) {
  doubles::SetActiveAudioOutMask(3);  // main wins over sub
  kova_player_audio_out_e out = KOVA_PLAYER_AUDIO_OUT_NONE;
  EXPECT_EQ(kova_get_player_audio_out(6, &out), 0);
  EXPECT_EQ(out, KOVA_PLAYER_AUDIO_OUT_MAIN);
  doubles::SetMarker("/tmp/.rsc_policy_activated", doubles::Marker::kPresent);
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

TEST_F(PlayerTest, EachRequestSignalReachesOnlyItsOwnCallbackUntilUnregistered) {
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

}  // namespace
}  // namespace kova_test

// Player control: lifecycle calls, request notifications, external speakers.
#include <gmock/gmock.h>

#include "kova_api.h"
#include "kova_private.h"
#include "kova_test.h"

namespace kova_test {
namespace {

using ::testing::ElementsAre;

class PlayerTest : public KovaTest {};

// Registration waits for readiness and fails without it, unsent; the audio out questions answer main at once.
TEST_F(PlayerTest, OnlyRegistrationWaitsForReadinessAndTheAudioOutQuestionsAnswerMainWithoutIt) {
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

TEST_F(PlayerTest, AudioOutAsksTheResourceManagerInNormalModeAndTheServiceOtherwise) {
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

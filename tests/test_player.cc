// Player control: lifecycle calls, request notifications, external speakers.
#include <gmock/gmock.h>

#include "kova_api.h"
#include "kova_private.h"
#include "kova_test.h"

namespace kova_test {
namespace {

using ::testing::ElementsAre;

const Answer kFailed = Answer::Error("org.zelta.Error.Failed", "no");

class PlayerTest : public KovaTest {
 protected:
  // The "[<command id>] " prefix of the last call to a method, and its other arguments.
  std::string Cmd(const char *method) { return "[" + Hex(LastCall(method).args.i32(0)) + "] "; }
  std::string Args(const char *method) {
    const std::string text = LastCall(method).args.text();
    return text.substr(text.find(", ") + 2, text.size() - text.find(", ") - 3);
  }
};

TEST_F(PlayerTest, NothingIsSentForInvalidArgumentsOrWhileTheServiceIsNotReady) {
  EXPECT_EQ(kova_player_request_play(1, nullptr), -1);
  EXPECT_EQ(kova_extspk_info_register("\xff\xfe", 1), -1);  // not UTF-8
  EXPECT_EQ(kova_register_player_audio_resync_request_callback(nullptr, nullptr), 0u);
  EXPECT_EQ(doubles::CountLog("invalid param", doubles::kError), 3);

  // Lifecycle calls do not wait for a reply; only registration waits for readiness.
  EXPECT_EQ(kova_player_register(42, 7), 42);
  EXPECT_EQ(kova_player_unregister(5), 0);
  Sync();
  EXPECT_EQ(Args("PlayerRegister"), "42, 7");
  EXPECT_EQ(Args("PlayerUnregister"), "5");
  EXPECT_TRUE(doubles::HasLog(Cmd("PlayerRegister") + "(PlayerRegister) success :: (0)", doubles::kInfo));
  ASSERT_EQ(doubles::PelkCalls().size(), 1u);
  EXPECT_EQ(doubles::PelkCalls()[0].timeout_ms, 3000);

  // Not ready: registration fails, the audio out questions answer main without waiting.
  doubles::SetMarker("/tmp/.kova_ready", doubles::Marker::kAbsent);
  const int next = _kova_get_command_id() + 1;
  EXPECT_EQ(kova_player_register(42, 7), -1);
  EXPECT_TRUE(doubles::HasLog("Kova is not ready", doubles::kError));
  kova_audio_out_e play = static_cast<kova_audio_out_e>(9), speaker = play;
  EXPECT_EQ(kova_player_request_play(1, &play), 0);
  EXPECT_EQ(kova_get_extspk_info_audio_out("bar", &speaker), 0);
  EXPECT_EQ(play, KOVA_AUDIO_OUT_MAIN);
  EXPECT_EQ(speaker, KOVA_AUDIO_OUT_MAIN);
  // No identifier spent on the registration never sent.
  EXPECT_TRUE(doubles::HasLog("[" + Hex(next) + "] kova is not ready, return main audio out", doubles::kInfo));
  EXPECT_EQ(doubles::PelkCalls().back().timeout_ms, 0);
  Sync();
  EXPECT_EQ(service().CallCount(), 2u);
}

TEST_F(PlayerTest, SynchronousCallsMapTheReply) {
  using Ask = int (*)(kova_audio_out_e *);
  const Ask play = [](kova_audio_out_e *out) { return kova_player_request_play(11, out); };
  const Ask speaker = [](kova_audio_out_e *out) { return kova_get_extspk_info_audio_out("bar", out); };
  const Ask done = [](kova_audio_out_e *) { return kova_player_video_start_done(8); };
  const Ask spk = [](kova_audio_out_e *) { return kova_extspk_info_register("bar", 8); };
  // The stored output is 100 when untouched; the log follows "[<command id>] ".
  const std::tuple<Ask, const char *, const char *, Answer, int, int, const char *> cases[] = {
      {play, "PlayerRequestPlay", "11", Answer::Int(2), 0, 2, "(PlayerRequestPlay) success :: (2)"},
      {play, "PlayerRequestPlay", "11", Answer::Int(-4), -1, 100, "(PlayerRequestPlay) failed -4"},
      {play, "PlayerRequestPlay", "11", Answer::Value(g_variant_new("(s)", "2")), -1, 100,
       "(PlayerRequestPlay) unexpected reply type ((s))"},
      // The other calls give a negative answer back as it is.
      {speaker, "GetExtSpkInfoAudioOut", "'bar'", Answer::Int(-3), -3, 100, "(GetExtSpkInfoAudioOut) success :: (-3)"},
      {done, "PlayerVideoStartDone", "8", Answer::Int(-5), -5, 100, "(PlayerVideoStartDone) success :: (-5)"},
      {spk, "RegisterExtSpkInfo", "'bar', 8", kFailed, -1, 100, "(RegisterExtSpkInfo) failed"},
  };
  for (const auto &[ask, method, args, answer, result, stored, log] : cases) {
    SCOPED_TRACE(log);
    service().Set(method, answer);
    kova_audio_out_e out = static_cast<kova_audio_out_e>(100);
    EXPECT_EQ(ask(&out), result);
    EXPECT_EQ(static_cast<int>(out), stored);
    EXPECT_EQ(Args(method), args);
    EXPECT_EQ(doubles::CountLog(Cmd(method) + log, result == -1 ? doubles::kError : doubles::kInfo), 1);
  }
}

TEST_F(PlayerTest, AudioOutAsksTheResourceManagerInNormalModeAndTheServiceOtherwise) {
  // {mask, result, stored}: main wins over sub; 77 stays untouched.
  const std::tuple<int, int, int> rows[] = {{3, 0, 1}, {2, 0, 2}, {4, 0, 0}, {-1, -1, 77}};
  for (const auto &[mask, result, stored] : rows) {
    SCOPED_TRACE(mask);
    doubles::SetActiveAudioOutMask(mask);
    kova_player_audio_out_e out = static_cast<kova_player_audio_out_e>(77);
    const int next = _kova_get_command_id() + 1;
    EXPECT_EQ(kova_get_player_audio_out(6, &out), result);
    EXPECT_EQ(static_cast<int>(out), stored);
    EXPECT_EQ(_kova_get_command_id(), next + 1);  // an identifier is drawn although nothing is sent
  }
  EXPECT_TRUE(doubles::HasLog("player : 6, active audio out : 2", doubles::kInfo));
  EXPECT_THAT(doubles::AudioOutQueries(), ElementsAre(6, 6, 6, 6));

  doubles::SetMarker("/tmp/.rsc_policy_activated", doubles::Marker::kPresent);
  kova_player_audio_out_e out = KOVA_PLAYER_AUDIO_OUT_NONE;
  service().SetInt("GetPlayerAudioOut", 2);
  EXPECT_EQ(kova_get_player_audio_out(6, &out), 0);
  EXPECT_EQ(out, KOVA_PLAYER_AUDIO_OUT_SUB);
  EXPECT_EQ(Args("GetPlayerAudioOut"), "6");
  EXPECT_EQ(doubles::AudioOutQueries().size(), 4u);
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
#undef FAMILY

TEST_F(PlayerTest, EachRequestSignalReachesOnlyItsOwnCallbackUntilUnregistered) {
  std::vector<int> received[5];
  unsigned int ids[5];
  for (int i = 0; i < 5; ++i) ids[i] = kFamilies[i].reg(OnRequest, &received[i]);
  for (int i = 0; i < 5; ++i) {
    Emit(kFamilies[i].signal, g_variant_new("(ii)", 0x12AB, 7 + i));
    ASSERT_TRUE(WaitUntil([&] { return !received[i].empty(); })) << kFamilies[i].signal;
    EXPECT_TRUE(doubles::HasLog("[000012AB] Signal(org.zelta.tv.system.resource." + std::string(kFamilies[i].signal) +
                                ") Received(" + std::to_string(7 + i) + ")", doubles::kInfo));
    doubles::ClearLogs();
    EXPECT_EQ(kFamilies[i].unreg(ids[i]), 0);
    Emit(kFamilies[i].signal, g_variant_new("(ii)", 2, 3));
  }
  Sync();
  for (int i = 0; i < 5; ++i) EXPECT_THAT(received[i], ElementsAre(7 + i)) << kFamilies[i].signal;
  const std::string id = std::to_string(ids[4]);
  EXPECT_THAT(doubles::Messages(),
              ElementsAre("id (" + id + ")", "unsubscribe start (" + id + ")", "unsubscribe done (" + id + ")"));
}

}  // namespace
}  // namespace kova_test

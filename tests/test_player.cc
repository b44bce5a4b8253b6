// Player control: lifecycle calls, request notifications, external speakers.
// The fixture holds every call's signature and reply-awaited flag to the
// interface file at tear-down, so these tests check the argument values.
#include <gmock/gmock.h>

#include <climits>
#include <functional>

#include "kova_api.h"
#include "kova_private.h"
#include "kova_test.h"

namespace kova_test {
namespace {

using ::testing::ElementsAre;

const Answer kFailed = Answer::Error("org.zelta.Error.Failed", "no");

class PlayerTest : public KovaTest {
 protected:
  // The "[<command id>] " prefix of the last call to a method.
  std::string Cmd(const char *method) { return "[" + Hex(LastCall(method).args.i32(0)) + "] "; }
  void ExpectNothingSent() {
    Sync();
    EXPECT_EQ(service().CallCount(), 0u);
  }
};

TEST_F(PlayerTest, LifecycleCallsAreFireAndForgetAndOnlyRegisterWaitsForReadiness) {
  EXPECT_EQ(kova_player_register(42, 7), 42);
  EXPECT_EQ(kova_player_unregister(5), 0);
  EXPECT_EQ(kova_player_request_stop(5), 0);
  Sync();
  EXPECT_EQ(LastCall("PlayerRegister").args.i32(1), 42);
  EXPECT_EQ(LastCall("PlayerRegister").args.i32(2), 7);
  EXPECT_EQ(LastCall("PlayerUnregister").args.i32(1), 5);
  EXPECT_EQ(LastCall("PlayerRequestStop").args.i32(1), 5);
  ASSERT_EQ(doubles::PelkCalls().size(), 1u);
  EXPECT_EQ(doubles::PelkCalls()[0].path, "/tmp/.kova_ready");
  EXPECT_EQ(doubles::PelkCalls()[0].timeout_ms, 3000);
  EXPECT_TRUE(doubles::HasLog(Cmd("PlayerRegister") + "(PlayerRegister) success :: (0)", doubles::kInfo));

  doubles::SetMarker("/tmp/.kova_ready", doubles::Marker::kAbsent);
  const int before = _kova_get_command_id();
  EXPECT_EQ(kova_player_register(42, 7), -1);
  EXPECT_EQ(_kova_get_command_id(), before + 1);  // no identifier spent on a call never sent
  EXPECT_TRUE(doubles::HasLog("Kova is not ready", doubles::kError));
  Sync();
  EXPECT_EQ(service().CallsTo("PlayerRegister").size(), 1u);
  StopService();
  EXPECT_EQ(kova_player_unregister(5), 0);
  EXPECT_EQ(kova_player_request_stop(5), 0);
}

TEST_F(PlayerTest, PlayRequestAndSpeakerAudioOutMapTheReply) {
  using Ask = int (*)(kova_audio_out_e *);
  const Ask play = [](kova_audio_out_e *out) { return kova_player_request_play(11, out); };
  const Ask speaker = [](kova_audio_out_e *out) { return kova_get_extspk_info_audio_out("bar", out); };
  // The stored output is 100 when untouched; the log follows "[<command id>] ".
  const std::tuple<Ask, const char *, Answer, int, int, const char *> cases[] = {
      {play, "PlayerRequestPlay", Answer::Int(2), 0, 2, "(PlayerRequestPlay) success :: (2)"},
      {play, "PlayerRequestPlay", Answer::Int(-4), -1, 100, "(PlayerRequestPlay) failed -4"},
      {play, "PlayerRequestPlay", kFailed, -1, 100, "(PlayerRequestPlay) failed"},
      {play, "PlayerRequestPlay", Answer::Value(g_variant_new("(s)", "2")), -1, 100,
       "(PlayerRequestPlay) unexpected reply type ((s))"},
      // A speaker's negative answer comes back as it is.
      {speaker, "GetExtSpkInfoAudioOut", Answer::Int(2), 0, 2, "(GetExtSpkInfoAudioOut) success :: (2)"},
      {speaker, "GetExtSpkInfoAudioOut", Answer::Int(-3), -3, 100, "(GetExtSpkInfoAudioOut) success :: (-3)"},
      {speaker, "GetExtSpkInfoAudioOut", kFailed, -1, 100, "(GetExtSpkInfoAudioOut) failed"},
  };
  for (const auto &[ask, method, answer, result, stored, log] : cases) {
    SCOPED_TRACE(log);
    service().Set(method, answer);
    kova_audio_out_e out = static_cast<kova_audio_out_e>(100);
    EXPECT_EQ(ask(&out), result);
    EXPECT_EQ(static_cast<int>(out), stored);
    EXPECT_EQ(LastCall(method).args.child(1).text(), ask == play ? "11" : "'bar'");
    EXPECT_EQ(doubles::CountLog(Cmd(method) + log, result == -1 ? doubles::kError : doubles::kInfo), 1);
  }
}

TEST_F(PlayerTest, AudioOutQuestionsAnswerMainWithoutAskingWhileTheServiceIsNotReady) {
  doubles::SetMarker("/tmp/.kova_ready", doubles::Marker::kAbsent);
  kova_audio_out_e play = static_cast<kova_audio_out_e>(9), speaker = play;
  const int next = _kova_get_command_id() + 1;
  EXPECT_EQ(kova_player_request_play(1, &play), 0);
  EXPECT_EQ(kova_get_extspk_info_audio_out("bar", &speaker), 0);
  EXPECT_EQ(play, KOVA_AUDIO_OUT_MAIN);
  EXPECT_EQ(speaker, KOVA_AUDIO_OUT_MAIN);
  for (int id : {next, next + 1}) {
    EXPECT_TRUE(doubles::HasLog("[" + Hex(id) + "] kova is not ready, return main audio out", doubles::kInfo));
  }
  EXPECT_THAT(doubles::PelkCalls(), ElementsAre(::testing::Field(&doubles::PelkCall::timeout_ms, 0),
                                                ::testing::Field(&doubles::PelkCall::timeout_ms, 0)));  // no wait
  ExpectNothingSent();
}

TEST_F(PlayerTest, AcknowledgementsAndSpeakerCallsReturnTheServiceIntegerUnchanged) {
  const std::tuple<const char *, const char *, std::function<int()>> calls[] = {
      {"PlayerVideoStartDone", "8", [] { return kova_player_video_start_done(8); }},
      {"PlayerVideoStopDone", "8", [] { return kova_player_video_stop_done(8); }},
      {"PlayerAudioStartDone", "8", [] { return kova_player_audio_start_done(8); }},
      {"PlayerAudioStopDone", "8", [] { return kova_player_audio_stop_done(8); }},
      {"RegisterExtSpkInfo", "'bar', 8", [] { return kova_extspk_info_register("bar", 8); }},
      {"UnregisterExtSpkInfo", "'bar', 8", [] { return kova_extspk_info_unregister("bar", 8); }},
  };
  for (const auto &[method, args, call] : calls) {
    SCOPED_TRACE(method);
    const std::string prefix = std::string("(") + method + ") ";
    for (int value : {3, -5}) {
      service().SetInt(method, value);
      EXPECT_EQ(call(), value);
      EXPECT_TRUE(doubles::HasLog(Cmd(method) + prefix + "success :: (" + std::to_string(value) + ")"));
    }
    service().Set(method, kFailed);
    EXPECT_EQ(call(), -1);
    EXPECT_TRUE(doubles::HasLog(Cmd(method) + prefix + "failed", doubles::kError));
    EXPECT_EQ(LastCall(method).args.text(), "(" + std::to_string(LastCall(method).args.i32(0)) + ", " + args + ")");
  }
  EXPECT_TRUE(doubles::PelkCalls().empty());  // no readiness test
}

TEST_F(PlayerTest, AudioOutAsksTheResourceManagerInNormalModeAndTheServiceOtherwise) {
  // Main wins over sub; 77 stays untouched.
  for (auto [mask, result, stored] :
       {std::tuple{3, 0, 1}, std::tuple{2, 0, 2}, std::tuple{4, 0, 0}, std::tuple{-1, -1, 77}}) {
    SCOPED_TRACE(mask);
    doubles::SetActiveAudioOutMask(mask);
    doubles::ClearLogs();
    kova_player_audio_out_e out = static_cast<kova_player_audio_out_e>(77);
    const int next = _kova_get_command_id() + 1;
    EXPECT_EQ(kova_get_player_audio_out(6, &out), result);
    EXPECT_EQ(static_cast<int>(out), stored);
    EXPECT_THAT(doubles::Messages(), ElementsAre("player : 6, active audio out : " + std::to_string(mask)));
    EXPECT_EQ(_kova_get_command_id(), next + 1);  // an identifier is drawn although nothing is sent
  }
  ExpectNothingSent();
  EXPECT_THAT(doubles::AudioOutQueries(), ElementsAre(6, 6, 6, 6));

  doubles::SetMarker("/tmp/.rsc_policy_activated", doubles::Marker::kPresent);
  kova_player_audio_out_e out = KOVA_PLAYER_AUDIO_OUT_NONE;
  service().SetInt("GetPlayerAudioOut", 2);
  EXPECT_EQ(kova_get_player_audio_out(6, &out), 0);
  EXPECT_EQ(out, KOVA_PLAYER_AUDIO_OUT_SUB);
  EXPECT_EQ(LastCall("GetPlayerAudioOut").args.i32(1), 6);
  EXPECT_TRUE(doubles::HasLog(Cmd("GetPlayerAudioOut") + "(GetPlayerAudioOut) success :: (2)"));
  EXPECT_EQ(doubles::AudioOutQueries().size(), 4u);
}

TEST_F(PlayerTest, InvalidArgumentsAreRefusedBeforeAnythingIsSent) {
  kova_audio_out_e out = KOVA_AUDIO_OUT_MAIN;
  const struct {
    std::function<long()> call;
    long result;
    std::vector<std::string> messages;
  } rows[] = {
      {[] { return kova_player_request_play(1, nullptr); }, -1, {">>", "invalid param"}},
      {[] { return kova_get_player_audio_out(6, nullptr); }, -1, {"invalid param"}},  // no entry line
      {[] { return kova_extspk_info_register(nullptr, 1); }, -1, {">>", "invalid param"}},
      {[] { return kova_extspk_info_register("\xff\xfe", 1); }, -1, {">>", "invalid param"}},  // not UTF-8
      {[] { return kova_extspk_info_unregister(nullptr, 1); }, -1, {">>", "invalid param"}},
      {[&] { return kova_get_extspk_info_audio_out(nullptr, &out); }, -1, {">>", "invalid param"}},
      {[] { return kova_get_extspk_info_audio_out("bar", nullptr); }, -1, {">>", "invalid param"}},
      {[] { return kova_register_player_audio_resync_request_callback(nullptr, nullptr); }, 0, {"invalid param"}},
      {[] { return kova_unregister_player_audio_resync_request_callback(0); }, 0, {"id (0)"}},
      {[] { return kova_unregister_player_audio_resync_request_callback(UINT_MAX); }, -1,
       {"id (4294967295)", "invalid param"}},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.messages.back() + " #" + std::to_string(&row - rows));
    doubles::ClearLogs();
    EXPECT_EQ(row.call(), row.result);
    EXPECT_EQ(doubles::Messages(), row.messages);
    const bool refused = row.messages.back() == "invalid param";
    EXPECT_EQ(doubles::Logs().back().priority, refused ? doubles::kError : doubles::kInfo);
  }
  ExpectNothingSent();
  EXPECT_TRUE(doubles::AudioOutQueries().empty());
}

// ---- Request notifications ----

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
  for (int i = 0; i < 5; ++i) {
    const std::string signal = kFamilies[i].signal;
    ids[i] = kFamilies[i].reg(OnRequest, &received[i]);
    EXPECT_TRUE(doubles::HasLog("(" + signal + ") success :: (" + std::to_string(ids[i]) + ")", doubles::kInfo));
  }
  for (int i = 0; i < 5; ++i) {
    const std::string signal = kFamilies[i].signal;
    Emit(signal, g_variant_new("(ii)", 0x12AB, 7 + i));
    ASSERT_TRUE(WaitUntil([&] { return !received[i].empty(); })) << signal;
    EXPECT_TRUE(doubles::HasLog("[000012AB] Signal(org.zelta.tv.system.resource." + signal + ") Received(" +
                                    std::to_string(7 + i) + ")",
                                doubles::kInfo));
  }
  for (int i = 0; i < 5; ++i) {
    const std::string id = std::to_string(ids[i]);
    doubles::ClearLogs();
    EXPECT_EQ(kFamilies[i].unreg(ids[i]), 0);
    EXPECT_THAT(doubles::Messages(), ElementsAre("id (" + id + ")", "unsubscribe start (" + id + ")",
                                                 "unsubscribe done (" + id + ")"));
    Emit(kFamilies[i].signal, g_variant_new("(ii)", 2, 3));
  }
  Sync();
  for (int i = 0; i < 5; ++i) EXPECT_THAT(received[i], ElementsAre(7 + i)) << kFamilies[i].signal;
}

TEST_F(PlayerTest, RegistrationsOfOneSignalAreIndependentAndIgnoreMalformedSignals) {
  std::vector<int> first, second;
  const unsigned int a = kova_register_player_audio_start_request_callback(OnRequest, &first);
  const unsigned int b = kova_register_player_audio_start_request_callback(OnRequest, &second);
  Emit("PlayerAudioStart", g_variant_new("(s)", "7"));
  Emit("PlayerAudioStart", g_variant_new("(iii)", 1, 2, 3));
  Emit("PlayerAudioStart", nullptr);
  Emit("PlayerAudioStart", g_variant_new("(ii)", 1, 5));
  ASSERT_TRUE(WaitUntil([&] { return first.size() == 1 && second.size() == 1; }));
  EXPECT_EQ(doubles::CountLogPrefix("signal (PlayerAudioStart) ignored, unexpected type", doubles::kError), 6);
  EXPECT_EQ(kova_unregister_player_audio_start_request_callback(a), 0);
  Emit("PlayerAudioStart", g_variant_new("(ii)", 1, 6));
  ASSERT_TRUE(WaitUntil([&] { return second.size() == 2; }));
  EXPECT_THAT(first, ElementsAre(5));
  EXPECT_THAT(second, ElementsAre(5, 6));
  EXPECT_EQ(kova_unregister_player_audio_start_request_callback(b), 0);
}

}  // namespace
}  // namespace kova_test

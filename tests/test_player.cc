// Player control: lifecycle calls, request notifications, external speakers.
#include <gmock/gmock.h>

#include <climits>

#include "kova_api.h"
#include "kova_private.h"
#include "kova_test.h"

namespace kova_test {
namespace {

using ::testing::ElementsAre;

class PlayerTest : public KovaTest {};

TEST_F(PlayerTest, RegisterWaitsForReadinessAndSendsFireAndForget) {
  EXPECT_EQ(kova_player_register(42, 7), 42);
  Sync();
  Call call = LastCall("PlayerRegister");
  EXPECT_EQ(call.signature, "(iii)");
  EXPECT_TRUE(call.no_reply_expected);
  EXPECT_EQ(call.args.i32(1), 42);
  EXPECT_EQ(call.args.i32(2), 7);
  const int cmd = call.args.i32(0);
  EXPECT_THAT(doubles::PelkCalls().front().path, "/tmp/.kova_ready");
  EXPECT_EQ(doubles::PelkCalls().front().timeout_ms, 3000);
  EXPECT_TRUE(doubles::HasLog(">>", doubles::kInfo));
  EXPECT_TRUE(doubles::HasLog("[" + Hex(cmd) + "] (PlayerRegister) success :: (0)", doubles::kInfo));
  // Fire-and-forget: no CPU-inheritance bracket.
  EXPECT_THAT(doubles::Timeline(), ElementsAre("call PlayerRegister"));
}

TEST_F(PlayerTest, RegisterWhileNotReadySendsNothingAndTakesNoIdentifier) {
  doubles::SetMarker("/tmp/.kova_ready", doubles::Marker::kAbsent);
  const int before = _kova_get_command_id();
  EXPECT_EQ(kova_player_register(42, 7), -1);
  EXPECT_EQ(_kova_get_command_id(), before + 1);
  EXPECT_TRUE(doubles::HasLog("Kova is not ready", doubles::kError));
  EXPECT_EQ(doubles::PelkCalls().front().timeout_ms, 3000);
  Sync();
  EXPECT_EQ(service().CallCount(), 0u);
}

TEST_F(PlayerTest, RegisterGoesOnWhenTheServiceBecomesReadyDuringTheWait) {
  doubles::SetMarker("/tmp/.kova_ready", doubles::Marker::kPresentAfter, 1200);
  EXPECT_EQ(kova_player_register(3, 0), 3);
  Sync();
  EXPECT_EQ(service().CallsTo("PlayerRegister").size(), 1u);
}

TEST_F(PlayerTest, UnregisterAndStopAreFireAndForgetEvenWithoutService) {
  EXPECT_EQ(kova_player_unregister(5), 0);
  EXPECT_EQ(kova_player_request_stop(5), 0);
  Sync();
  for (const char *method : {"PlayerUnregister", "PlayerRequestStop"}) {
    Call call = LastCall(method);
    EXPECT_EQ(call.signature, "(ii)") << method;
    EXPECT_EQ(call.args.i32(1), 5) << method;
    EXPECT_TRUE(call.no_reply_expected) << method;
  }
  EXPECT_TRUE(doubles::PelkCalls().empty());  // no readiness test
  StopService();
  EXPECT_EQ(kova_player_unregister(5), 0);
  EXPECT_EQ(kova_player_request_stop(5), 0);
}

TEST_F(PlayerTest, PlayRequestWhileNotReadyAnswersMainOutputWithoutAsking) {
  doubles::SetMarker("/tmp/.kova_ready", doubles::Marker::kAbsent);
  kova_audio_out_e out = static_cast<kova_audio_out_e>(9);
  const int next = _kova_get_command_id() + 1;
  EXPECT_EQ(kova_player_request_play(1, &out), 0);
  EXPECT_EQ(out, KOVA_AUDIO_OUT_MAIN);
  EXPECT_TRUE(doubles::HasLog("[" + Hex(next) + "] kova is not ready, return main audio out", doubles::kInfo));
  EXPECT_EQ(doubles::PelkCalls().back().timeout_ms, 0);
  Sync();
  EXPECT_EQ(service().CallCount(), 0u);
}

struct PlayCase {
  const char *name;
  Answer answer;
  int result;
  int stored;  // 100: untouched
  const char *log;  // after the "[<command id>] " of the line
  int priority;
};

void PrintTo(const PlayCase &c, std::ostream *os) { *os << c.name; }

class PlayRequestTest : public KovaTest, public ::testing::WithParamInterface<PlayCase> {};

TEST_P(PlayRequestTest, MapsTheReply) {
  const PlayCase &c = GetParam();
  service().Set("PlayerRequestPlay", c.answer);
  kova_audio_out_e out = static_cast<kova_audio_out_e>(100);
  EXPECT_EQ(kova_player_request_play(11, &out), c.result);
  EXPECT_EQ(static_cast<int>(out), c.stored);
  Call call = LastCall("PlayerRequestPlay");
  EXPECT_EQ(call.signature, "(ii)");
  EXPECT_EQ(call.args.i32(1), 11);
  EXPECT_FALSE(call.no_reply_expected);
  const std::string expected = "[" + Hex(call.args.i32(0)) + "] " + c.log;
  EXPECT_EQ(doubles::CountLog(expected, c.priority), 1) << expected;
  EXPECT_THAT(doubles::Timeline(), ElementsAre("set 0 kova 2000", "call PlayerRequestPlay", "clear 0 kova"));
}

INSTANTIATE_TEST_SUITE_P(
    Replies, PlayRequestTest,
    ::testing::Values(
        PlayCase{"granted_sub", Answer::Int(2), 0, 2, "(PlayerRequestPlay) success :: (2)", doubles::kInfo},
        PlayCase{"granted_main", Answer::Int(1), 0, 1, "(PlayerRequestPlay) success :: (1)", doubles::kInfo},
        PlayCase{"refused", Answer::Int(-4), -1, 100, "(PlayerRequestPlay) failed -4", doubles::kError},
        PlayCase{"error", Answer::Error("org.zelta.Error.Failed", "no"), -1, 100, "(PlayerRequestPlay) failed",
                 doubles::kError},
        PlayCase{"malformed", Answer::Value(g_variant_new("(s)", "2")), -1, 100,
                 "(PlayerRequestPlay) unexpected reply type ((s))", doubles::kError}),
    [](const auto &p) { return std::string(p.param.name); });

TEST_F(PlayerTest, PlayRequestRefusesNullOutput) {
  EXPECT_EQ(kova_player_request_play(1, nullptr), -1);
  EXPECT_TRUE(doubles::HasLog("invalid param", doubles::kError));
  Sync();
  EXPECT_EQ(service().CallCount(), 0u);
}

TEST_F(PlayerTest, AcknowledgementsReturnTheServiceIntegerUnchanged) {
  struct Ack {
    int (*fn)(int);
    const char *method;
  };
  const Ack acks[] = {{kova_player_video_start_done, "PlayerVideoStartDone"},
                      {kova_player_video_stop_done, "PlayerVideoStopDone"},
                      {kova_player_audio_start_done, "PlayerAudioStartDone"},
                      {kova_player_audio_stop_done, "PlayerAudioStopDone"}};
  for (const Ack &ack : acks) {
    for (int value : {0, 3, -5}) {
      service().SetInt(ack.method, value);
      EXPECT_EQ(ack.fn(8), value) << ack.method;
      Call call = LastCall(ack.method);
      EXPECT_EQ(call.signature, "(ii)");
      EXPECT_EQ(call.args.i32(1), 8);
      EXPECT_FALSE(call.no_reply_expected);
      EXPECT_TRUE(doubles::HasLog("[" + Hex(call.args.i32(0)) + "] (" + ack.method + ") success :: (" +
                                  std::to_string(value) + ")"));
    }
    service().Set(ack.method, Answer::Error("org.zelta.Error.Failed", "no"));
    EXPECT_EQ(ack.fn(8), -1) << ack.method;
    EXPECT_TRUE(
        doubles::HasLog("[" + Hex(LastCall(ack.method).args.i32(0)) + "] (" + ack.method + ") failed", doubles::kError));
  }
}

TEST_F(PlayerTest, AudioOutInNormalModeAsksTheResourceManagerOnly) {
  struct MaskCase {
    int mask;
    int result;
    int stored;
  };
  for (const MaskCase &c : {MaskCase{3, 0, 1}, MaskCase{2, 0, 2}, MaskCase{0, 0, 0}, MaskCase{4, 0, 0},
                            MaskCase{1, 0, 1}, MaskCase{-1, -1, 77}}) {
    doubles::SetActiveAudioOutMask(c.mask);
    doubles::ClearLogs();
    kova_player_audio_out_e out = static_cast<kova_player_audio_out_e>(77);
    const int next = _kova_get_command_id() + 1;
    EXPECT_EQ(kova_get_player_audio_out(6, &out), c.result) << c.mask;
    EXPECT_EQ(static_cast<int>(out), c.stored) << c.mask;
    EXPECT_THAT(doubles::Messages(), ElementsAre("player : 6, active audio out : " + std::to_string(c.mask)));
    // An identifier is drawn although nothing is sent.
    EXPECT_EQ(_kova_get_command_id(), next + 1);
  }
  Sync();
  EXPECT_EQ(service().CallCount(), 0u);
  EXPECT_THAT(doubles::AudioOutQueries(), ::testing::Each(6));
}

TEST_F(PlayerTest, AudioOutWithPolicyActiveAsksTheService) {
  doubles::SetMarker("/tmp/.rsc_policy_activated", doubles::Marker::kPresent);
  kova_player_audio_out_e out = KOVA_PLAYER_AUDIO_OUT_NONE;
  service().SetInt("GetPlayerAudioOut", 2);
  EXPECT_EQ(kova_get_player_audio_out(6, &out), 0);
  EXPECT_EQ(out, KOVA_PLAYER_AUDIO_OUT_SUB);
  Call call = LastCall("GetPlayerAudioOut");
  EXPECT_EQ(call.signature, "(ii)");
  EXPECT_EQ(call.args.i32(1), 6);
  EXPECT_TRUE(doubles::HasLog("[" + Hex(call.args.i32(0)) + "] (GetPlayerAudioOut) success :: (2)"));

  service().SetInt("GetPlayerAudioOut", -3);
  EXPECT_EQ(kova_get_player_audio_out(6, &out), -1);
  EXPECT_EQ(out, KOVA_PLAYER_AUDIO_OUT_SUB);
  EXPECT_TRUE(doubles::HasLog("[" + Hex(LastCall("GetPlayerAudioOut").args.i32(0)) + "] (GetPlayerAudioOut) failed -3",
                              doubles::kError));
  EXPECT_TRUE(doubles::AudioOutQueries().empty());
}

TEST_F(PlayerTest, AudioOutRefusesNullOutputWithoutEntryLine) {
  EXPECT_EQ(kova_get_player_audio_out(6, nullptr), -1);
  EXPECT_THAT(doubles::Messages(), ElementsAre("invalid param"));
}

// ---- Request notifications ----

struct Received {
  int calls = 0;
  int player = -1;
  void *seen_user_data = nullptr;
};

void OnRequest(int player_id, void *user_data) {
  auto *r = static_cast<Received *>(user_data);
  ++r->calls;
  r->player = player_id;
  r->seen_user_data = user_data;
}

struct RequestFamily {
  const char *signal;
  unsigned int (*reg)(kova_player_video_request_cb, void *);
  int (*unreg)(unsigned int);
};

const RequestFamily kFamilies[] = {
    {"PlayerVideoStart", kova_register_player_video_start_request_callback,
     kova_unregister_player_video_start_request_callback},
    {"PlayerVideoStop", kova_register_player_video_stop_request_callback,
     kova_unregister_player_video_stop_request_callback},
    {"PlayerAudioStart", kova_register_player_audio_start_request_callback,
     kova_unregister_player_audio_start_request_callback},
    {"PlayerAudioStop", kova_register_player_audio_stop_request_callback,
     kova_unregister_player_audio_stop_request_callback},
    {"PlayerAudioResync", kova_register_player_audio_resync_request_callback,
     kova_unregister_player_audio_resync_request_callback},
};

TEST_F(PlayerTest, EachRequestSignalReachesItsCallbacksOnly) {
  Received received[5];
  unsigned int ids[5];
  for (int i = 0; i < 5; ++i) {
    ids[i] = kFamilies[i].reg(OnRequest, &received[i]);
    ASSERT_NE(ids[i], 0u);
    ASSERT_NE(ids[i], UINT_MAX);
    EXPECT_TRUE(doubles::HasLog(std::string("(") + kFamilies[i].signal + ") success :: (" + std::to_string(ids[i]) +
                                ")", doubles::kInfo));
  }
  for (int i = 0; i < 5; ++i) {
    doubles::ClearLogs();
    Emit(kFamilies[i].signal, g_variant_new("(ii)", 0x12AB, 7 + i));
    ASSERT_TRUE(WaitUntil([&] { return received[i].calls == 1; })) << kFamilies[i].signal;
    EXPECT_EQ(received[i].player, 7 + i);
    EXPECT_EQ(received[i].seen_user_data, &received[i]);
    EXPECT_TRUE(doubles::HasLog(std::string("[000012AB] Signal(org.zelta.tv.system.resource.") + kFamilies[i].signal +
                                ") Received(" + std::to_string(7 + i) + ")", doubles::kInfo));
  }
  Sync();
  for (const Received &r : received) EXPECT_EQ(r.calls, 1);
  for (int i = 0; i < 5; ++i) EXPECT_EQ(kFamilies[i].unreg(ids[i]), 0);
}

TEST_F(PlayerTest, TwoRegistrationsTwoCallsUntilUnregistered) {
  Received stop;
  Received start;
  unsigned int a = kova_register_player_video_stop_request_callback(OnRequest, &stop);
  unsigned int b = kova_register_player_video_stop_request_callback(OnRequest, &stop);
  unsigned int s = kova_register_player_video_start_request_callback(OnRequest, &start);
  EXPECT_NE(a, b);
  Emit("PlayerVideoStop", g_variant_new("(ii)", 1, 3));
  ASSERT_TRUE(WaitUntil([&] { return stop.calls == 2; }));

  doubles::ClearLogs();
  EXPECT_EQ(kova_unregister_player_video_stop_request_callback(a), 0);
  EXPECT_THAT(doubles::Messages(),
              ElementsAre("id (" + std::to_string(a) + ")", "unsubscribe start (" + std::to_string(a) + ")",
                          "unsubscribe done (" + std::to_string(a) + ")"));
  Emit("PlayerVideoStop", g_variant_new("(ii)", 2, 3));
  Emit("PlayerVideoStart", g_variant_new("(ii)", 3, 3));
  ASSERT_TRUE(WaitUntil([&] { return start.calls == 1; }));
  Sync();
  EXPECT_EQ(stop.calls, 3);

  EXPECT_EQ(kova_unregister_player_video_stop_request_callback(b), 0);
  Emit("PlayerVideoStop", g_variant_new("(ii)", 4, 3));
  Sync();
  EXPECT_EQ(stop.calls, 3);
  EXPECT_EQ(kova_unregister_player_video_start_request_callback(s), 0);
}

TEST_F(PlayerTest, RequestRegistrationEdges) {
  EXPECT_EQ(kova_register_player_audio_resync_request_callback(nullptr, nullptr), 0u);
  EXPECT_THAT(doubles::Messages(), ElementsAre("invalid param"));
  doubles::ClearLogs();
  EXPECT_EQ(kova_unregister_player_audio_resync_request_callback(0), 0);
  EXPECT_THAT(doubles::Messages(), ElementsAre("id (0)"));
  doubles::ClearLogs();
  EXPECT_EQ(kova_unregister_player_audio_resync_request_callback(UINT_MAX), -1);
  EXPECT_THAT(doubles::Messages(), ElementsAre("id (4294967295)", "invalid param"));
}

TEST_F(PlayerTest, MalformedRequestSignalIsIgnoredWithAnError) {
  Received r;
  unsigned int id = kova_register_player_audio_start_request_callback(OnRequest, &r);
  Emit("PlayerAudioStart", g_variant_new("(s)", "7"));
  Emit("PlayerAudioStart", g_variant_new("(iii)", 1, 2, 3));
  Emit("PlayerAudioStart", nullptr);
  Sync();
  EXPECT_EQ(r.calls, 0);
  EXPECT_EQ(doubles::CountLogPrefix("signal (PlayerAudioStart) ignored, unexpected type", doubles::kError), 3);
  kova_unregister_player_audio_start_request_callback(id);
}

// ---- External speakers ----

TEST_F(PlayerTest, ExternalSpeakerRegistrationReturnsTheServiceInteger) {
  for (int value : {0, 7, -2}) {
    service().SetInt("RegisterExtSpkInfo", value);
    service().SetInt("UnregisterExtSpkInfo", value);
    EXPECT_EQ(kova_extspk_info_register("bar", 12), value);
    EXPECT_EQ(kova_extspk_info_unregister("bar", 12), value);
  }
  Call call = LastCall("RegisterExtSpkInfo");
  EXPECT_EQ(call.signature, "(isi)");
  EXPECT_EQ(call.args.str(1), "bar");
  EXPECT_EQ(call.args.i32(2), 12);
  EXPECT_TRUE(doubles::HasLog("[" + Hex(call.args.i32(0)) + "] (RegisterExtSpkInfo) success :: (-2)"));
  EXPECT_EQ(LastCall("UnregisterExtSpkInfo").signature, "(isi)");
  EXPECT_TRUE(doubles::PelkCalls().empty());  // no readiness test

  StopService();
  EXPECT_EQ(kova_extspk_info_register("bar", 12), -1);
  EXPECT_EQ(doubles::CountLogPrefix("Method Call 'RegisterExtSpkInfo' Failed", doubles::kError), 1);
  EXPECT_EQ(kova_extspk_info_unregister("bar", 12), -1);
}

TEST_F(PlayerTest, ExternalSpeakerAudioOut) {
  kova_audio_out_e out = static_cast<kova_audio_out_e>(9);
  service().SetInt("GetExtSpkInfoAudioOut", 2);
  EXPECT_EQ(kova_get_extspk_info_audio_out("bar", &out), 0);
  EXPECT_EQ(static_cast<int>(out), 2);
  Call call = LastCall("GetExtSpkInfoAudioOut");
  EXPECT_EQ(call.signature, "(is)");
  EXPECT_EQ(call.args.str(1), "bar");

  service().SetInt("GetExtSpkInfoAudioOut", -3);
  EXPECT_EQ(kova_get_extspk_info_audio_out("bar", &out), -3);
  EXPECT_EQ(static_cast<int>(out), 2);

  service().Set("GetExtSpkInfoAudioOut", Answer::Error("org.zelta.Error.Failed", "no"));
  EXPECT_EQ(kova_get_extspk_info_audio_out("bar", &out), -1);
  EXPECT_EQ(static_cast<int>(out), 2);

  doubles::SetMarker("/tmp/.kova_ready", doubles::Marker::kAbsent);
  service().ClearCalls();
  const int next = _kova_get_command_id() + 1;
  EXPECT_EQ(kova_get_extspk_info_audio_out("bar", &out), 0);
  EXPECT_EQ(out, KOVA_AUDIO_OUT_MAIN);
  EXPECT_TRUE(doubles::HasLog("[" + Hex(next) + "] kova is not ready, return main audio out"));
  Sync();
  EXPECT_EQ(service().CallCount(), 0u);
}

TEST_F(PlayerTest, ExternalSpeakerBadArgumentsSendNothing) {
  kova_audio_out_e out = KOVA_AUDIO_OUT_MAIN;
  EXPECT_EQ(kova_extspk_info_register(nullptr, 1), -1);
  EXPECT_EQ(kova_extspk_info_unregister(nullptr, 1), -1);
  EXPECT_EQ(kova_extspk_info_register("\xff\xfe", 1), -1);  // not UTF-8
  EXPECT_EQ(kova_get_extspk_info_audio_out(nullptr, &out), -1);
  EXPECT_EQ(kova_get_extspk_info_audio_out("bar", nullptr), -1);
  EXPECT_EQ(doubles::CountLog("invalid param", doubles::kError), 5);
  Sync();
  EXPECT_EQ(service().CallCount(), 0u);
}

}  // namespace
}  // namespace kova_test

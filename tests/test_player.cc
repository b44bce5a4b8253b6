// Player control: lifecycle calls, request notifications, external speakers.
#include <gmock/gmock.h>

#include <climits>

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

TEST_F(PlayerTest, RegisterWaitsForReadinessAndSendsFireAndForget) {
  EXPECT_EQ(kova_player_register(42, 7), 42);
  Sync();
  Call call = LastCall("PlayerRegister");
  EXPECT_EQ(call.signature, "(iii)");
  EXPECT_TRUE(call.no_reply_expected);
  EXPECT_EQ(call.args.i32(1), 42);
  EXPECT_EQ(call.args.i32(2), 7);
  EXPECT_EQ(doubles::PelkCalls().front().path, "/tmp/.kova_ready");
  EXPECT_EQ(doubles::PelkCalls().front().timeout_ms, 3000);
  EXPECT_TRUE(doubles::HasLog(">>", doubles::kInfo));
  EXPECT_TRUE(doubles::HasLog(Cmd("PlayerRegister") + "(PlayerRegister) success :: (0)", doubles::kInfo));
  EXPECT_THAT(doubles::Timeline(), ElementsAre("call PlayerRegister"));  // no CPU-inheritance bracket

  // Ready during the wait: goes on.
  doubles::SetMarker("/tmp/.kova_ready", doubles::Marker::kPresentAfter, 1200);
  EXPECT_EQ(kova_player_register(3, 0), 3);
  Sync();
  EXPECT_EQ(service().CallsTo("PlayerRegister").size(), 2u);

  // Never ready: nothing sent, an identifier drawn all the same.
  doubles::SetMarker("/tmp/.kova_ready", doubles::Marker::kAbsent);
  service().ClearCalls();
  const int before = _kova_get_command_id();
  EXPECT_EQ(kova_player_register(42, 7), -1);
  EXPECT_EQ(_kova_get_command_id(), before + 1);
  EXPECT_TRUE(doubles::HasLog("Kova is not ready", doubles::kError));
  EXPECT_EQ(doubles::PelkCalls().back().timeout_ms, 3000);
  ExpectNothingSent();
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

TEST_F(PlayerTest, PlayRequestMapsTheReply) {
  struct Case {
    Answer answer;
    int result;
    int stored;       // 100: untouched
    const char *log;  // after the "[<command id>] " of the line
    int priority;
  };
  const Case cases[] = {
      {Answer::Int(2), 0, 2, "(PlayerRequestPlay) success :: (2)", doubles::kInfo},
      {Answer::Int(1), 0, 1, "(PlayerRequestPlay) success :: (1)", doubles::kInfo},
      {Answer::Int(-4), -1, 100, "(PlayerRequestPlay) failed -4", doubles::kError},
      {kFailed, -1, 100, "(PlayerRequestPlay) failed", doubles::kError},
      {Answer::Value(g_variant_new("(s)", "2")), -1, 100, "(PlayerRequestPlay) unexpected reply type ((s))",
       doubles::kError},
  };
  for (const Case &c : cases) {
    service().Set("PlayerRequestPlay", c.answer);
    kova_audio_out_e out = static_cast<kova_audio_out_e>(100);
    EXPECT_EQ(kova_player_request_play(11, &out), c.result) << c.log;
    EXPECT_EQ(static_cast<int>(out), c.stored) << c.log;
    Call call = LastCall("PlayerRequestPlay");
    EXPECT_EQ(call.signature, "(ii)");
    EXPECT_EQ(call.args.i32(1), 11);
    EXPECT_FALSE(call.no_reply_expected);
    EXPECT_EQ(doubles::CountLog(Cmd("PlayerRequestPlay") + c.log, c.priority), 1) << c.log;
    // Each request is bracketed by CPU inheritance.
    const std::vector<std::string> timeline = doubles::Timeline();
    ASSERT_EQ(timeline.size(), 3 * static_cast<size_t>(&c - cases + 1));
    EXPECT_THAT(std::vector<std::string>(timeline.end() - 3, timeline.end()),
                ElementsAre("set 0 kova 2000", "call PlayerRequestPlay", "clear 0 kova"));
  }

  // Not ready: main output, without asking or waiting.
  doubles::SetMarker("/tmp/.kova_ready", doubles::Marker::kAbsent);
  service().ClearCalls();
  kova_audio_out_e out = static_cast<kova_audio_out_e>(9);
  const int next = _kova_get_command_id() + 1;
  EXPECT_EQ(kova_player_request_play(1, &out), 0);
  EXPECT_EQ(out, KOVA_AUDIO_OUT_MAIN);
  EXPECT_TRUE(doubles::HasLog("[" + Hex(next) + "] kova is not ready, return main audio out", doubles::kInfo));
  EXPECT_EQ(doubles::PelkCalls().back().timeout_ms, 0);
  doubles::ClearLogs();
  EXPECT_EQ(kova_player_request_play(1, nullptr), -1);
  EXPECT_THAT(doubles::Messages(), ElementsAre(">>", "invalid param"));
  EXPECT_EQ(doubles::Logs()[1].priority, doubles::kError);
  ExpectNothingSent();
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
      EXPECT_TRUE(doubles::HasLog(Cmd(ack.method) + "(" + ack.method + ") success :: (" + std::to_string(value) + ")"));
    }
    service().Set(ack.method, kFailed);
    EXPECT_EQ(ack.fn(8), -1) << ack.method;
    EXPECT_TRUE(doubles::HasLog(Cmd(ack.method) + "(" + ack.method + ") failed", doubles::kError));
  }
}

TEST_F(PlayerTest, AudioOutAsksTheResourceManagerInNormalModeAndTheServiceOtherwise) {
  for (auto [mask, result, stored] : {std::tuple{3, 0, 1}, std::tuple{2, 0, 2}, std::tuple{0, 0, 0},
                                      std::tuple{4, 0, 0}, std::tuple{1, 0, 1}, std::tuple{-1, -1, 77}}) {
    doubles::SetActiveAudioOutMask(mask);
    doubles::ClearLogs();
    kova_player_audio_out_e out = static_cast<kova_player_audio_out_e>(77);
    const int next = _kova_get_command_id() + 1;
    EXPECT_EQ(kova_get_player_audio_out(6, &out), result) << mask;
    EXPECT_EQ(static_cast<int>(out), stored) << mask;
    EXPECT_THAT(doubles::Messages(), ElementsAre("player : 6, active audio out : " + std::to_string(mask)));
    EXPECT_EQ(_kova_get_command_id(), next + 1);  // an identifier is drawn although nothing is sent
  }
  doubles::ClearLogs();
  EXPECT_EQ(kova_get_player_audio_out(6, nullptr), -1);
  EXPECT_THAT(doubles::Messages(), ElementsAre("invalid param"));  // no entry line
  ExpectNothingSent();
  EXPECT_THAT(doubles::AudioOutQueries(), ::testing::Each(6));

  doubles::SetMarker("/tmp/.rsc_policy_activated", doubles::Marker::kPresent);
  const size_t asked = doubles::AudioOutQueries().size();
  kova_player_audio_out_e out = KOVA_PLAYER_AUDIO_OUT_NONE;
  service().SetInt("GetPlayerAudioOut", 2);
  EXPECT_EQ(kova_get_player_audio_out(6, &out), 0);
  EXPECT_EQ(out, KOVA_PLAYER_AUDIO_OUT_SUB);
  Call call = LastCall("GetPlayerAudioOut");
  EXPECT_EQ(call.signature, "(ii)");
  EXPECT_EQ(call.args.i32(1), 6);
  EXPECT_TRUE(doubles::HasLog(Cmd("GetPlayerAudioOut") + "(GetPlayerAudioOut) success :: (2)"));
  service().SetInt("GetPlayerAudioOut", -3);
  EXPECT_EQ(kova_get_player_audio_out(6, &out), -1);
  EXPECT_EQ(out, KOVA_PLAYER_AUDIO_OUT_SUB);
  EXPECT_TRUE(doubles::HasLog(Cmd("GetPlayerAudioOut") + "(GetPlayerAudioOut) failed -3", doubles::kError));
  EXPECT_EQ(doubles::AudioOutQueries().size(), asked);
}

// ---- Request notifications ----

struct Received {
  std::vector<int> players;
};

void OnRequest(int player_id, void *user_data) { static_cast<Received *>(user_data)->players.push_back(player_id); }

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

TEST_F(PlayerTest, EachRequestSignalReachesItsCallbacksOnlyUntilUnregistered) {
  // Two registrations of each family, two calls per signal.
  Received received[5];
  unsigned int ids[5][2];
  for (int i = 0; i < 5; ++i) {
    for (unsigned int &id : ids[i]) {
      id = kFamilies[i].reg(OnRequest, &received[i]);
      ASSERT_NE(id, 0u);
      ASSERT_NE(id, UINT_MAX);
      EXPECT_TRUE(doubles::HasLog(std::string("(") + kFamilies[i].signal + ") success :: (" + std::to_string(id) + ")",
                                  doubles::kInfo));
    }
    EXPECT_NE(ids[i][0], ids[i][1]);
  }
  for (int i = 0; i < 5; ++i) {
    doubles::ClearLogs();
    Emit(kFamilies[i].signal, g_variant_new("(ii)", 0x12AB, 7 + i));
    ASSERT_TRUE(WaitUntil([&] { return received[i].players.size() == 2; })) << kFamilies[i].signal;
    EXPECT_THAT(received[i].players, ElementsAre(7 + i, 7 + i));
    EXPECT_EQ(doubles::CountLog(std::string("[000012AB] Signal(org.zelta.tv.system.resource.") + kFamilies[i].signal +
                                    ") Received(" + std::to_string(7 + i) + ")",
                                doubles::kInfo),
              2);
  }
  Sync();
  for (const Received &r : received) EXPECT_EQ(r.players.size(), 2u);

  for (int i = 0; i < 5; ++i) {
    doubles::ClearLogs();
    const std::string a = std::to_string(ids[i][0]);
    EXPECT_EQ(kFamilies[i].unreg(ids[i][0]), 0);
    EXPECT_THAT(doubles::Messages(), ElementsAre("id (" + a + ")", "unsubscribe start (" + a + ")",
                                                 "unsubscribe done (" + a + ")"));
    Emit(kFamilies[i].signal, g_variant_new("(ii)", 2, 3));
    ASSERT_TRUE(WaitUntil([&] { return received[i].players.size() == 3; }));
    EXPECT_EQ(kFamilies[i].unreg(ids[i][1]), 0);
    Emit(kFamilies[i].signal, g_variant_new("(ii)", 4, 3));
  }
  Sync();
  for (const Received &r : received) EXPECT_EQ(r.players.size(), 3u);
}

TEST_F(PlayerTest, RequestRegistrationEdgesAndMalformedSignal) {
  EXPECT_EQ(kova_register_player_audio_resync_request_callback(nullptr, nullptr), 0u);
  EXPECT_THAT(doubles::Messages(), ElementsAre("invalid param"));
  doubles::ClearLogs();
  EXPECT_EQ(kova_unregister_player_audio_resync_request_callback(0), 0);
  EXPECT_THAT(doubles::Messages(), ElementsAre("id (0)"));
  doubles::ClearLogs();
  EXPECT_EQ(kova_unregister_player_audio_resync_request_callback(UINT_MAX), -1);
  EXPECT_THAT(doubles::Messages(), ElementsAre("id (4294967295)", "invalid param"));

  Received r;
  unsigned int id = kova_register_player_audio_start_request_callback(OnRequest, &r);
  Emit("PlayerAudioStart", g_variant_new("(s)", "7"));
  Emit("PlayerAudioStart", g_variant_new("(iii)", 1, 2, 3));
  Emit("PlayerAudioStart", nullptr);
  Sync();
  EXPECT_TRUE(r.players.empty());
  EXPECT_EQ(doubles::CountLogPrefix("signal (PlayerAudioStart) ignored, unexpected type", doubles::kError), 3);
  kova_unregister_player_audio_start_request_callback(id);
}

// ---- External speakers ----

TEST_F(PlayerTest, ExternalSpeakers) {
  for (int value : {0, 7, -2}) {
    service().SetInt("RegisterExtSpkInfo", value);
    service().SetInt("UnregisterExtSpkInfo", value);
    EXPECT_EQ(kova_extspk_info_register("bar", 12), value);
    EXPECT_EQ(kova_extspk_info_unregister("bar", 12), value);
  }
  for (const char *method : {"RegisterExtSpkInfo", "UnregisterExtSpkInfo"}) {
    Call call = LastCall(method);
    EXPECT_EQ(call.signature, "(isi)");
    EXPECT_EQ(call.args.str(1), "bar");
    EXPECT_EQ(call.args.i32(2), 12);
  }
  EXPECT_TRUE(doubles::HasLog(Cmd("RegisterExtSpkInfo") + "(RegisterExtSpkInfo) success :: (-2)"));
  EXPECT_TRUE(doubles::PelkCalls().empty());  // no readiness test

  // The audio out is stored only on a zero answer; other answers come back.
  kova_audio_out_e out = static_cast<kova_audio_out_e>(9);
  for (auto [answer, result] : {std::pair{Answer::Int(2), 0}, std::pair{Answer::Int(-3), -3}, std::pair{kFailed, -1}}) {
    service().Set("GetExtSpkInfoAudioOut", answer);
    EXPECT_EQ(kova_get_extspk_info_audio_out("bar", &out), result);
    EXPECT_EQ(static_cast<int>(out), 2);
  }
  EXPECT_EQ(LastCall("GetExtSpkInfoAudioOut").signature, "(is)");
  EXPECT_EQ(LastCall("GetExtSpkInfoAudioOut").args.str(1), "bar");

  doubles::ClearLogs();
  service().ClearCalls();
  EXPECT_EQ(kova_extspk_info_register(nullptr, 1), -1);
  EXPECT_EQ(kova_extspk_info_unregister(nullptr, 1), -1);
  EXPECT_EQ(kova_extspk_info_register("\xff\xfe", 1), -1);  // not UTF-8
  EXPECT_EQ(kova_get_extspk_info_audio_out(nullptr, &out), -1);
  EXPECT_EQ(kova_get_extspk_info_audio_out("bar", nullptr), -1);
  EXPECT_EQ(doubles::CountLog("invalid param", doubles::kError), 5);
  ExpectNothingSent();

  doubles::SetMarker("/tmp/.kova_ready", doubles::Marker::kAbsent);
  const int next = _kova_get_command_id() + 1;
  EXPECT_EQ(kova_get_extspk_info_audio_out("bar", &out), 0);
  EXPECT_EQ(out, KOVA_AUDIO_OUT_MAIN);
  EXPECT_TRUE(doubles::HasLog("[" + Hex(next) + "] kova is not ready, return main audio out"));
  ExpectNothingSent();

  StopService();
  EXPECT_EQ(kova_extspk_info_register("bar", 12), -1);
  EXPECT_EQ(doubles::CountLogPrefix("Method Call 'RegisterExtSpkInfo' Failed", doubles::kError), 1);
  EXPECT_EQ(kova_extspk_info_unregister("bar", 12), -1);
}

}  // namespace
}  // namespace kova_test

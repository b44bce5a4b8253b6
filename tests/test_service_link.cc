// The service link: command identifiers, the synchronous and fire-and-forget calls with
// their CPU-inheritance bracket, subscriptions and the log line.
#include <gmock/gmock.h>
#include <unistd.h>

#include <regex>
#include <vector>

#include "kova_private.h"
#include "kova_test.h"

extern "C" const size_t kova_c_api_count;

namespace kova_test {
namespace {

using ::testing::ElementsAre;

TEST(CommandId, PidInUpperHalfCounterInLowerSpillingOver) {
  EXPECT_EQ(kova::make_command_id(100, 1), 100 * 65536 + 1);
  EXPECT_EQ(kova::make_command_id(65536 + 7, 3), 7 * 65536 + 3);  // only the pid's low 16 bits survive
  // The counter is not reduced to 16 bits: from 65536 on it spills into the pid half.
  EXPECT_EQ(kova::make_command_id(101, 65536), kova::make_command_id(101, 0));
  const int pid = static_cast<int>(getpid());
  const int first = _kova_get_command_id();
  ASSERT_EQ(static_cast<unsigned>(first) >> 16, static_cast<unsigned>(pid) & 0xFFFFu);
  EXPECT_EQ(_kova_get_command_id(), first + 1);
  // Draw up to counter 65535; the next identifier carries bit 16.
  for (unsigned c = (static_cast<unsigned>(first) & 0xFFFFu) + 2; c < 65536; ++c) _kova_get_command_id();
  EXPECT_EQ(_kova_get_command_id(), static_cast<int>((static_cast<unsigned>(pid) << 16) | 0x10000u));
}

// These tests call made-up methods to exercise the transport itself.
class ServiceLinkTest : public KovaTest {
 protected:
  void SetUp() override {
    KovaTest::SetUp();
    AllowOffInterfaceCalls();
  }
};

TEST_F(ServiceLinkTest, SynchronousCallIsBracketedByCpuInheritanceAndLogged) {
  service().SetInt("Probe", 5);
  GVariant *reply = nullptr;
  ASSERT_EQ(_kova_dbus_method_call("Probe", g_variant_new("(ii)", 1, 2), &reply), 0);
  ASSERT_NE(reply, nullptr);
  g_variant_unref(reply);
  EXPECT_EQ(LastCall("Probe").args.text(), "(1, 2)");
  EXPECT_THAT(doubles::Timeline(), ElementsAre("set 0 kova 2000", "call Probe", "clear 0 kova"));
  const std::vector<doubles::LogLine> lines = doubles::Logs();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].buffer, 2);
  EXPECT_EQ(lines[0].tag, "KOVA_API");
  EXPECT_EQ(lines[0].priority, doubles::kInfo);
  EXPECT_TRUE(std::regex_match(lines[0].text,
                               std::regex(R"(kova_private\.cc: _kova_dbus_method_call\(\d+\) > Method call 'Probe')")))
      << lines[0].text;
}

TEST_F(ServiceLinkTest, FailedSynchronousCallsStillClearInheritance) {
  service().Set("Probe", Answer::Error("org.zelta.Error.Busy", "busy now"));
  GVariant *reply = nullptr;
  EXPECT_EQ(_kova_dbus_method_call("Probe", g_variant_new("(i)", 1), &reply), -1);
  EXPECT_EQ(reply, nullptr);
  EXPECT_TRUE(
      doubles::HasLog("Method Call 'Probe' Failed (GDBus.Error:org.zelta.Error.Busy: busy now)", doubles::kError));
  EXPECT_THAT(doubles::Timeline(), ElementsAre("set 0 kova 2000", "call Probe", "clear 0 kova"));
}

TEST_F(ServiceLinkTest, FireAndForgetIsNotBracketedAndSucceedsWithoutService) {
  ASSERT_EQ(_kova_dbus_method_call_async_with_no_reply("Notice", g_variant_new("(is)", 9, "x")), 0);
  Sync();
  EXPECT_TRUE(LastCall("Notice").no_reply_expected);
  EXPECT_THAT(doubles::Timeline(), ElementsAre("call Notice"));
  StopService();
  EXPECT_EQ(_kova_dbus_method_call_async_with_no_reply("Notice", g_variant_new("(i)", 1)), 0);
}

// The tuple is floating; a refusal must still sink and release it (the
// sanitizer build's leak check).
TEST_F(ServiceLinkTest, NullMethodNameIsRefusedAndTheTupleReleased) {
  GVariant *reply = nullptr;
  EXPECT_EQ(_kova_dbus_method_call(nullptr, g_variant_new("(i)", 1), &reply), -1);
  EXPECT_EQ(_kova_dbus_method_call_async_with_no_reply(nullptr, g_variant_new("(i)", 1)), -1);
  EXPECT_EQ(doubles::CountLog("Invalid Argument", doubles::kError), 2);
  Sync();
  EXPECT_EQ(service().CallCount(), 0u);
}

void CountRequest(int, void *user_data) { ++*static_cast<int *>(user_data); }

TEST_F(ServiceLinkTest, SubscriptionMatchesInterfaceMemberAndPath) {
  int hits = 0;
  doubles::ClearLogs();
  unsigned int id = kova_register_player_video_start_request_callback(CountRequest, &hits);
  ASSERT_NE(id, 0u);
  // The subscription line comes before the bus library is asked.
  EXPECT_EQ(doubles::Messages().front(), "Dbus subscirbe signal PlayerVideoStart");

  Emit("PlayerVideoStart", g_variant_new("(ii)", 1, 2));
  ASSERT_TRUE(WaitUntil([&] { return hits == 1; }));
  service().EmitOnPath("/Other", kServiceInterface, "PlayerVideoStart", g_variant_new("(ii)", 1, 2));
  service().EmitOnPath(kServicePath, "org.other.Interface", "PlayerVideoStart", g_variant_new("(ii)", 1, 2));
  Sync();
  EXPECT_EQ(hits, 1);

  EXPECT_EQ(kova_unregister_player_video_start_request_callback(id), 0);
  // Again: nothing is released twice (the sanitizer build would see it).
  EXPECT_EQ(kova_unregister_player_video_start_request_callback(id), 0);
}

// The fake service holds every call to the interface file: that check must bite.
TEST_F(ServiceLinkTest, FakeServiceFlagsCallsOffTheInterface) {
  GVariant *reply = nullptr;
  _kova_dbus_method_call_async_with_no_reply("PlayerRequestPlay", g_variant_new("(ii)", 1, 2));
  _kova_dbus_method_call("PlayerRegister", g_variant_new("(iii)", 1, 2, 3), &reply);
  _kova_dbus_method_call("GetMaxVideo", g_variant_new("(ii)", 1, 2), &reply);
  _kova_dbus_method_call("Probe", g_variant_new("(i)", 1), &reply);
  Sync();
  EXPECT_THAT(service().InterfaceViolations(),
              ElementsAre("PlayerRequestPlay(ii): does not await the reply",
                          "PlayerRegister(iii): awaits a reply from a NoReply method",
                          "GetMaxVideo(ii): arguments should be (is)", "Probe(i): no such method in the interface"));
}

TEST(PublicHeader, CompilesAsCAndLinks) { EXPECT_GT(kova_c_api_count, 0u); }

}  // namespace
}  // namespace kova_test

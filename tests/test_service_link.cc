// The service link: command identifiers, calls with and without CPU inheritance, subscriptions.
#include <gmock/gmock.h>
#include <unistd.h>

#include "kova_private.h"
#include "kova_test.h"

extern "C" const size_t kova_c_api_count;

namespace kova_test {
namespace {

using ServiceLinkTest = KovaTest;

TEST(CommandId, PidInUpperHalfCounterInLowerSpillingOver) {
  EXPECT_EQ(kova::make_command_id(65536 + 7, 3), 7 * 65536 + 3);  // only the pid's low 16 bits survive
  // The counter is not reduced to 16 bits: from 65536 on it spills into the pid half.
  EXPECT_EQ(kova::make_command_id(101, 65536), kova::make_command_id(101, 0));
  const int first = _kova_get_command_id();
  EXPECT_EQ(static_cast<unsigned>(first) >> 16, static_cast<unsigned>(getpid()) & 0xFFFFu);
  EXPECT_EQ(_kova_get_command_id(), first + 1);
}

TEST_F(ServiceLinkTest, OnlySynchronousCallsAreBracketedByCpuInheritanceEvenWhenTheyFail) {
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

}  // namespace
}  // namespace kova_test

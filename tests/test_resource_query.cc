// The capable-category lookup: decided locally unless the platform's facts send it to the service.
#include <unistd.h>

#include <string>
#include <vector>

#include "kova_api.h"
#include "kova_private.h"
#include "kova_test.h"

namespace kova_test {
namespace {

constexpr int kOption = 0x10000;  // an option bit that unmasking removes
constexpr const char *kPolicyMarker = "/tmp/.rsc_policy_activated";  // present: not normal mode

using QueryTest = KovaTest;

enum Facts : unsigned { kNone = 0, kInterlaced = 1, kPortrait = 2, kHdmi = 4, kPolicyMode = 8 };

// An unsupported category comes back before the readiness check and spends no identifier. A supported one goes
// to the service when the table says; its answer comes back as it is, a failed call as -1.
TEST_F(QueryTest, CategoryAsksTheServiceOnlyWhenTheTableSays) {
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

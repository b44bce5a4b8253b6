// Every refused argument of every exported function: its result, its one error
// line (or none), and nothing sent to the service.
#include <gmock/gmock.h>

#include <climits>
#include <functional>
#include <string>

#include "kova_api.h"
#include "kova_test.h"

namespace kova_test {
namespace {

struct Refusal {
  const char *call;  // for the failure message
  std::function<long long()> run;
  long long result;     // pointers: 0 for null; void functions: 0
  const char *message;  // the error line, or null for none
};

long long P(const void *p) { return p != nullptr ? 1 : 0; }
long long V(void (*f)()) {
  f();
  return 0;
}

void ResourceCb(const char *, kova_resource *, void *) {}
void RezCb(const char *, int, int, int, void *) {}

int w, h, f;
kova_audio_out_e out;
kova_zone *zone_out, zone{1, 2, nullptr};
kova_resource resource{};
constexpr const char *kBadUtf8 = "\xff";

#define R(expr, result, message) \
  Refusal { #expr, [] { return static_cast<long long>(expr); }, result, message }
#define RP(expr, message) \
  Refusal { #expr, [] { return P(expr); }, 0, message }
#define RV(expr, message) \
  Refusal { #expr, [] { return V([] { expr; }); }, 0, message }

const Refusal kRefusals[] = {
    R(kova_player_request_play(1, nullptr), -1, "invalid param"),
    R(kova_get_player_audio_out(1, nullptr), -1, "invalid param"),
    R(kova_extspk_info_register(nullptr, 1), -1, "invalid param"),
    R(kova_extspk_info_register(kBadUtf8, 1), -1, "invalid param"),
    R(kova_extspk_info_unregister(nullptr, 1), -1, "invalid param"),
    R(kova_get_extspk_info_audio_out(nullptr, &out), -1, "invalid param"),
    R(kova_get_extspk_info_audio_out("a", nullptr), -1, "invalid param"),
    R(kova_register_player_video_start_request_callback(nullptr, nullptr), 0, "invalid param"),
    R(kova_register_player_video_stop_request_callback(nullptr, nullptr), 0, "invalid param"),
    R(kova_register_player_audio_start_request_callback(nullptr, nullptr), 0, "invalid param"),
    R(kova_register_player_audio_stop_request_callback(nullptr, nullptr), 0, "invalid param"),
    R(kova_register_player_audio_resync_request_callback(nullptr, nullptr), 0, "invalid param"),
    R(kova_unregister_player_video_start_request_callback(UINT_MAX), -1, "invalid param"),
    R(kova_unregister_player_video_stop_request_callback(UINT_MAX), -1, "invalid param"),
    R(kova_unregister_player_audio_start_request_callback(UINT_MAX), -1, "invalid param"),
    R(kova_unregister_player_audio_stop_request_callback(UINT_MAX), -1, "invalid param"),
    R(kova_unregister_player_audio_resync_request_callback(UINT_MAX), -1, "invalid param"),
    R(kova_unregister_player_audio_resync_request_callback(0), 0, nullptr),
    R(kova_get_zone_list(nullptr), -2, "invalid param"),
    R(kova_get_multiview_zone_list(nullptr), -2, "invalid param"),
    R(kova_get_resource_zone_list(nullptr), -2, "invalid param"),
    R(kova_get_next_zone(nullptr, &zone_out), -2, "invalid param"),
    R(kova_get_next_zone(&zone, nullptr), -2, "invalid param"),
    R(kova_get_prev_zone(nullptr, &zone_out), -1, "invalid param"),
    R(kova_get_prev_zone(&zone, nullptr), -1, "invalid param"),
    RP(kova_resource_zone_list_get_next(nullptr), "invalid param"),
    R(kova_get_zone_id(nullptr, &w), -1, "invalid param"),
    R(kova_get_zone_id(&zone, nullptr), -1, "invalid param"),
    R(kova_zone_get_id(nullptr), -1, "invalid zone"),
    R(kova_zone_get_scaler_id(nullptr), -1, "invalid zone"),
    RP(kova_zone_get_app_id(nullptr), "invalid zone"),
    RV(kova_zone_free(nullptr), "invalid zone"),
    RV(kova_resource_zone_free(nullptr), "invalid zone"),
    R(kova_free_zone_list(nullptr), -2, "invalid param"),
    R(kova_free_resource_zone_list(nullptr), -2, "invalid param"),
    R(kova_resource_zone_get_id(nullptr), -2, nullptr),
    R(kova_resource_zone_get_scaler_id(nullptr), -2, nullptr),
    RP(kova_resource_zone_get_app_id(nullptr), "invalid param"),
    R(kova_set_app_zone_info(nullptr, 1), -1, "invalid param"),
    R(kova_remove_app_zone_info(nullptr, 1), -1, "invalid param"),
    R(kova_set_pre_assigned_app_zone_info(kBadUtf8, 1), -1, "invalid param"),
    R(kova_set_removable_app_zone_info(nullptr, 1), -1, "invalid param"),
    R(kova_get_focused_zone(nullptr), -1, "invalid zone"),
    R(kova_switch_best_quality_zone(-1, 0), -1, "invalid param (-1:0)"),
    R(kova_switch_best_quality_zone(0, -1), -1, "invalid param (0:-1)"),
    R(kova_register_best_quality_zone_switched_callback(nullptr, nullptr), -1, "invalid param"),
    R(kova_get_audio_focus(nullptr), -1, "invalid param"),
    R(kova_get_last_audio_focus(nullptr), -1, "invalid param"),
    R(kova_is_audio_focused(nullptr), -1, "invalid param"),
    R(kova_register_audio_focus_changed_callback(nullptr, nullptr), 0, "invalid param"),
    R(kova_unregister_audio_focus_changed_callback(0), 0, "invalid param"),
    R(kova_subscribe_audio_focus_zone_changed(nullptr, nullptr), 0, "invalid param"),
    R(kova_get_audio_focus_zone(nullptr), -2, nullptr),
    R(kova_register_resource_change_callback(nullptr, ResourceCb, nullptr), -1, "invalid param"),
    R(kova_register_resource_change_callback("a", nullptr, nullptr), -1, "invalid param"),
    R(kova_unregister_resource_change_callback(kBadUtf8, ResourceCb), -1, "invalid param"),
    R(kova_unregister_resource_change_callback("a", nullptr), -1, "invalid param"),
    R(kova_rsc_max_resolution_changed(nullptr), 0, "invalid param"),
    R(kova_rsc_audio_out_changed(nullptr), 0, "invalid param"),
    R(kova_rsc_get_video_max_resolution(nullptr, &w, &h, &f), -1, "invalid param"),
    R(kova_rsc_get_video_max_resolution(&resource, nullptr, &h, &f), -1, "invalid param"),
    R(kova_rsc_get_video_max_resolution(&resource, &w, nullptr, &f), -1, "invalid param"),
    R(kova_rsc_get_video_max_resolution(&resource, &w, &h, nullptr), -1, "invalid param"),
    R(kova_register_max_video_resolution_changed_callback(nullptr, RezCb, nullptr), -1, "invalid param"),
    R(kova_register_max_video_resolution_changed_callback("a", nullptr, nullptr), -1, "invalid param"),
    R(kova_unregister_max_video_resolution_changed_callback(nullptr, RezCb), -1, "invalid param"),
    R(kova_unregister_max_video_resolution_changed_callback("a", nullptr), -1, "invalid param"),
    R(kova_subscribe_max_video_resolution_changed("a", nullptr, nullptr), -1, "invalid param"),
    R(kova_unsubscribe_max_video_resolution_changed(nullptr, RezCb), -1, "invalid param"),
    R(kova_get_max_video_resolution(nullptr, &w, &h, &f), -1, "invalid param"),
    R(kova_get_max_video_resolution("a", nullptr, &h, &f), -1, "invalid param"),
    R(kova_get_max_video_resolution("a", &w, nullptr, &f), -1, "invalid param"),
    R(kova_get_max_video_resolution("a", &w, &h, nullptr), -1, "invalid param"),
    R(kova_get_allowed_max_video_resolution("a", &w, &h, nullptr), -1, "invalid param"),
    R(kova_policy_get_max_resolution(KOVA_RSC_POLICY_GAME, KOVA_VIDEO_CODEC_AV1, nullptr, &h, &f), -1,
      "invalid width"),
    R(kova_policy_get_max_resolution(KOVA_RSC_POLICY_GAME, KOVA_VIDEO_CODEC_AV1, &w, nullptr, &f), -1,
      "invalid height"),
    R(kova_policy_get_max_resolution(KOVA_RSC_POLICY_GAME, KOVA_VIDEO_CODEC_AV1, &w, &h, nullptr), -1,
      "invalid framerate"),
    R(kova_get_capable_category_id(1, nullptr, 5), 5, "invalid param (1:5)"),
    R(kova_get_capable_category_id(1, kBadUtf8, 5), 5, "invalid param (1:5)"),
    R(kova_get_capable_category_id(1, "a", 0), 0, "invalid param (1:0)"),
    R(kova_set_resource_policy(1, nullptr), -1, "invalid policy info"),
    R(kova_set_resource_policy_app_zone_info(1, nullptr), -1, "invalid app_list"),
    R(kova_set_pre_assigned_app_list(nullptr), -1, "invalid app_list"),
    R(kova_register_app_list(1, nullptr), -1, "invalid list"),
    R(kova_unregister_app_list(1, nullptr), -1, "invalid list"),
    R(kova_register_resource_policy_changed_callback(nullptr, nullptr), 0, "invalid cb"),
    R(kova_unregister_resource_policy_changed_callback(0), -1, "invalid param"),
    R(kova_unregister_resource_policy_changed_callback(UINT_MAX), -1, "invalid param"),
    RP(kova_policy_info_create_new(nullptr), "invalid owner name"),
    RP(kova_policy_info_create_new(kBadUtf8), "invalid owner name"),
    R(kova_policy_info_set_app_list(nullptr, nullptr), -1, "invalid policy info"),
    R(kova_policy_info_set_option_remove_all_current_apps(nullptr, true), -1, "invalid policy info"),
    RP(kova_policy_info_get_app_list(nullptr), "invalid policy info"),
    R(kova_policy_info_get_policy(nullptr), -1, "invalid policy info"),
    RV(kova_policy_info_free(nullptr), "invalid policy info"),
    RP(kova_app_list_create_new_app(nullptr), "invalid app id"),
    RP(kova_app_list_insert_app(nullptr, nullptr), "invalid list"),
    RP(kova_app_list_add(nullptr, 1, "a"), "invalid list"),
    RV(kova_app_list_free(nullptr), "invalid list"),
    R(kova_app_list_get_count(nullptr), 0, nullptr),
    RP(kova_app_list_get_first(nullptr), "invalid list"),
    RP(kova_app_list_get_next(nullptr), "invalid list"),
    RP(kova_app_list_get_prev(nullptr), "invalid list"),
    R(kova_app_set_priority_video(nullptr, 1), -1, "invalid app"),
    R(kova_app_set_priority_audio(nullptr, 1), -1, "invalid app"),
    RP(kova_app_get_app_id(nullptr), "invalid app"),
    R(kova_app_get_zone_id(nullptr), 0, "invalid app"),
};

int ErrorLines() { return static_cast<int>(doubles::CountLogPrefix("", doubles::kError)); }

using RefusalTest = KovaTest;

TEST_F(RefusalTest, EveryRefusalAnswersItsResultWithOneLineAndSendsNothing) {
  for (const Refusal &r : kRefusals) {
    const int before = ErrorLines();
    EXPECT_EQ(r.run(), r.result) << r.call;
    EXPECT_EQ(ErrorLines() - before, r.message != nullptr ? 1 : 0) << r.call;
    if (r.message != nullptr && ErrorLines() > before) {
      EXPECT_EQ(doubles::Logs().back().message, r.message) << r.call;
    }
  }
  // Records given a refused second argument stay as they were.
  kova_app_list_h list = kova_app_list_create_new();
  kova_policy_info *info = kova_policy_info_create_new("o");
  EXPECT_EQ(kova_app_list_insert_app(list, nullptr), nullptr);
  EXPECT_EQ(kova_app_list_add(list, 1, kBadUtf8), nullptr);
  EXPECT_EQ(kova_policy_info_set_app_list(info, nullptr), -1);
  ASSERT_EQ(kova_policy_info_set_app_list(info, list), 0);
  EXPECT_EQ(kova_policy_info_set_app_list(info, list), -1);
  EXPECT_EQ(kova_app_list_get_count(list), 0);
  EXPECT_EQ(kova_app_list_get_first(list), nullptr);  // an empty list is no list to walk
  EXPECT_THAT(doubles::Messages(), ::testing::IsSupersetOf({"invalid app", "invalid app id", "invalid app list",
                                                            "app list is already set"}));
  kova_policy_info_free(info);
  const int errors = ErrorLines();
  kova_policy_info_free(kova_policy_info_create_new(""));  // without a list there is no list to free
  EXPECT_EQ(ErrorLines(), errors);
  // In policy mode a refused capable-category lookup answers -4.
  doubles::SetMarker("/tmp/.rsc_policy_activated", true);
  EXPECT_EQ(kova_get_capable_category_id(1, nullptr, 5), -4);
  EXPECT_EQ(doubles::Logs().back().message, "invalid param (0:5)");
  Sync();
  EXPECT_EQ(service().CallCount(), 0u);
}

}  // namespace
}  // namespace kova_test

/* The public header compiles as C, and every declaration links. */
#include "kova_api.h"

#include <stddef.h>

typedef void (*any_fn)(void);

/* Referenced from the C++ tests so that the linker resolves each address. */
const any_fn kova_c_api_table[] = {
    (any_fn)kova_player_register,
    (any_fn)kova_player_unregister,
    (any_fn)kova_player_request_stop,
    (any_fn)kova_player_request_play,
    (any_fn)kova_player_video_start_done,
    (any_fn)kova_player_video_stop_done,
    (any_fn)kova_player_audio_start_done,
    (any_fn)kova_player_audio_stop_done,
    (any_fn)kova_get_player_audio_out,
    (any_fn)kova_register_player_video_start_request_callback,
    (any_fn)kova_unregister_player_video_start_request_callback,
    (any_fn)kova_register_player_video_stop_request_callback,
    (any_fn)kova_unregister_player_video_stop_request_callback,
    (any_fn)kova_register_player_audio_start_request_callback,
    (any_fn)kova_unregister_player_audio_start_request_callback,
    (any_fn)kova_register_player_audio_stop_request_callback,
    (any_fn)kova_unregister_player_audio_stop_request_callback,
    (any_fn)kova_register_player_audio_resync_request_callback,
    (any_fn)kova_unregister_player_audio_resync_request_callback,
    (any_fn)kova_extspk_info_register,
    (any_fn)kova_extspk_info_unregister,
    (any_fn)kova_get_extspk_info_audio_out,
    /* zones and focus */
    (any_fn)kova_get_zone_list,
    (any_fn)kova_get_multiview_zone_list,
    (any_fn)kova_get_next_zone,
    (any_fn)kova_get_prev_zone,
    (any_fn)kova_get_zone_id,
    (any_fn)kova_zone_get_id,
    (any_fn)kova_zone_get_scaler_id,
    (any_fn)kova_zone_get_app_id,
    (any_fn)kova_zone_free,
    (any_fn)kova_free_zone_list,
    (any_fn)kova_get_resource_zone_list,
    (any_fn)kova_resource_zone_list_get_next,
    (any_fn)kova_free_resource_zone_list,
    (any_fn)kova_resource_zone_free,
    (any_fn)kova_resource_zone_get_id,
    (any_fn)kova_resource_zone_get_scaler_id,
    (any_fn)kova_resource_zone_get_app_id,
    (any_fn)kova_set_app_zone_info,
    (any_fn)kova_remove_app_zone_info,
    (any_fn)kova_set_pre_assigned_app_zone_info,
    (any_fn)kova_set_removable_app_zone_info,
    (any_fn)kova_clear_removable_app_zone_info,
    (any_fn)kova_notify_layout_state,
    (any_fn)kova_get_focused_zone,
    (any_fn)kova_switch_best_quality_zone,
    (any_fn)kova_restore_best_quality_zone,
    (any_fn)kova_register_best_quality_zone_switched_callback,
    (any_fn)kova_unregister_best_quality_zone_switched_callback,
    (any_fn)kova_set_audio_focus,
    (any_fn)kova_get_audio_focus,
    (any_fn)kova_get_last_audio_focus,
    (any_fn)kova_is_audio_focused,
    (any_fn)kova_register_audio_focus_changed_callback,
    (any_fn)kova_unregister_audio_focus_changed_callback,
    (any_fn)kova_subscribe_audio_focus_zone_changed,
    (any_fn)kova_unsubscribe_audio_focus_zone_changed,
    (any_fn)kova_get_audio_focus_zone,
    /* resource notifications and capabilities */
    /* resource policy */
};
const size_t kova_c_api_count = sizeof kova_c_api_table / sizeof kova_c_api_table[0];

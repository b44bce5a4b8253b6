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
    /* resource notifications and capabilities */
    /* resource policy */
    (any_fn)kova_app_list_create_new,
    (any_fn)kova_app_list_create_new_app,
    (any_fn)kova_app_list_insert_app,
    (any_fn)kova_app_list_add,
    (any_fn)kova_app_list_free,
    (any_fn)kova_app_list_get_count,
    (any_fn)kova_app_list_get_first,
    (any_fn)kova_app_list_get_next,
    (any_fn)kova_app_list_get_prev,
    (any_fn)kova_app_set_priority_video,
    (any_fn)kova_app_set_priority_audio,
    (any_fn)kova_app_get_app_id,
    (any_fn)kova_app_get_zone_id,
    (any_fn)kova_policy_info_create_new,
    (any_fn)kova_policy_info_set_app_list,
    (any_fn)kova_policy_info_set_option_remove_all_current_apps,
    (any_fn)kova_policy_info_get_app_list,
    (any_fn)kova_policy_info_get_policy,
    (any_fn)kova_policy_info_free,
    (any_fn)kova_set_resource_policy,
    (any_fn)kova_set_resource_policy_internal,
    (any_fn)kova_set_resource_policy_app_zone_info,
    (any_fn)kova_set_pre_assigned_app_list,
    (any_fn)kova_register_app_list,
    (any_fn)kova_unregister_app_list,
    (any_fn)kova_register_resource_policy_changed_callback,
    (any_fn)kova_unregister_resource_policy_changed_callback,
};
const size_t kova_c_api_count = sizeof kova_c_api_table / sizeof kova_c_api_table[0];

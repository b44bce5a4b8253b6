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
    (any_fn)kova_register_resource_change_callback,
    (any_fn)kova_unregister_resource_change_callback,
    (any_fn)kova_rsc_max_resolution_changed,
    (any_fn)kova_rsc_audio_out_changed,
    (any_fn)kova_rsc_get_video_max_resolution,
    (any_fn)kova_register_max_video_resolution_changed_callback,
    (any_fn)kova_unregister_max_video_resolution_changed_callback,
    (any_fn)kova_subscribe_max_video_resolution_changed,
    (any_fn)kova_unsubscribe_max_video_resolution_changed,
    (any_fn)kova_get_max_video_resolution,
    (any_fn)kova_get_allowed_max_video_resolution,
    (any_fn)kova_policy_get_max_resolution,
    (any_fn)kova_get_capable_category_id,
    /* resource policy */
};
const size_t kova_c_api_count = sizeof kova_c_api_table / sizeof kova_c_api_table[0];

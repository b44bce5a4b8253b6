/*
 * libkova-api: client library of the kova resource service.
 *
 * Every function checks its arguments, writes a line to the platform log and
 * either sends one method call to the kova service on the D-Bus system bus or
 * subscribes to one of its signals. Results are int: 0 for success and -1 for
 * failure unless a function says otherwise. No function throws.
 *
 * Threads: any function may be called from any thread. Callbacks run on the
 * thread that iterates the GLib main context that was the thread-default
 * context of the thread that made the subscription, and only while a main loop
 * runs there. The library starts no thread of its own.
 *
 * Strings passed in are copied where the library keeps them and must be
 * NUL-terminated UTF-8; a string that is not valid UTF-8 is refused like a null
 * one ("invalid param" and the function's failure result), since the bus could
 * not carry it.
 */
#ifndef KOVA_API_H
#define KOVA_API_H

#include <stdbool.h>

#ifdef __cplusplus
extern "C" {
#define KOVA_NOTHROW noexcept
#else
#define KOVA_NOTHROW
#endif

#if defined(__GNUC__)
#define KOVA_API __attribute__((visibility("default")))
#else
#define KOVA_API
#endif

/* ======================================================================
 * Player control
 * ====================================================================== */

/* Audio output granted by a play request. Values other than the main output
 * come from the service and are passed through unchanged. */
typedef enum {
  KOVA_AUDIO_OUT_MAIN = 1,
} kova_audio_out_e;

/* A player's current audio output. While the resource policy is active any
 * non-negative value of the service is passed through unchanged. */
typedef enum {
  KOVA_PLAYER_AUDIO_OUT_NONE = 0,
  KOVA_PLAYER_AUDIO_OUT_MAIN = 1,
  KOVA_PLAYER_AUDIO_OUT_SUB = 2,
} kova_player_audio_out_e;

/* Registers player_id with the service (fire-and-forget). Waits up to 3000 ms
 * for the service to be ready first; if it is not, sends nothing.
 * Returns player_id on success (so a player id of -1 cannot be told from a
 * failure), -1 when the service is not ready or the bus is unreachable. */
KOVA_API int kova_player_register(int player_id, int value) KOVA_NOTHROW;

/* Unregisters player_id (fire-and-forget). Returns 0 once the message is handed
 * to the bus, whatever the service then does; -1 without a bus connection. */
KOVA_API int kova_player_unregister(int player_id) KOVA_NOTHROW;

/* Asks the service to stop player_id (fire-and-forget). Results as for
 * kova_player_unregister. */
KOVA_API int kova_player_request_stop(int player_id) KOVA_NOTHROW;

/* Asks permission to play and stores the granted audio output in *audio_out.
 * When the service is not ready, answers KOVA_AUDIO_OUT_MAIN at once without
 * asking it. Returns 0 on success; -1 when the call fails or the service
 * refuses (negative answer), leaving *audio_out untouched.
 * audio_out: out, must not be null (a null pointer is refused with
 * "invalid param" and -1, and nothing is sent). */
KOVA_API int kova_player_request_play(int player_id, kova_audio_out_e *audio_out) KOVA_NOTHROW;

/* Acknowledge a start or stop that the service requested (see the request
 * callbacks below). Each returns the service's integer unchanged, whatever its
 * sign, or -1 when the call fails. */
KOVA_API int kova_player_video_start_done(int player_id) KOVA_NOTHROW;
KOVA_API int kova_player_video_stop_done(int player_id) KOVA_NOTHROW;
KOVA_API int kova_player_audio_start_done(int player_id) KOVA_NOTHROW;
KOVA_API int kova_player_audio_stop_done(int player_id) KOVA_NOTHROW;

/* Stores the player's current audio output in *audio_out. While no resource
 * policy is active the platform resource manager is asked instead of the
 * service (main output wins when both are active). Returns 0 on success, -1 on
 * failure with *audio_out untouched. audio_out: out, must not be null. */
KOVA_API int kova_get_player_audio_out(int player_id, kova_player_audio_out_e *audio_out) KOVA_NOTHROW;

/* Request callbacks: the service asks a player to start or stop its video, or
 * to start, stop or resynchronise its audio. The callback receives the player
 * id named by the request and the user data given at registration. No
 * filtering is done: every request of the kind reaches every callback
 * registered for it, whichever player it names. */
typedef void (*kova_player_video_request_cb)(int player_id, void *user_data);
typedef void (*kova_player_audio_request_cb)(int player_id, void *user_data);

/* Each register function returns a handle: the subscription id (never 0),
 * 0 for a null callback, or all bits set (UINT_MAX) when the subscription
 * could not be made. Registering the same callback twice gives two handles and
 * two calls per request.
 *
 * Each unregister function returns 0 (also for handle 0, without touching the
 * bus), or -1 without a bus connection. The failure handle (all bits set) is
 * refused with "invalid param" and -1, since it names no subscription. */
KOVA_API unsigned int kova_register_player_video_start_request_callback(
    kova_player_video_request_cb callback, void *user_data) KOVA_NOTHROW;
KOVA_API int kova_unregister_player_video_start_request_callback(unsigned int id) KOVA_NOTHROW;
KOVA_API unsigned int kova_register_player_video_stop_request_callback(
    kova_player_video_request_cb callback, void *user_data) KOVA_NOTHROW;
KOVA_API int kova_unregister_player_video_stop_request_callback(unsigned int id) KOVA_NOTHROW;
KOVA_API unsigned int kova_register_player_audio_start_request_callback(
    kova_player_audio_request_cb callback, void *user_data) KOVA_NOTHROW;
KOVA_API int kova_unregister_player_audio_start_request_callback(unsigned int id) KOVA_NOTHROW;
KOVA_API unsigned int kova_register_player_audio_stop_request_callback(
    kova_player_audio_request_cb callback, void *user_data) KOVA_NOTHROW;
KOVA_API int kova_unregister_player_audio_stop_request_callback(unsigned int id) KOVA_NOTHROW;
KOVA_API unsigned int kova_register_player_audio_resync_request_callback(
    kova_player_audio_request_cb callback, void *user_data) KOVA_NOTHROW;
KOVA_API int kova_unregister_player_audio_resync_request_callback(unsigned int id) KOVA_NOTHROW;

/* External speakers. name must be a valid string; a null name (or a null
 * audio_out) is refused with "invalid param" and -1, and nothing is sent.
 * Registration and unregistration return the service's integer unchanged, or
 * -1 when the call fails. */
KOVA_API int kova_extspk_info_register(const char *name, int value) KOVA_NOTHROW;
KOVA_API int kova_extspk_info_unregister(const char *name, int value) KOVA_NOTHROW;

/* Stores the audio output registered for name in *audio_out and returns 0.
 * When the service is not ready, answers KOVA_AUDIO_OUT_MAIN without asking.
 * A negative answer of the service is returned as it came (-1 for a failed
 * call) and *audio_out is left untouched. */
KOVA_API int kova_get_extspk_info_audio_out(const char *name, kova_audio_out_e *audio_out) KOVA_NOTHROW;

/* ======================================================================
 * Zones and focus
 * ====================================================================== */

/* A zone: an area of the screen in a multi-view layout, driven by a scaler and
 * possibly showing one application. Read it through the accessors below.
 * Ownership depends on where the zone came from:
 *  - zones reached by walking a zone list belong to the list and become
 *    invalid when the list is released; never free them;
 *  - a zone returned on its own (kova_get_focused_zone,
 *    kova_get_audio_focus_zone) belongs to the caller, who releases it with
 *    kova_zone_free or kova_resource_zone_free;
 *  - a zone handed to a kova_audio_focus_zone_changed_cb lives only during
 *    that call. */
typedef struct kova_zone {
  int id;        /* zone number, as the service numbers zones */
  int scaler_id; /* scaler of the zone; 0 in multi-view lists */
  char *app_id;  /* application shown in the zone, or NULL */
} kova_zone;

/* ---- Zone lists ----
 * A zone list is an opaque handle (void *) filled in by a list query and
 * released with kova_free_zone_list. It has a single walk position, shared by
 * kova_get_next_zone, kova_get_prev_zone and kova_resource_zone_list_get_next;
 * a new list stands before its first zone. Use a list from one thread at a
 * time. */

/* Fetches the zones of the current layout ("GetMultiviewZoneIds"), in the
 * service's order. zone_list: out, must not be null; written only on success.
 * Returns 0 with a new list owned by the caller; -1 when the call fails, the
 * reply is malformed or the service reports no zones; -2 (with
 * "invalid param") when zone_list is null. */
KOVA_API int kova_get_zone_list(void **zone_list) KOVA_NOTHROW;

/* As kova_get_zone_list, from "GetMultiviewZoneList"; the zones of such a list
 * report scaler_id 0. */
KOVA_API int kova_get_multiview_zone_list(void **zone_list) KOVA_NOTHROW;

/* Moves the walk one zone forward and stores that zone (owned by the list) in
 * *zone. Returns 0; -1 at the end of the list, where the walk stays on the
 * last zone and *zone is untouched; -2 when an argument is null. */
KOVA_API int kova_get_next_zone(void *zone_list, kova_zone **zone) KOVA_NOTHROW;

/* Moves the walk one zone back and stores that zone in *zone. Returns 0; -1
 * when the walk has not started or stands on the first zone (nothing
 * changes), or when an argument is null. */
KOVA_API int kova_get_prev_zone(void *zone_list, kova_zone **zone) KOVA_NOTHROW;

/* Stores the zone's id in *zone_id. Returns 0; -1 when an argument is null. */
KOVA_API int kova_get_zone_id(kova_zone *zone, int *zone_id) KOVA_NOTHROW;

/* Accessors; zone may be null ("invalid zone" is logged). The id and scaler id
 * are -1 for a null zone. The app id is borrowed from the zone and may be
 * NULL; NULL also for a null zone. */
KOVA_API int kova_zone_get_id(kova_zone *zone) KOVA_NOTHROW;
KOVA_API int kova_zone_get_scaler_id(kova_zone *zone) KOVA_NOTHROW;
KOVA_API const char *kova_zone_get_app_id(kova_zone *zone) KOVA_NOTHROW;

/* Releases a zone owned by the caller (not one owned by a list). A null zone
 * is logged ("invalid zone") and ignored. */
KOVA_API void kova_zone_free(kova_zone *zone) KOVA_NOTHROW;

/* Releases a list and all its zones. Returns 0; -2 when zone_list is null. */
KOVA_API int kova_free_zone_list(void *zone_list) KOVA_NOTHROW;

/* ---- Resource zones: the same records and lists under a second set of names ---- */

/* Exactly kova_get_zone_list. */
KOVA_API int kova_get_resource_zone_list(void **zone_list) KOVA_NOTHROW;
/* Moves the shared walk one zone forward and returns that zone (owned by the
 * list); NULL at the end of the list (the walk stays on the last zone) or for
 * a null list. */
KOVA_API kova_zone *kova_resource_zone_list_get_next(void *zone_list) KOVA_NOTHROW;
/* Exactly kova_free_zone_list. */
KOVA_API int kova_free_resource_zone_list(void *zone_list) KOVA_NOTHROW;
/* Exactly kova_zone_free. */
KOVA_API void kova_resource_zone_free(kova_zone *zone) KOVA_NOTHROW;
/* As kova_zone_get_id / kova_zone_get_scaler_id, but a null zone gives -2
 * without a log line. */
KOVA_API int kova_resource_zone_get_id(kova_zone *zone) KOVA_NOTHROW;
KOVA_API int kova_resource_zone_get_scaler_id(kova_zone *zone) KOVA_NOTHROW;
/* As kova_zone_get_app_id; a null zone gives NULL with "invalid param". */
KOVA_API const char *kova_resource_zone_get_app_id(kova_zone *zone) KOVA_NOTHROW;

/* ---- Assignment and layout ----
 * app_id must be a valid string: null (or non-UTF-8) is refused with
 * "invalid param" and -1, and nothing is sent. Zone ids are never checked and
 * reach the service unchanged. */

/* Assigns app_id to zone_id, removes it from the zone, or pre-assigns it.
 * Synchronous; 0 when the service answers 0, -1 otherwise. */
KOVA_API int kova_set_app_zone_info(const char *app_id, int zone_id) KOVA_NOTHROW;
KOVA_API int kova_remove_app_zone_info(const char *app_id, int zone_id) KOVA_NOTHROW;
KOVA_API int kova_set_pre_assigned_app_zone_info(const char *app_id, int zone_id) KOVA_NOTHROW;

/* Marks app_id removable from zone_id, or clears every removable mark.
 * Fire-and-forget: 0 once the message is handed to the bus, whatever the
 * service then does; -1 without a bus connection. */
KOVA_API int kova_set_removable_app_zone_info(const char *app_id, int zone_id) KOVA_NOTHROW;
KOVA_API int kova_clear_removable_app_zone_info(void) KOVA_NOTHROW;

/* State of the screen layout, in the service's numbering. Any value, also one
 * not listed here, is sent to the service unchanged. */
typedef enum {
  KOVA_LAYOUT_STATE_NONE = 0,      /* no layout shown */
  KOVA_LAYOUT_STATE_SINGLE = 1,    /* one application on the whole screen */
  KOVA_LAYOUT_STATE_MULTIVIEW = 2, /* several zones on screen */
  KOVA_LAYOUT_STATE_CHANGING = 3,  /* a layout change is in progress */
  /* Not states: they make every int, negative ones too, a valid value in C++. */
  KOVA_LAYOUT_STATE_FORCE_INT_MIN = -0x7FFFFFFF - 1,
  KOVA_LAYOUT_STATE_FORCE_INT = 0x7FFFFFFF,
} kova_layout_state_e;

/* Reports the layout state. Synchronous; 0 when the service answers 0, -1
 * otherwise. */
KOVA_API int kova_notify_layout_state(kova_layout_state_e state) KOVA_NOTHROW;

/* Stores the focused zone in *zone: a new record owned by the caller, to be
 * released with kova_zone_free. zone: out, must not be null (refused with
 * "invalid zone" and -1). Returns 0; -1 when the call fails or the reply is
 * malformed, leaving *zone untouched. */
KOVA_API int kova_get_focused_zone(kova_zone **zone) KOVA_NOTHROW;

/* ---- Best-quality zone ---- */

/* Asks the service to switch the best-quality zone; both arguments are
 * forwarded in order and must not be negative (refused with -1, nothing
 * sent). Returns the service's integer unchanged, or -1 when the call fails. */
KOVA_API int kova_switch_best_quality_zone(int first, int second) KOVA_NOTHROW;
/* Asks the service to restore the best-quality zone. Returns the service's
 * integer unchanged, or -1 when the call fails. */
KOVA_API int kova_restore_best_quality_zone(void) KOVA_NOTHROW;

/* Called with the three integers of a best-quality-zone switch, in the order
 * the service sends them, and the user data of the registration. */
typedef void (*kova_best_quality_zone_switched_cb)(int first, int second, int third, void *user_data);

/* Registers callback for best-quality-zone switches. A function is registered
 * at most once; its identity is the function pointer, user data takes no part.
 * All registrations share one subscription, made by the first one.
 * Callbacks may register and unregister callbacks, themselves included, while
 * they are called; one registered during a call is first called for the next
 * switch. callback must not be null (refused with "invalid param" and -1).
 * Returns 0; -1 when callback is already registered or the subscription
 * cannot be made. */
KOVA_API int kova_register_best_quality_zone_switched_callback(kova_best_quality_zone_switched_cb callback,
                                                               void *user_data) KOVA_NOTHROW;

/* Unregisters callback; the last unregistration drops the subscription.
 * Returns 0; -1 when callback is not registered or the subscription cannot be
 * dropped (no bus connection; the callback is unregistered all the same).
 * While a switch is being delivered, unregistering a callback of that delivery
 * returns 0 at once: the callback is not called again (if its turn has not
 * come it is skipped), and its record goes when the delivery ends. Registering
 * it again before then keeps its place in the delivery, with the new user
 * data. */
KOVA_API int kova_unregister_best_quality_zone_switched_callback(kova_best_quality_zone_switched_cb callback)
    KOVA_NOTHROW;

/* ---- Audio focus ----
 * The audio focus is a zone id, forwarded and returned unchanged. */

/* Sets the audio focus. Returns 0 when the service answers 0, -1 otherwise. */
KOVA_API int kova_set_audio_focus(int focus) KOVA_NOTHROW;

/* Store the current / last audio focus in *focus. focus: out, must not be
 * null ("invalid param", -1). Returns 0; -1 when the call fails or the service
 * answers 0 (no focus), leaving *focus untouched. */
KOVA_API int kova_get_audio_focus(int *focus) KOVA_NOTHROW;
KOVA_API int kova_get_last_audio_focus(int *focus) KOVA_NOTHROW;

/* Asks whether app_id holds the audio focus. Returns the service's integer
 * unchanged; -1 for a null app_id or a failed call. */
KOVA_API int kova_is_audio_focused(const char *app_id) KOVA_NOTHROW;

/* Registers callback for audio focus changes; it receives the zone id of the
 * focused zone. Each registration is its own subscription. Returns the
 * subscription id; 0 for a null callback; all bits set (UINT_MAX) when the
 * subscription cannot be made. */
KOVA_API unsigned int kova_register_audio_focus_changed_callback(kova_player_audio_request_cb callback,
                                                                 void *user_data) KOVA_NOTHROW;
/* Drops a registration. Returns 0 (also for an id that is not subscribed,
 * which is handed to the bus unchanged); 0 with "invalid param" for id 0,
 * without touching the bus; -1 without a bus connection. */
KOVA_API int kova_unregister_audio_focus_changed_callback(unsigned int id) KOVA_NOTHROW;

/* ---- Audio focus zone ---- */

/* Called on each audio focus change with the focused zone. The zone lives only
 * during the call: copy what you need, never free it. */
typedef void (*kova_audio_focus_zone_changed_cb)(kova_zone *zone, void *user_data);

/* Subscribes callback to audio focus changes (the same changes that
 * kova_register_audio_focus_changed_callback reports). Returns the
 * subscription id; 0 for a null callback or when the subscription cannot be
 * made. */
KOVA_API unsigned int kova_subscribe_audio_focus_zone_changed(kova_audio_focus_zone_changed_cb callback,
                                                              void *user_data) KOVA_NOTHROW;
/* Drops a subscription; the id, 0 included, is handed to the bus unchecked.
 * Returns 0; -1 without a bus connection. */
KOVA_API int kova_unsubscribe_audio_focus_zone_changed(unsigned int id) KOVA_NOTHROW;

/* Stores the current audio focus zone in *zone: a new record owned by the
 * caller (kova_zone_free). Returns 0; -1 when the query fails (*zone
 * untouched); -2 without a log line when zone is null. */
KOVA_API int kova_get_audio_focus_zone(kova_zone **zone) KOVA_NOTHROW;

/* ======================================================================
 * Resource notifications and capabilities
 * ====================================================================== */

/* ======================================================================
 * Resource policy
 * ====================================================================== */

#ifdef __cplusplus
}
#endif

#endif /* KOVA_API_H */

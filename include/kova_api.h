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

/* ======================================================================
 * Resource notifications and capabilities
 * ====================================================================== */

/* ======================================================================
 * Resource policy
 * ====================================================================== */

/* Records of this section are plain structures: their fields may be read, but
 * they are changed only through the functions below. Records and lists handed
 * to the caller are released with the matching *_free function; pointers read
 * out of them are borrowed. Strings given to these functions are copied and
 * must be NUL-terminated UTF-8: a string that is not valid UTF-8 is refused
 * like a null one, with the same message and result. */

/* One application: the zone it is placed in and its priorities. */
typedef struct kova_app {
  int zone_id;        /* 0 unless the record was made by kova_app_list_add */
  char *app_id;       /* owned copy of the application id */
  int priority_video; /* 0 until kova_app_set_priority_video */
  int priority_audio; /* 0 until kova_app_set_priority_audio */
} kova_app;

/* An ordered list of applications with a walk position. The list owns its
 * records. None of the list functions locks: a list belongs to one thread at a
 * time, and the calls that send a list move its walk position. */
typedef struct kova_app_list {
  int count;          /* number of applications */
  struct _GList *list; /* of kova_app *, in insertion order; null while empty */
  struct _GList *iter; /* walk position; null while empty */
} kova_app_list;

typedef kova_app_list *kova_app_list_h;

/* Creates an empty list. Never returns null (running out of memory ends the
 * process). Release it with kova_app_list_free. */
KOVA_API kova_app_list *kova_app_list_create_new(void) KOVA_NOTHROW;

/* Creates an application record holding a copy of app_id, in zone 0, with both
 * priorities 0, in no list. It is the caller's until kova_app_list_insert_app
 * succeeds. Returns null with "invalid app id" when app_id is null or not UTF-8.
 * A record that is never inserted is the caller's to release with free() after
 * freeing its app_id. */
KOVA_API kova_app *kova_app_list_create_new_app(const char *app_id) KOVA_NOTHROW;

/* Appends app at the tail of app_list, which then owns it; insert a record into
 * one list, once. The count is recomputed and the walk position goes back to
 * the first application. Returns app_list, or null with "invalid list" (null
 * list, checked first) or "invalid app" (null app); on failure the list is
 * unchanged and app stays the caller's. */
KOVA_API kova_app_list_h kova_app_list_insert_app(kova_app_list_h app_list, kova_app *app) KOVA_NOTHROW;

/* Appends a new record with zone_id, a copy of app_id and both priorities 0;
 * the count and the walk position are updated as for kova_app_list_insert_app.
 * Duplicates are not checked. Returns app_list, or null with "invalid list"
 * (null list, checked first) or "invalid app id" (null or non-UTF-8 app_id),
 * leaving the list unchanged. */
KOVA_API kova_app_list_h kova_app_list_add(kova_app_list_h app_list, int zone_id, const char *app_id) KOVA_NOTHROW;

/* Releases the list with all its records and their ids. A null list is
 * refused with "invalid list". */
KOVA_API void kova_app_list_free(kova_app_list_h app_list) KOVA_NOTHROW;

/* Number of applications; 0 for a null list, without a log line. */
KOVA_API int kova_app_list_get_count(kova_app_list_h app_list) KOVA_NOTHROW;

/* The walk: get_first, then get_next until it returns null. Each returns the
 * application (borrowed, valid until the list is freed) and makes it the walk
 * position, or returns null without moving it, with the error line "invalid
 * list" (null or empty list), "invalid inter" (no walk position), "no first
 * app", "no next app" (at the last application) or "no prev app" (at the
 * first). A complete walk therefore ends with one "no next app" line. */
KOVA_API kova_app *kova_app_list_get_first(kova_app_list_h app_list) KOVA_NOTHROW;
KOVA_API kova_app *kova_app_list_get_next(kova_app_list_h app_list) KOVA_NOTHROW;
KOVA_API kova_app *kova_app_list_get_prev(kova_app_list_h app_list) KOVA_NOTHROW;

/* Store a priority (any int, stored unchanged). Return 0, or -1 with
 * "invalid app" for a null record. */
KOVA_API int kova_app_set_priority_video(kova_app *app, int priority) KOVA_NOTHROW;
KOVA_API int kova_app_set_priority_audio(kova_app *app, int priority) KOVA_NOTHROW;

/* The record's own application id (not a copy; do not free it), or null with
 * "invalid app" for a null record. */
KOVA_API const char *kova_app_get_app_id(const kova_app *app) KOVA_NOTHROW;

/* The record's zone, or 0 with "invalid app" for a null record. */
KOVA_API int kova_app_get_zone_id(const kova_app *app) KOVA_NOTHROW;

/* What an application that sets the resource policy says about itself; also
 * the record that a policy-change callback receives. */
typedef struct kova_policy_info {
  int policy;               /* 0 in a created record; the new policy in a notification */
  kova_app_list *app_list;  /* attached list, owned by the record, or null */
  char *owner_name;         /* owned copy; null in a notification record */
  bool remove_all_current_apps;
} kova_policy_info;

/* Creates a record with a copy of owner_name (an empty name is accepted),
 * policy 0, no list and the option off. Returns null with "invalid owner name"
 * when owner_name is null or not UTF-8. Release it with kova_policy_info_free. */
KOVA_API kova_policy_info *kova_policy_info_create_new(const char *owner_name) KOVA_NOTHROW;

/* Attaches app_list, which from then on belongs to the record (do not free it
 * yourself). Returns 0, or -1 with "invalid policy info" (null record),
 * "invalid app list" (null list) or "app list is already set" (a list can be
 * attached once; the rejected list stays the caller's). */
KOVA_API int kova_policy_info_set_app_list(kova_policy_info *info, kova_app_list_h app_list) KOVA_NOTHROW;

/* Stores the option to remove all current applications; the service decides
 * what it does. Returns 0, or -1 with "invalid policy info" for a null record. */
KOVA_API int kova_policy_info_set_option_remove_all_current_apps(kova_policy_info *info,
                                                                 bool remove_all) KOVA_NOTHROW;

/* The attached list (still owned by the record) or null; null with "invalid
 * policy info" for a null record. */
KOVA_API kova_app_list_h kova_policy_info_get_app_list(const kova_policy_info *info) KOVA_NOTHROW;

/* The record's policy, or -1 with "invalid policy info" for a null record (so
 * a policy of -1 cannot be told from a null record). */
KOVA_API int kova_policy_info_get_policy(const kova_policy_info *info) KOVA_NOTHROW;

/* Releases the record, its attached list and its owner name. A null record is
 * refused with "invalid policy info". */
KOVA_API void kova_policy_info_free(kova_policy_info *info) KOVA_NOTHROW;

/* The sends below are synchronous calls that do not wait for the service to be
 * ready. Each returns 0 when the service answers 0, and -1 when the call fails
 * or the service answers anything else (its value is only logged). The lists
 * given are only read, but their walk position ends on the last application;
 * they stay the caller's. */

/* Sets policy (forwarded unchecked) on behalf of info's owner, with info's
 * option. Without applications (no list, or an empty one) the owner alone is
 * sent; otherwise the applications with their priorities go too. The record's
 * own policy field is not used, and the record is neither kept nor freed. A
 * record without an owner name (a notification record) is sent with an empty
 * one. A null info is refused with "invalid policy info" and -1. */
KOVA_API int kova_set_resource_policy(int policy, kova_policy_info *info) KOVA_NOTHROW;

/* Sets policy without owner or applications; the value travels unsigned. */
KOVA_API int kova_set_resource_policy_internal(int policy) KOVA_NOTHROW;

/* Sets policy with the applications of app_list and their zones. An empty list
 * is sent as such. A null list is refused with "invalid app_list" and -1. */
KOVA_API int kova_set_resource_policy_app_zone_info(int policy, kova_app_list_h app_list) KOVA_NOTHROW;

/* Tells the service which zones the applications of app_list are assigned to
 * beforehand. A null list is refused with "invalid app_list" and -1. */
KOVA_API int kova_set_pre_assigned_app_list(kova_app_list_h app_list) KOVA_NOTHROW;

/* Register or unregister the applications of app_list with the service under
 * list_type (forwarded unchanged); registration carries their priorities. A
 * null list is refused with "invalid list" and -1. */
KOVA_API int kova_register_app_list(int list_type, kova_app_list_h app_list) KOVA_NOTHROW;
KOVA_API int kova_unregister_app_list(int list_type, kova_app_list_h app_list) KOVA_NOTHROW;

/* Called for each policy change the service announces. info holds the new
 * policy and a list of the applications that go with it (zone and id each,
 * priorities 0; an empty list, never a null one, when there are none). info and
 * its list live only during the call: read them, do not keep or free them. */
typedef void (*kova_policy_changed_cb)(kova_policy_info *info, void *user_data);

/* Returns the handle of a new registration (each registration is called once
 * per change, also for the same callback), 0 with "invalid cb" for a null
 * callback, or all bits set (UINT_MAX) when the subscription failed. */
KOVA_API unsigned int kova_register_resource_policy_changed_callback(kova_policy_changed_cb callback,
                                                                     void *user_data) KOVA_NOTHROW;

/* Ends a registration: 0, or -1 without a bus connection. Handles 0 and
 * UINT_MAX name no registration and are refused with "invalid param" and -1. */
KOVA_API int kova_unregister_resource_policy_changed_callback(unsigned int subscription_id) KOVA_NOTHROW;

#ifdef __cplusplus
}
#endif

#endif /* KOVA_API_H */

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
 * Unregistration is a barrier. Once an unregister (or unsubscribe) function
 * returns on a thread other than the one delivering callbacks, no callback of
 * that registration is running and none will start, so its user data may be
 * freed. It waits for that registration's own callback only, never for the
 * rest of a delivery. Called from inside a callback (on the delivering thread,
 * for itself or another registration) it returns at once without waiting. The
 * one rule: a callback must not wait for a thread that is unregistering that
 * same callback; both would wait for ever.
 *
 * The process that loads the library:
 *  - Connection. The library uses the process's shared system-bus connection
 *    (the one g_bus_get_sync(G_BUS_TYPE_SYSTEM) gives everyone in the
 *    process) and keeps it for the life of the process. GLib sets that
 *    connection to end the process when the bus goes away; a program that
 *    must outlive a bus restart turns this off with
 *    g_dbus_connection_set_exit_on_close(). After a bus restart the cached
 *    connection stays closed: every call fails with -1 and every subscription
 *    is silent until the process starts again.
 *  - Service restart. The kova service forgets every registration when it
 *    restarts; subscriptions to its signals keep working (they match any
 *    sender). Players register again with kova_player_register. The
 *    per-application registries (resource change, maximum resolution) still
 *    hold their entries, so registering the same application id again answers
 *    -1 ("already registered"): unregister it first, then register it again.
 *    Watch the name "org.zelta.tv.system.resource" on the system bus (for
 *    instance with g_bus_watch_name) to learn of a restart.
 *  - Main loop. Signals that arrive for a subscription wait, one queued
 *    dispatch each, in the subscribing thread's thread-default main context
 *    until a main loop runs there; a process that subscribes and never runs
 *    one keeps them in memory. The records of unregistered subscriptions are
 *    also released from that context.
 *  - Time-outs. A synchronous call blocks its thread until the service
 *    answers, for at most GDBus's default time-out of 25 seconds; the
 *    fire-and-forget calls (player registration, unregistration and stop
 *    request, removable zone marks) never wait for the service.
 *  - fork(). A child of a process that already had the connection cannot use
 *    it (GDBus's worker thread does not survive fork): in the child every call
 *    and registration fails at once with an error line that says so, and
 *    command identifiers carry the child's own pid. Call exec() or start the
 *    child before the first call.
 *  - Unloading. dlclose() never unmaps the library (it is linked with
 *    -z nodelete), since GDBus calls back into it after unregistration;
 *    subscriptions left in place keep working.
 *
 * Enumerations carry values of the service that the library passes through
 * unchanged; each has a *_FORCE_INT member so that every int is a valid value
 * of it in C++ too.
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
  KOVA_AUDIO_OUT_FORCE_INT = 0x7FFFFFFF, /* keeps every int value valid in C++ */
} kova_audio_out_e;

/* A player's current audio output. While the resource policy is active any
 * non-negative value of the service is passed through unchanged. */
typedef enum {
  KOVA_PLAYER_AUDIO_OUT_NONE = 0,
  KOVA_PLAYER_AUDIO_OUT_MAIN = 1,
  KOVA_PLAYER_AUDIO_OUT_SUB = 2,
  KOVA_PLAYER_AUDIO_OUT_FORCE_INT = 0x7FFFFFFF, /* keeps every int value valid in C++ */
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
 * returns 0 (after waiting for the callback, if it is running on another
 * thread): the callback is not called again (if its turn has not come it is
 * skipped), and its record goes when the delivery ends. Unregistering it a
 * second time before then answers -1 ("not registered"). Registering it again
 * before then keeps its place in the delivery, with the new user data. */
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

/* What the service reports when the resources granted to an application
 * change. Handed to a kova_resource_change_cb for the duration of the call
 * only: do not keep the pointer. Note the order: height comes before width. */
typedef struct kova_resource {
  int max_resolution_changed; /* non-zero: the maximum video resolution changed */
  int audio_out_changed;      /* non-zero: the audio output changed */
  int height;                 /* maximum video height */
  int width;                  /* maximum video width */
  int framerate;              /* maximum video frame rate */
} kova_resource;

/* Resource-change callback. app_id is the id carried by the service's signal
 * and resource the reported change; both are valid only during the call.
 * user_data is the pointer given at registration. */
typedef void (*kova_resource_change_cb)(const char *app_id, kova_resource *resource, void *user_data);

/* Maximum-resolution callback: the new maximum width, height and frame rate
 * for app_id (valid only during the call). */
typedef void (*max_resolution_change_cb)(const char *app_id, int width, int height, int framerate,
                                         void *user_data);

/* Registers callback for changes of the resources granted to app_id and tells
 * the service (synchronous call). One callback per application id: a second
 * registration of the same id fails and the first stays in force. The service
 * signal is subscribed on the first registration; the callback then runs on
 * the thread iterating the thread-default main context of the thread that made
 * that first registration.
 * app_id: must not be null (copied); callback: must not be null; user_data:
 * may be null, given back unchanged and never sent to the service.
 * Returns 0 when registered; -1 for a null argument ("invalid param"), an id
 * already registered, a failed call, a negative answer of the service or a
 * failed subscription, in which cases nothing stays registered. */
KOVA_API int kova_register_resource_change_callback(const char *app_id, kova_resource_change_cb callback,
                                                    void *user_data) KOVA_NOTHROW;

/* Unregisters app_id and tells the service. Only the application id is
 * matched; callback is only sent to the service and logged. The subscription
 * is dropped with the last registration. A callback may unregister (or
 * register) applications from inside its own call; unregistered on another
 * thread while it is being delivered, it completes that one call before this
 * function returns.
 * Returns 0 when app_id was registered (also when the service then answers
 * negatively); -1 for a null argument, an id not registered, or when the
 * subscription could not be dropped for lack of a bus connection. */
KOVA_API int kova_unregister_resource_change_callback(const char *app_id,
                                                      kova_resource_change_cb callback) KOVA_NOTHROW;

/* Accessors of a kova_resource. The two predicates return true for any
 * non-zero field and false (with "invalid param") for a null record. */
KOVA_API bool kova_rsc_max_resolution_changed(const kova_resource *resource) KOVA_NOTHROW;
KOVA_API bool kova_rsc_audio_out_changed(const kova_resource *resource) KOVA_NOTHROW;

/* Writes the record's width, height and frame rate to the three outputs and
 * returns 0; -1 with "invalid param" when any of the four pointers is null,
 * leaving the outputs untouched. */
KOVA_API int kova_rsc_get_video_max_resolution(const kova_resource *resource, int *width, int *height,
                                               int *framerate) KOVA_NOTHROW;

/* The same registry shape for maximum-resolution changes of one application
 * (signal "MaxRezChanged"); arguments, results and threading as for
 * kova_register_resource_change_callback and
 * kova_unregister_resource_change_callback. Independent of the
 * resource-change registry: an id may be registered in both. */
KOVA_API int kova_register_max_video_resolution_changed_callback(const char *app_id,
                                                                 max_resolution_change_cb callback,
                                                                 void *user_data) KOVA_NOTHROW;
KOVA_API int kova_unregister_max_video_resolution_changed_callback(const char *app_id,
                                                                   max_resolution_change_cb callback) KOVA_NOTHROW;

/* Other names of the two functions above, sharing their registry. */
KOVA_API int kova_subscribe_max_video_resolution_changed(const char *app_id, max_resolution_change_cb callback,
                                                         void *user_data) KOVA_NOTHROW;
KOVA_API int kova_unsubscribe_max_video_resolution_changed(const char *app_id,
                                                           max_resolution_change_cb callback) KOVA_NOTHROW;

/* Resource policies known to the service. The values are the service's and
 * are sent unchanged; values not listed here are sent as they are too. */
typedef enum {
  KOVA_RSC_POLICY_DEFAULT = 0,   /* no particular policy */
  KOVA_RSC_POLICY_MULTIVIEW = 1, /* several applications share the screen */
  KOVA_RSC_POLICY_GAME = 2,      /* low-latency play */
  KOVA_RSC_POLICY_FORCE_INT = 0x7FFFFFFF, /* keeps every non-negative int valid in C++ */
} kova_rsc_policy_e;

/* Video codecs, sent unchanged like kova_rsc_policy_e. */
typedef enum {
  KOVA_VIDEO_CODEC_H264 = 0,
  KOVA_VIDEO_CODEC_HEVC = 1,
  KOVA_VIDEO_CODEC_VP9 = 2,
  KOVA_VIDEO_CODEC_AV1 = 3,
  KOVA_VIDEO_CODEC_FORCE_INT = 0x7FFFFFFF, /* keeps every non-negative int valid in C++ */
} kova_video_codec_e;

/* Asks the service for the maximum video resolution it allows app_id and
 * writes width, height and frame rate as the service gives them (no range
 * check). app_id and the three outputs must not be null ("invalid param", -1,
 * nothing sent). Returns 0, or -1 when the call fails, leaving the outputs
 * untouched. */
KOVA_API int kova_get_max_video_resolution(const char *app_id, int *width, int *height,
                                           int *framerate) KOVA_NOTHROW;

/* The same call as kova_get_max_video_resolution under another name. */
KOVA_API int kova_get_allowed_max_video_resolution(const char *app_id, int *width, int *height,
                                                   int *framerate) KOVA_NOTHROW;

/* Asks the service for the maximum video resolution that policy allows for
 * codec; both are sent unchanged. The outputs are checked in the order width,
 * height, frame rate; the first null one is reported ("invalid width",
 * "invalid height", "invalid framerate") with -1 and nothing is sent.
 * Returns 0, or -1 when the call fails, leaving the outputs untouched. */
KOVA_API int kova_policy_get_max_resolution(kova_rsc_policy_e policy, kova_video_codec_e codec, int *width,
                                            int *height, int *framerate) KOVA_NOTHROW;

/* Returns the resource category player_id of app_id should use for category:
 * category itself, or the category the service answers (any value, returned
 * as it came) when the platform's category and model information says the
 * service has to decide. Categories the platform does not know as a video or
 * audio decoder, audio output, video scaler or MJPEG decoder come back
 * unchanged, as does every category while the service is not ready.
 * app_id: may be null; a null (or non-UTF-8) app_id or a category of 0 is
 * invalid: the result is then category while no resource policy is active and
 * -4 while one is. Returns -1 when the service was asked and the call failed. */
KOVA_API int kova_get_capable_category_id(int player_id, const char *app_id, int category) KOVA_NOTHROW;

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

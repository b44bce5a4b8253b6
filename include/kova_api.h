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

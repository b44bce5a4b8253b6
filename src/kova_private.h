// Private header of libkova-api: the service address, the log line, the
// service link and the declarations shared between the area files.
#ifndef KOVA_PRIVATE_H
#define KOVA_PRIVATE_H

#include <gio/gio.h>
#include <stdint.h>
#include <time.h>

#include <condition_variable>
#include <mutex>
#include <vector>

#include "kova_api.h"
#include "marlo.h"

#define KOVA_DBUS_NAME "org.zelta.tv.system.resource"
#define KOVA_DBUS_PATH "/Org/Zelta/TV/System/Resource"
#define KOVA_DBUS_INTERFACE "org.zelta.tv.system.resource"
#define KOVA_PROCESS_NAME "kova"

#define KOVA_READY_EVENT "/tmp/.kova_ready"
#define KOVA_POLICY_ACTIVATED_EVENT "/tmp/.rsc_policy_activated"
#define KOVA_READY_WAIT_MS 3000
#define KOVA_CPU_INHERITANCE_MS 2000

#define KOVA_LOG_BUFFER 2
#define KOVA_LOG_INFO 4
#define KOVA_LOG_ERROR 6
#define KOVA_LOG_TAG "KOVA_API"

#ifdef __FILE_NAME__
#define KOVA_FILE_NAME __FILE_NAME__
#else
#define KOVA_FILE_NAME __FILE__
#endif

// One platform log line: "<file>: <function>(<line>) > <message>".
// KOVA_LOG_AT names the function explicitly, for helpers that log on behalf of
// the operation that called them.
#define KOVA_LOG_AT(prio, func, fmt, ...)                                                 \
  __marlo_print(KOVA_LOG_BUFFER, (prio), KOVA_LOG_TAG, "%s: %s(%d) > " fmt, KOVA_FILE_NAME, \
                (func), __LINE__ __VA_OPT__(, ) __VA_ARGS__)
#define KOVA_LOGI(fmt, ...) KOVA_LOG_AT(KOVA_LOG_INFO, __func__, fmt __VA_OPT__(, ) __VA_ARGS__)
#define KOVA_LOGE(fmt, ...) KOVA_LOG_AT(KOVA_LOG_ERROR, __func__, fmt __VA_OPT__(, ) __VA_ARGS__)

// Stops the process when a record cannot be allocated; the message names it.
#define KOVA_ASSERT_ALLOC(expr) ((expr) ? (void)0 : kova::alloc_failed(#expr, KOVA_FILE_NAME, __LINE__))

// The callback and user data of one subscription, owned by the subscription.
// The other fields belong to the delivery lock of the service link: they let
// an unregistration on another thread wait for a call in progress, and keep
// the record alive while a delivery or such a wait still uses it.
struct cb_data {
  void (*callback)(void);
  void *user_data;
  int holds;       // deliveries under way and unregistrations waiting
  bool cancelled;  // unregistered: no delivery starts any more
  bool released;   // the subscription has let go of it
};

extern "C" {
// The service link; exported for platform tools although applications use the
// kova_ functions.
KOVA_API GDBusConnection *_kova_dbus_get_connection(void) noexcept;
KOVA_API int _kova_dbus_method_call(const char *method, GVariant *args, GVariant **reply) noexcept;
KOVA_API int _kova_dbus_method_call_async_with_no_reply(const char *method, GVariant *args) noexcept;
KOVA_API int _kova_get_command_id(void) noexcept;
KOVA_API bool _kova_is_normal_mode(void) noexcept;
KOVA_API int _kova_set_cpu_inheritance(void) noexcept;
KOVA_API int _kova_clear_cpu_inheritance(void) noexcept;

int _kova_dbus_subscribe_signal(const char *signal, GDBusSignalCallback handler, unsigned int *id,
                                gpointer user_data, GDestroyNotify free_func) noexcept;
int _kova_dbus_unsubscribe_signal(unsigned int id) noexcept;

// Player control.
int _kova_player_register(int player_id, int value) noexcept;
int _kova_player_unregister(int player_id) noexcept;
int _kova_player_request_stop(int player_id) noexcept;
int _kova_player_request_play(int player_id, kova_audio_out_e *audio_out) noexcept;
int _kova_player_video_start_done(int player_id) noexcept;
int _kova_player_video_stop_done(int player_id) noexcept;
int _kova_player_audio_start_done(int player_id) noexcept;
int _kova_player_audio_stop_done(int player_id) noexcept;
int _kova_get_player_audio_out(int player_id, kova_player_audio_out_e *audio_out) noexcept;
unsigned int _kova_register_player_video_start_request_callback(kova_player_video_request_cb cb,
                                                               void *user_data) noexcept;
unsigned int _kova_register_player_video_stop_request_callback(kova_player_video_request_cb cb,
                                                              void *user_data) noexcept;
unsigned int _kova_register_player_audio_start_request_callback(kova_player_audio_request_cb cb,
                                                               void *user_data) noexcept;
unsigned int _kova_register_player_audio_stop_request_callback(kova_player_audio_request_cb cb,
                                                              void *user_data) noexcept;
unsigned int _kova_register_player_audio_resync_request_callback(kova_player_audio_request_cb cb,
                                                                void *user_data) noexcept;
int _kova_extspk_info_register(const char *name, int value) noexcept;
int _kova_extspk_info_unregister(const char *name, int value) noexcept;
int _kova_get_extspk_info_audio_out(const char *name) noexcept;

// Resource notifications and capabilities.
int _kova_register_resource_change_callback(const char *app_id, kova_resource_change_cb cb,
                                            void *user_data) noexcept;
int _kova_unregister_resource_change_callback(const char *app_id, kova_resource_change_cb cb) noexcept;
int _kova_add_resource_change_cb(const char *app_id, kova_resource_change_cb cb, void *user_data) noexcept;
int _kova_remove_resource_change_cb(const char *app_id, kova_resource_change_cb cb) noexcept;
int _kova_register_resource_change_callback_app_id(const char *app_id, void *cb) noexcept;
int _kova_unregister_resource_change_callback_app_id(const char *app_id, void *cb) noexcept;
int _kova_register_max_video_resolution_changed_callback(const char *app_id, max_resolution_change_cb cb,
                                                         void *user_data) noexcept;
int _kova_unregister_max_video_resolution_changed_callback(const char *app_id, max_resolution_change_cb cb) noexcept;
int _kova_add_max_video_resolution_cb(const char *app_id, max_resolution_change_cb cb, void *user_data) noexcept;
int _kova_remove_max_video_resolution_cb(const char *app_id, max_resolution_change_cb cb) noexcept;
int _kova_register_max_video_resolution_changed_callback_app_id(const char *app_id, void *cb) noexcept;
int _kova_unregister_max_video_resolution_changed_callback_app_id(const char *app_id, void *cb) noexcept;
int _kova_get_max_video_resolution(const char *app_id, int *width, int *height, int *framerate) noexcept;
int _kova_policy_get_max_resolution(kova_rsc_policy_e policy, kova_video_codec_e codec, int *width, int *height,
                                    int *framerate) noexcept;
int _kova_get_capable_category_id(int player_id, const char *app_id, int category) noexcept;
bool _kova_is_supported_category(int category) noexcept;
bool _kova_is_audio_category(int category) noexcept;

// Resource policy.
void kova_app_free(kova_app *app) noexcept;  // element release of kova_app_list_free; not exported
int _kova_set_resource_policy_with_info(int policy, kova_policy_info *info) noexcept;
int _kova_set_resource_policy_without_applist(int policy, kova_policy_info *info) noexcept;
int _kova_set_resource_policy_with_applist(int policy, kova_policy_info *info) noexcept;
int _kova_set_resource_policy(int policy) noexcept;
int _kova_set_resource_policy_app_zone_info(int policy, kova_app_list_h app_list) noexcept;
int _kova_set_pre_assigned_app_list(kova_app_list_h app_list) noexcept;
unsigned int _kova_register_resource_policy_changed_callback(kova_policy_changed_cb callback,
                                                             void *user_data) noexcept;
int _kova_unregister_resource_policy_changed_callback(unsigned int subscription_id) noexcept;
}

// ---- Zones and focus ----

// The record behind a zone list handle: the zones in reply order and the one
// walk position (null before the first step).
struct kova_zone_list {
  int count;
  GList *list;  // of kova_zone *
  GList *iter;
};

extern "C" {
int _kova_get_zone_list(void **zone_list) noexcept;
int _kova_get_multiview_zone_list(void **zone_list) noexcept;
int _kova_free_zone_list(void *zone_list) noexcept;
int _kova_get_next_zone(void *zone_list, kova_zone **zone) noexcept;
int _kova_get_prev_zone(void *zone_list, kova_zone **zone) noexcept;
kova_zone *_kova_get_next_resource_zone(void *zone_list) noexcept;
int _kova_get_zone_id(kova_zone *zone, int *zone_id) noexcept;
void _kova_zone_free(kova_zone *zone) noexcept;

int _kova_set_app_zone_info(const char *app_id, int zone_id) noexcept;
int _kova_remove_app_zone_info(const char *app_id, int zone_id) noexcept;
int _kova_set_pre_assigned_app_zone_info(const char *app_id, int zone_id) noexcept;
int _kova_set_removable_app_zone_info(const char *app_id, int zone_id) noexcept;
int _kova_clear_removable_app_zone_info(void) noexcept;
int _kova_notify_layout_state(kova_layout_state_e state) noexcept;
int _kova_get_focused_zone(kova_zone **zone) noexcept;

int _kova_switch_best_quality_zone_info(int first, int second) noexcept;
int _kova_restore_best_quality_zone(void) noexcept;
int _kova_register_best_quality_zone_switched_callback(kova_best_quality_zone_switched_cb callback,
                                                       void *user_data) noexcept;
int _kova_add_best_quality_zone_switched_callback(kova_best_quality_zone_switched_cb callback,
                                                  void *user_data) noexcept;
int _kova_unregister_best_quality_zone_switched_callback(kova_best_quality_zone_switched_cb callback) noexcept;
int _kova_remove_best_quality_zone_switched_callback(kova_best_quality_zone_switched_cb callback) noexcept;

int _kova_set_audio_focus(int focus) noexcept;
int _kova_get_audio_focus(int *focus) noexcept;
int _kova_get_last_audio_focus(int *focus) noexcept;
int _kova_is_audio_focused(const char *app_id) noexcept;
unsigned int _kova_register_audio_focus_changed_callback(kova_player_audio_request_cb callback,
                                                         void *user_data) noexcept;
int _kova_unregister_audio_focus_changed_callback(unsigned int id) noexcept;

// The audio-focus-zone subscription's handler and the free function of its
// cb_data.
void _focus_changed_signal_cb(GDBusConnection *connection, const gchar *sender, const gchar *path,
                              const gchar *iface, const gchar *signal, GVariant *params,
                              gpointer user_data) noexcept;
void _focus_changed_signal_cb_free(gpointer data) noexcept;
}

// ---- Signal handlers ----
// Hidden like every internal function; declared here so that the fuzz
// harnesses can feed them arbitrary parameters without a bus. The player,
// focus and policy handlers take the subscription's cb_data; the others
// dispatch to their process-wide registries and ignore user_data.
extern "C" {
void _dbus_player_video_signal_callback(GDBusConnection *connection, const gchar *sender, const gchar *path,
                                        const gchar *iface, const gchar *signal, GVariant *params,
                                        gpointer user_data) noexcept;
void _dbus_player_audio_signal_callback(GDBusConnection *connection, const gchar *sender, const gchar *path,
                                        const gchar *iface, const gchar *signal, GVariant *params,
                                        gpointer user_data) noexcept;
void _dbus_audio_focus_signal_callback(GDBusConnection *connection, const gchar *sender, const gchar *path,
                                       const gchar *iface, const gchar *signal, GVariant *params,
                                       gpointer user_data) noexcept;
void _dbus_policy_changed_signal_callback(GDBusConnection *connection, const gchar *sender, const gchar *path,
                                          const gchar *iface, const gchar *signal, GVariant *params,
                                          gpointer user_data) noexcept;
void onBestQualityZoneSwitched(GDBusConnection *connection, const gchar *sender, const gchar *path,
                               const gchar *iface, const gchar *signal, GVariant *params, gpointer user_data) noexcept;
void onRezChanged(GDBusConnection *connection, const gchar *sender, const gchar *path, const gchar *iface,
                  const gchar *signal, GVariant *params, gpointer user_data) noexcept;
void onMaxRezChanged(GDBusConnection *connection, const gchar *sender, const gchar *path, const gchar *iface,
                     const gchar *signal, GVariant *params, gpointer user_data) noexcept;
}

#ifdef KOVA_FUZZING
// Fuzz builds only: the bus is replaced by the harness. kova_fuzz_method_call
// answers every call (reply null for the fire-and-forget ones) with the
// contract of _kova_dbus_method_call; kova_fuzz_subscribe records a
// subscription and returns its id (0 refuses it).
extern "C" {
int kova_fuzz_method_call(const char *method, GVariant *args, GVariant **reply) noexcept;
unsigned int kova_fuzz_subscribe(const char *signal, GDBusSignalCallback handler, gpointer user_data,
                                 GDestroyNotify free_func) noexcept;
void kova_fuzz_unsubscribe(unsigned int id) noexcept;
time_t kova_fuzz_monotonic_seconds(void) noexcept;
}
#endif

namespace kova {

// Which registrations have a callback running, and on which thread, so that
// an unregistration on another thread can wait until its callback is done.
// Each member is used under the owner's mutex, the lock given to wait_idle.
class CallTracker {
 public:
  void enter(uint64_t key) { calls_.push_back({key, this_thread()}); }
  void leave(uint64_t key) noexcept;
  // Waits until no call of key runs on another thread. On the thread that is
  // running it (a callback unregistering itself) it returns at once.
  void wait_idle(std::unique_lock<std::mutex> &lock, uint64_t key);

 private:
  static const void *this_thread() noexcept;
  bool busy_elsewhere(uint64_t key) const noexcept;

  struct Call {
    uint64_t key;
    const void *thread;
  };
  std::vector<Call> calls_;
  std::condition_variable idle_;
  int waiters_ = 0;
};

[[noreturn]] void alloc_failed(const char *what, const char *file, int line) noexcept;

// Command identifier from a process id and a counter value: the pid's low 16
// bits in the upper half, OR-ed with the whole counter.
constexpr int make_command_id(int pid, uint32_t count) {
  return static_cast<int>((static_cast<uint32_t>(pid) << 16) | count);
}

// True when s can travel as a D-Bus string.
bool valid_string(const char *s) noexcept;

// True when the service's readiness event is present now (no wait).
bool service_ready_now() noexcept;

// Synchronous call whose reply must have reply_type. On success stores the
// reply (owned by the caller) and returns 0. A reply of another type is logged
// as an error on behalf of func, released, and gives -1 like a failed call.
int call_sync(const char *func, int cmd, const char *method, GVariant *args, const char *reply_type,
              GVariant **reply) noexcept;

// call_sync for the common "(i)" reply: stores the integer in *value.
int call_sync_int(const char *func, int cmd, const char *method, GVariant *args, int *value) noexcept;

// True when params has type; otherwise logs an error on behalf of func and the
// signal is to be ignored.
bool signal_params_are(const char *func, GVariant *params, const char *type, const char *signal) noexcept;

// The registration pattern shared by every subscription-per-registration
// family: allocate a cb_data, subscribe, log, return the id or UINT_MAX.
// Every free function of such a subscription releases its cb_data through
// release_cb_data, and every handler brackets its call with a Delivery.
unsigned int register_signal_callback(const char *func, const char *signal, GDBusSignalCallback handler,
                                      GDestroyNotify free_func, void (*callback)(void),
                                      void *user_data) noexcept;

// A new, empty cb_data (the process stops when memory runs out).
cb_data *new_cb_data(void (*callback)(void), void *user_data) noexcept;

// The subscription's end of a cb_data: releases it now, or when the last
// delivery or waiting unregistration lets go of it.
void release_cb_data(gpointer data) noexcept;

// One delivery of a cb_data subscription. False when the subscription was
// unregistered meanwhile: the handler then returns without a word.
class Delivery {
 public:
  explicit Delivery(gpointer data) noexcept;
  ~Delivery();
  Delivery(const Delivery &) = delete;
  Delivery &operator=(const Delivery &) = delete;
  explicit operator bool() const noexcept { return data_ != nullptr; }

 private:
  cb_data *data_;
};

// Removes subscription id quietly (the unregistrations that write no lines of
// their own) and waits for its callback as _kova_dbus_unsubscribe_signal
// does. 0, or -1 without a connection.
int unsubscribe_signal_quietly(unsigned int id) noexcept;

// True in the child of a fork() made after the connection existed: GDBus's
// worker thread did not follow, so the inherited connection would block.
bool forked_child() noexcept;

// The process's shared system-bus connection asked of GIO itself, for the
// registries that hold their own subscription; a new reference, or null after
// the error "failed to get connection (%s)" on behalf of func.
GDBusConnection *shared_system_bus(const char *func) noexcept;

// Application lists on the wire. Each walks the list from its first to its
// last application (moving its walk position, with the walk's log lines) and
// returns a floating array: "a(sii)" of (app id, video, audio priority),
// "a(is)" of (zone, app id), or "a(s)" of app ids.
GVariant *app_priority_array(kova_app_list_h list) noexcept;
GVariant *app_zone_array(kova_app_list_h list) noexcept;
GVariant *app_id_array(kova_app_list_h list) noexcept;

// Sends a list-carrying tuple and maps the "(i)" reply: 0 for a service
// result of 0, else -1. Logs "failed" / "success, result" on behalf of func.
int send_policy_call(const char *func, int cmd, const char *method, GVariant *args) noexcept;

// A zone record on the process heap with a copy of app_id (which may be
// null); null when memory runs out, for the caller to assert with its name.
kova_zone *new_zone(int id, int scaler_id, const char *app_id) noexcept;

// Synchronous call with an "(i)" reply, logged the way the zone and focus
// operations log: "... for <what> is failed" on failure, the reply integer on
// success. Stores the integer in *value; 0 or -1.
int call_logged_int(const char *func, int cmd, const char *method, GVariant *args, const char *what,
                    int *value) noexcept;

}  // namespace kova

#endif  // KOVA_PRIVATE_H

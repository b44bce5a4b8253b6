// Best-quality zone: the switch and restore requests, and the process-wide
// registry of switched callbacks behind one shared signal subscription.
//
// Callbacks may register and unregister callbacks (themselves included) while
// a switch is delivered, from the delivering thread or any other. So a
// delivery marks every record it may still call as invoking; unregistering
// such a record only clears its active flag, and the delivery releases it when
// it ends. switched_cb_mutex guards the list and the records and is never held
// while a callback runs or the bus is used. An unregistration on another
// thread waits until that one callback, if it is running, has returned.
#include <cstdlib>
#include <list>
#include <mutex>
#include <vector>

#include "kova_private.h"

namespace {

struct kova_best_quality_switched_callback {
  kova_best_quality_zone_switched_cb callback;  // identity of the record
  void *user_data;
  bool invoking;
  bool active;
};

constexpr const char *kSwitchedSignal = "BestQualitZoneSwitched";

std::mutex switched_cb_mutex;
std::list<kova_best_quality_switched_callback *> switched_cb_list;
// Deliveries under way. Records are released only when the last one ends, so
// a delivery nested in a callback (one that iterates the main loop) or
// running on another thread never sees its snapshot freed.
int switched_dispatch_depth = 0;
// Callbacks being called, by function; under switched_cb_mutex.
kova::CallTracker switched_calls;

// Serialises the decision to subscribe or unsubscribe with the registry change
// that leads to it, so that a first registration and a last unregistration on
// two threads leave exactly one subscription or none. Ordered before
// switched_cb_mutex; no callback ever runs under it.
std::mutex switched_subscribe_mutex;
unsigned int switched_signal_id = 0;       // guarded by switched_subscribe_mutex
GDBusConnection *switched_bus = nullptr;  // likewise

void *ptr(kova_best_quality_zone_switched_cb cb) { return reinterpret_cast<void *>(cb); }
uint64_t key(kova_best_quality_zone_switched_cb cb) { return reinterpret_cast<uintptr_t>(cb); }

// The process's shared system-bus connection. GIO keeps the shared connection
// only while someone holds it, and the subscription lives on it, so one
// reference is kept for the life of the process.
GDBusConnection *switched_connection(const char *func) {
  GDBusConnection *c = kova::shared_system_bus(func);
  if (c == nullptr) return nullptr;
  if (c == switched_bus) {
    g_object_unref(c);
  } else {
    if (switched_bus != nullptr) g_object_unref(switched_bus);
    switched_bus = c;
  }
  return c;
}

}  // namespace

extern "C" void onBestQualityZoneSwitched(GDBusConnection *, const gchar *, const gchar *, const gchar *,
                                          const gchar *signal, GVariant *params, gpointer) noexcept {
  if (!kova::signal_params_are(__func__, params, "(iii)", signal)) return;
  gint32 first = 0;
  gint32 second = 0;
  gint32 third = 0;
  g_variant_get(params, "(iii)", &first, &second, &third);
  KOVA_LOGI("signal (%s) received - (%d:%d:%d)", signal, first, second, third);

  std::vector<kova_best_quality_switched_callback *> snapshot;
  {
    std::lock_guard<std::mutex> lock(switched_cb_mutex);
    ++switched_dispatch_depth;
    snapshot.reserve(switched_cb_list.size());
    for (kova_best_quality_switched_callback *item : switched_cb_list) {
      item->invoking = true;
      if (item->active) snapshot.push_back(item);
    }
  }

  for (kova_best_quality_switched_callback *item : snapshot) {
    kova_best_quality_zone_switched_cb cb = nullptr;
    void *user_data = nullptr;
    bool active = false;
    {
      // Another thread may unregister or re-register it meanwhile; once it is
      // entered as called here, an unregistration waits for it.
      std::lock_guard<std::mutex> lock(switched_cb_mutex);
      cb = item->callback;
      user_data = item->user_data;
      active = item->active;
      if (active) switched_calls.enter(key(cb));
    }
    if (!active) {
      KOVA_LOGE("unregistered cb (%p)", ptr(cb));
      continue;
    }
    KOVA_LOGI("call cb(%p) - (%d:%d:%d)", ptr(cb), first, second, third);
    cb(first, second, third, user_data);
    std::lock_guard<std::mutex> lock(switched_cb_mutex);
    switched_calls.leave(key(cb));
  }

  std::lock_guard<std::mutex> lock(switched_cb_mutex);
  if (--switched_dispatch_depth > 0) return;
  for (auto it = switched_cb_list.begin(); it != switched_cb_list.end();) {
    kova_best_quality_switched_callback *item = *it;
    item->invoking = false;
    if (item->active) {
      ++it;
      continue;
    }
    KOVA_LOGI("remove inactive cb(%p)", ptr(item->callback));
    it = switched_cb_list.erase(it);
    std::free(item);
  }
  // The subscription stays even when the registry is now empty; the next
  // registration reuses it.
}

extern "C" {

int _kova_switch_best_quality_zone_info(int first, int second) noexcept {
  const int cmd = _kova_get_command_id();
  int value = 0;
  if (kova::call_logged_int(__func__, cmd, "SwitchBestQaulityZone", g_variant_new("(iii)", cmd, first, second),
                            "BEST QUALITY ZONE INFO", &value) != 0) {
    return -1;
  }
  return value;
}

int _kova_restore_best_quality_zone(void) noexcept {
  const int cmd = _kova_get_command_id();
  int value = 0;
  if (kova::call_logged_int(__func__, cmd, "RestoreBestQualityZone", g_variant_new("(i)", cmd),
                            "RESTORE BEST QUALITY ZONE INFO", &value) != 0) {
    return -1;
  }
  return value;
}

int _kova_add_best_quality_zone_switched_callback(kova_best_quality_zone_switched_cb callback,
                                                  void *user_data) noexcept {
  std::lock_guard<std::mutex> lock(switched_cb_mutex);
  for (kova_best_quality_switched_callback *item : switched_cb_list) {
    if (item->callback != callback) continue;
    if (item->active) {
      KOVA_LOGE("already registered callback (%p)", ptr(callback));
      return -1;
    }
    // Unregistered during a delivery that has not ended: take it back.
    item->active = true;
    item->user_data = user_data;
    KOVA_LOGI("cb activated (%p)", ptr(callback));
    return 0;
  }
  auto *cb_item =
      static_cast<kova_best_quality_switched_callback *>(std::calloc(1, sizeof(kova_best_quality_switched_callback)));
  KOVA_ASSERT_ALLOC(cb_item);
  cb_item->callback = callback;
  cb_item->user_data = user_data;
  cb_item->invoking = false;
  cb_item->active = true;
  switched_cb_list.push_back(cb_item);
  KOVA_LOGI("cb added (%p)", ptr(callback));
  return 0;
}

// Records left in the registry, or -1 when callback is not registered. A
// record that a delivery holds is only deactivated; it still counts, so the
// caller keeps the subscription for it until the delivery releases it. A
// record found already deactivated is matched all the same (and logged as
// being invoked) but answers as not registered.
int _kova_remove_best_quality_zone_switched_callback(kova_best_quality_zone_switched_cb callback) noexcept {
  std::unique_lock<std::mutex> lock(switched_cb_mutex);
  bool deactivated = false;
  for (auto it = switched_cb_list.begin(); it != switched_cb_list.end(); ++it) {
    kova_best_quality_switched_callback *item = *it;
    if (item->callback != callback) continue;
    if (item->invoking) {
      KOVA_LOGI("cb (%p) is being invoked", ptr(callback));
      deactivated = deactivated || item->active;
      item->active = false;
      continue;
    }
    switched_cb_list.erase(it);
    std::free(item);
    KOVA_LOGI("cb removed (%p)", ptr(callback));
    return static_cast<int>(switched_cb_list.size());
  }
  if (deactivated) return static_cast<int>(switched_cb_list.size());
  lock.unlock();
  KOVA_LOGE("not registered cb (%p)", ptr(callback));
  return -1;
}

int _kova_register_best_quality_zone_switched_callback(kova_best_quality_zone_switched_cb callback,
                                                       void *user_data) noexcept {
  std::lock_guard<std::mutex> subscribing(switched_subscribe_mutex);
  if (_kova_add_best_quality_zone_switched_callback(callback, user_data) != 0) return -1;
  if (switched_signal_id != 0) return 0;
  GDBusConnection *c = switched_connection(__func__);
  if (c == nullptr) {
    _kova_remove_best_quality_zone_switched_callback(callback);
    return -1;
  }
  switched_signal_id =
      g_dbus_connection_signal_subscribe(c, nullptr, KOVA_DBUS_INTERFACE, kSwitchedSignal, KOVA_DBUS_PATH, nullptr,
                                         G_DBUS_SIGNAL_FLAGS_NONE, onBestQualityZoneSwitched, nullptr, nullptr);
  if (switched_signal_id == 0) {
    _kova_remove_best_quality_zone_switched_callback(callback);
    return -1;
  }
  KOVA_LOGI("subscribe best quality zone switched (%d)", static_cast<int>(switched_signal_id));
  return 0;
}

namespace {

int unregister_switched(kova_best_quality_zone_switched_cb callback) {
  std::lock_guard<std::mutex> subscribing(switched_subscribe_mutex);
  const int left = _kova_remove_best_quality_zone_switched_callback(callback);
  if (left < 0) return -1;
  if (left > 0) return 0;
  GDBusConnection *c = switched_connection("_kova_unregister_best_quality_zone_switched_callback");
  if (c == nullptr) return -1;
  KOVA_LOG_AT(KOVA_LOG_INFO, "_kova_unregister_best_quality_zone_switched_callback",
              "unsubscribe best quality zone switched (%d)", static_cast<int>(switched_signal_id));
  if (switched_signal_id != 0) g_dbus_connection_signal_unsubscribe(c, switched_signal_id);
  switched_signal_id = 0;
  return 0;
}

}  // namespace

// Once this returns on a thread other than the delivering one, callback is not
// running; the wait comes after every lock is released, so that the callback
// may itself register and unregister callbacks meanwhile.
int _kova_unregister_best_quality_zone_switched_callback(kova_best_quality_zone_switched_cb callback) noexcept {
  const int result = unregister_switched(callback);
  std::unique_lock<std::mutex> lock(switched_cb_mutex);
  switched_calls.wait_idle(lock, key(callback));
  return result;
}

}  // extern "C"

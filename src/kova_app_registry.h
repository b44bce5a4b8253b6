// The per-application callback registry: one callback per application id, a
// service call for every registration and unregistration, and one signal
// subscription shared by all entries while the map is not empty. Instantiated
// once per notification (resource changes, maximum-resolution changes).
#ifndef KOVA_APP_REGISTRY_H
#define KOVA_APP_REGISTRY_H

#include <cstdint>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "kova_private.h"

namespace kova {

// Log-line function names of the operations of one registry instance.
struct RegistryNames {
  const char *register_cb;
  const char *unregister_cb;
  const char *add;
  const char *remove;
  const char *register_app_id;
  const char *unregister_app_id;
  const char *handler;
};

// Traits supply what differs between instances:
//   Callback, Record ({callback, user_data}), Signal (an unpacked signal with
//   an app_id member), kNames, kWhat ("<what> change" in the subscription
//   lines), kRegisterMethod, kUnregisterMethod, kSignal, kHandler,
//   service_args(cmd, app_id, callback address) -> the call's tuple,
//   unpack(signal name, params, &signal) -> false for a malformed signal (the
//   "received" line is logged here), deliver(signal, callback, user_data).
//
// Locking. mutex_ guards the map and the tracker of running callbacks, and is
// held for their operations alone: never across a callback, a service call or
// a GDBus call. Each entry carries a serial number that names its
// registration, so that an unregistration on another thread waits for that
// registration's callback alone, even when the id was registered anew. sub_mutex_
// serialises the subscription's transitions and guards signal_id_; it is held
// while deciding to subscribe or unsubscribe and doing it (GDBus queues the
// match rule without waiting), never across a service call or a callback.
// Order: sub_mutex_ before mutex_.
//
// Interleavings. An entry is added before the service is asked, so the map may
// hold entries whose registration is still in flight. An accepted
// registration subscribes under sub_mutex_ unless a subscription exists or the
// map has emptied meanwhile. Any removal that leaves the map empty (an
// unregistration, or a registration that failed) drops the subscription under
// sub_mutex_ after checking that the map is still empty; if a registration in
// flight refilled it, that one reuses the subscription when accepted or, when
// it fails and empties the map, drops it. So no subscription outlives the
// entries, and two first registrations never subscribe twice. A failed
// registration removes only its own record, never one that a concurrent
// unregister-and-register of the same id put there.
template <typename Traits>
class AppRegistry {
 public:
  using Callback = typename Traits::Callback;
  using Record = typename Traits::Record;

  explicit AppRegistry(unsigned int &signal_id) : signal_id_(signal_id) {}
  AppRegistry(const AppRegistry &) = delete;
  AppRegistry &operator=(const AppRegistry &) = delete;

  // 0 added, -1 already registered.
  int add(const char *app_id, Callback cb, void *user_data) { return add_record(app_id, cb, user_data) ? 0 : -1; }

  // Entries left, or -1 when app_id is not registered. cb is only logged.
  int remove(const char *app_id, Callback cb) { return remove_record(app_id, cb, nullptr); }

  // The service's answer, or -1 when the call failed.
  int tell_service_register(const char *app_id, void *cb) {
    return tell_service(Traits::kNames.register_app_id, Traits::kRegisterMethod, app_id, cb);
  }
  int tell_service_unregister(const char *app_id, void *cb) {
    return tell_service(Traits::kNames.unregister_app_id, Traits::kUnregisterMethod, app_id, cb);
  }

  int register_callback(const char *app_id, Callback cb, void *user_data) {
    Record *mine = add_record(app_id, cb, user_data);
    if (mine == nullptr) return -1;
    if (tell_service_register(app_id, address(cb)) < 0) {
      KOVA_LOG_AT(KOVA_LOG_ERROR, Traits::kNames.register_cb, "failed to register app id(%s:%p)", app_id, address(cb));
      uint64_t serial = 0;
      if (remove_record(app_id, cb, mine, &serial) == 0) drop_subscription(Traits::kNames.register_cb);
      await_calls(serial);
      return -1;
    }
    return subscribe(app_id, cb, mine);
  }

  // Once this returns on a thread other than the delivering one, the removed
  // registration's callback is not running and will not start.
  int unregister_callback(const char *app_id, Callback cb) {
    uint64_t serial = 0;
    int left = remove_record(app_id, cb, nullptr, &serial);
    if (left < 0) return -1;
    if (tell_service_unregister(app_id, address(cb)) < 0) {
      KOVA_LOG_AT(KOVA_LOG_ERROR, Traits::kNames.unregister_cb, "failed to unregister app id(%s:%p)", app_id,
                  address(cb));
    }
    const int result = left > 0 ? 0 : drop_subscription(Traits::kNames.unregister_cb);
    await_calls(serial);
    return result;
  }

  // Calls the one callback registered for the signal's application id, with
  // no lock held so that it may register or unregister applications.
  void dispatch(const char *signal_name, GVariant *params) {
    typename Traits::Signal unpacked{};
    if (!Traits::unpack(signal_name, params, &unpacked)) return;
    bool empty = false;
    Callback cb = nullptr;
    void *user_data = nullptr;
    uint64_t serial = 0;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      empty = map_.empty();
      auto it = map_.find(std::string_view(unpacked.app_id));
      if (it != map_.end()) {
        cb = it->second.record->callback;
        user_data = it->second.record->user_data;
        serial = it->second.serial;
        calls_.enter(serial);
      }
    }
    if (empty) {
      KOVA_LOG_AT(KOVA_LOG_ERROR, Traits::kNames.handler, "empty list");
      return;
    }
    if (cb == nullptr) return;
    KOVA_LOG_AT(KOVA_LOG_INFO, Traits::kNames.handler, "call cb(%p)", address(cb));
    Traits::deliver(unpacked, cb, user_data);
    std::lock_guard<std::mutex> lock(mutex_);
    calls_.leave(serial);
  }

 private:
  struct FreeRecord {
    void operator()(Record *r) const { std::free(r); }
  };
  using RecordPtr = std::unique_ptr<Record, FreeRecord>;
  struct Entry {
    RecordPtr record;
    uint64_t serial;
  };

  // Waits for a call of the registration named by serial (0: none) that runs
  // on another thread.
  void await_calls(uint64_t serial) {
    if (serial == 0) return;
    std::unique_lock<std::mutex> lock(mutex_);
    calls_.wait_idle(lock, serial);
  }

  static void *address(Callback cb) { return reinterpret_cast<void *>(cb); }

  bool map_empty() {
    std::lock_guard<std::mutex> lock(mutex_);
    return map_.empty();
  }

  Record *add_record(const char *app_id, Callback cb, void *user_data) {
    Record *added = nullptr;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (map_.find(std::string_view(app_id)) == map_.end()) {
        auto *cb_item = static_cast<Record *>(std::calloc(1, sizeof(Record)));
        KOVA_ASSERT_ALLOC(cb_item);
        RecordPtr owned(cb_item);
        cb_item->callback = cb;
        cb_item->user_data = user_data;
        map_.emplace(std::string(app_id), Entry{std::move(owned), ++last_serial_});
        added = cb_item;
      }
    }
    if (added == nullptr) {
      KOVA_LOG_AT(KOVA_LOG_ERROR, Traits::kNames.add, "already registered (%s:%p)", app_id, address(cb));
      return nullptr;
    }
    KOVA_LOG_AT(KOVA_LOG_INFO, Traits::kNames.add, "cb added (%s:%p)", app_id, address(cb));
    return added;
  }

  // With only set, removes the entry only while it is still that record. The
  // removed registration's serial goes to *serial when given.
  int remove_record(const char *app_id, Callback cb, const Record *only, uint64_t *serial = nullptr) {
    RecordPtr gone;
    int left = -1;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      auto it = map_.find(std::string_view(app_id));
      if (it != map_.end() && (only == nullptr || it->second.record.get() == only)) {
        gone = std::move(it->second.record);
        if (serial != nullptr) *serial = it->second.serial;
        map_.erase(it);
        left = static_cast<int>(map_.size());
      }
    }
    if (!gone) {
      KOVA_LOG_AT(KOVA_LOG_ERROR, Traits::kNames.remove, "not registered (%s:%p)", app_id, address(cb));
      return -1;
    }
    gone.reset();
    KOVA_LOG_AT(KOVA_LOG_INFO, Traits::kNames.remove, "cb removed (%s:%p)", app_id, address(cb));
    return left;
  }

  int tell_service(const char *func, const char *method, const char *app_id, void *cb) {
    int cmd = _kova_get_command_id();
    auto cb_address = static_cast<guint32>(reinterpret_cast<uintptr_t>(cb));
    int value = 0;
    if (call_sync_int(func, cmd, method, Traits::service_args(cmd, app_id, cb_address), &value) != 0) {
      KOVA_LOG_AT(KOVA_LOG_ERROR, func, "[%08X] (%s) failed", cmd, method);
      return -1;
    }
    KOVA_LOG_AT(KOVA_LOG_INFO, func, "[%08X] (%s) success :: (%d)", cmd, method, value);
    return value;
  }

  // After the service accepted mine: make sure the signal is subscribed.
  int subscribe(const char *app_id, Callback cb, const Record *mine) {
    const char *func = Traits::kNames.register_cb;
    std::lock_guard<std::mutex> sub(sub_mutex_);
    if (signal_id_ != 0) return 0;
    if (map_empty()) return 0;  // unregistered meanwhile: nothing to listen for
    GDBusConnection *c = shared_system_bus(func);
    if (c == nullptr) {
      remove_record(app_id, cb, mine);
      return -1;
    }
    unsigned int id =
        g_dbus_connection_signal_subscribe(c, nullptr, KOVA_DBUS_INTERFACE, Traits::kSignal, KOVA_DBUS_PATH, nullptr,
                                           G_DBUS_SIGNAL_FLAGS_NONE, Traits::kHandler, nullptr, nullptr);
    g_object_unref(c);
    if (id == 0) {
      remove_record(app_id, cb, mine);
      return -1;
    }
    signal_id_ = id;
    KOVA_LOG_AT(KOVA_LOG_INFO, func, "subscribe %s change (%d)", Traits::kWhat, static_cast<int>(id));
    return 0;
  }

  // After a removal that left the map empty. Without a connection the
  // subscription stays; the next accepted registration reuses it.
  int drop_subscription(const char *func) {
    std::lock_guard<std::mutex> sub(sub_mutex_);
    if (signal_id_ == 0 || !map_empty()) return 0;
    GDBusConnection *c = shared_system_bus(func);
    if (c == nullptr) return -1;
    KOVA_LOG_AT(KOVA_LOG_INFO, func, "unsubscribe %s change(%d)", Traits::kWhat, static_cast<int>(signal_id_));
    g_dbus_connection_signal_unsubscribe(c, signal_id_);
    g_object_unref(c);
    signal_id_ = 0;
    return 0;
  }

  std::mutex mutex_;
  std::map<std::string, Entry, std::less<>> map_;
  uint64_t last_serial_ = 0;
  CallTracker calls_;
  std::mutex sub_mutex_;
  unsigned int &signal_id_;
};

}  // namespace kova

#endif  // KOVA_APP_REGISTRY_H

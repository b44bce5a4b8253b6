// The service link: the one system-bus connection, synchronous and
// fire-and-forget calls, command identifiers, the marker-event tests, the
// CPU-inheritance bracket and the per-registration signal subscription.
#include "kova_private.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <unordered_map>

#include "pelk.h"
#include "tarn_system_resource.h"

namespace {

std::atomic<GDBusConnection *> conn{nullptr};
std::mutex conn_mutex;  // serialises the first creation only
std::atomic<int> pid{-1};
std::atomic<uint32_t> count{0};

// Set in the child of a fork() made while the connection existed.
std::atomic<bool> forked{false};

void after_fork_in_child() {
  if (conn.load(std::memory_order_relaxed) != nullptr) forked.store(true, std::memory_order_relaxed);
  pid.store(-1, std::memory_order_relaxed);  // the child's identifiers carry its own pid
}

const int fork_handler_installed = pthread_atfork(nullptr, nullptr, after_fork_in_child);

constexpr const char *kForkedReason = "the connection was inherited across fork() and cannot be used in the child";

void release_args(GVariant *args) {
  if (args != nullptr) g_variant_unref(g_variant_ref_sink(args));
}

// The delivery lock of every cb_data subscription: guards the delivery fields
// of the records, the live subscriptions and the tracker of running calls.
std::mutex delivery_mutex;
std::unordered_map<unsigned int, cb_data *> live_subscriptions;
kova::CallTracker cb_data_calls;

uint64_t key_of(const cb_data *data) { return reinterpret_cast<uintptr_t>(data); }

// Under delivery_mutex: drops one hold; true when the record is then to be freed.
bool drop_hold(cb_data *data) {
  --data->holds;
  return data->released && data->holds == 0;
}

// Marks the subscription unregistered and holds its record, or null for an id
// that names no live subscription.
cb_data *cancel_subscription(unsigned int id) {
  std::lock_guard<std::mutex> lock(delivery_mutex);
  auto it = live_subscriptions.find(id);
  if (it == live_subscriptions.end()) return nullptr;
  cb_data *data = it->second;
  live_subscriptions.erase(it);
  data->cancelled = true;
  ++data->holds;
  return data;
}

// After cancel_subscription: waits for a call of the record running on another
// thread, then lets go of it.
void await_subscription(cb_data *data) {
  if (data == nullptr) return;
  std::unique_lock<std::mutex> lock(delivery_mutex);
  cb_data_calls.wait_idle(lock, key_of(data));
  const bool last = drop_hold(data);
  lock.unlock();
  if (last) g_free(data);
}

// Removes subscription id, logging the two unsubscribe lines on behalf of func
// unless it is null. Once this returns on a thread other than the one
// delivering the signal, the subscription's callback is not running and will
// not start; on the delivering thread itself it returns at once. 0, or -1
// without a connection.
int unsubscribe_and_wait(const char *func, unsigned int id) {
  cb_data *data = cancel_subscription(id);
  int result = 0;
#ifdef KOVA_FUZZING
  (void)func;
  kova_fuzz_unsubscribe(id);
#else
  if (GDBusConnection *c = _kova_dbus_get_connection()) {
    if (func != nullptr) KOVA_LOG_AT(KOVA_LOG_INFO, func, "unsubscribe start (%u)", id);
    g_dbus_connection_signal_unsubscribe(c, id);
    if (func != nullptr) KOVA_LOG_AT(KOVA_LOG_INFO, func, "unsubscribe done (%u)", id);
  } else {
    result = -1;
  }
#endif
  await_subscription(data);
  return result;
}

}  // namespace

namespace kova {

void alloc_failed(const char *what, const char *file, int line) noexcept {
  std::fprintf(stderr, "%s:%d: allocation failed: %s\n", file, line, what);
  std::abort();
}

const void *CallTracker::this_thread() noexcept {
  static thread_local char self;
  return &self;
}

bool CallTracker::busy_elsewhere(uint64_t key) const noexcept {
  const void *self = this_thread();
  return std::any_of(calls_.begin(), calls_.end(), [&](const Call &c) { return c.key == key && c.thread != self; });
}

void CallTracker::leave(uint64_t key) noexcept {
  const void *self = this_thread();
  auto it = std::find_if(calls_.begin(), calls_.end(), [&](const Call &c) { return c.key == key && c.thread == self; });
  if (it != calls_.end()) calls_.erase(it);
  if (waiters_ > 0) idle_.notify_all();
}

void CallTracker::wait_idle(std::unique_lock<std::mutex> &lock, uint64_t key) {
  ++waiters_;
  idle_.wait(lock, [&] { return !busy_elsewhere(key); });
  --waiters_;
}

bool forked_child() noexcept { return forked.load(std::memory_order_relaxed); }

GDBusConnection *shared_system_bus(const char *func) noexcept {
  if (forked_child()) {
    KOVA_LOG_AT(KOVA_LOG_ERROR, func, "failed to get connection (%s)", kForkedReason);
    return nullptr;
  }
  GError *error = nullptr;
  GDBusConnection *c = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
  if (c == nullptr) {
    KOVA_LOG_AT(KOVA_LOG_ERROR, func, "failed to get connection (%s)", error ? error->message : "unknown");
    g_clear_error(&error);
  }
  return c;
}

cb_data *new_cb_data(void (*callback)(void), void *user_data) noexcept {
  auto *data = static_cast<cb_data *>(g_malloc0(sizeof(cb_data)));  // aborts when memory runs out
  data->callback = callback;
  data->user_data = user_data;
  return data;
}

void release_cb_data(gpointer p) noexcept {
  auto *data = static_cast<cb_data *>(p);
  {
    std::lock_guard<std::mutex> lock(delivery_mutex);
    data->released = true;
    if (data->holds > 0) return;
  }
  g_free(data);
}

Delivery::Delivery(gpointer p) noexcept : data_(static_cast<cb_data *>(p)) {
  std::lock_guard<std::mutex> lock(delivery_mutex);
  if (data_->cancelled) {
    data_ = nullptr;
    return;
  }
  ++data_->holds;
  cb_data_calls.enter(key_of(data_));
}

Delivery::~Delivery() {
  if (data_ == nullptr) return;
  bool last = false;
  {
    std::lock_guard<std::mutex> lock(delivery_mutex);
    cb_data_calls.leave(key_of(data_));
    last = drop_hold(data_);
  }
  if (last) g_free(data_);
}

int unsubscribe_signal_quietly(unsigned int id) noexcept { return unsubscribe_and_wait(nullptr, id); }

bool valid_string(const char *s) noexcept { return s != nullptr && g_utf8_validate(s, -1, nullptr); }

bool service_ready_now() noexcept { return PelkWaitEvent(KOVA_READY_EVENT, 0) == 0; }

int call_sync(const char *func, int cmd, const char *method, GVariant *args, const char *reply_type,
              GVariant **reply) noexcept {
  GVariant *r = nullptr;
  if (_kova_dbus_method_call(method, args, &r) != 0) return -1;
  if (!g_variant_is_of_type(r, G_VARIANT_TYPE(reply_type))) {
    KOVA_LOG_AT(KOVA_LOG_ERROR, func, "[%08X] (%s) unexpected reply type (%s)", cmd, method,
                g_variant_get_type_string(r));
    g_variant_unref(r);
    return -1;
  }
  *reply = r;
  return 0;
}

int call_sync_int(const char *func, int cmd, const char *method, GVariant *args, int *value) noexcept {
  GVariant *reply = nullptr;
  if (call_sync(func, cmd, method, args, "(i)", &reply) != 0) return -1;
  gint32 v = 0;
  g_variant_get(reply, "(i)", &v);
  g_variant_unref(reply);
  *value = v;
  return 0;
}

bool signal_params_are(const char *func, GVariant *params, const char *type, const char *signal) noexcept {
  if (params != nullptr && g_variant_is_of_type(params, G_VARIANT_TYPE(type))) return true;
  KOVA_LOG_AT(KOVA_LOG_ERROR, func, "signal (%s) ignored, unexpected type (%s)", signal ? signal : "",
              params ? g_variant_get_type_string(params) : "none");
  return false;
}

unsigned int register_signal_callback(const char *func, const char *signal, GDBusSignalCallback handler,
                                      GDestroyNotify free_func, void (*callback)(void),
                                      void *user_data) noexcept {
  cb_data *data = new_cb_data(callback, user_data);
  unsigned int id = 0;
  if (_kova_dbus_subscribe_signal(signal, handler, &id, data, free_func) != 0) {
    g_free(data);
    KOVA_LOG_AT(KOVA_LOG_ERROR, func, "(%s) failed", signal);
    return static_cast<unsigned int>(-1);
  }
  KOVA_LOG_AT(KOVA_LOG_INFO, func, "(%s) success :: (%u)", signal, id);
  return id;
}

}  // namespace kova

extern "C" {

GDBusConnection *_kova_dbus_get_connection(void) noexcept {
  if (kova::forked_child()) {
    KOVA_LOGE("no connection in pid %d: %s", static_cast<int>(getpid()), kForkedReason);
    return nullptr;
  }
  GDBusConnection *c = conn.load(std::memory_order_acquire);
  if (c != nullptr) return c;
  std::lock_guard<std::mutex> lock(conn_mutex);
  c = conn.load(std::memory_order_acquire);
  if (c != nullptr) return c;
  GError *error = nullptr;
  c = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
  if (c == nullptr) {
    KOVA_LOGE("g_bus_get_sync() error (%s)", error ? error->message : "unknown");
    g_clear_error(&error);
    return nullptr;
  }
  conn.store(c, std::memory_order_release);
  return c;
}

int _kova_dbus_method_call(const char *method, GVariant *args, GVariant **reply) noexcept {
  KOVA_LOGI("Method call '%s'", method ? method : "(null)");
  if (method == nullptr) {
    KOVA_LOGE("Invalid Argument");
    release_args(args);
    return -1;
  }
#ifdef KOVA_FUZZING
  return kova_fuzz_method_call(method, args, reply);
#endif
  GDBusConnection *c = _kova_dbus_get_connection();
  if (c == nullptr) {
    release_args(args);
    return -1;
  }
  _kova_set_cpu_inheritance();
  GError *error = nullptr;
  GVariant *r = g_dbus_connection_call_sync(c, KOVA_DBUS_NAME, KOVA_DBUS_PATH, KOVA_DBUS_INTERFACE, method,
                                            args, nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error);
  _kova_clear_cpu_inheritance();
  if (r == nullptr) {
    KOVA_LOGE("Method Call '%s' Failed (%s)", method, error ? error->message : "unknown");
    g_clear_error(&error);
    return -1;
  }
  if (reply != nullptr) {
    *reply = r;
  } else {
    g_variant_unref(r);
  }
  return 0;
}

int _kova_dbus_method_call_async_with_no_reply(const char *method, GVariant *args) noexcept {
  KOVA_LOGI("Method call '%s'", method ? method : "(null)");
  if (method == nullptr) {
    KOVA_LOGE("Invalid Argument");
    release_args(args);
    return -1;
  }
#ifdef KOVA_FUZZING
  return kova_fuzz_method_call(method, args, nullptr);
#endif
  GDBusConnection *c = _kova_dbus_get_connection();
  if (c == nullptr) {
    release_args(args);
    return -1;
  }
  g_dbus_connection_call(c, KOVA_DBUS_NAME, KOVA_DBUS_PATH, KOVA_DBUS_INTERFACE, method, args, nullptr,
                         G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr, nullptr);
  return 0;
}

int _kova_get_command_id(void) noexcept {
  int p = pid.load(std::memory_order_relaxed);
  if (p == -1) {
    p = static_cast<int>(getpid());
    pid.store(p, std::memory_order_relaxed);
  }
  return kova::make_command_id(p, count.fetch_add(1, std::memory_order_relaxed));
}

bool _kova_is_normal_mode(void) noexcept { return PelkWaitEvent(KOVA_POLICY_ACTIVATED_EVENT, 0) != 0; }

int _kova_set_cpu_inheritance(void) noexcept {
  return resource_set_cpu_inheritance(0, KOVA_PROCESS_NAME, KOVA_CPU_INHERITANCE_MS);
}

int _kova_clear_cpu_inheritance(void) noexcept { return resource_clear_cpu_inheritance(0, KOVA_PROCESS_NAME); }

int _kova_dbus_subscribe_signal(const char *signal, GDBusSignalCallback handler, unsigned int *id,
                                gpointer user_data, GDestroyNotify free_func) noexcept {
  if (signal == nullptr || handler == nullptr) {
    KOVA_LOGE("Invalid Argument");
    return -1;
  }
#ifdef KOVA_FUZZING
  KOVA_LOGI("Dbus subscirbe signal %s", signal);
  unsigned int sid = kova_fuzz_subscribe(signal, handler, user_data, free_func);
#else
  GDBusConnection *c = _kova_dbus_get_connection();
  if (c == nullptr) return -1;
  KOVA_LOGI("Dbus subscirbe signal %s", signal);
  unsigned int sid = g_dbus_connection_signal_subscribe(c, nullptr, KOVA_DBUS_INTERFACE, signal, KOVA_DBUS_PATH,
                                                        nullptr, G_DBUS_SIGNAL_FLAGS_NONE, handler, user_data,
                                                        free_func);
#endif
  if (sid == 0) {
    KOVA_LOGE("g_dbus_connection_signal_subscribe() failed ");
    return -1;
  }
  {
    // Every caller hands a cb_data, which unregistration finds by the id.
    std::lock_guard<std::mutex> lock(delivery_mutex);
    live_subscriptions[sid] = static_cast<cb_data *>(user_data);
  }
  if (id != nullptr) *id = sid;
  return 0;
}

int _kova_dbus_unsubscribe_signal(unsigned int id) noexcept {
  if (id == 0) return 0;
  return unsubscribe_and_wait(__func__, id);
}

}  // extern "C"

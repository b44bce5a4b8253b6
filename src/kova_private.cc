// The service link: the one system-bus connection, synchronous and
// fire-and-forget calls, command identifiers, the marker-event tests, the
// CPU-inheritance bracket and the per-registration signal subscription.
#include "kova_private.h"

#include <unistd.h>

#include <atomic>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "pelk.h"
#include "tarn_system_resource.h"

namespace {

std::atomic<GDBusConnection *> conn{nullptr};
std::mutex conn_mutex;  // serialises the first creation only
std::atomic<int> pid{-1};
std::atomic<uint32_t> count{0};

void release_args(GVariant *args) {
  if (args != nullptr) g_variant_unref(g_variant_ref_sink(args));
}

}  // namespace

namespace kova {

void alloc_failed(const char *what, const char *file, int line) noexcept {
  std::fprintf(stderr, "%s:%d: allocation failed: %s\n", file, line, what);
  std::abort();
}

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
  auto *data = static_cast<cb_data *>(g_malloc0(sizeof(cb_data)));
  data->callback = callback;
  data->user_data = user_data;
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
  if (id != nullptr) *id = sid;
  return 0;
}

int _kova_dbus_unsubscribe_signal(unsigned int id) noexcept {
  if (id == 0) return 0;
#ifdef KOVA_FUZZING
  kova_fuzz_unsubscribe(id);
  return 0;
#endif
  GDBusConnection *c = _kova_dbus_get_connection();
  if (c == nullptr) return -1;
  KOVA_LOGI("unsubscribe start (%u)", id);
  g_dbus_connection_signal_unsubscribe(c, id);
  KOVA_LOGI("unsubscribe done (%u)", id);
  return 0;
}

}  // extern "C"

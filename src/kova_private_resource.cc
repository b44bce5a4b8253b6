// Per-application notifications of resource changes and of maximum-resolution
// changes: two instances of one registry.
#include <unistd.h>

#include "kova_app_registry.h"
#include "kova_private.h"

namespace {

// The record stored per application id in each registry.
struct rsc_change_cb {
  kova_resource_change_cb callback;
  void *user_data;
};

struct rez_change_cb {
  max_resolution_change_cb callback;
  void *user_data;
};

struct ResourceChange {
  using Callback = kova_resource_change_cb;
  using Record = rsc_change_cb;
  struct Signal {
    const char *app_id;  // borrowed from the message
    kova_resource resource;
  };

  static constexpr kova::RegistryNames kNames{"_kova_register_resource_change_callback",
                                              "_kova_unregister_resource_change_callback",
                                              "_kova_add_resource_change_cb",
                                              "_kova_remove_resource_change_cb",
                                              "_kova_register_resource_change_callback_app_id",
                                              "_kova_unregister_resource_change_callback_app_id",
                                              "onRezChanged"};
  static constexpr const char *kWhat = "resource";
  static constexpr const char *kRegisterMethod = "RscChangeRegId";
  static constexpr const char *kUnregisterMethod = "RscChangeUnRegId";
  static constexpr const char *kSignal = "AppRscChanged";
  static constexpr GDBusSignalCallback kHandler = onRezChanged;

  static GVariant *service_args(int cmd, const char *app_id, guint32 cb) {
    return g_variant_new("(iisu)", cmd, static_cast<gint32>(getpid()), app_id, cb);
  }

  static bool unpack(const char *signal, GVariant *params, Signal *out) {
    if (!kova::signal_params_are(kNames.handler, params, "(siiiii)", signal)) return false;
    gint32 width = 0;
    gint32 height = 0;
    kova_resource &r = out->resource;
    g_variant_get(params, "(&siiiii)", &out->app_id, &r.max_resolution_changed, &r.audio_out_changed, &width, &height,
                  &r.framerate);
    // The record keeps the height before the width.
    r.width = width;
    r.height = height;
    KOVA_LOG_AT(KOVA_LOG_INFO, kNames.handler, "signal (%s) received - (%s:%d:%d:%d:%d:%d)", signal, out->app_id,
                r.max_resolution_changed, r.audio_out_changed, width, height, r.framerate);
    return true;
  }

  static void deliver(Signal &s, Callback cb, void *user_data) { cb(s.app_id, &s.resource, user_data); }
};

struct MaxResolutionChange {
  using Callback = max_resolution_change_cb;
  using Record = rez_change_cb;
  struct Signal {
    const char *app_id;  // borrowed from the message
    gint32 width;
    gint32 height;
    gint32 framerate;
  };

  static constexpr kova::RegistryNames kNames{"_kova_register_max_video_resolution_changed_callback",
                                              "_kova_unregister_max_video_resolution_changed_callback",
                                              "_kova_add_max_video_resolution_cb",
                                              "_kova_remove_max_video_resolution_cb",
                                              "_kova_register_max_video_resolution_changed_callback_app_id",
                                              "_kova_unregister_max_video_resolution_changed_callback_app_id",
                                              "onMaxRezChanged"};
  static constexpr const char *kWhat = "max resolution";
  static constexpr const char *kRegisterMethod = "MaxVideoRegId";
  static constexpr const char *kUnregisterMethod = "MaxVideoUnRegId";
  static constexpr const char *kSignal = "MaxRezChanged";
  static constexpr GDBusSignalCallback kHandler = onMaxRezChanged;

  // Unlike the resource-change calls, these carry no process id.
  static GVariant *service_args(int cmd, const char *app_id, guint32 cb) {
    return g_variant_new("(isu)", cmd, app_id, cb);
  }

  static bool unpack(const char *signal, GVariant *params, Signal *out) {
    if (!kova::signal_params_are(kNames.handler, params, "(siii)", signal)) return false;
    g_variant_get(params, "(&siii)", &out->app_id, &out->width, &out->height, &out->framerate);
    KOVA_LOG_AT(KOVA_LOG_INFO, kNames.handler, "signal (%s) received - (%s:%d:%d:%d)", signal, out->app_id, out->width,
                out->height, out->framerate);
    return true;
  }

  static void deliver(const Signal &s, Callback cb, void *user_data) {
    cb(s.app_id, s.width, s.height, s.framerate, user_data);
  }
};

// Subscription ids of the two signals; 0 while not subscribed. Each is guarded
// by its registry.
unsigned int rsc_change_signal_id = 0;
unsigned int rez_change_signal_id = 0;

kova::AppRegistry<ResourceChange> rsc_change_cbs{rsc_change_signal_id};
kova::AppRegistry<MaxResolutionChange> rez_change_cbs{rez_change_signal_id};

}  // namespace

extern "C" {

void onRezChanged(GDBusConnection *, const gchar *, const gchar *, const gchar *, const gchar *signal, GVariant *params,
                  gpointer) noexcept {
  rsc_change_cbs.dispatch(signal, params);
}

void onMaxRezChanged(GDBusConnection *, const gchar *, const gchar *, const gchar *, const gchar *signal,
                     GVariant *params, gpointer) noexcept {
  rez_change_cbs.dispatch(signal, params);
}

int _kova_register_resource_change_callback(const char *app_id, kova_resource_change_cb cb, void *user_data) noexcept {
  return rsc_change_cbs.register_callback(app_id, cb, user_data);
}

int _kova_unregister_resource_change_callback(const char *app_id, kova_resource_change_cb cb) noexcept {
  return rsc_change_cbs.unregister_callback(app_id, cb);
}

int _kova_add_resource_change_cb(const char *app_id, kova_resource_change_cb cb, void *user_data) noexcept {
  return rsc_change_cbs.add(app_id, cb, user_data);
}

int _kova_remove_resource_change_cb(const char *app_id, kova_resource_change_cb cb) noexcept {
  return rsc_change_cbs.remove(app_id, cb);
}

int _kova_register_resource_change_callback_app_id(const char *app_id, void *cb) noexcept {
  return rsc_change_cbs.tell_service_register(app_id, cb);
}

int _kova_unregister_resource_change_callback_app_id(const char *app_id, void *cb) noexcept {
  return rsc_change_cbs.tell_service_unregister(app_id, cb);
}

int _kova_register_max_video_resolution_changed_callback(const char *app_id, max_resolution_change_cb cb,
                                                         void *user_data) noexcept {
  return rez_change_cbs.register_callback(app_id, cb, user_data);
}

int _kova_unregister_max_video_resolution_changed_callback(const char *app_id, max_resolution_change_cb cb) noexcept {
  return rez_change_cbs.unregister_callback(app_id, cb);
}

int _kova_add_max_video_resolution_cb(const char *app_id, max_resolution_change_cb cb, void *user_data) noexcept {
  return rez_change_cbs.add(app_id, cb, user_data);
}

int _kova_remove_max_video_resolution_cb(const char *app_id, max_resolution_change_cb cb) noexcept {
  return rez_change_cbs.remove(app_id, cb);
}

int _kova_register_max_video_resolution_changed_callback_app_id(const char *app_id, void *cb) noexcept {
  return rez_change_cbs.tell_service_register(app_id, cb);
}

int _kova_unregister_max_video_resolution_changed_callback_app_id(const char *app_id, void *cb) noexcept {
  return rez_change_cbs.tell_service_unregister(app_id, cb);
}

}  // extern "C"

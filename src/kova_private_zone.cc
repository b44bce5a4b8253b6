// Zone operations: zone records, the two zone-list queries and their walk,
// application-to-zone assignment, the layout state and the focused zone.
#include <cstdlib>
#include <cstring>

#include "kova_private.h"

namespace {

const char *or_empty(const char *s) { return s != nullptr ? s : ""; }
const char *or_null(const char *s) { return s != nullptr ? s : "null"; }

// How one list query differs from the other.
struct ZoneListQuery {
  const char *method;
  const char *what;          // names the query in the failure line
  const char *reply_type;
  bool has_scaler;           // elements are (iis) rather than (is)
};

constexpr ZoneListQuery kZoneIds{"GetMultiviewZoneIds", "GET_ZONE_LIST", "(a(iis))", true};
constexpr ZoneListQuery kMultiviewZones{"GetMultiviewZoneList", "GET_MULTIVIEW_ZONE_LIST", "(a(is))", false};

void free_zone_item(gpointer zone) { _kova_zone_free(static_cast<kova_zone *>(zone)); }

void release_zone_list(kova_zone_list *list) {
  g_list_free_full(list->list, free_zone_item);
  g_free(list);
}

int fetch_zone_list(const char *func, const ZoneListQuery &q, void **out) {
  const int cmd = _kova_get_command_id();
  GVariant *reply = nullptr;
  if (kova::call_sync(func, cmd, q.method, g_variant_new("(i)", cmd), q.reply_type, &reply) != 0) {
    KOVA_LOG_AT(KOVA_LOG_ERROR, func, "[%08X] _kova_dbus_method_call() for %s is failed", cmd, q.what);
    return -1;
  }
  GVariantIter *iter = nullptr;
  g_variant_get(reply, q.has_scaler ? "(a(iis))" : "(a(is))", &iter);
  if (iter == nullptr) {
    KOVA_LOG_AT(KOVA_LOG_ERROR, func, "[%08X] iter is null", cmd);
    g_variant_unref(reply);
    return -1;
  }
  auto *_zone_list = static_cast<kova_zone_list *>(g_malloc0(sizeof(kova_zone_list)));
  KOVA_ASSERT_ALLOC(_zone_list);
  gint32 id = 0;
  gint32 scaler_id = 0;
  const gchar *app_id = nullptr;
  for (;;) {
    const bool got = q.has_scaler ? g_variant_iter_next(iter, "(ii&s)", &id, &scaler_id, &app_id)
                                  : g_variant_iter_next(iter, "(i&s)", &id, &app_id);
    if (!got) break;
    kova_zone *zone = kova::new_zone(id, q.has_scaler ? scaler_id : 0, app_id);
    KOVA_ASSERT_ALLOC(zone);
    ++_zone_list->count;
    _zone_list->list = g_list_append(_zone_list->list, zone);
    if (q.has_scaler) {
      KOVA_LOG_AT(KOVA_LOG_INFO, func, "[%08X] zone %d(%d:%s) is added", cmd, zone->id, zone->scaler_id,
                  or_empty(zone->app_id));
    } else {
      KOVA_LOG_AT(KOVA_LOG_INFO, func, "[%08X] zone %d(%s) is added", cmd, zone->id, or_empty(zone->app_id));
    }
  }
  g_variant_iter_free(iter);
  if (_zone_list->count == 0) {
    KOVA_LOG_AT(KOVA_LOG_INFO, func, "[%08X] There is no zones", cmd);
    release_zone_list(_zone_list);
    g_variant_unref(reply);
    return -1;
  }
  KOVA_LOG_AT(KOVA_LOG_INFO, func, "[%08X] _kova_dbus_method_call() success, method return value is (%i)", cmd,
              _zone_list->count);
  *out = _zone_list;
  g_variant_unref(reply);
  return 0;
}

// The forward step shared by both walks: the node after the walk position, or
// the first node when the walk has not started; null at the end.
GList *step_forward(kova_zone_list *list) {
  GList *next = list->iter != nullptr ? list->iter->next : list->list;
  if (next != nullptr) list->iter = next;
  return next;
}

// "(isi)" assignment calls; the service's 0 is success.
int assign(const char *func, const char *method, const char *what, const char *app_id, int zone_id) {
  const int cmd = _kova_get_command_id();
  int value = 0;
  if (kova::call_logged_int(func, cmd, method, g_variant_new("(isi)", cmd, app_id, zone_id), what, &value) != 0) {
    return -1;
  }
  return value == 0 ? 0 : -1;
}

int send_without_reply(const char *func, int cmd, const char *method, GVariant *args) {
  if (_kova_dbus_method_call_async_with_no_reply(method, args) != 0) {
    KOVA_LOG_AT(KOVA_LOG_ERROR, func, "[%08x] %s failed", cmd, method);
    return -1;
  }
  KOVA_LOG_AT(KOVA_LOG_INFO, func, "[%08X] _kova_dbus_method_call() success", cmd);
  return 0;
}

}  // namespace

namespace kova {

kova_zone *new_zone(int id, int scaler_id, const char *app_id) noexcept {
  auto *zone = static_cast<kova_zone *>(std::calloc(1, sizeof(kova_zone)));
  if (zone == nullptr) return nullptr;
  zone->id = id;
  zone->scaler_id = scaler_id;
  if (app_id != nullptr) {
    zone->app_id = strdup(app_id);
    if (zone->app_id == nullptr) {
      std::free(zone);
      return nullptr;
    }
  }
  return zone;
}

int call_logged_int(const char *func, int cmd, const char *method, GVariant *args, const char *what,
                    int *value) noexcept {
  int v = 0;
  if (call_sync_int(func, cmd, method, args, &v) != 0) {
    KOVA_LOG_AT(KOVA_LOG_ERROR, func, "[%08X] _kova_dbus_method_call() for %s is failed", cmd, what);
    return -1;
  }
  KOVA_LOG_AT(KOVA_LOG_INFO, func, "[%08X] _kova_dbus_method_call() success, method return value is (%i)", cmd, v);
  *value = v;
  return 0;
}

}  // namespace kova

extern "C" {

void _kova_zone_free(kova_zone *zone) noexcept {
  if (zone == nullptr) return;
  std::free(zone->app_id);
  std::free(zone);
}

int _kova_get_zone_list(void **zone_list) noexcept { return fetch_zone_list(__func__, kZoneIds, zone_list); }

int _kova_get_multiview_zone_list(void **zone_list) noexcept {
  return fetch_zone_list(__func__, kMultiviewZones, zone_list);
}

int _kova_free_zone_list(void *zone_list) noexcept {
  release_zone_list(static_cast<kova_zone_list *>(zone_list));
  return 0;
}

int _kova_get_next_zone(void *zone_list, kova_zone **zone) noexcept {
  GList *node = step_forward(static_cast<kova_zone_list *>(zone_list));
  if (node == nullptr) {
    KOVA_LOGI("no next zone");
    return -1;
  }
  *zone = static_cast<kova_zone *>(node->data);
  return 0;
}

int _kova_get_prev_zone(void *zone_list, kova_zone **zone) noexcept {
  auto *list = static_cast<kova_zone_list *>(zone_list);
  if (list->iter == nullptr || list->iter->prev == nullptr) {
    KOVA_LOGI("no prev zone");
    return -1;
  }
  list->iter = list->iter->prev;
  *zone = static_cast<kova_zone *>(list->iter->data);
  return 0;
}

kova_zone *_kova_get_next_resource_zone(void *zone_list) noexcept {
  if (zone_list == nullptr) {
    KOVA_LOGE("invalid param");
    return nullptr;
  }
  GList *node = step_forward(static_cast<kova_zone_list *>(zone_list));
  if (node == nullptr) {
    KOVA_LOGE("no next zone");
    return nullptr;
  }
  return static_cast<kova_zone *>(node->data);
}

int _kova_get_zone_id(kova_zone *zone, int *zone_id) noexcept {
  *zone_id = zone->id;
  return 0;
}

int _kova_set_app_zone_info(const char *app_id, int zone_id) noexcept {
  return assign(__func__, "SetAppToZone", "SET_APP_ZONE_INFO", app_id, zone_id);
}

int _kova_remove_app_zone_info(const char *app_id, int zone_id) noexcept {
  return assign(__func__, "RemoveAppFromZone", "RemoveAppFromZone", app_id, zone_id);
}

int _kova_set_pre_assigned_app_zone_info(const char *app_id, int zone_id) noexcept {
  return assign(__func__, "SetPreAssignedAppToZone", "SET_PRE_ASSIGNED_APP_ZONE_INFO", app_id, zone_id);
}

int _kova_set_removable_app_zone_info(const char *app_id, int zone_id) noexcept {
  const int cmd = _kova_get_command_id();
  return send_without_reply(__func__, cmd, "SetRemovableAppToZone", g_variant_new("(isi)", cmd, app_id, zone_id));
}

int _kova_clear_removable_app_zone_info(void) noexcept {
  const int cmd = _kova_get_command_id();
  return send_without_reply(__func__, cmd, "ClearRemovableAppToZone", g_variant_new("(i)", cmd));
}

int _kova_notify_layout_state(kova_layout_state_e state) noexcept {
  const int cmd = _kova_get_command_id();
  int value = 0;
  if (kova::call_logged_int(__func__, cmd, "NotifyLayoutState", g_variant_new("(ii)", cmd, static_cast<int>(state)),
                            "NOTIFY_LAYOUT_STATE", &value) != 0) {
    return -1;
  }
  return value == 0 ? 0 : -1;
}

int _kova_get_focused_zone(kova_zone **zone) noexcept {
  const int cmd = _kova_get_command_id();
  GVariant *reply = nullptr;
  if (kova::call_sync(__func__, cmd, "GetFocusedZone", g_variant_new("(i)", cmd), "(iis)", &reply) != 0) {
    KOVA_LOGE("[%08X] _kova_dbus_method_call() for GET_FOCUSED_ZONE is failed", cmd);
    return -1;
  }
  gint32 id = 0;
  gint32 scaler_id = 0;
  const gchar *app_id = nullptr;
  g_variant_get(reply, "(ii&s)", &id, &scaler_id, &app_id);
  KOVA_LOGI("[%08X] focused zone (%d:%d:%s)", cmd, id, scaler_id, or_null(app_id));
  kova_zone *z = kova::new_zone(id, scaler_id, app_id);
  KOVA_ASSERT_ALLOC(z);
  *zone = z;
  g_variant_unref(reply);
  return 0;
}

}  // extern "C"

// Resource policy operations: setting the policy and delivering the service's
// policy changes.
#include <unistd.h>

#include "kova_private.h"

namespace {

// The record's owner as the bus can carry it: a notification record has none.
const char *owner_of(const kova_policy_info *info) {
  return kova::valid_string(info->owner_name) ? info->owner_name : "";
}

void policy_changed_cb_data_free_func(gpointer data) noexcept { kova::release_cb_data(data); }

}  // namespace

extern "C" void _dbus_policy_changed_signal_callback(GDBusConnection *, const gchar *, const gchar *,
                                                     const gchar *iface, const gchar *signal, GVariant *params,
                                                     gpointer user_data) noexcept {
  kova::Delivery delivery(user_data);
  if (!delivery) return;
  if (!kova::signal_params_are(__func__, params, "(iia(is))", signal)) return;
  gint32 cmd = 0;
  gint32 policy = 0;
  GVariantIter *apps = nullptr;
  g_variant_get(params, "(iia(is))", &cmd, &policy, &apps);
  KOVA_LOGI("[%08X] Signal(%s.%s) Received(%d)", cmd, iface, signal, policy);

  kova_app_list *list = kova_app_list_create_new();
  gint32 zone_id = 0;
  const gchar *app_id = nullptr;
  while (g_variant_iter_next(apps, "(i&s)", &zone_id, &app_id)) {
    KOVA_LOGI("zone(%d)-app(%s)", zone_id, app_id);
    kova_app_list_add(list, zone_id, app_id);
  }
  kova_policy_info info{};
  info.policy = policy;
  info.app_list = list;
  info.owner_name = nullptr;
  info.remove_all_current_apps = false;

  auto *data = static_cast<cb_data *>(user_data);
  reinterpret_cast<kova_policy_changed_cb>(data->callback)(&info, data->user_data);

  // The record and its list live for this one call only.
  kova_app_list_free(list);
  g_variant_iter_free(apps);
}

namespace kova {

int send_policy_call(const char *func, int cmd, const char *method, GVariant *args) noexcept {
  int result = 0;
  if (call_sync_int(func, cmd, method, args, &result) != 0) {
    KOVA_LOG_AT(KOVA_LOG_ERROR, func, "[%08X] %s failed", cmd, method);
    return -1;
  }
  KOVA_LOG_AT(KOVA_LOG_INFO, func, "[%08X] %s success, result (%i)", cmd, method, result);
  // The service's non-zero results mean nothing to callers beyond failure.
  return result == 0 ? 0 : -1;
}

}  // namespace kova

extern "C" {

int _kova_set_resource_policy_with_info(int policy, kova_policy_info *info) noexcept {
  // The option takes no part in the choice: both methods carry it.
  if (kova_app_list_get_count(info->app_list) < 1) return _kova_set_resource_policy_without_applist(policy, info);
  return _kova_set_resource_policy_with_applist(policy, info);
}

int _kova_set_resource_policy_without_applist(int policy, kova_policy_info *info) noexcept {
  int cmd = _kova_get_command_id();
  GVariant *args = g_variant_new("(iiisi)", cmd, policy, static_cast<gint32>(getpid()), owner_of(info),
                                 info->remove_all_current_apps ? 1 : 0);
  return kova::send_policy_call(__func__, cmd, "SetResourcePolicyWithOwner", args);
}

int _kova_set_resource_policy_with_applist(int policy, kova_policy_info *info) noexcept {
  int cmd = _kova_get_command_id();
  GVariant *args = g_variant_new("(iiisii@a(sii))", cmd, policy, static_cast<gint32>(getpid()), owner_of(info),
                                 info->remove_all_current_apps ? 1 : 0, kova_app_list_get_count(info->app_list),
                                 kova::app_priority_array(info->app_list));
  return kova::send_policy_call(__func__, cmd, "SetResourcePolicyWithAppList", args);
}

int _kova_set_resource_policy(int policy) noexcept {
  int cmd = _kova_get_command_id();
  GVariant *args = g_variant_new("(iui)", cmd, static_cast<guint32>(policy), static_cast<gint32>(getpid()));
  int result = 0;
  if (kova::call_sync_int(__func__, cmd, "SetResourcePolicyInternal", args, &result) != 0) {
    KOVA_LOGE("[%08X] _kova_dbus_method_call() for SET_RESOURCE_POLICY is failed", cmd);
    return -1;
  }
  KOVA_LOGI("[%08X] _kova_dbus_method_call() success, method return value is (%i)", cmd, result);
  return result == 0 ? 0 : -1;
}

int _kova_set_resource_policy_app_zone_info(int policy, kova_app_list_h app_list) noexcept {
  int cmd = _kova_get_command_id();
  GVariant *args = g_variant_new("(iiii@a(is))", cmd, policy, static_cast<gint32>(getpid()),
                                 kova_app_list_get_count(app_list), kova::app_zone_array(app_list));
  return kova::send_policy_call(__func__, cmd, "SetResourcePolicyAppToZone", args);
}

int _kova_set_pre_assigned_app_list(kova_app_list_h app_list) noexcept {
  int cmd = _kova_get_command_id();
  GVariant *args = g_variant_new("(i@a(is))", cmd, kova::app_zone_array(app_list));
  return kova::send_policy_call(__func__, cmd, "SetPreAssignedAppList", args);
}

unsigned int _kova_register_resource_policy_changed_callback(kova_policy_changed_cb callback,
                                                             void *user_data) noexcept {
  return kova::register_signal_callback(__func__, "PolicyChanged", _dbus_policy_changed_signal_callback,
                                        policy_changed_cb_data_free_func,
                                        reinterpret_cast<void (*)(void)>(callback), user_data);
}

int _kova_unregister_resource_policy_changed_callback(unsigned int subscription_id) noexcept {
  // GDBus releases the callback-data record through the subscription's free function.
  return kova::unsubscribe_signal_quietly(subscription_id);
}

}  // extern "C"

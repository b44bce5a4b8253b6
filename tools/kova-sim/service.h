// The bus side of kova-sim: serves the interface (described by the embedded
// introspection XML, so GDBus itself refuses calls of the wrong signature),
// turns each call into a call of the rules, and sends what the rules queued.
#ifndef KOVA_SIM_SERVICE_H
#define KOVA_SIM_SERVICE_H

#include <gio/gio.h>

#include <map>
#include <string>

#include "markers.h"
#include "rules.h"

namespace kova_sim {

inline constexpr const char *kBusName = "org.zelta.tv.system.resource";
inline constexpr const char *kObjectPath = "/Org/Zelta/TV/System/Resource";
inline constexpr const char *kInterface = "org.zelta.tv.system.resource";

class Service {
 public:
  Service(Kova &kova, Markers &markers, bool verbose) : kova_(kova), markers_(markers), verbose_(verbose) {}
  ~Service();
  Service(const Service &) = delete;
  Service &operator=(const Service &) = delete;

  // Exports the object on connection. False with *error on failure.
  bool Register(GDBusConnection *connection, std::string *error);
  // Asks the bus for the service name without queueing: false with *error
  // when another connection owns it.
  bool OwnName(std::string *error);

 private:
  using Handler = GVariant *(Service::*)(int cmd, GVariant *params);
  static const std::map<std::string, Handler, std::less<>> &Handlers();
  static void OnMethodCall(GDBusConnection *, const char *sender, const char *path, const char *interface,
                           const char *method, GVariant *params, GDBusMethodInvocation *invocation, gpointer self);
  static gboolean OnStopTimer(gpointer data);

  // Raises or lowers the policy marker as the policy says.
  void FollowPolicy();
  // Follows the policy, sends the queued signals and arms the queued timers.
  void Flush();
  void EmitSignal(const Signal &signal);
  void Log(const char *fmt, ...) const G_GNUC_PRINTF(2, 3);

  GVariant *PlayerRegister(int cmd, GVariant *p);
  GVariant *PlayerUnregister(int cmd, GVariant *p);
  GVariant *PlayerRequestStop(int cmd, GVariant *p);
  GVariant *PlayerRequestPlay(int cmd, GVariant *p);
  GVariant *PlayerVideoStartDone(int cmd, GVariant *p);
  GVariant *PlayerVideoStopDone(int cmd, GVariant *p);
  GVariant *PlayerAudioStartDone(int cmd, GVariant *p);
  GVariant *PlayerAudioStopDone(int cmd, GVariant *p);
  GVariant *GetPlayerAudioOut(int cmd, GVariant *p);
  GVariant *RegisterExtSpkInfo(int cmd, GVariant *p);
  GVariant *UnregisterExtSpkInfo(int cmd, GVariant *p);
  GVariant *GetExtSpkInfoAudioOut(int cmd, GVariant *p);
  GVariant *GetMultiviewZoneIds(int cmd, GVariant *p);
  GVariant *GetMultiviewZoneList(int cmd, GVariant *p);
  GVariant *SetAppToZone(int cmd, GVariant *p);
  GVariant *RemoveAppFromZone(int cmd, GVariant *p);
  GVariant *SetPreAssignedAppToZone(int cmd, GVariant *p);
  GVariant *SetRemovableAppToZone(int cmd, GVariant *p);
  GVariant *ClearRemovableAppToZone(int cmd, GVariant *p);
  GVariant *NotifyLayoutState(int cmd, GVariant *p);
  GVariant *GetFocusedZone(int cmd, GVariant *p);
  GVariant *SwitchBestQaulityZone(int cmd, GVariant *p);
  GVariant *RestoreBestQualityZone(int cmd, GVariant *p);
  GVariant *SetAudioFocus(int cmd, GVariant *p);
  GVariant *GetAudioFocus(int cmd, GVariant *p);
  GVariant *GetLastAudioFocus(int cmd, GVariant *p);
  GVariant *IsAudioFocused(int cmd, GVariant *p);
  GVariant *RscChangeRegId(int cmd, GVariant *p);
  GVariant *RscChangeUnRegId(int cmd, GVariant *p);
  GVariant *MaxVideoRegId(int cmd, GVariant *p);
  GVariant *MaxVideoUnRegId(int cmd, GVariant *p);
  GVariant *GetMaxVideo(int cmd, GVariant *p);
  GVariant *PolicyGetMaxVideo(int cmd, GVariant *p);
  GVariant *GetCapableCatId(int cmd, GVariant *p);
  GVariant *SetResourcePolicyWithOwner(int cmd, GVariant *p);
  GVariant *SetResourcePolicyWithAppList(int cmd, GVariant *p);
  GVariant *SetResourcePolicyInternal(int cmd, GVariant *p);
  GVariant *SetResourcePolicyAppToZone(int cmd, GVariant *p);
  GVariant *SetPreAssignedAppList(int cmd, GVariant *p);
  GVariant *RegisterAppList(int cmd, GVariant *p);
  GVariant *UnregisterAppList(int cmd, GVariant *p);

  Kova &kova_;
  Markers &markers_;
  bool verbose_;
  GDBusConnection *connection_ = nullptr;
  GDBusNodeInfo *node_ = nullptr;
  guint registration_ = 0;
  bool policy_marker_ = false;
  // Armed stop timers by key, removed when they fire or the service goes.
  std::map<unsigned, guint> timers_;
  unsigned next_timer_ = 0;
};

}  // namespace kova_sim

#endif

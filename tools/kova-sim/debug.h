// kova-sim's own state on a debug interface of its own, beside the kova
// interface (which stays exactly as the library's wire fixes it): what a
// developer asks first when a player does not get what it expects.
#ifndef KOVA_SIM_DEBUG_H
#define KOVA_SIM_DEBUG_H

#include <gio/gio.h>

#include <string>

#include "rules.h"

namespace kova_sim {

inline constexpr const char *kDebugPath = "/Org/Zelta/TV/System/Resource/Debug";
inline constexpr const char *kDebugInterface = "org.zelta.tv.system.resource.Debug";

// The state as GetState returns it: a dictionary of plain values.
GVariant *StateVariant(const Snapshot &s);

class Debug {
 public:
  explicit Debug(const Kova &kova) : kova_(kova) {}
  ~Debug();
  Debug(const Debug &) = delete;
  Debug &operator=(const Debug &) = delete;

  // Exports GetState on connection; false with *error on failure.
  bool Register(GDBusConnection *connection, std::string *error);

 private:
  const Kova &kova_;
  GDBusConnection *connection_ = nullptr;
  GDBusNodeInfo *node_ = nullptr;
  guint registration_ = 0;
};

}  // namespace kova_sim

#endif

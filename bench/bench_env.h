// A private bus with the echo service on it, exported as the system bus, for
// the benchmarks and the instruction-count driver.
#ifndef KOVA_BENCH_ENV_H
#define KOVA_BENCH_ENV_H

#include <gio/gio.h>
#include <sys/types.h>

#include <memory>
#include <string>

#include "private_bus.h"

namespace kova_bench {

class BenchBus {
 public:
  // Starts both and exports the bus; null with *error filled on failure.
  static std::unique_ptr<BenchBus> Start(std::string *error);
  ~BenchBus();

 private:
  BenchBus() = default;
  std::unique_ptr<kova_test::PrivateBus> bus_;
  pid_t echo_ = -1;
};

// The service's name, path and interface, and the method the synchronous
// benchmarks call.
inline constexpr const char *kName = "org.zelta.tv.system.resource";
inline constexpr const char *kPath = "/Org/Zelta/TV/System/Resource";
inline constexpr const char *kSyncMethod = "PlayerVideoStartDone";
inline constexpr const char *kFireMethod = "PlayerRequestStop";

// The compared calls, n at a time on connection c; false when one failed.
// Library and bare variants send the same method with the same argument
// types; the fire-and-forget loops end with a round trip to the service, so
// that every call has reached it.
bool RoundTrip(GDBusConnection *c);
bool SyncLibrary(GDBusConnection *c, int n);
bool SyncBare(GDBusConnection *c, int n);
bool FireLibrary(GDBusConnection *c, int n);
bool FireBare(GDBusConnection *c, int n);

}  // namespace kova_bench

#endif

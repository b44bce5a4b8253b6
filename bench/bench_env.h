// A private bus with the echo service on it, exported as the system bus, for
// the benchmarks and the instruction-count driver.
#ifndef KOVA_BENCH_ENV_H
#define KOVA_BENCH_ENV_H

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

}  // namespace kova_bench

#endif

// A dbus-daemon of kova-sim's own (--private-bus), for trying the service
// without touching the host's buses.
#ifndef KOVA_SIM_BUS_DAEMON_H
#define KOVA_SIM_BUS_DAEMON_H

#include <sys/types.h>

#include <memory>
#include <string>

namespace kova_sim {

class BusDaemon {
 public:
  // Starts the daemon on a socket in a new temporary directory and returns
  // once it accepts connections; null with *error on failure.
  static std::unique_ptr<BusDaemon> Start(std::string *error);
  ~BusDaemon();
  BusDaemon(const BusDaemon &) = delete;
  BusDaemon &operator=(const BusDaemon &) = delete;

  const std::string &address() const { return address_; }

 private:
  BusDaemon() = default;
  pid_t pid_ = -1;
  std::string dir_;
  std::string address_;
};

}  // namespace kova_sim

#endif

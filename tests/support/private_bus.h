// A private dbus-daemon on a socket in a temporary directory, so that tests
// never touch the host's buses.
#ifndef KOVA_TEST_PRIVATE_BUS_H
#define KOVA_TEST_PRIVATE_BUS_H

#include <sys/types.h>

#include <memory>
#include <string>

namespace kova_test {

class PrivateBus {
 public:
  struct Options {
    std::string socket_path;   // where it listens; empty: "bus" in its own temporary directory
    std::string extra_config;  // <busconfig> elements added to the configuration
    bool replace_policy = false;  // leave out the default policy, which allows everything
  };

  // Starts the daemon and returns once it has printed its address (it then
  // accepts connections); null with *error on failure. It dies with the test.
  static std::unique_ptr<PrivateBus> Start(const Options &options, std::string *error);
  static std::unique_ptr<PrivateBus> Start(std::string *error) { return Start(Options{}, error); }
  ~PrivateBus();
  PrivateBus(const PrivateBus &) = delete;
  PrivateBus &operator=(const PrivateBus &) = delete;

  const std::string &address() const { return address_; }
  // Points DBUS_SYSTEM_BUS_ADDRESS (and the session address, so nothing
  // reaches the host's session bus either) at this bus.
  void ExportAsSystemBus() const;

 private:
  PrivateBus() = default;
  pid_t pid_ = -1;
  std::string dir_;
  std::string address_;
};

// A fresh temporary directory, and its removal with everything in it.
std::string MakeTempDir(const char *prefix);
void RemoveTree(const std::string &path);

}  // namespace kova_test

#endif

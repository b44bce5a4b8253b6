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
    // Where the bus listens; empty: "bus" in a new temporary directory.
    std::string socket_path;
    // Extra <busconfig> elements (policies, includes) added to the default,
    // permissive configuration; with replace_policy the default policy is left out.
    std::string extra_config;
    bool replace_policy = false;
  };

  // Starts the daemon and returns once it has printed its address (it is then
  // accepting connections). Returns null and fills *error on failure.
  static std::unique_ptr<PrivateBus> Start(const Options &options, std::string *error);
  static std::unique_ptr<PrivateBus> Start(std::string *error) { return Start(Options{}, error); }

  ~PrivateBus();
  PrivateBus(const PrivateBus &) = delete;
  PrivateBus &operator=(const PrivateBus &) = delete;

  const std::string &address() const { return address_; }
  const std::string &dir() const { return dir_; }
  pid_t pid() const { return pid_; }

  // Points DBUS_SYSTEM_BUS_ADDRESS (and the session address, so nothing
  // reaches the host's session bus either) at this bus.
  void ExportAsSystemBus() const;

 private:
  PrivateBus() = default;
  pid_t pid_ = -1;
  std::string dir_;
  bool own_dir_ = false;
  std::string address_;
};

// Makes a fresh temporary directory and returns its path.
std::string MakeTempDir(const char *prefix);
// Removes a directory tree (tests' temporary directories only).
void RemoveTree(const std::string &path);

}  // namespace kova_test

#endif

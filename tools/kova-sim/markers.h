// The marker files through which the platform learns that the service is
// ready and that a resource policy is active. Only files this process created
// are ever removed.
#ifndef KOVA_SIM_MARKERS_H
#define KOVA_SIM_MARKERS_H

#include <string>
#include <vector>

namespace kova_sim {

inline constexpr const char *kReadyMarker = "/tmp/.kova_ready";
inline constexpr const char *kPolicyMarker = "/tmp/.rsc_policy_activated";

class Markers {
 public:
  // root is put in front of every marker path ("" = the real paths).
  explicit Markers(std::string root) : root_(std::move(root)) {}
  ~Markers() { LowerAll(); }
  Markers(const Markers &) = delete;
  Markers &operator=(const Markers &) = delete;

  // Creates the marker (and missing directories). A marker that already exists
  // is left alone and is not ours to remove. False with *error on failure.
  bool Raise(const char *marker, std::string *error);
  // Removes the marker if this process created it.
  void Lower(const char *marker);
  void LowerAll();
  std::string PathOf(const char *marker) const { return root_ + marker; }

 private:
  std::string root_;
  std::vector<std::string> created_files_;
  std::vector<std::string> created_dirs_;  // deepest last
};

}  // namespace kova_sim

#endif

#include "markers.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace kova_sim {

bool Markers::Raise(const char *marker, std::string *error) {
  const std::string path = PathOf(marker);
  if (std::find(created_files_.begin(), created_files_.end(), path) != created_files_.end()) return true;
  // Make the missing parent directories, remembering them for the clean-up.
  for (size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
    const std::string dir = path.substr(0, slash);
    if (mkdir(dir.c_str(), 0755) == 0) {
      created_dirs_.push_back(dir);
    } else if (errno != EEXIST) {
      *error = "cannot create " + dir + ": " + std::strerror(errno);
      return false;
    }
  }
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (fd < 0) {
    if (errno == EEXIST) return true;
    *error = "cannot create " + path + ": " + std::strerror(errno);
    return false;
  }
  close(fd);
  created_files_.push_back(path);
  return true;
}

void Markers::Lower(const char *marker) {
  const std::string path = PathOf(marker);
  auto it = std::find(created_files_.begin(), created_files_.end(), path);
  if (it == created_files_.end()) return;
  unlink(path.c_str());
  created_files_.erase(it);
}

void Markers::LowerAll() {
  for (const std::string &path : created_files_) unlink(path.c_str());
  created_files_.clear();
  // Directories go only if nothing else has been put in them.
  for (auto it = created_dirs_.rbegin(); it != created_dirs_.rend(); ++it) rmdir(it->c_str());
  created_dirs_.clear();
}

}  // namespace kova_sim

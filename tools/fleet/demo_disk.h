// A disk of its own, in a file, that can be made to stand still.
#pragma once

#include <string>

namespace tools {

// For one thread. Needs root and mount of util-linux.
class DemoDisk {
 public:
  // Mounted at the folder, which is made; throws std::runtime_error where that is not permitted.
  explicit DemoDisk(std::string folder);
  ~DemoDisk();
  DemoDisk(const DemoDisk&) = delete;
  DemoDisk& operator=(const DemoDisk&) = delete;

  void Freeze();  // who writes waits
  void Thaw();

 private:
  const std::string folder_;
  bool isFrozen_ = false;
};

}  // namespace tools

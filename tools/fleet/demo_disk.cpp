#include "tools/fleet/demo_disk.h"

#include <filesystem>
#include <stdexcept>
#include <utility>

#include "tools/fleet/child_process.h"

namespace tools {

DemoDisk::DemoDisk(std::string folder) : folder_(std::move(folder)) {
  const std::string image = folder_ + ".disk";
  std::filesystem::create_directories(folder_);
  // A recorder keeps two gigabytes free; none of them is ever written.
  if (!RunProgram({"truncate", "-s", "4G", image}) || !RunProgram({"mkfs.ext4", "-q", image}) ||
      !RunProgram({"mount", "-o", "loop", image, folder_})) {
    throw std::runtime_error(folder_ + ": no disk can be mounted there: that is for root alone");
  }
}

DemoDisk::~DemoDisk() {
  if (isFrozen_) {
    RunProgram({"fsfreeze", "-u", folder_});
  }
  RunProgram({"umount", folder_});
}

void DemoDisk::Freeze() {
  isFrozen_ = RunProgram({"fsfreeze", "-f", folder_});
  if (!isFrozen_) {
    throw std::runtime_error(folder_ + ": this disk cannot be frozen");
  }
}

void DemoDisk::Thaw() {
  if (std::exchange(isFrozen_, false) && !RunProgram({"fsfreeze", "-u", folder_})) {
    throw std::runtime_error(folder_ + ": this disk stays frozen");
  }
}

}  // namespace tools

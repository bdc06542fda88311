#include "tools/fleet/disk_probe.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <thread>
#include <utility>

namespace tools {
namespace {

constexpr std::chrono::seconds kProbeAgain{2};
constexpr std::size_t kProbeBlock = 4'096;

std::int64_t SteadyMilliseconds() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

bool StoreProbe(const std::string& path) {
  alignas(kProbeBlock) static constexpr std::array<char, kProbeBlock> kBlock{};
  constexpr int kFlags = O_WRONLY | O_CREAT | O_CLOEXEC;
  int file = open(path.c_str(), kFlags | O_DIRECT, 0600);
  if (file < 0 && errno == EINVAL) {  // a file system in memory
    file = open(path.c_str(), kFlags, 0600);
  }
  if (file < 0) {
    return false;
  }
  const bool stored =
      pwrite(file, kBlock.data(), kBlock.size(), 0) == static_cast<ssize_t>(kBlock.size());
  close(file);
  return stored;
}

// Without its disk the folder is another one's.
bool HasDisk(const std::string& mount) {
  struct stat its {};
  struct stat above {};
  return mount.empty() ||
         (stat(mount.c_str(), &its) == 0 && stat((mount + "/..").c_str(), &above) == 0 &&
          its.st_dev != above.st_dev);
}

}  // namespace

DiskProbe::DiskProbe(std::string folder, std::string mount, Failing failing) {
  std::thread([path = std::move(folder) + "/fleet.probe", mount = std::move(mount), failing,
               shared = shared_] {
    pthread_setname_np(pthread_self(), "fleet-disk");
    while (!shared->ends) {
      if (shared->since == 0) {
        shared->since = SteadyMilliseconds();
      }
      if (!HasDisk(mount) || StoreProbe(path) || failing == Failing::kIsNoWait) {
        shared->since = 0;
      }
      std::this_thread::sleep_for(kProbeAgain);
    }
  }).detach();
}

DiskProbe::~DiskProbe() {
  shared_->ends = true;
}

std::int64_t DiskProbe::Waits() const {
  const std::int64_t since = shared_->since;
  return since == 0 ? 0 : SteadyMilliseconds() - since;
}

}  // namespace tools

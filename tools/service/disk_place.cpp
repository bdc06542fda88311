#include "tools/service/disk_place.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>
#include <utility>

#include "cms/runtime/log.h"

namespace tools {
namespace {

// By its device, not as the kernel says it: a sandbox mounts the empty folder over itself.
bool IsMounted(const std::string& folder) {
  struct stat its {};
  struct stat above {};
  return stat(folder.c_str(), &its) == 0 && stat((folder + "/..").c_str(), &above) == 0 &&
         its.st_dev != above.st_dev;
}

}  // namespace

DiskPlace::DiskPlace(std::string path, std::string mount)
    : path_(std::move(path)), mount_(std::move(mount)) {}

DiskPlace::~DiskPlace() {
  Release();
}

void DiskPlace::Release() {
  if (lock_ >= 0) {
    close(std::exchange(lock_, -1));
  }
}

bool DiskPlace::Look() {
  const PlaceState seen = Seen();
  const PlaceState before = state_.exchange(seen, std::memory_order_relaxed);
  if (seen != before && (seen != PlaceState::kReady || before != PlaceState::kUnknown)) {
    const bool ready = seen == PlaceState::kReady;
    cms::Log(ready ? cms::LogLevel::kInfo : cms::LogLevel::kError, "disk",
             ready ? path_ + ": it is there" : Problem());
  }
  return seen == PlaceState::kReady;
}

PlaceState DiskPlace::Seen() {
  if (!mount_.empty() && !IsMounted(mount_)) {
    Release();
    return PlaceState::kNotMounted;
  }
  struct stat now {};
  const bool isThere = stat(path_.c_str(), &now) == 0;
  if (lock_ >= 0 && isThere && now.st_dev == device_ && now.st_ino == inode_) {
    return PlaceState::kReady;
  }
  Release();
  std::error_code ignored;
  std::filesystem::create_directories(path_ + "/recordings", ignored);
  lock_ = open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (lock_ < 0) {
    return PlaceState::kReady;
  }
  if (flock(lock_, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
    Release();
    return PlaceState::kTaken;
  }
  if (fstat(lock_, &now) == 0) {
    device_ = now.st_dev;
    inode_ = now.st_ino;
  }
  return PlaceState::kReady;
}

std::string DiskPlace::Problem() const {
  switch (State()) {
    case PlaceState::kNotMounted:
      return path_ + ": nothing is mounted at " + mount_ +
             ", so nothing is recorded there; mount its disk";
    case PlaceState::kTaken:
      return path_ +
             ": another recorder records into this folder; end it, or give each a folder of its "
             "own";
    case PlaceState::kUnknown:
      return path_ + ": the disk has not answered yet";
    case PlaceState::kReady:
      break;
  }
  return "";
}

}  // namespace tools

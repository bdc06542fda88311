#include "tools/fleet/private_folder.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string_view>

namespace tools {
namespace {

constexpr std::string_view kFolderStem = "orvanta-fleet-";
constexpr std::string_view kFolderRandom = "XXXXXX";
constexpr int kMostTries = 20;

std::string MemoryFolder() {
  const char* runtime = std::getenv("RUNTIME_DIRECTORY");
  return runtime != nullptr && *runtime != '\0' ? runtime : "/dev/shm";
}

// The descriptor that holds the lock; -1: it is another user's, in use, or no folder. Children do
// not inherit it, as they would keep it beyond this process.
int LockFolder(const std::string& path) {
  const int folder = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  struct stat status {};
  if (folder >= 0 && fstat(folder, &status) == 0 && status.st_uid == geteuid() &&
      flock(folder, LOCK_EX | LOCK_NB) == 0) {
    return folder;
  }
  if (folder >= 0) {
    close(folder);
  }
  return -1;
}

void RemoveUnused(const std::string& memory) {
  std::error_code ignored;
  for (const auto& entry : std::filesystem::directory_iterator(memory, ignored)) {
    const std::string name = entry.path().filename().string();
    if (name.size() != kFolderStem.size() + kFolderRandom.size() ||
        !name.starts_with(kFolderStem)) {
      continue;
    }
    if (const int lock = LockFolder(entry.path().string()); lock >= 0) {
      std::filesystem::remove_all(entry.path(), ignored);
      close(lock);
    }
  }
}

}  // namespace

PrivateFolder::PrivateFolder() {
  const std::string memory = MemoryFolder();
  RemoveUnused(memory);
  // Between its making and its lock another process may take it for one that is not in use.
  for (int tries = 0; tries < kMostTries && lock_ < 0; ++tries) {
    path_ = memory + "/" + std::string(kFolderStem) + std::string(kFolderRandom);
    if (mkdtemp(path_.data()) == nullptr) {
      break;
    }
    lock_ = LockFolder(path_);
    if (lock_ >= 0 && access(path_.c_str(), F_OK) != 0) {
      close(lock_);
      lock_ = -1;
    }
  }
  if (lock_ < 0) {
    throw std::runtime_error(memory + ": no folder can be made there: " + std::strerror(errno) +
                             "; set RUNTIME_DIRECTORY to one in memory");
  }
}

PrivateFolder::~PrivateFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
  close(lock_);
}

}  // namespace tools

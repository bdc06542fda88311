// A folder in memory for what no disk and no other user is to see.
#pragma once

#include <string>

namespace tools {

// Below $RUNTIME_DIRECTORY, else /dev/shm. A lock on it, which the system lets go of with the
// process, says that it is in use: of those that are not, and are this user's, whoever makes one
// removes all. So what a process that was killed left is gone with the next start.
class PrivateFolder {
 public:
  PrivateFolder();  // throws std::runtime_error
  ~PrivateFolder();
  PrivateFolder(const PrivateFolder&) = delete;
  PrivateFolder& operator=(const PrivateFolder&) = delete;

  const std::string& Path() const { return path_; }

 private:
  std::string path_;
  int lock_ = -1;
};

}  // namespace tools

// Who may log in to a page that is being served.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "cms/runtime/critical.h"
#include "tools/serve/users_file.h"

namespace tools {

// A file that changes is read again within a second; while it cannot be read what was read last
// holds. Any thread.
class Users {
 public:
  // One, who may manage.
  Users(const std::string& name, const std::string& password);
  explicit Users(const std::string& path);  // throws as ReadUsersFile

  std::optional<User> Find(const std::string& name);
  // The password that a Digest login of this name is made with: the key, or a password that is kept
  // as it is. Empty: there is none.
  std::string DigestPassword(const std::string& name);
  // Whether the password is right. Takes a tenth of a second, also of a name that there is not, and
  // one is looked at at a time: those who guess take one processor and 32 MiB.
  bool IsRight(const std::string& name, const std::string& password);

  const std::string& Path() const { return path_; }  // empty: of no file

 private:
  using Clock = std::chrono::steady_clock;
  void Look() CMS_REQUIRES(lock_);

  const std::string path_;
  CMSCritical slowLock_;  // held while a password is looked at
  const std::string nobodys_ CMS_GUARDED_BY(slowLock_);

  CMSCritical lock_;
  UserList users_ CMS_GUARDED_BY(lock_);
  std::string seen_ CMS_GUARDED_BY(lock_);  // what tells the file from a changed one
  Clock::time_point nextLook_ CMS_GUARDED_BY(lock_);
};

}  // namespace tools

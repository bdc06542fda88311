#include "tools/serve/users.h"

#include <sys/stat.h>

#include <stdexcept>

#include "cms/runtime/digest.h"
#include "cms/runtime/log.h"
#include "tools/serve/password_hash.h"

namespace tools {
namespace {

constexpr std::chrono::seconds kLookAtFile{1};

std::string FileMark(const std::string& path) {
  struct stat about {};
  if (stat(path.c_str(), &about) != 0) {
    return "";
  }
  return std::to_string(about.st_ino) + "." + std::to_string(about.st_size) + "." +
         std::to_string(about.st_mtim.tv_sec) + "." + std::to_string(about.st_mtim.tv_nsec);
}

void WarnOfUsers(const std::string& what) {
  cms::Log(cms::LogLevel::kWarning, "page", what);
}

}  // namespace

Users::Users(const std::string& name, const std::string& password) : nobodys_(HashedPassword("")) {
  const ScopeLock lock(lock_);
  users_[name] = {Role::kManage, password, ""};
}

Users::Users(const std::string& path) : path_(path), nobodys_(HashedPassword("")) {
  const ScopeLock lock(lock_);
  seen_ = FileMark(path);
  std::string warning;
  users_ = ReadUsersFile(path, &warning);
  if (!warning.empty()) {
    WarnOfUsers(warning);
  }
}

void Users::Look() {
  const auto now = Clock::now();
  if (path_.empty() || now < nextLook_) {
    return;
  }
  nextLook_ = now + kLookAtFile;
  std::string mark = FileMark(path_);
  if (mark == seen_) {
    return;
  }
  seen_ = std::move(mark);
  try {
    users_ = ReadUsersFile(path_);
  } catch (const std::exception& error) {
    WarnOfUsers(std::string(error.what()) + ": who could log in can still");
  }
}

std::optional<User> Users::Find(const std::string& name) {
  const ScopeLock lock(lock_);
  Look();
  const auto found = users_.find(name);
  return found == users_.end() ? std::nullopt : std::optional(found->second);
}

std::string Users::DigestPassword(const std::string& name) {
  const auto user = Find(name);
  return !user                              ? ""
         : !user->key.empty()               ? user->key
         : IsHashedPassword(user->password) ? ""
                                            : user->password;
}

bool Users::IsRight(const std::string& name, const std::string& password) {
  const auto user = Find(name);
  if (user && !IsHashedPassword(user->password)) {
    return cms::EqualInConstantTime(password, user->password);
  }
  const ScopeLock lock(slowLock_);
  return IsPassword(password, user ? user->password : nobodys_) && user;
}

}  // namespace tools

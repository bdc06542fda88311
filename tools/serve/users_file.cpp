#include "tools/serve/users_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "tools/serve/password_hash.h"

namespace tools {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kLongestUserName = 64;

std::runtime_error UsersFailure(const std::string& what, const std::string& path) {
  return std::runtime_error(what + " " + path + ": " + std::strerror(errno));
}

std::string_view TakeField(std::string_view& line) {
  const std::string_view field = line.substr(0, line.find(':'));
  line.remove_prefix(std::min(field.size() + 1, line.size()));
  return field;
}

// The part of a line behind the name.
User ReadUser(std::string_view rest) {
  std::string_view fields = rest;
  const auto role = RoleOf(TakeField(fields));
  const std::string_view kept = TakeField(fields);
  if (role && IsHashedPassword(kept)) {
    return {*role, std::string(kept), std::string(TakeField(fields))};
  }
  return {Role::kManage, std::string(rest), ""};
}

std::string WholeText(const std::string& path) {
  errno = 0;
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  if (!file || !fs::is_regular_file(path)) {
    errno = errno != 0 ? errno : EINVAL;
    throw UsersFailure("cannot read", path);
  }
  text << file.rdbuf();
  return text.str();
}

UserList UsersOf(const std::string& text, const std::string& path) {
  std::vector<std::string> problems;
  UserList users = ParseUsers(text, &problems);
  if (!problems.empty()) {
    throw std::runtime_error(path + ":" + problems.front());
  }
  return users;
}

std::string CommentsAtBeginning(const std::string& text) {
  std::size_t end = 0;
  while (end < text.size() && text[end] == '#') {
    end = std::min(text.find('\n', end), text.size() - 1) + 1;
  }
  return text.substr(0, end);
}

std::string TextOf(const UserList& users) {
  std::string text;
  for (const auto& [name, user] : users) {
    text += name + ":";
    if (IsHashedPassword(user.password)) {
      text += std::string(WordOf(user.role)) + ":" + user.password + ":" + user.key;
    } else {
      text += user.password;
    }
    text += "\n";
  }
  return text;
}

// The file that is to take the place of another, which one change has at a time.
class FreshFile {
 public:
  explicit FreshFile(const std::string& path) : path_(path) {
    struct stat mine {};
    struct stat there {};
    do {  // who waited may have waited for a file that has taken its place
      Close();
      file_ = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
      if (file_ < 0 || flock(file_, LOCK_EX) != 0 || fstat(file_, &mine) != 0) {
        const auto failure = UsersFailure("cannot write", path);
        Close();
        throw failure;
      }
    } while (stat(path.c_str(), &there) != 0 || there.st_ino != mine.st_ino);
  }
  ~FreshFile() {
    if (!placed_) {
      unlink(path_.c_str());
    }
    Close();
  }
  FreshFile(const FreshFile&) = delete;
  FreshFile& operator=(const FreshFile&) = delete;

  // A service's file stays its own also when root changes it.
  void BelongTo(const struct stat& owner) {
    Check(owner.st_uid == geteuid() || fchown(file_, owner.st_uid, owner.st_gid) == 0);
  }
  void Write(std::string_view text) {
    Check(ftruncate(file_, 0) == 0 && fchmod(file_, 0600) == 0);
    while (!text.empty()) {
      const ssize_t some = write(file_, text.data(), text.size());
      Check(some > 0 || (some < 0 && errno == EINTR));
      text.remove_prefix(some > 0 ? static_cast<std::size_t>(some) : 0);
    }
    Check(fsync(file_) == 0);
  }
  void Replace(const std::string& path) {
    Check(std::rename(path_.c_str(), path.c_str()) == 0);
    placed_ = true;
  }

 private:
  void Check(bool done) const {
    if (!done) {
      throw UsersFailure("cannot write", path_);
    }
  }
  void Close() {
    if (file_ >= 0) {
      close(file_);
    }
  }

  const std::string path_;
  int file_ = -1;
  bool placed_ = false;
};

}  // namespace

bool IsUserName(std::string_view name) {
  return !name.empty() && name.size() <= kLongestUserName &&
         std::all_of(name.begin(), name.end(), [](char c) {
           return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                  static_cast<unsigned char>(c) >= 0x80 || std::strchr("._-@+", c) != nullptr;
         });
}

UserList ParseUsers(std::string_view text, std::vector<std::string>* problems) {
  UserList users;
  for (unsigned number = 1; !text.empty(); ++number) {
    std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    if (line.ends_with('\r')) {
      line.remove_suffix(1);
    }
    if (line.empty() || line.starts_with('#')) {
      continue;
    }
    const std::string name(TakeField(line));
    const auto wrong = [&](const std::string& what) {
      problems->push_back(std::to_string(number) + ": " + what);
    };
    if (name.empty() || name.find('"') != std::string::npos || line.empty()) {
      wrong("expected NAME:ROLE:HASH:KEY as orvanta user writes it, or NAME:PASSWORD");
    } else if (!users.emplace(name, ReadUser(line)).second) {
      wrong("another line has the same name");
    }
  }
  if (users.empty() && problems->empty()) {
    problems->push_back("1: it names nobody: see orvanta user add");
  }
  return users;
}

UserList ReadUsersFile(const std::string& path, std::string* warning) {
  UserList users = UsersOf(WholeText(path), path);
  struct stat about {};
  if (warning != nullptr && stat(path.c_str(), &about) == 0 && (about.st_mode & S_IROTH) != 0) {
    *warning = "everybody on this machine can read " + path + ": chmod 600";
  }
  return users;
}

void ChangeUsersFile(const std::string& path, const std::function<void(UserList&)>& change) {
  const std::string whole = fs::absolute(path).string();
  FreshFile fresh(whole + ".new");
  struct stat before {};
  std::string text;
  UserList users;
  if (stat(whole.c_str(), &before) == 0) {
    fresh.BelongTo(before);
    text = WholeText(whole);
    users = text.empty() ? UserList() : UsersOf(text, whole);
  }
  change(users);
  if (users.empty()) {
    throw std::runtime_error("nobody could log in any more");
  }
  fresh.Write(CommentsAtBeginning(text) + TextOf(users));
  fresh.Replace(whole);
}

}  // namespace tools

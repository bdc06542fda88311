// The file of those who may log in to the page. docs/serve.md tells of its lines.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "tools/serve/role.h"

namespace tools {

struct User {
  Role role = Role::kNobody;
  std::string password;  // HashedPassword, or the password itself
  std::string key;       // that programs log in with; empty: none
  bool operator==(const User&) const = default;
};

using UserList = std::map<std::string, User, std::less<>>;

// Whether a name can stand in the file, in a Digest login and in an audit log: letters, digits,
// "._-@+" and whatever is not ASCII, at most 64 bytes.
bool IsUserName(std::string_view name);

// The lines of a text. NAME:ROLE:HASH:KEY; older files have NAME:PASSWORD, whose role is kManage.
// What is wrong is told by line ("3: expected ...").
UserList ParseUsers(std::string_view text, std::vector<std::string>* problems);

// The file's users. Throws std::runtime_error, which names it, when it cannot be read or is wrong;
// told `warning` when others of this machine can read it.
UserList ReadUsersFile(const std::string& path, std::string* warning = nullptr);

// Changes the file, which is made with the mode 0600 when it is missing, at once or not at all, and
// leaves comments at its beginning. Changes at the same time wait for each other. Throws
// std::runtime_error, also what `change` throws.
void ChangeUsersFile(const std::string& path, const std::function<void(UserList&)>& change);

}  // namespace tools

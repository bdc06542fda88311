// What somebody may do on the page.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tools {

// Each includes those before it.
enum class Role {
  kNobody,
  kWatch,    // live pictures and sound, states
  kPlay,     // what was recorded, and clips of it
  kOperate,  // recording by hand, keeping, moving cameras
  kManage    // users, cameras, what others did
};

const char* WordOf(Role role);
std::optional<Role> RoleOf(std::string_view word);  // not "nobody"
std::vector<std::string> RoleWords();               // for options

}  // namespace tools

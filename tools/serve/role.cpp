#include "tools/serve/role.h"

#include <algorithm>
#include <array>

namespace tools {
namespace {

constexpr std::array<const char*, 5> kRoleWords = {"nobody", "watch", "play", "operate", "manage"};

}  // namespace

const char* WordOf(Role role) {
  return kRoleWords[static_cast<std::size_t>(role)];
}

std::optional<Role> RoleOf(std::string_view word) {
  const auto found = std::find(kRoleWords.begin() + 1, kRoleWords.end(), word);
  return found == kRoleWords.end() ? std::nullopt
                                   : std::optional(static_cast<Role>(found - kRoleWords.begin()));
}

std::vector<std::string> RoleWords() {
  return {kRoleWords.begin() + 1, kRoleWords.end()};
}

}  // namespace tools

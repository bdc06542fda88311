// The file of the page's users, and what browsers send: forms and cookies.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "tools/serve/form_text.h"
#include "tools/serve/password_hash.h"
#include "tools/serve/users_file.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  std::vector<std::string> problems;
  const tools::UserList users = tools::ParseUsers(text, &problems);
  if (users.empty() && problems.empty()) {
    std::abort();  // nobody, and nothing wrong
  }
  for (const auto& [name, user] : users) {
    // A role below the highest stands beside a hash alone.
    if (name.empty() ||
        (user.role != tools::Role::kManage && !tools::IsHashedPassword(user.password))) {
      std::abort();
    }
  }
  const auto field = tools::FieldOf(text, "user");
  const auto cookie = tools::CookieOf(text, "user");
  if ((field && field->size() > size) || (cookie && cookie->size() > size)) {
    std::abort();
  }
  return 0;
}

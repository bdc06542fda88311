// Reading the challenges of an answer with status 401 (RFC 9110, 11.6.1), whatever their spelling.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace cms {

// One login method that a server offers. Texts stand as the server spelled them; of a value in
// quotation marks, what stands between them.
struct Challenge {
  static constexpr std::size_t kMaxParameters = 32;
  static constexpr std::size_t kMaxValue = 2048;  // bytes; a longer one counts as not given

  std::string scheme;
  std::vector<std::pair<std::string, std::string>> parameters;

  // The first parameter of that name, in any letter case; null when it is not given.
  const std::string* Find(std::string_view name) const;
  std::string_view Value(std::string_view name) const;  // empty when it is not given
};

constexpr std::size_t kMaxChallenges = 16;

// All challenges of the answer's head in their order: of every WWW-Authenticate header, in any
// letter case, folded or not, several in one header or each in its own. What cannot be read is
// passed over.
std::vector<Challenge> ReadChallenges(std::string_view answer);

// The value behind the escapes of a quoted text: a backslash is dropped in front of a quotation
// mark or another backslash, and stands for itself elsewhere, as in an unescaped "DOMAIN\user".
std::string Unescaped(std::string_view quoted);

}  // namespace cms

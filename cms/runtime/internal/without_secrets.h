// What may stand in a log of a text that may hold passwords.
#pragma once

#include <string>
#include <string_view>

namespace cms {

// The text with "***" in place of the user and password of URLs, of what stands behind
// "Authorization:" and the names of cookies up to the end of the header, of values named like
// passwords in queries, and of what is between tags named like passwords. Rather too much than too
// little: a text that can be read in two ways is taken for a password.
std::string WithoutSecrets(std::string_view text);

}  // namespace cms

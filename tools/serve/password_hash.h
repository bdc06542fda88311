// What a password is kept as: its scrypt (RFC 7914), which takes an attacker 32 MiB and a tenth of
// a second for each guess.
#pragma once

#include <string>
#include <string_view>

namespace tools {

// "$scrypt$15$8$1$SALT$HASH": the logarithm of N, r, p, and hexadecimal digits, with a salt of its
// own. Throws std::runtime_error when the crypto library refuses or memory is short.
std::string HashedPassword(std::string_view password);

// Whether a text is such a one, and costs no more than 256 MiB.
bool IsHashedPassword(std::string_view kept);

// Whether the password is the one that was kept. As slow as HashedPassword.
bool IsPassword(std::string_view password, std::string_view kept);

}  // namespace tools

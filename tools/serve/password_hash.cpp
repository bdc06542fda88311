#include "tools/serve/password_hash.h"

#include <openssl/evp.h>

#include <array>
#include <charconv>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <vector>

#include "cms/runtime/digest.h"
#include "tools/serve/random_id.h"

namespace tools {
namespace {

constexpr std::string_view kScheme = "$scrypt$";
constexpr std::uint64_t kMostHashMemory = std::uint64_t{256} << 20;
constexpr std::size_t kHashBytes = 32;

struct HashCost {
  unsigned logN = 15;
  unsigned r = 8;
  unsigned p = 1;
};

struct KeptHash {
  HashCost cost;
  std::string salt;
  std::string hash;
};

std::string Hex(const std::array<unsigned char, kHashBytes>& bytes) {
  constexpr std::string_view kHexDigits = "0123456789abcdef";
  std::string text;
  for (const unsigned char byte : bytes) {
    text += kHexDigits[byte >> 4];
    text += kHexDigits[byte & 15];
  }
  return text;
}

std::string Derive(std::string_view password, const std::string& salt, const HashCost& cost) {
  std::array<unsigned char, kHashBytes> bytes{};
  // The library counts some more than the 128 * N * r bytes of the algorithm.
  if (EVP_PBE_scrypt(password.data(), password.size(),
                     reinterpret_cast<const unsigned char*>(salt.data()), salt.size(),
                     std::uint64_t{1} << cost.logN, cost.r, cost.p, 2 * kMostHashMemory,
                     bytes.data(), bytes.size()) != 1) {
    throw std::runtime_error("a password cannot be looked at: memory is short");
  }
  return Hex(bytes);
}

bool IsHex(std::string_view text) {
  return !text.empty() && text.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

std::optional<KeptHash> ReadKept(std::string_view kept) {
  if (!kept.starts_with(kScheme)) {
    return std::nullopt;
  }
  std::vector<std::string_view> parts;
  for (std::string_view left = kept.substr(kScheme.size()); parts.size() < 6;) {
    parts.push_back(left.substr(0, left.find('$')));
    if (parts.back().size() == left.size()) {
      break;
    }
    left.remove_prefix(parts.back().size() + 1);
  }
  if (parts.size() != 5 || !IsHex(parts[3]) || !IsHex(parts[4]) ||
      parts[4].size() != 2 * kHashBytes) {
    return std::nullopt;
  }
  std::array<unsigned, 3> numbers{};
  for (std::size_t i = 0; i < numbers.size(); ++i) {
    const auto [end, error] =
        std::from_chars(parts[i].data(), parts[i].data() + parts[i].size(), numbers[i]);
    if (error != std::errc() || end != parts[i].data() + parts[i].size()) {
      return std::nullopt;
    }
  }
  const auto [logN, r, p] = numbers;
  if (logN < 10 || logN > 20 || r < 1 || r > 32 || p < 1 || p > 4 ||
      (std::uint64_t{128} * r << logN) > kMostHashMemory) {
    return std::nullopt;
  }
  return KeptHash{{logN, r, p}, std::string(parts[3]), std::string(parts[4])};
}

}  // namespace

std::string HashedPassword(std::string_view password) {
  const HashCost cost;
  const std::string salt = RandomId();
  return std::string(kScheme) + std::to_string(cost.logN) + '$' + std::to_string(cost.r) + '$' +
         std::to_string(cost.p) + '$' + salt + '$' + Derive(password, salt, cost);
}

bool IsHashedPassword(std::string_view kept) {
  return ReadKept(kept).has_value();
}

bool IsPassword(std::string_view password, std::string_view kept) {
  const auto read = ReadKept(kept);
  return read && cms::EqualInConstantTime(Derive(password, read->salt, read->cost), read->hash);
}

}  // namespace tools

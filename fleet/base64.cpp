#include "fleet/base64.h"

#include <openssl/evp.h>

namespace cms::fleet {

std::string ToBase64(std::string_view bytes) {
  std::string text((bytes.size() + 2) / 3 * 4 + 1, '\0');
  const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                                     reinterpret_cast<const unsigned char*>(bytes.data()),
                                     static_cast<int>(bytes.size()));
  text.resize(static_cast<std::size_t>(length));
  return text;
}

// The decoder passes over spaces and line ends around the text, which are none of it.
std::optional<std::string> FromBase64(std::string_view text) {
  constexpr std::string_view kAlphabet =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::size_t padding = 0;
  while (padding < 2 && text.size() > padding && text[text.size() - 1 - padding] == '=') {
    ++padding;
  }
  if (text.size() % 4 != 0 || text.substr(0, text.size() - padding).find_first_not_of(kAlphabet) !=
                                  std::string_view::npos) {
    return std::nullopt;
  }
  std::string bytes(text.size() / 4 * 3, '\0');
  const int length = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(bytes.data()),
                                     reinterpret_cast<const unsigned char*>(text.data()),
                                     static_cast<int>(text.size()));
  if (length < 0) {
    return std::nullopt;
  }
  bytes.resize(static_cast<std::size_t>(length) - padding);
  return bytes;
}

}  // namespace cms::fleet

#include "cms/runtime/digest.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <algorithm>

namespace cms {
namespace {

// At the library's loading, before anybody uses libcrypto otherwise: its own cleanup at the end of
// the process would come before the clients of static lifetime close their streams, with digests.
[[maybe_unused]] const int kInitialised = OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);

std::string DigestHex(const EVP_MD* method, std::string_view input) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  if (EVP_Digest(input.data(), input.size(), digest, &size, method, nullptr) != 1) {
    return {};
  }
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  text.reserve(2 * size);
  for (unsigned int i = 0; i < size; ++i) {
    text.push_back(kDigits[digest[i] >> 4]);
    text.push_back(kDigits[digest[i] & 15]);
  }
  return text;
}

}  // namespace

std::string Md5Hex(std::string_view input) {
  return DigestHex(EVP_md5(), input);
}

std::string Sha256Hex(std::string_view input) {
  return DigestHex(EVP_sha256(), input);
}

bool EqualInConstantTime(std::string_view a, std::string_view b) {
  return a.size() == b.size() && CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

std::string Base64(std::span<const std::uint8_t> input) {
  // In pieces of a multiple of three, as the encoder counts in int.
  constexpr std::size_t kPiece = std::size_t{3} << 20;
  std::string text((input.size() + 2) / 3 * 4 + 1, '\0');
  std::size_t written = 0;
  while (!input.empty()) {
    const auto piece = input.first(std::min(input.size(), kPiece));
    written += static_cast<std::size_t>(
        EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data() + written), piece.data(),
                        static_cast<int>(piece.size())));
    input = input.subspan(piece.size());
  }
  text.resize(written);
  return text;
}

std::string Base64(std::string_view input) {
  return Base64(std::span(reinterpret_cast<const std::uint8_t*>(input.data()), input.size()));
}

}  // namespace cms

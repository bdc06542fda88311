#include "cms/httpserver/internal/digest_nonces.h"

#include <openssl/hmac.h>
#include <sys/random.h>

#include <charconv>
#include <new>

#include "cms/runtime/digest.h"

namespace cms {
namespace {

constexpr std::size_t kTimeDigits = 16;

}  // namespace

DigestNonces::DigestNonces() {
  if (getrandom(key_.data(), key_.size(), 0) != static_cast<ssize_t>(key_.size())) {
    throw std::bad_alloc();
  }
}

std::string DigestNonces::Make(std::uint64_t now) const {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string nonce;
  for (int shift = 60; shift >= 0; shift -= 4) {
    nonce += kDigits[now >> shift & 15];
  }
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  if (HMAC(EVP_sha256(), key_.data(), static_cast<int>(key_.size()),
           reinterpret_cast<const unsigned char*>(nonce.data()), nonce.size(), digest,
           &size) == nullptr) {
    return {};
  }
  for (int i = 0; i < 16; ++i) {
    nonce += kDigits[digest[i] >> 4];
    nonce += kDigits[digest[i] & 15];
  }
  return nonce;
}

DigestNonces::Verdict DigestNonces::Check(std::string_view nonce, std::uint64_t now) const {
  std::uint64_t made = 0;
  const std::string_view time = nonce.substr(0, kTimeDigits);
  const auto [end, error] = std::from_chars(time.data(), time.data() + time.size(), made, 16);
  if (error != std::errc() || end != time.data() + time.size() ||
      !EqualInConstantTime(Make(made), nonce) || made > now) {
    return Verdict::kForeign;
  }
  return now - made <= kLifeMilliseconds ? Verdict::kFresh : Verdict::kStale;
}

}  // namespace cms

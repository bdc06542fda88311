// DigestNonces, the nonces that the HTTP server gives out and knows again.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace cms {

// A nonce holds the time of its making and a keyed digest of it, so none is stored: who does not
// know the key, which is made anew for each object, makes none. Times are milliseconds of the
// monotonic clock. Any thread.
class DigestNonces {
 public:
  // For so long a nonce is good.
  static constexpr std::uint64_t kLifeMilliseconds = 5 * 60 * 1000;

  DigestNonces();  // throws std::bad_alloc when the system has no random bytes

  // 48 characters; empty when the crypto library refuses.
  std::string Make(std::uint64_t now) const;

  enum class Verdict { kFresh, kStale, kForeign };
  Verdict Check(std::string_view nonce, std::uint64_t now) const;

 private:
  std::array<unsigned char, 32> key_;
};

}  // namespace cms

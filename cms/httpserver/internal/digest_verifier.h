// The server's side of HTTP Digest authentication (RFC 2617, RFC 7616).
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "cms/httpserver/internal/digest_nonces.h"

namespace cms {

// The parameters of an Authorization header that count; a missing one is empty.
struct DigestFields {
  std::string userName;
  std::string realm;
  std::string nonce;
  std::string uri;
  std::string response;
  std::string qop;
  std::string cnonce;
  std::string nc;
  std::string algorithm;
};

// Names count without regard to case. Of a name that comes twice the last value counts.
DigestFields ParseDigestFields(std::string_view authorization);

enum class DigestResult {
  kGood = 0,
  kBad = 1,
  kNoneGiven = 2,
  kStale = 3  // good but for a nonce that is too old
};

struct DigestVerdict {
  DigestResult result;
  std::string userName;  // who has proven to know the password, of kGood alone
};

// As HttpPasswordLookup.
using PasswordLookup = std::function<int(const std::string& user, std::string& password)>;

// Whether the parameters prove that the client knows the user's password. The realm is the one that
// the client names; the nonce is not compared with any that was given out, and may be used again;
// the uri is not compared with the request's target. So a proof opens every target for the method
// it was made for. With the qop "auth-int" the nonce count stands in the place of the client nonce,
// and the body is not covered: clients of this server that use it send just that. How long the
// answer takes tells nothing of the password or of whether the user exists.
DigestVerdict VerifyDigest(std::string_view authorization, std::string_view method,
                           const PasswordLookup& lookup);

// As VerifyDigest, and by SHA-256 where the client says so; the proof must be one for this target
// ("/auth/live?x=1"), this server's realm and a nonce of these that is not too old. The qop is
// "auth", or there is none and no client nonce either (RFC 2069).
DigestVerdict VerifyStrictDigest(std::string_view authorization, std::string_view method,
                                 std::string_view target, const PasswordLookup& lookup,
                                 const DigestNonces& nonces, std::uint64_t nowMilliseconds);

// The realm that challenges name.
inline constexpr std::string_view kDigestRealm = "QNV";

}  // namespace cms

// The server's side of HTTP Digest authentication (RFC 2617).
#pragma once

#include <string>
#include <string_view>

#include "cms/httpserver/http_server_types.h"

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
};

// Names count without regard to case. Of a name that comes twice the last value counts.
DigestFields ParseDigestFields(std::string_view authorization);

enum class DigestResult { kGood = 0, kBad = 1, kNoneGiven = 2 };

// Whether the parameters prove that the client knows the user's password. The realm is the one that
// the client names; the nonce is not compared with any that was given out, and may be used again.
// With the qop "auth-int" the nonce count stands in the place of the client nonce, and the
// body is not covered: clients of this server that use it send just that. How long the answer takes
// tells nothing of the password or of whether the user exists.
DigestResult VerifyDigest(std::string_view authorization, std::string_view method,
                          HttpPasswordLookup lookup);

}  // namespace cms

// cms::Login logs in to one server, for RTSP and HTTP alike.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "cms/runtime/api.h"
#include "cms/streaming/authenticator.h"

namespace cms {

// Understands every legal challenge (RFC 9110, RFC 7616, RFC 2617), in any order, letter case and
// spelling of its parameters, and answers the strongest of several that it can: Digest with
// SHA-256, then Digest with MD5, both with or without a qop, then Basic. `Authenticator`, which it
// is built on, reads one spelling and knows MD5.
//
// Not locked: it belongs to the thread that makes the requests. Copying copies all.
class CMS_API Login {
 public:
  // UTF-8, sent and digested as they are. Forgets the challenge.
  void SetCredentials(const std::string& username, const std::string& password);
  void ForgetChallenge();
  // Basic shows the password to everybody on the way: over a connection that is not encrypted it is
  // better not answered. Allowed at first.
  void AllowBasic(bool allow) { basicAllowed_ = allow; }

  // Reads the challenges out of the head of an answer with status 401. True when one of them can be
  // answered: AuthorizationLine does so from then on. Else the last one that could stays, and
  // Problem() tells why.
  bool ReadChallenges(std::string_view answer);

  // The line for the next request, ended by CR LF; empty as long as no challenge was read, and for
  // Basic credentials above Authenticator::kMaxBasicCredentials. Every line of one challenge with a
  // qop counts (the nonce count): make one for each request, and none that is not sent. The request
  // has no body.
  std::string AuthorizationLine(std::string_view method, std::string_view uri);

  // What the last ReadChallenges could not answer, such as "the login method is NTLM, which is not
  // supported"; empty when it could.
  const std::string& Problem() const { return problem_; }

 private:
  enum class Method { kNone, kBasic, kDigest };

  std::string DigestAnswer(std::string_view method, std::string_view uri);

  Authenticator credentials_;  // with the realm and nonce of a Digest challenge
  Method method_ = Method::kNone;
  std::string quotedRealm_;  // as the server escapes it
  std::string algorithm_;    // of Digest, as the table of them spells it
  std::string qop_;
  std::string cnonce_;
  std::string echoed_;  // parameters that go back as they came
  std::uint32_t count_ = 0;
  bool basicAllowed_ = true;
  std::string problem_;
};

}  // namespace cms

// Challenges: bounded values, and an Authorization text that is one header line whatever the
// server, the user and the URL put into it.
#include <string>

#include "cms/streaming/authenticator.h"
#include "fuzz/support/check.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  Authenticator authenticator;
  authenticator.SetUsernameAndPassword(text.c_str(), text.c_str());
  if (authenticator.ParserealmFromServerResponse(text)) {
    CHECK(authenticator.GetRealm().size() <= Authenticator::kMaxChallengeText);
    CHECK(authenticator.GetNonce().size() <= Authenticator::kMaxChallengeText);
  }
  for (const std::string& line : {authenticator.GetAuthString("PLAY", text.c_str()),
                                  authenticator.GetDigestAuthString(nullptr, text.c_str()),
                                  authenticator.GetBase64EncodeAuthString()}) {
    if (line.empty()) continue;
    CHECK(line.starts_with("Authorization: "));
    CHECK(line.find_first_of("\r\n") == line.size() - 2);
  }
  return 0;
}

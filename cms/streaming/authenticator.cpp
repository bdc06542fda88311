#include "cms/streaming/authenticator.h"

#include "cms/runtime/digest.h"
#include "cms/streaming/internal/digest_line.h"
#include "cms/streaming/internal/text_scanner.h"

using cms::TextScanner;

namespace {

std::string Text(const char* text) {
  return text ? text : "";
}

// One value in quotation marks, the opening mark taken already; the closing one need not be there.
bool TakeQuoted(TextScanner& scan, std::string_view& value) {
  constexpr std::size_t kMax = Authenticator::kMaxChallengeText;
  return scan.Until(value, "\"", kMax + 1).Matched() && value.size() <= kMax;
}

}  // namespace

void Authenticator::Reset() {
  *this = Authenticator();
}

void Authenticator::SetRealmAndNonce(const char* realm, const char* nonce) {
  realm_ = Text(realm);
  nonce_ = Text(nonce);
}

void Authenticator::SetUsernameAndPassword(const char* username, const char* password) {
  username_ = Text(username);
  password_ = Text(password);
}

void Authenticator::Assign(const char* username, const char* password, const char* realm,
                           const char* nonce) {
  SetRealmAndNonce(realm, nonce);
  SetUsernameAndPassword(username, password);
}

int Authenticator::ParserealmFromServerResponse(std::string_view response) {
  std::string_view line;
  while (cms::TakeLine(response, line)) {
    std::string_view realm;
    std::string_view nonce;
    TextScanner digest(line);
    digest.Literal("WWW-Authenticate: Digest realm=\"");
    if (TakeQuoted(digest, realm) && TakeQuoted(digest.Literal("\", nonce=\""), nonce)) {
      realm_ = realm;
      nonce_ = nonce;
      return 1;
    }
    TextScanner basic(line);
    basic.Literal("WWW-Authenticate: Basic realm=\"");
    if (TakeQuoted(basic, realm)) {
      realm_ = realm;
      return 1;
    }
  }
  return 0;
}

std::string Authenticator::GetAuthString(const char* method, const char* uri) const {
  if (!nonce_.empty() && method && uri) return GetDigestAuthString(method, uri);
  return GetBase64EncodeAuthString();
}

std::string Authenticator::GetDigestAuthString(const char* method, const char* uri) const {
  const std::string target = cms::WithoutLineEnds(Text(uri));
  const std::string response =
      cms::DigestResponse({username_, password_, realm_, nonce_, Text(method), target});
  return cms::DigestLine({cms::Escaped(username_, "\""), realm_, nonce_, target, response});
}

std::string Authenticator::GetBase64EncodeAuthString() const {
  const std::string credentials = username_ + ":" + password_;
  if (credentials.size() > kMaxBasicCredentials) return {};
  return "Authorization: Basic " + cms::Base64(std::string_view(credentials)) + "\r\n";
}

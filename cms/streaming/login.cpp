#include "cms/streaming/login.h"

#include <algorithm>
#include <cstdio>
#include <random>
#include <vector>

#include "cms/streaming/internal/challenges.h"
#include "cms/streaming/internal/digest_line.h"
#include "cms/streaming/internal/text_scanner.h"

namespace cms {
namespace {

constexpr std::size_t kMaxNames = 200;  // of the methods that Problem names

// 64 bits that no one can guess, as hexadecimal characters.
std::string NewClientNonce() {
  std::random_device random;
  char text[17];
  std::snprintf(text, sizeof text, "%08x%08x", random(), random());
  return text;
}

// Whether a list such as "auth,auth-int" has the word.
bool Lists(std::string_view list, std::string_view word) {
  while (!list.empty()) {
    const std::string_view item = list.substr(0, list.find(','));
    list.remove_prefix(std::min(item.size() + 1, list.size()));
    if (EqualAnyCase(Trim(item), word)) return true;
  }
  return false;
}

bool IsDigest(const Challenge& challenge) {
  return EqualAnyCase(challenge.scheme, "Digest");
}

// The qop to answer with: empty for a challenge that offers none.
std::string ChosenQop(const Challenge& challenge) {
  const std::string_view offered = challenge.Value("qop");
  return Lists(offered, "auth") ? "auth" : Lists(offered, "auth-int") ? "auth-int" : "";
}

// What a challenge asks for and nobody here can do; empty when it can be answered.
std::string Unsupported(const Challenge& challenge) {
  if (EqualAnyCase(challenge.scheme, "Basic")) return {};
  if (!IsDigest(challenge)) return challenge.scheme;
  const std::string_view algorithm = Trim(challenge.Value("algorithm"));
  if (!algorithm.empty() && !EqualAnyCase(algorithm, "MD5")) {
    return "Digest with " + std::string(algorithm);
  }
  if (challenge.Value("nonce").empty()) return "Digest without a nonce";
  const std::string_view qop = Trim(challenge.Value("qop"));
  if (!qop.empty() && ChosenQop(challenge).empty()) return "Digest with qop " + std::string(qop);
  return {};
}

const Challenge* Strongest(const std::vector<Challenge>& challenges) {
  const Challenge* chosen = nullptr;
  for (const Challenge& each : challenges) {
    if (!Unsupported(each).empty()) continue;
    if (IsDigest(each)) return &each;
    if (chosen == nullptr) chosen = &each;
  }
  return chosen;
}

std::string ProblemOf(const std::vector<Challenge>& challenges) {
  std::string names;
  for (const Challenge& each : challenges) {
    names += (names.empty() ? "" : " or ") + Unsupported(each);
  }
  if (names.empty()) return "no login method is named";
  for (char& c : names.erase(std::min(names.size(), kMaxNames))) {
    if (c < ' ' || c > '~') c = '?';
  }
  return "the login method is " + names + ", which is not supported";
}

}  // namespace

void Login::SetCredentials(const std::string& username, const std::string& password) {
  credentials_.SetUsernameAndPassword(username.c_str(), password.c_str());
  ForgetChallenge();
}

void Login::ForgetChallenge() {
  method_ = Method::kNone;
  problem_.clear();
}

bool Login::ReadChallenges(std::string_view answer) {
  const std::vector<Challenge> challenges = cms::ReadChallenges(answer);
  const Challenge* const chosen = Strongest(challenges);
  if (chosen == nullptr) {
    problem_ = ProblemOf(challenges);
    return false;
  }
  problem_.clear();
  method_ = IsDigest(*chosen) ? Method::kDigest : Method::kBasic;
  quotedRealm_ = chosen->Value("realm");
  credentials_.SetRealmAndNonce(Unescaped(quotedRealm_).c_str(),
                                std::string(chosen->Value("nonce")).c_str());
  qop_ = ChosenQop(*chosen);
  cnonce_ = NewClientNonce();
  count_ = 0;
  echoed_.clear();
  if (chosen->Find("algorithm") != nullptr) echoed_ += ", algorithm=MD5";
  if (const std::string* opaque = chosen->Find("opaque")) {
    echoed_ += ", opaque=\"" + *opaque + "\"";
  }
  return true;
}

std::string Login::AuthorizationLine(std::string_view method, std::string_view uri) {
  switch (method_) {
    case Method::kNone:
      return {};
    case Method::kBasic:
      return credentials_.GetBase64EncodeAuthString();
    case Method::kDigest:
      break;
  }
  return DigestAnswer(method, uri);
}

std::string Login::DigestAnswer(std::string_view method, std::string_view uri) {
  const std::string username = credentials_.GetUsername();
  const std::string password = credentials_.GetPassword();
  const std::string realm = credentials_.GetRealm();
  const std::string nonce = credentials_.GetNonce();
  const std::string target = WithoutLineEnds(uri);
  char nc[9] = "";
  std::string more = echoed_;
  if (!qop_.empty()) {
    std::snprintf(nc, sizeof nc, "%08x", ++count_);
    more.append(", qop=").append(qop_).append(", nc=").append(nc);
    more.append(", cnonce=\"").append(cnonce_).append("\"");
  }
  const std::string response =
      DigestResponse({username, password, realm, nonce, method, target, qop_, nc, cnonce_});
  return DigestLine({Escaped(username, "\"\\"), quotedRealm_, nonce, target, response}, more);
}

}  // namespace cms

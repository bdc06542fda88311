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

// What the digest can be made with, the strongest last.
struct DigestAlgorithm {
  std::string_view name;
  std::string (*hash)(std::string_view);
  bool session;
};
constexpr DigestAlgorithm kDigestAlgorithms[] = {
    {"MD5", &Md5Hex, false},
    {"MD5-sess", &Md5Hex, true},
    {"SHA-256", &Sha256Hex, false},
    {"SHA-256-sess", &Sha256Hex, true},
};

const DigestAlgorithm* AlgorithmOf(std::string_view name) {
  for (const DigestAlgorithm& each : kDigestAlgorithms) {
    if (EqualAnyCase(each.name, name)) return &each;
  }
  return nullptr;
}

// Of a challenge; MD5 where it names none.
const DigestAlgorithm* AlgorithmOf(const Challenge& challenge) {
  const std::string_view name = Trim(challenge.Value("algorithm"));
  return name.empty() ? &kDigestAlgorithms[0] : AlgorithmOf(name);
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
  const std::string_view named = Trim(challenge.Value("algorithm"));
  const DigestAlgorithm* const algorithm = AlgorithmOf(challenge);
  if (algorithm == nullptr) return "Digest with " + std::string(named);
  if (challenge.Value("nonce").empty()) return "Digest without a nonce";
  const std::string_view qop = Trim(challenge.Value("qop"));
  if (!qop.empty() && ChosenQop(challenge).empty()) return "Digest with qop " + std::string(qop);
  if (algorithm->session && qop.empty())
    return "Digest with " + std::string(named) + " without qop";
  return {};
}

// The place among those that can be answered: the strongest has the highest, 0 can not be.
int StrengthOf(const Challenge& challenge, bool basicAllowed) {
  if (!Unsupported(challenge).empty()) return 0;
  if (!IsDigest(challenge)) return basicAllowed ? 1 : 0;
  return 2 + static_cast<int>(AlgorithmOf(challenge) - kDigestAlgorithms);
}

const Challenge* Strongest(const std::vector<Challenge>& challenges, bool basicAllowed) {
  const Challenge* chosen = nullptr;
  int strongest = 0;
  for (const Challenge& each : challenges) {
    if (const int strength = StrengthOf(each, basicAllowed); strength > strongest) {
      strongest = strength;
      chosen = &each;
    }
  }
  return chosen;
}

std::string ProblemOf(const std::vector<Challenge>& challenges) {
  std::string names;
  for (const Challenge& each : challenges) {
    if (Unsupported(each).empty()) {  // Basic, and not allowed
      return "the camera logs in by Basic alone, which sends the password for all to read: use "
             "rtsps://, or allow it (allowBasic, --allow-basic)";
    }
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
  const Challenge* const chosen = Strongest(challenges, basicAllowed_);
  if (chosen == nullptr) {
    problem_ = ProblemOf(challenges);
    return false;
  }
  problem_.clear();
  quotedRealm_ = chosen->Value("realm");
  credentials_.SetRealmAndNonce(Unescaped(quotedRealm_).c_str(),
                                std::string(chosen->Value("nonce")).c_str());
  if (!IsDigest(*chosen)) {  // what else it says means nothing to Basic
    method_ = Method::kBasic;
    return true;
  }
  method_ = Method::kDigest;
  qop_ = ChosenQop(*chosen);
  cnonce_ = NewClientNonce();
  count_ = 0;
  echoed_.clear();
  algorithm_ = AlgorithmOf(*chosen)->name;
  if (chosen->Find("algorithm") != nullptr) echoed_ += ", algorithm=" + algorithm_;
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
  const DigestAlgorithm& algorithm = *AlgorithmOf(algorithm_);
  const std::string response =
      DigestResponse({username, password, realm, nonce, method, target, qop_, nc, cnonce_,
                      algorithm.hash, algorithm.session});
  return DigestLine({Escaped(username, "\"\\"), quotedRealm_, nonce, target, response}, more);
}

}  // namespace cms

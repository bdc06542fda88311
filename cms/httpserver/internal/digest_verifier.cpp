#include "cms/httpserver/internal/digest_verifier.h"

#include <algorithm>
#include <array>
#include <initializer_list>
#include <utility>

#include "cms/httpserver/internal/request_parser.h"
#include "cms/runtime/digest.h"
#include "cms/runtime/text.h"

namespace cms {
namespace {

constexpr std::string_view kWhite = " \t\r\n\v\f";
// What the digest with a qop is made of fits here; longer texts prove nothing.
constexpr std::size_t kMaxDigestInput = 255;
constexpr std::size_t kMaxSha256Input = kMaxDigestInput + std::size_t{2} * (64 - 32);

class FieldScanner {
 public:
  explicit FieldScanner(std::string_view text) : rest_(text) {}

  // The next item; false at the end.
  bool Next(std::string_view& name, std::string& value) {
    Skip(" \t\r\n\v\f,");
    if (rest_.empty()) {
      return false;
    }
    name = Take(std::min(rest_.find_first_of(" \t\r\n\v\f,="), rest_.size()));
    value.clear();
    Skip(kWhite);
    if (rest_.starts_with('=')) {
      rest_.remove_prefix(1);
      Skip(kWhite);
      TakeValue(value);
    }
    Take(std::min(rest_.find(','), rest_.size()));
    return true;
  }

 private:
  std::string_view Take(std::size_t count) {
    const std::string_view taken = rest_.substr(0, count);
    rest_.remove_prefix(count);
    return taken;
  }
  void Skip(std::string_view characters) {
    rest_.remove_prefix(std::min(rest_.find_first_not_of(characters), rest_.size()));
  }
  // A backslash is dropped and keeps the character behind it from ending the value.
  void TakeValue(std::string& value) {
    char end = ',';
    if (rest_.starts_with('"')) {
      end = '"';
      rest_.remove_prefix(1);
    }
    std::size_t at = 0;
    for (; at < rest_.size() && rest_[at] != end; ++at) {
      if (rest_[at] == '\\' && ++at == rest_.size()) {
        break;
      }
      value.push_back(rest_[at]);
    }
    Take(std::min(at, rest_.size()));
  }

  std::string_view rest_;
};

std::string Joined(std::initializer_list<std::string_view> parts) {
  std::string text;
  for (const std::string_view part : parts) {
    if (!text.empty()) {
      text += ':';
    }
    text += part;
  }
  return text;
}

// Whether the response is the one that the user's password and the other parameters make. An
// unknown user's is computed as well: it takes as long as a known one's.
using Hash = std::string (*)(std::string_view input);

bool IsProven(const DigestFields& given, std::string_view method, const PasswordLookup& lookup,
              Hash hash = &Md5Hex) {
  std::string password;
  const bool known = lookup(given.userName, password) != 0;
  const std::string ha1 = hash(given.userName + ':' + given.realm + ':' + password);
  const std::string ha2 = hash(std::string(method) + ':' + given.uri);
  std::string proof;
  if (given.qop == "auth" || given.qop == "auth-int") {
    const std::string& client = given.qop == "auth" ? given.cnonce : given.nc;
    proof = Joined({ha1, given.nonce, given.nc, client, given.qop, ha2});
    if (proof.size() > (hash == &Md5Hex ? kMaxDigestInput : kMaxSha256Input)) {
      return false;
    }
  } else {
    proof = Joined({ha1, given.nonce, ha2});
  }
  const std::string expected = hash(proof);
  const bool equal = !expected.empty() && !ha1.empty() && !ha2.empty() &&
                     EqualInConstantTime(expected, given.response);
  return known && equal;
}

}  // namespace

DigestFields ParseDigestFields(std::string_view authorization) {
  DigestFields fields;
  const std::array<std::pair<std::string_view, std::string*>, 9> known = {{
      {"username", &fields.userName},
      {"realm", &fields.realm},
      {"nonce", &fields.nonce},
      {"uri", &fields.uri},
      {"response", &fields.response},
      {"qop", &fields.qop},
      {"cnonce", &fields.cnonce},
      {"nc", &fields.nc},
      {"algorithm", &fields.algorithm},
  }};
  FieldScanner scanner(authorization);
  std::string_view name;
  std::string value;
  while (scanner.Next(name, value)) {
    for (const auto& [knownName, field] : known) {
      if (EqualAnyCase(name, knownName)) {
        *field = value;
      }
    }
  }
  return fields;
}

DigestVerdict VerifyDigest(std::string_view authorization, std::string_view method,
                           const PasswordLookup& lookup) {
  if (authorization.empty()) {
    return {DigestResult::kNoneGiven, {}};
  }
  DigestFields given = ParseDigestFields(authorization);
  if (given.userName.empty() || given.uri.empty() || given.nonce.empty() || given.cnonce.empty() ||
      given.response.empty() || given.nc.empty() || !IsProven(given, method, lookup)) {
    return {DigestResult::kBad, {}};
  }
  return {DigestResult::kGood, std::move(given.userName)};
}

DigestVerdict VerifyStrictDigest(std::string_view authorization, std::string_view method,
                                 std::string_view target, const PasswordLookup& lookup,
                                 const DigestNonces& nonces, std::uint64_t nowMilliseconds) {
  if (authorization.empty()) {
    return {DigestResult::kNoneGiven, {}};
  }
  DigestFields given = ParseDigestFields(authorization);
  const bool counted = given.qop == "auth" && !given.nc.empty() && !given.cnonce.empty();
  const Hash hash = EqualAnyCase(given.algorithm, "SHA-256") ? &Sha256Hex : &Md5Hex;
  if (given.userName.empty() || given.realm != kDigestRealm || (!counted && !given.qop.empty()) ||
      !IsProven(given, method, lookup, hash) || WithoutOrigin(given.uri) != WithoutOrigin(target)) {
    return {DigestResult::kBad, {}};
  }
  switch (nonces.Check(given.nonce, nowMilliseconds)) {
    case DigestNonces::Verdict::kFresh:
      return {DigestResult::kGood, std::move(given.userName)};
    case DigestNonces::Verdict::kStale:
      return {DigestResult::kStale, {}};
    case DigestNonces::Verdict::kForeign:
      break;
  }
  return {DigestResult::kBad, {}};
}

}  // namespace cms

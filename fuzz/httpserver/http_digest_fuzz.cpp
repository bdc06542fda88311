// Authorization parameters: no forged login, bounded values, and values that survive being quoted.
#include <string>

#include "cms/httpserver/internal/digest_verifier.h"
#include "fuzz/support/check.h"

namespace {

int NobodyKnown(const std::string&, std::string&) {
  return 0;
}
int UnguessableFor(const std::string&, std::string& password) {
  password = "7Ii-y2#vC9!pLq04";
  return 1;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  CHECK(cms::VerifyDigest(text, "GET", NobodyKnown).result != cms::DigestResult::kGood);
  CHECK(cms::VerifyDigest(text, text, UnguessableFor).result != cms::DigestResult::kGood);
  static const cms::DigestNonces nonces;
  CHECK(cms::VerifyStrictDigest(text, "GET", text, UnguessableFor, nonces, 1).result !=
        cms::DigestResult::kGood);
  CHECK(nonces.Check(text, size) == cms::DigestNonces::Verdict::kForeign);
  const cms::DigestFields fields = cms::ParseDigestFields(text);
  CHECK(fields.userName.size() + fields.realm.size() + fields.nonce.size() <= size);

  std::string quoted;
  for (const char c : text) {
    if (c == '"' || c == '\\') quoted += '\\';
    quoted += c;
  }
  const cms::DigestFields again =
      cms::ParseDigestFields("realm = \"" + quoted + "\" , nc=00000001,\tURI=\"" + quoted + '"');
  CHECK(again.realm == text && again.uri == text && again.nc == "00000001");
  return 0;
}

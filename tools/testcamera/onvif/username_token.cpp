#include "tools/testcamera/onvif/username_token.h"

#include <glib.h>

#include <cstdlib>

#include "tools/testcamera/gst_ptr.h"
#include "tools/testcamera/onvif/device_clock.h"

namespace testcamera {
namespace {

constexpr char kSecuritySpace[] =
    "http://docs.oasis-open.org/wss/2004/01/oasis-200401-wss-wssecurity-secext-1.0.xsd";
constexpr char kUtilitySpace[] =
    "http://docs.oasis-open.org/wss/2004/01/oasis-200401-wss-wssecurity-utility-1.0.xsd";
constexpr char kDigestType[] =
    "http://docs.oasis-open.org/wss/2004/01/"
    "oasis-200401-wss-username-token-profile-1.0#PasswordDigest";

[[noreturn]] void RefuseToken(const std::string& reason) {
  throw SoapFault{"ter:NotAuthorized", "", "Sender not authorized: " + reason};
}

// The child that has to be there.
const xmlNode* Part(const xmlNode* parent, const char* space, const char* name) {
  for (const xmlNode* child = parent == nullptr ? nullptr : parent->children; child != nullptr;
       child = child->next) {
    if (IsElement(child, space, name)) {
      return child;
    }
  }
  RefuseToken(std::string("there is no ") + name);
}

std::string DecodeBase64(const std::string& text) {
  gsize size = 0;
  guchar* bytes = g_base64_decode(text.c_str(), &size);
  std::string decoded(reinterpret_cast<const char*>(bytes), size);
  g_free(bytes);
  return decoded;
}

// Section 3.1: Base64 ( SHA-1 ( nonce + created + password ) ).
std::string PasswordDigest(const std::string& nonce, const std::string& created,
                           const std::string& password) {
  GChecksum* sha1 = g_checksum_new(G_CHECKSUM_SHA1);
  for (const std::string* each : {&nonce, &created, &password}) {
    g_checksum_update(sha1, reinterpret_cast<const guchar*>(each->data()),
                      static_cast<gssize>(each->size()));
  }
  guint8 digest[20];
  gsize size = sizeof digest;
  g_checksum_get_digest(sha1, digest, &size);
  g_checksum_free(sha1);
  return TextPtr(g_base64_encode(digest, size)).get();
}

}  // namespace

UsernameTokenCheck::UsernameTokenCheck(std::string user, std::string password, int window)
    : user_(std::move(user)), password_(std::move(password)), window_(window) {}

void UsernameTokenCheck::Check(const xmlNode* header, std::int64_t now) {
  const xmlNode* token =
      Part(Part(header, kSecuritySpace, "Security"), kSecuritySpace, "UsernameToken");
  if (Text(Part(token, kSecuritySpace, "Username")) != user_) {
    RefuseToken("no such user");
  }
  const xmlNode* password = Part(token, kSecuritySpace, "Password");
  if (Attribute(password, "Type") != kDigestType) {
    RefuseToken("the password is no digest");
  }
  const std::string nonce = DecodeBase64(Text(Part(token, kSecuritySpace, "Nonce")));
  const std::string created = Text(Part(token, kUtilitySpace, "Created"));
  const auto time = ParseDateTime(created);
  if (nonce.empty() || !time) {
    RefuseToken("the nonce or the created time cannot be read");
  }
  if (std::llabs(*time - now) > window_) {
    RefuseToken("the created time is " + std::to_string(*time - now) + " s off");
  }
  if (Text(password) != PasswordDigest(nonce, created, password_)) {
    RefuseToken("wrong password digest");
  }
  std::erase_if(seen_,
                [&](const auto& each) { return std::llabs(now - each.second) > 2LL * window_; });
  if (!seen_.try_emplace({nonce, created}, now).second) {
    RefuseToken("this nonce was used before");
  }
}

}  // namespace testcamera

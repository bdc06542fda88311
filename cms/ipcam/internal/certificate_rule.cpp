#include "cms/ipcam/internal/certificate_rule.h"

#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

namespace cms {
namespace {

// The verification of libcrypto, in whose place stands the comparison with the one that is known.
int IsPinned(X509_STORE_CTX* store, void* fingerprint) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned size = 0;
  const X509* shown = X509_STORE_CTX_get0_cert(store);
  if (shown == nullptr || X509_digest(shown, EVP_sha256(), digest, &size) != 1) {
    return 0;
  }
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string text;
  for (unsigned i = 0; i < size; ++i) {
    text += {kDigits[digest[i] >> 4], kDigits[digest[i] & 15]};
  }
  const bool same = text == *static_cast<const std::string*>(fingerprint);
  X509_STORE_CTX_set_error(store, same ? X509_V_OK : X509_V_ERR_CERT_REJECTED);
  return same ? 1 : 0;
}

CURLcode PinTo(CURL* /*easy*/, void* context, void* fingerprint) {
  auto* tls = static_cast<SSL_CTX*>(context);
  SSL_CTX_set_verify(tls, SSL_VERIFY_PEER, nullptr);
  SSL_CTX_set_cert_verify_callback(tls, IsPinned, fingerprint);
  return CURLE_OK;
}

}  // namespace

void SetCertificateRule(CURL* easy, const CertificateRule& rule) {
  const bool bySystem = rule.check == CertificateCheck::kSystem;
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, bySystem ? 1L : 0L);
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, bySystem ? 2L : 0L);
  if (rule.check == CertificateCheck::kPinned) {
    curl_easy_setopt(easy, CURLOPT_SSL_CTX_FUNCTION, &PinTo);
    curl_easy_setopt(easy, CURLOPT_SSL_CTX_DATA, const_cast<std::string*>(&rule.fingerprint));
  }
}

}  // namespace cms

// CertificateRule: how a camera that is asked over HTTPS is known.
#pragma once

#include <curl/curl.h>

#include <string>

#include "cms/net/tls_parameters.h"

namespace cms {

struct CertificateRule {
  CertificateCheck check = CertificateCheck::kSystem;
  std::string fingerprint;  // with kPinned, as PlainFingerprint gives it
};

// The rule outlives the handle's transfers.
void SetCertificateRule(CURL* easy, const CertificateRule& rule);

}  // namespace cms

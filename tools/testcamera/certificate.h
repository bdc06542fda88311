// The camera's certificate for RTSPS.
#pragma once

#include <gio/gio.h>

#include <string>

#include "tools/testcamera/gst_ptr.h"

namespace testcamera {

struct Certificate {
  ObjectPtr<GTlsCertificate> tls;
  std::string fingerprint;  // SHA-256, "AB:CD:..."
};

// That of a PEM file with the certificate and its key. When there is none yet, one is made for the
// host, signed by itself, and written there; with an empty path it is made and not kept. Throws
// std::runtime_error.
Certificate LoadCertificate(const std::string& path, const std::string& host);

}  // namespace testcamera

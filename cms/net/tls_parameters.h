// What is asked of the other end of a TLS connection, and what came of it.
#pragma once

#include <string>

#include "cms/runtime/api.h"

namespace cms {

// How a camera shows that it is the one that was meant.
enum class CertificateCheck : int {
  kSystem,  // by a certificate for its name or address that an authority trusted here has signed
  kPinned,  // by the certificate with the fingerprint that is given, whoever has signed it
  kNone,    // not at all: nobody can listen, but anybody can pretend to be the camera
};

struct TlsParameters {
  CertificateCheck check = CertificateCheck::kSystem;
  std::string host;         // the name or address that was asked for
  std::string fingerprint;  // with kPinned, as PlainFingerprint gives it
};

// What became of an attempt to put TLS under a connection.
struct TlsResult {
  enum class Outcome { kSecured, kRefused, kFailed, kTimeout, kCancelled };
  Outcome outcome = Outcome::kFailed;
  // For people, of kRefused (why the certificate does not do) and kFailed: half a sentence.
  std::string text;
  std::string fingerprint;  // of the certificate that was shown, if any: "AB:CD:..."
};

// A SHA-256 fingerprint of 32 bytes in hexadecimal, with or without colons and blanks, in capitals
// and nothing else; empty for any other text.
CMS_API std::string PlainFingerprint(const std::string& text);

}  // namespace cms

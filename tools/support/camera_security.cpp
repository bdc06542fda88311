#include "tools/support/camera_security.h"

#include <algorithm>

#include "cms/net/tls_parameters.h"

namespace tools {

cms::CertificateCheck CameraSecurity::Check() const {
  return insecure              ? cms::CertificateCheck::kNone
         : fingerprint.empty() ? cms::CertificateCheck::kSystem
                               : cms::CertificateCheck::kPinned;
}

void CameraSecurity::ApplyTo(cms::stRTSPClientConfig* config) const {
  config->allowBasic = allowBasic;
  config->certificate = Check();
  config->certificateFingerprint = fingerprint;
}

void AddSecurityOptions(Command command, SecurityArguments& arguments) {
  const Option fingerprint = command
                                 .AddOption("--fingerprint", arguments.fingerprints,
                                            "with rtsps://, https:// and onvifs://, the SHA-256 "
                                            "fingerprint of the camera's certificate: one for all "
                                            "URLs, or one for each in their order")
                                 .List()
                                 .TypeName("HEX");
  command
      .AddFlag(
          "--insecure", arguments.insecure,
          "with rtsps://, https:// and onvifs://, take any certificate: whoever sits in between "
          "can pretend to be the camera")
      .Excludes(fingerprint);
  command.AddFlag("--allow-basic", arguments.allowBasic,
                  "log in by Basic although the connection is not encrypted, where a camera knows "
                  "nothing better: anybody on the way can read the password");
}

CameraSecurity SecurityOf(const SecurityArguments& arguments, std::size_t camera,
                          std::size_t count) {
  CameraSecurity security{arguments.allowBasic, arguments.insecure, ""};
  const std::size_t given = arguments.fingerprints.size();
  if (given == 0) {
    return security;
  }
  if (given > count) {
    throw UsageError("--fingerprint",
                     std::to_string(given) + " values, but URLs: " + std::to_string(count));
  }
  security.fingerprint = arguments.fingerprints[std::min(camera, given - 1)];
  if (cms::PlainFingerprint(security.fingerprint).empty()) {
    throw UsageError("--fingerprint",
                     "\"" + security.fingerprint + "\" is not 32 bytes in hexadecimal (SHA-256)");
  }
  return security;
}

}  // namespace tools

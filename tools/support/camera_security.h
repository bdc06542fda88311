// The options by which commands say how a camera and the password for it are protected.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "cms/streaming/rtsp_client.h"
#include "tools/support/options.h"

namespace tools {

struct CameraSecurity {
  bool allowBasic = false;
  bool insecure = false;    // with TLS, any certificate is taken
  std::string fingerprint;  // of the one that is taken; empty: what the system trusts

  void ApplyTo(cms::stRTSPClientConfig* config) const;
  bool operator==(const CameraSecurity&) const = default;
  cms::CertificateCheck Check() const;
};

struct SecurityArguments {
  bool allowBasic = false;
  bool insecure = false;
  std::vector<std::string> fingerprints;
};

// --fingerprint, --insecure and --allow-basic.
void AddSecurityOptions(Command command, SecurityArguments& arguments);

// What they say of the camera with that number, from 0, of so many: throws UsageError for a
// fingerprint that is none.
CameraSecurity SecurityOf(const SecurityArguments& arguments, std::size_t camera,
                          std::size_t count);

}  // namespace tools

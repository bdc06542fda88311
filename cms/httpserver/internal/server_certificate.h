// ServerCertificate, what the HTTP server shows to those who come by TLS.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "cms/runtime/critical.h"

struct ssl_ctx_st;

namespace cms {

// Certificates are renewed while servers run: a connection that comes looks whether the files are
// others than before, every 5 seconds at most. Files that do not do are logged and change nothing.
// Any thread.
class ServerCertificate {
 public:
  struct Files {
    std::string certificate;  // PEM, with those that lead to its authority behind it
    std::string key;          // PEM, without a passphrase
    std::string
        clientAuthorities;  // PEM; who shows no certificate of theirs is refused; empty: all
  };

  // nullptr when they do not do, and why.
  static std::unique_ptr<ServerCertificate> Load(Files files, std::string* problem);

  // Of the files as they are now.
  std::shared_ptr<ssl_ctx_st> Context();

 private:
  // What a file is known by, of each.
  using Stamp = std::array<std::int64_t, 4>;
  using Stamps = std::array<Stamp, 3>;

  explicit ServerCertificate(Files files) : files_(std::move(files)) {}
  static Stamp StampOf(const std::string& path);
  Stamps Look() const;

  const Files files_;
  CMSCritical lock_;
  std::shared_ptr<ssl_ctx_st> context_ CMS_GUARDED_BY(lock_);
  Stamps stamps_ CMS_GUARDED_BY(lock_){};
  std::chrono::steady_clock::time_point nextLook_ CMS_GUARDED_BY(lock_){};
};

}  // namespace cms

#include "cms/httpserver/internal/server_certificate.h"

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "cms/net/internal/tls_library.h"
#include "cms/runtime/log.h"

namespace cms {
namespace {

using std::chrono::steady_clock;

constexpr std::chrono::seconds kBetweenLooks{5};
constexpr unsigned char kSessionContext[] = "cms http server";

// The library would ask at the terminal.
int NoPassphrase(char*, int, int, void*) {
  return 0;
}

std::string Unreadable(const std::string& path, const std::string& why) {
  return path + ": " + why;
}

// Empty when all of it is taken.
std::string Fill(SSL_CTX* context, const ServerCertificate::Files& files) {
  for (const std::string* path : {&files.certificate, &files.key, &files.clientAuthorities}) {
    if (!path->empty() && access(path->c_str(), R_OK) != 0) {
      return Unreadable(*path, std::strerror(errno));
    }
  }
  SSL_CTX_set_default_passwd_cb(context, &NoPassphrase);
  if (SSL_CTX_use_certificate_chain_file(context, files.certificate.c_str()) != 1) {
    return Unreadable(files.certificate,
                      "it holds no certificate in PEM (" + TlsErrorText("unknown") + ")");
  }
  if (SSL_CTX_use_PrivateKey_file(context, files.key.c_str(), SSL_FILETYPE_PEM) != 1 ||
      SSL_CTX_check_private_key(context) != 1) {
    return Unreadable(files.key, "it is not the key of " + files.certificate +
                                     " in PEM, without a passphrase (" + TlsErrorText("unknown") +
                                     ")");
  }
  if (files.clientAuthorities.empty()) {
    return {};
  }
  const char* const authorities = files.clientAuthorities.c_str();
  STACK_OF(X509_NAME)* const names = SSL_load_client_CA_file(authorities);
  if (names == nullptr || SSL_CTX_load_verify_locations(context, authorities, nullptr) != 1) {
    sk_X509_NAME_pop_free(names, X509_NAME_free);
    return Unreadable(files.clientAuthorities, "it holds no certificate of an authority in PEM");
  }
  SSL_CTX_set_client_CA_list(context, names);  // takes them
  SSL_CTX_set_verify(context, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
  return {};
}

// A connection serves one request: so that browsers need not shake hands in full for each there are
// tickets, which nobody has to remember here.
std::shared_ptr<SSL_CTX> NewServerContext(const ServerCertificate::Files& files,
                                          std::string* problem) {
  ERR_clear_error();
  std::shared_ptr<SSL_CTX> made(SSL_CTX_new(TLS_server_method()), SSL_CTX_free);
  if (made == nullptr) {
    *problem = "out of memory";
    return nullptr;
  }
  SSL_CTX* const context = made.get();
  SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
  SSL_CTX_set_options(context, SSL_OP_NO_RENEGOTIATION | SSL_OP_CIPHER_SERVER_PREFERENCE);
  SSL_CTX_set_mode(context, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
  SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
  SSL_CTX_set_num_tickets(context, 1);
  SSL_CTX_set_session_id_context(context, kSessionContext, sizeof kSessionContext - 1);
  *problem = Fill(context, files);
  return problem->empty() ? made : nullptr;
}

}  // namespace

ServerCertificate::Stamp ServerCertificate::StampOf(const std::string& path) {
  struct stat found {};
  if (path.empty() || stat(path.c_str(), &found) != 0) {
    return {};
  }
  return {static_cast<std::int64_t>(found.st_ino), found.st_size, found.st_mtim.tv_sec,
          found.st_mtim.tv_nsec};
}

ServerCertificate::Stamps ServerCertificate::Look() const {
  return {StampOf(files_.certificate), StampOf(files_.key), StampOf(files_.clientAuthorities)};
}

std::unique_ptr<ServerCertificate> ServerCertificate::Load(Files files, std::string* problem) {
  std::unique_ptr<ServerCertificate> made(new ServerCertificate(std::move(files)));
  const Stamps stamps = made->Look();
  auto context = NewServerContext(made->files_, problem);
  if (context == nullptr) {
    return nullptr;
  }
  const ScopeLock lock(made->lock_);
  made->context_ = std::move(context);
  made->stamps_ = stamps;
  made->nextLook_ = steady_clock::now() + kBetweenLooks;
  return made;
}

// Nobody waits for the one who reads the files.
std::shared_ptr<SSL_CTX> ServerCertificate::Context() {
  Stamps before;
  {
    const ScopeLock lock(lock_);
    const auto now = steady_clock::now();
    if (now < nextLook_) {
      return context_;
    }
    nextLook_ = now + kBetweenLooks;
    before = stamps_;
  }
  const Stamps stamps = Look();
  std::shared_ptr<SSL_CTX> renewed;
  if (stamps != before) {
    std::string problem;
    renewed = NewServerContext(files_, &problem);
    Log(renewed != nullptr ? LogLevel::kInfo : LogLevel::kError, "server",
        renewed != nullptr ? "the certificate " + files_.certificate + " was read anew"
                           : "the changed certificate is not used, but the one before: " + problem);
  }
  const ScopeLock lock(lock_);
  if (stamps != before) {
    stamps_ = stamps;  // what does not do is told once
  }
  if (renewed != nullptr) {
    context_ = std::move(renewed);
  }
  return context_;
}

}  // namespace cms

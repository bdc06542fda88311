#include "tests/support/tls_front.h"

#include <netinet/in.h>
#include <openssl/bio.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <memory>
#include <stdexcept>

#include "cms/runtime/ip_address.h"
#include "tests/support/scripted_camera.h"

namespace test {
namespace {

template <auto Free>
struct Freed {
  template <typename T>
  void operator()(T* object) const {
    Free(object);
  }
};
using Key = std::unique_ptr<EVP_PKEY, Freed<EVP_PKEY_free>>;
using X509Ptr = std::unique_ptr<X509, Freed<X509_free>>;
using Bio = std::unique_ptr<BIO, Freed<BIO_free>>;
using Session = std::unique_ptr<SSL, Freed<SSL_free>>;

template <typename Write>
std::string Text(Write write) {
  const Bio bio(BIO_new(BIO_s_mem()));
  write(bio.get());
  char* data = nullptr;
  const long size = BIO_get_mem_data(bio.get(), &data);
  return {data, static_cast<std::size_t>(size)};
}

int ConnectTo(std::uint16_t port) {
  const int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(port);
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  connect(descriptor, reinterpret_cast<const sockaddr*>(&to), sizeof to);
  return descriptor;
}

}  // namespace

Certificate::Certificate(const std::string& host) {
  const Key key(EVP_EC_gen("P-256"));
  const X509Ptr certificate(X509_new());
  X509_set_version(certificate.get(), 2);
  ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), 1);
  X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -86'400);
  X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 86'400);
  X509_set_pubkey(certificate.get(), key.get());
  X509_NAME* const name = X509_get_subject_name(certificate.get());
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>("camera"), -1, -1, 0);
  X509_set_issuer_name(certificate.get(), name);
  const std::string kind = cms::IpAddress::Parse(host) ? "IP:" : "DNS:";
  for (const auto& [id, value] : {std::pair{NID_basic_constraints, std::string("CA:TRUE")},
                                  std::pair{NID_subject_alt_name, kind + host}}) {
    X509_EXTENSION* const extension = X509V3_EXT_conf_nid(nullptr, nullptr, id, value.c_str());
    X509_add_ext(certificate.get(), extension, -1);
    X509_EXTENSION_free(extension);
  }
  X509_sign(certificate.get(), key.get(), EVP_sha256());
  pem_ = Text([&](BIO* bio) { PEM_write_bio_X509(bio, certificate.get()); });
  keyPem_ = Text([&](BIO* bio) {
    PEM_write_bio_PrivateKey(bio, key.get(), nullptr, nullptr, 0, nullptr, nullptr);
  });
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned size = 0;
  X509_digest(certificate.get(), EVP_sha256(), digest.data(), &size);
  for (unsigned i = 0; i < size; ++i) {
    std::array<char, 4> pair{};
    std::snprintf(pair.data(), pair.size(), i > 0 ? ":%02X" : "%02X", digest[i]);
    fingerprint_ += pair.data();
  }
}

TlsFront::TlsFront(std::uint16_t serverPort, const Certificate& certificate)
    : serverPort_(serverPort), context_(SSL_CTX_new(TLS_server_method())) {
  std::signal(SIGPIPE, SIG_IGN);  // this side's library writes plainly
  auto* const context = static_cast<SSL_CTX*>(context_);
  const std::string pem = certificate.Pem();
  const std::string keyPem = certificate.KeyPem();
  const Bio certificateText(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  const Bio keyText(BIO_new_mem_buf(keyPem.data(), static_cast<int>(keyPem.size())));
  const X509Ptr own(PEM_read_bio_X509(certificateText.get(), nullptr, nullptr, nullptr));
  const Key key(PEM_read_bio_PrivateKey(keyText.get(), nullptr, nullptr, nullptr));
  SSL_CTX_use_certificate(context, own.get());
  SSL_CTX_use_PrivateKey(context, key.get());
  listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (!BindLoopback(listener_, 0) || listen(listener_, SOMAXCONN) != 0) {
    throw std::runtime_error("no port for TLS");
  }
  port_ = LocalPort(listener_);
  acceptor_ = std::thread([this] { Accept(); });
}

TlsFront::~TlsFront() {
  stopping_ = true;
  shutdown(listener_, SHUT_RDWR);
  acceptor_.join();
  close(listener_);
  for (std::thread& session : sessions_) {
    session.join();
  }
  SSL_CTX_free(static_cast<SSL_CTX*>(context_));
}

std::string TlsFront::Url(const std::string& serverUrl, const std::string& host) const {
  const std::size_t authority = serverUrl.find("://") + 3;
  const std::size_t path = serverUrl.find('/', authority);
  return "rtsps://" + host + ":" + std::to_string(port_) + serverUrl.substr(path);
}

void TlsFront::Accept() {
  while (true) {
    const int client = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (client < 0) {
      return;
    }
    const std::lock_guard lock(mutex_);
    sessions_.emplace_back([this, client] { Pass(client); });
  }
}

void TlsFront::Pass(int client) {
  const Session session(SSL_new(static_cast<SSL_CTX*>(context_)));
  SSL_set_fd(session.get(), client);
  const int server = ConnectTo(serverPort_);
  std::array<char, 16 * 1024> bytes{};
  int keys = changeKeys_;
  bool open = SSL_accept(session.get()) == 1;
  while (open && !stopping_) {
    pollfd waits[] = {{client, POLLIN, 0}, {server, POLLIN, 0}};
    constexpr int kLook = 100;  // milliseconds
    const bool held = SSL_pending(session.get()) > 0;
    if (!held && poll(waits, 2, kLook) <= 0) {
      continue;
    }
    if (held || waits[0].revents != 0) {
      const int got = SSL_read(session.get(), bytes.data(), static_cast<int>(bytes.size()));
      open =
          got > 0 && send(server, bytes.data(), static_cast<std::size_t>(got), MSG_NOSIGNAL) == got;
    }
    if (open && waits[1].revents != 0) {
      if (keys != changeKeys_.load()) {
        keys = changeKeys_;
        SSL_key_update(session.get(), SSL_KEY_UPDATE_REQUESTED);
      }
      const auto got = recv(server, bytes.data(), bytes.size(), 0);
      open = got > 0 && SSL_write(session.get(), bytes.data(), static_cast<int>(got)) == got;
    }
  }
  SSL_shutdown(session.get());
  close(server);
  close(client);
}

}  // namespace test

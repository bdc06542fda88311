#include "cms/net/internal/tls_stream.h"

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "cms/net/internal/tls_library.h"
#include "cms/runtime/ip_address.h"

namespace cms {
namespace {

// One read takes several records where the camera makes one of each packet.
constexpr std::size_t kReadBuffer = 64 * 1024;
// Cameras of ten years ago have keys of 1,024 bits; who pins such a certificate knows it.
constexpr int kLevelOfOldCameras = 1;
constexpr char kHexDigits[] = "0123456789ABCDEF";

// --- What is asked of a connection ---------------------------------------------------------------

// One for each connection, as the certificates that the system trusts change while clients run. The
// certificate is looked at behind the handshake, and before anything else is sent: only then there
// is a fingerprint to tell of one that does not do.
SSL_CTX* NewContext() {
  SSL_CTX* const made = SSL_CTX_new(TLS_client_method());
  if (made != nullptr) {
    SSL_CTX_set_default_verify_paths(made);
    SSL_CTX_set_verify(made, SSL_VERIFY_NONE, nullptr);
    SSL_CTX_set_min_proto_version(made, TLS1_2_VERSION);
    // Cameras end a connection without a goodbye; what is cut off is no whole packet or answer.
    SSL_CTX_set_options(made, SSL_OP_IGNORE_UNEXPECTED_EOF | SSL_OP_NO_RENEGOTIATION);
    SSL_CTX_set_mode(made, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    SSL_CTX_set_read_ahead(made, 1);
    SSL_CTX_set_default_read_buffer_len(made, kReadBuffer);
  }
  return made;
}

std::string FingerprintOf(const X509* certificate) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  std::string text;
  if (X509_digest(certificate, EVP_sha256(), digest, &size) == 1) {
    for (unsigned int i = 0; i < size; ++i) {
      text += i > 0 ? ":" : "";
      text += kHexDigits[digest[i] >> 4];
      text += kHexDigits[digest[i] & 15];
    }
  }
  return text;
}

}  // namespace

std::string PlainFingerprint(const std::string& text) {
  constexpr std::size_t kDigits = 64;
  std::string plain;
  for (const char c : text) {
    if (c == ':' || c == ' ') {
      continue;
    }
    const char capital = c >= 'a' && c <= 'f' ? static_cast<char>(c - 'a' + 'A') : c;
    if (capital == '\0' || std::strchr(kHexDigits, capital) == nullptr) {
      return {};
    }
    plain += capital;
  }
  return plain.size() == kDigits ? plain : "";
}

// --- The handshake -------------------------------------------------------------------------------

TlsStream::TlsStream(int socket) {
  const ScopeLock lock(lock_);
  wire_.socket = socket;
}

std::unique_ptr<TlsStream> TlsStream::Connect(int socket, const TlsParameters& parameters,
                                              int milliseconds, const WakeUp* cancel,
                                              TlsResult* result) {
  std::unique_ptr<TlsStream> stream(new TlsStream(socket));
  if (!stream->Prepare(parameters)) {
    *result = {TlsResult::Outcome::kFailed, "no memory for TLS", ""};
    return nullptr;
  }
  if (!stream->ShakeHands(milliseconds, cancel != nullptr ? cancel->Descriptor() : -1, result)) {
    return nullptr;
  }
  stream->CheckCertificate(parameters, result);
  return result->outcome == TlsResult::Outcome::kSecured ? std::move(stream) : nullptr;
}

std::unique_ptr<TlsStream> TlsStream::Accept(int socket, SSL_CTX* context, int milliseconds,
                                             int cancel, TlsResult* result) {
  std::unique_ptr<TlsStream> stream(new TlsStream(socket));
  if (!stream->Begin(context)) {
    *result = {TlsResult::Outcome::kFailed, "no memory for TLS", ""};
    return nullptr;
  }
  *result = {TlsResult::Outcome::kSecured, "", ""};
  return stream->ShakeHands(milliseconds, cancel, result) ? std::move(stream) : nullptr;
}

bool TlsStream::Begin(SSL_CTX* context) {
  const ScopeLock lock(lock_);
  ssl_ = SSL_new(context);
  BIO* const bio = ssl_ != nullptr ? NewSocketBio(wire_) : nullptr;
  if (bio == nullptr) {
    return false;
  }
  SSL_set_bio(ssl_, bio, bio);
  if (SSL_is_server(ssl_) != 0) {
    SSL_set_accept_state(ssl_);
  } else {
    SSL_set_connect_state(ssl_);
  }
  return true;
}

bool TlsStream::Prepare(const TlsParameters& parameters) {
  SSL_CTX* const context = NewContext();
  const bool begun = context != nullptr && Begin(context);
  SSL_CTX_free(context);  // the connection keeps its own hold of it
  if (!begun) {
    return false;
  }
  const ScopeLock lock(lock_);
  if (parameters.check != CertificateCheck::kSystem) {
    SSL_set_security_level(ssl_, kLevelOfOldCameras);
  }
  X509_VERIFY_PARAM* const verify = SSL_get0_param(ssl_);
  X509_VERIFY_PARAM_set_hostflags(verify, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
  if (const auto address = IpAddress::Parse(parameters.host)) {
    const auto& bytes = address->V6();
    const std::size_t skipped = address->IsV4() ? 12 : 0;
    return X509_VERIFY_PARAM_set1_ip(verify, bytes.data() + skipped, bytes.size() - skipped) == 1;
  }
  // A name of several cameras on one address (RFC 6066, 3).
  return SSL_set_tlsext_host_name(ssl_, parameters.host.c_str()) == 1 &&
         X509_VERIFY_PARAM_set1_host(verify, parameters.host.c_str(), 0) == 1;
}

bool TlsStream::ShakeHands(int milliseconds, int cancel, TlsResult* result) {
  using std::chrono::steady_clock;
  const ScopeLock lock(lock_);
  const auto end = steady_clock::now() + std::chrono::milliseconds(std::max(milliseconds, 0));
  for (;;) {
    ERR_clear_error();
    const int done = SSL_do_handshake(ssl_);
    if (done == 1) {
      return true;
    }
    const int error = SSL_get_error(ssl_, done);
    if (error != SSL_ERROR_WANT_READ && error != SSL_ERROR_WANT_WRITE) {
      *result = {TlsResult::Outcome::kFailed,
                 error == SSL_ERROR_SSL ? TlsErrorText("the other end does not speak TLS")
                                        : "the other end closed the connection",
                 ""};
      broken_ = true;
      return false;
    }
    const short event = error == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT;
    pollfd waits[] = {{wire_.socket, event, 0}, {cancel, POLLIN, 0}};
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(end - steady_clock::now()).count();
    const int limit = milliseconds < 0 ? -1 : static_cast<int>(std::max<std::int64_t>(left, 0));
    const int ready = poll(waits, 2, limit);
    if (ready > 0 && waits[1].revents != 0) {
      *result = {TlsResult::Outcome::kCancelled, "", ""};
      return false;
    }
    if (ready == 0) {
      *result = {TlsResult::Outcome::kTimeout, "", ""};
      return false;
    }
  }
}

void TlsStream::CheckCertificate(const TlsParameters& parameters, TlsResult* result) {
  const ScopeLock lock(lock_);
  const X509* const certificate = SSL_get0_peer_certificate(ssl_);
  *result = {TlsResult::Outcome::kSecured, "",
             certificate != nullptr ? FingerprintOf(certificate) : ""};
  switch (parameters.check) {
    case CertificateCheck::kNone:
      return;
    case CertificateCheck::kPinned:
      if (!parameters.fingerprint.empty() &&
          PlainFingerprint(result->fingerprint) == parameters.fingerprint) {
        return;
      }
      result->text = "it is not the one whose fingerprint is configured";
      break;
    case CertificateCheck::kSystem: {
      const long verified = SSL_get_verify_result(ssl_);
      if (certificate != nullptr && verified == X509_V_OK) {
        return;
      }
      result->text =
          certificate == nullptr ? "there is none" : X509_verify_cert_error_string(verified);
      break;
    }
  }
  result->outcome = TlsResult::Outcome::kRefused;
}

TlsStream::~TlsStream() {
  const ScopeLock lock(lock_);
  if (ssl_ != nullptr && !broken_ && SSL_is_init_finished(ssl_) != 0) {
    ERR_clear_error();
    SSL_shutdown(ssl_);
  }
  SSL_free(ssl_);
}

// --- Bytes ---------------------------------------------------------------------------------------

int TlsStream::Receive(char* buffer, int size, bool fromSocket) {
  const ScopeLock lock(lock_);
  wire_.mayRead = fromSocket;
  ERR_clear_error();
  errno = 0;
  return ResultOf(SSL_read(ssl_, buffer, size));
}

int TlsStream::Send(const char* data, int length) {
  const ScopeLock lock(lock_);
  wire_.mayRead = true;
  ERR_clear_error();
  errno = 0;
  return ResultOf(SSL_write(ssl_, data, length));
}

// To read may want to write, for a new key: whoever waits for the socket to become readable does so
// until the camera's next bytes, which a stream has at once.
int TlsStream::ResultOf(int returned) {
  if (returned > 0) {
    return returned;
  }
  switch (SSL_get_error(ssl_, returned)) {
    case SSL_ERROR_WANT_READ:
    case SSL_ERROR_WANT_WRITE:
      errno = EAGAIN;
      return -1;
    case SSL_ERROR_ZERO_RETURN:
      return 0;
    case SSL_ERROR_SYSCALL:
      broken_ = true;
      errno = errno != 0 ? errno : EPROTO;
      return -1;
    default:
      broken_ = true;
      errno = EPROTO;
      return -1;
  }
}

}  // namespace cms

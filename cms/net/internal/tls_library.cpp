#include "cms/net/internal/tls_library.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <sys/socket.h>

#include <cerrno>

#include "cms/net/internal/socket_io.h"

namespace cms {
namespace {

// The library's own socket would raise SIGPIPE where the other end is gone.

const TlsWire& WireOf(BIO* bio) {
  return *static_cast<const TlsWire*>(BIO_get_data(bio));
}

int WriteToSocket(BIO* bio, const char* data, int length) {
  BIO_clear_retry_flags(bio);
  const auto sent =
      send(WireOf(bio).socket, data, static_cast<std::size_t>(length), MSG_NOSIGNAL | MSG_DONTWAIT);
  if (sent < 0 && (IsWouldBlock(errno) || errno == EINTR)) {
    BIO_set_retry_write(bio);
  }
  return static_cast<int>(sent);
}

int ReadFromSocket(BIO* bio, char* buffer, int size) {
  BIO_clear_retry_flags(bio);
  const TlsWire& wire = WireOf(bio);
  if (!wire.mayRead) {
    BIO_set_retry_read(bio);
    return -1;
  }
  const auto got = recv(wire.socket, buffer, static_cast<std::size_t>(size), MSG_DONTWAIT);
  if (got < 0 && (IsWouldBlock(errno) || errno == EINTR)) {
    BIO_set_retry_read(bio);
  } else if (got == 0) {
    BIO_set_flags(bio, BIO_FLAGS_IN_EOF);
  }
  return static_cast<int>(got);
}

long ControlSocket(BIO* bio, int command, long, void*) {
  if (command == BIO_CTRL_EOF) {
    return BIO_test_flags(bio, BIO_FLAGS_IN_EOF) != 0 ? 1 : 0;
  }
  return command == BIO_CTRL_FLUSH ? 1 : 0;
}

}  // namespace

BIO* NewSocketBio(TlsWire& wire) {
  // Never freed: clients of static lifetime close their streams late.
  static BIO_METHOD* const method = [] {
    BIO_METHOD* const made = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "cms socket");
    BIO_meth_set_write(made, &WriteToSocket);
    BIO_meth_set_read(made, &ReadFromSocket);
    BIO_meth_set_ctrl(made, &ControlSocket);
    return made;
  }();
  BIO* const bio = BIO_new(method);
  if (bio != nullptr) {
    BIO_set_data(bio, &wire);
    BIO_set_init(bio, 1);
  }
  return bio;
}

std::string TlsErrorText(const char* otherwise) {
  const char* const reason = ERR_reason_error_string(ERR_peek_last_error());
  return reason != nullptr ? reason : otherwise;
}

}  // namespace cms

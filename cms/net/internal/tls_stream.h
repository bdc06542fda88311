// TlsStream: TLS (RFC 8446, RFC 5246) over a connected socket that does not block.
#pragma once

#include <memory>

#include "cms/net/internal/tls_library.h"
#include "cms/net/tls_parameters.h"
#include "cms/runtime/critical.h"
#include "cms/runtime/wake_up.h"

struct ssl_ctx_st;
struct ssl_st;

namespace cms {

// Send and Receive may come from two threads: its lock is held for as long as one of them works,
// and neither waits for the network. Nothing is allocated for a record.
class TlsStream {
 public:
  // Shakes hands over the socket within the milliseconds (negative: without limit); the signal ends
  // it at once. nullptr unless secured. The socket stays the caller's, and open for as long as the
  // stream is.
  static std::unique_ptr<TlsStream> Connect(int socket, const TlsParameters& parameters,
                                            int milliseconds, const WakeUp* cancel,
                                            TlsResult* result);
  // The server's end of it, as the context has it, which is the certificate and who may come. The
  // descriptor `cancel` (or -1) ends it when it becomes readable.
  static std::unique_ptr<TlsStream> Accept(int socket, ssl_ctx_st* context, int milliseconds,
                                           int cancel, TlsResult* result);
  ~TlsStream();  // says goodbye to the other end, if that can be done at once
  TlsStream(const TlsStream&) = delete;
  TlsStream& operator=(const TlsStream&) = delete;

  // As recv and send of the socket would: the bytes, 0 at the end, -1 with errno. EAGAIN while
  // there is nothing to be had or taken; EPROTO when the other end broke the protocol. Without
  // `fromSocket` only what has left the socket already, of which the system does not tell any more.
  int Receive(char* buffer, int size, bool fromSocket);
  int Send(const char* data, int length);

 private:
  explicit TlsStream(int socket);
  bool Prepare(const TlsParameters& parameters);
  bool Begin(ssl_ctx_st* context);
  bool ShakeHands(int milliseconds, int cancel, TlsResult* result);
  void CheckCertificate(const TlsParameters& parameters, TlsResult* result);
  int ResultOf(int returned) CMS_REQUIRES(lock_);

  CMSCritical lock_;
  TlsWire wire_ CMS_GUARDED_BY(lock_);
  ssl_st* ssl_ CMS_GUARDED_BY(lock_) = nullptr;
  bool broken_ CMS_GUARDED_BY(lock_) = false;  // nothing can be said any more
};

}  // namespace cms

// What stands behind TCPClientBase: its state, and the steps of the I/O threads.
#pragma once

#include <atomic>
#include <memory>

#include "cms/live/media/frame_buffer.h"
#include "cms/live/media/simple_buffer.h"
#include "cms/net/internal/socket_endpoint.h"
#include "cms/net/internal/tls_stream.h"
#include "cms/net/tcp_client.h"
#include "cms/runtime/critical.h"

class TCPClientBase::Impl final : public cms::SocketEndpoint {
 public:
  explicit Impl(TCPClientBase& owner) : SocketEndpoint(Transport::kTcp), owner_(owner) {}

  Received ReceiveStep() override;
  Sent SendStep() override;
  bool HasPending() override;

  // Of recvChunkSize bytes, for what the calling thread receives and works off before it receives
  // again. One for all clients of a thread: what each had of its own fell out of the processor's
  // caches between two of its turns.
  char* RecvScratch() const;
  int SendOnce();  // TCPClientSend
  bool QueueIsFull();

  tTcpClientParam param;  // every size above 0
  std::atomic<int> running{0};
  std::atomic<int> connected{0};
  std::uint32_t remoteAddress = 0;
  unsigned long remotePort = 0;
  std::atomic<bool> peerClosed{false};  // OnPeerClosed was called
  std::atomic<bool> sendFailed{false};
  std::unique_ptr<char[]> sendScratch;  // send thread
  std::unique_ptr<cms::TlsStream> tls;  // none: plain TCP; not changed while registered
  CFrameBuffer recvQueue;
  CMSCritical sendLock;  // the ring takes no lock of its own
  std::unique_ptr<CSimpleBuffer> sendRing CMS_GUARDED_BY(sendLock);
  int sendRingUsed CMS_GUARDED_BY(sendLock) = 0;
  int sendRingSize CMS_GUARDED_BY(sendLock) = 0;
  int pendingSendLength CMS_GUARDED_BY(sendLock) = 0;  // unsent bytes in the send scratch

 private:
  int ReceiveBytes(int descriptor, bool fromSocket);
  bool PauseWhenFull();
  void ReportClosed();
  int TakeFromRing();

  TCPClientBase& owner_;
  bool sendWouldBlock_ = false;  // send thread
};

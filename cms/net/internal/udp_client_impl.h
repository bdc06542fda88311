// What stands behind UDPClientBase: its state, and the steps of the I/O threads.
#pragma once

#include <atomic>

#include "cms/live/media/frame_buffer.h"
#include "cms/net/internal/socket_address.h"
#include "cms/net/internal/socket_endpoint.h"
#include "cms/net/udp_client.h"
#include "cms/runtime/critical.h"

class UDPClientBase::Impl final : public cms::SocketEndpoint {
 public:
  Impl() : SocketEndpoint(Transport::kUdp) {}

  Received ReceiveStep() override;
  Sent SendStep() override;
  bool HasPending() override { return queuedSends.load(std::memory_order_acquire) > 0; }

  int SendPending();  // UDPClientSend
  int SendOne(int descriptor);
  // A datagram goes to the callback, where there is one, else into the queue.
  bool HasCallback() const {
    return config.recvCallback != nullptr && config.recvContext != nullptr;
  }
  void Queue(char* data, int length);
  bool SetReceiveBuffer(int bytes);

  _UDPCLIENT_CONFIG config;
  std::atomic<int> running{0};
  bool adopted = false;
  cms::SocketAddress remote;
  bool remoteIsSet = false;  // and not the configuration's
  CFrameBuffer recvQueue;
  std::atomic<int> queuedReceives{0};
  CMSCritical sendLock;  // serialises senders; the queue's reader is the send thread
  CFrameBuffer sendQueue;
  bool sendQueueOpen CMS_GUARDED_BY(sendLock) = false;  // OnSend may make and fill it
  bool sendQueueMade CMS_GUARDED_BY(sendLock) = false;
  std::atomic<int> queuedSends{0};

 private:
  bool sendWouldBlock_ = false;  // send thread
};

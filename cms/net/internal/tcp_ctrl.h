// CTcpCtrl, one connection of the TCP server: its sender and its receiver.
#pragma once

#include <netinet/in.h>

#include <atomic>
#include <cstdint>
#include <memory>

#include "cms/net/internal/tcp_receiver.h"
#include "cms/net/internal/tcp_sender.h"
#include "cms/net/tcp_server.h"

// Made and destroyed by the server, whose stop signal both threads obey.
class CTcpCtrl {
 public:
  // Owns the socket from here on.
  CTcpCtrl(CTcpServer& server, int descriptor, const sockaddr_in& peer);
  ~CTcpCtrl();  // ends both threads
  CTcpCtrl(const CTcpCtrl&) = delete;
  CTcpCtrl& operator=(const CTcpCtrl&) = delete;

  // Starts the send thread and the receive thread; false when the system refuses one of them.
  bool Start();

  std::uint32_t PeerAddress() const { return ntohl(peer_.sin_addr.s_addr); }
  CTcpSender& Sender() { return sender_; }

 private:
  void OnPeerGone();

  CTcpServer& server_;
  const int socket_;
  const sockaddr_in peer_;
  CTcpSender sender_;
  CTcpReceiver receiver_;
};

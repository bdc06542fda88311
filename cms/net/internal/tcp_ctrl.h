// CTcpCtrl, one connection of the TCP server: its sender and its receiver.
#pragma once

#include <netinet/in.h>

#include <cstdint>

#include "cms/net/internal/tcp_receiver.h"
#include "cms/net/internal/tcp_sender.h"
#include "cms/net/tcp_server.h"

// Made and destroyed by the server, whose stop signal both sides obey.
class CTcpCtrl {
 public:
  // Owns the socket from here on, but not `stop`.
  CTcpCtrl(int descriptor, const sockaddr_in& peer, int stop, const cms::tTcpServerConfig& config);
  ~CTcpCtrl();  // closes the socket, once its send thread has ended; nobody receives any more
  CTcpCtrl(const CTcpCtrl&) = delete;
  CTcpCtrl& operator=(const CTcpCtrl&) = delete;

  std::uint32_t PeerAddress() const { return ntohl(peer_.sin_addr.s_addr); }
  CTcpSender& Sender() { return sender_; }
  CTcpReceiver& Receiver() { return receiver_; }

 private:
  const int socket_;
  const sockaddr_in peer_;
  CTcpSender sender_;
  CTcpReceiver receiver_;
};

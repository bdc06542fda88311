#include "cms/net/internal/tcp_ctrl.h"

#include <sys/socket.h>
#include <unistd.h>

CTcpCtrl::CTcpCtrl(int descriptor, const sockaddr_in& peer, int stop,
                   const cms::tTcpServerConfig& config)
    : socket_(descriptor),
      peer_(peer),
      sender_(descriptor, stop, config),
      receiver_(descriptor, stop, config) {}

CTcpCtrl::~CTcpCtrl() {
  // The sender may be waiting for a peer that only closed its own direction.
  shutdown(socket_, SHUT_RDWR);
  sender_.Stop();
  close(socket_);
}

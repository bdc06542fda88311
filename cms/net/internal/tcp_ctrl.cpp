#include "cms/net/internal/tcp_ctrl.h"

#include <sys/socket.h>
#include <unistd.h>

CTcpCtrl::CTcpCtrl(CTcpServer& server, int descriptor, const sockaddr_in& peer)
    : server_(server),
      socket_(descriptor),
      peer_(peer),
      sender_(descriptor, server.stop_->Descriptor(), server.config_),
      receiver_(descriptor, server.stop_->Descriptor(), server.config_) {}

CTcpCtrl::~CTcpCtrl() {
  // Ends the threads' waits where the whole server is not stopping.
  shutdown(socket_, SHUT_RDWR);
  sender_.Stop();
  receiver_.Stop();
  close(socket_);
}

bool CTcpCtrl::Start() {
  return sender_.Start() && receiver_.Start([this] { OnPeerGone(); });
}

// On the receive thread, as its last step.
void CTcpCtrl::OnPeerGone() {
  // The sender may be waiting for a peer that only closed its own direction.
  shutdown(socket_, SHUT_RDWR);
  server_.Remove(this);
}

#include "cms/net/manual_tcp_client.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <cerrno>

// A call that uses the socket, which is not closed meanwhile.
class ManualTCPClient::Call {
 public:
  explicit Call(ManualTCPClient& client, bool connecting = false)
      : client_(client), connecting_(connecting) {
    ScopeLock lock(client_.callsLock_);
    entered_ = !client_.ending_;
    if (entered_) {
      ++client_.calls_;
      client_.connecting_ = client_.connecting_ || connecting_;
    }
  }
  ~Call() {
    if (entered_) {
      ScopeLock lock(client_.callsLock_);
      --client_.calls_;
      client_.connecting_ = client_.connecting_ && !connecting_;
      client_.callEnded_.NotifyAll();
    }
  }
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;

  bool Entered() const { return entered_; }

 private:
  ManualTCPClient& client_;
  const bool connecting_;
  bool entered_ = false;
};

ManualTCPClient::ManualTCPClient() = default;

ManualTCPClient::ManualTCPClient(tTcpClientParam param) : TCPClientBase(param) {}

ManualTCPClient::~ManualTCPClient() {
  EndCalls();
}

int ManualTCPClient::OnConnect(unsigned long address, unsigned long port) {
  const Call call(*this, true);
  if (!call.Entered() || ConnectSocket(address, port, -1, &endConnect_) == 0) {
    return 0;
  }
  const int flags = fcntl(Socket(), F_GETFL);
  if (flags < 0 || fcntl(Socket(), F_SETFL, flags & ~O_NONBLOCK) != 0) {
    CloseSocket();
    return 0;
  }
  return 1;
}

int ManualTCPClient::OnStartTCPClient(unsigned long address, unsigned long port, unsigned int) {
  return OnConnect(address, port);
}

int ManualTCPClient::OnStopTCPClient(bool) {
  EndCalls();
  return 1;
}

void ManualTCPClient::EndCalls() {
  ScopeLock lock(callsLock_);
  ending_ = true;
  endConnect_.Signal();
  while (calls_ > 0) {
    // Closing alone would wake nobody, and give the number away that they still use. A connecting
    // call closes its socket by itself.
    if (!connecting_ && Socket() >= 0) {
      shutdown(Socket(), SHUT_RDWR);
    }
    callEnded_.Wait();
  }
  CloseSocket();
  endConnect_.Clear();
  ending_ = false;
}

int ManualTCPClient::OnSend(char* data, int length) {
  const Call call(*this);
  return call.Entered() ? Send(Socket(), data, length) : -1;
}

int ManualTCPClient::OnRecv(char* buffer, int size) {
  const Call call(*this);
  return call.Entered() ? Recv(Socket(), buffer, size) : -1;
}

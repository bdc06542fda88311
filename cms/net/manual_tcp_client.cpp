#include "cms/net/manual_tcp_client.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <cerrno>

#include "cms/runtime/condition.h"
#include "cms/runtime/critical.h"

struct ManualTCPClient::Calls {
  CMSCritical lock;
  CMSCondition ended{lock};
  int running CMS_GUARDED_BY(lock) = 0;
  bool connecting CMS_GUARDED_BY(lock) = false;  // one of them
  bool ending CMS_GUARDED_BY(lock) = false;      // no new ones
  cms::WakeUp endConnect;
};

// A call that uses the socket, which is not closed meanwhile.
class ManualTCPClient::Call {
 public:
  explicit Call(Calls& calls, bool connecting = false) : calls_(calls), connecting_(connecting) {
    ScopeLock lock(calls_.lock);
    entered_ = !calls_.ending;
    if (entered_) {
      ++calls_.running;
      calls_.connecting = calls_.connecting || connecting_;
    }
  }
  ~Call() {
    if (entered_) {
      ScopeLock lock(calls_.lock);
      --calls_.running;
      calls_.connecting = calls_.connecting && !connecting_;
      calls_.ended.NotifyAll();
    }
  }
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;

  bool Entered() const { return entered_; }

 private:
  Calls& calls_;
  const bool connecting_;
  bool entered_ = false;
};

ManualTCPClient::ManualTCPClient() : calls_(std::make_unique<Calls>()) {}

ManualTCPClient::ManualTCPClient(tTcpClientParam param)
    : TCPClientBase(param), calls_(std::make_unique<Calls>()) {}

ManualTCPClient::~ManualTCPClient() {
  EndCalls();
}

int ManualTCPClient::OnConnect(unsigned long address, unsigned long port) {
  const Call call(*calls_, true);
  if (!call.Entered() || ConnectSocket(address, port, -1, &calls_->endConnect) == 0) {
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
  ScopeLock lock(calls_->lock);
  calls_->ending = true;
  calls_->endConnect.Signal();
  while (calls_->running > 0) {
    // Closing alone would wake nobody, and give the number away that they still use. A connecting
    // call closes its socket by itself.
    if (!calls_->connecting && Socket() >= 0) {
      shutdown(Socket(), SHUT_RDWR);
    }
    calls_->ended.Wait();
  }
  CloseSocket();
  calls_->endConnect.Clear();
  calls_->ending = false;
}

int ManualTCPClient::OnSend(char* data, int length) {
  const Call call(*calls_);
  return call.Entered() ? Send(Socket(), data, length) : -1;
}

int ManualTCPClient::OnRecv(char* buffer, int size) {
  const Call call(*calls_);
  return call.Entered() ? Recv(Socket(), buffer, size) : -1;
}

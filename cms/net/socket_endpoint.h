// SocketEndpoint, what TCP and UDP clients share: the socket and the ways to wake its I/O threads.
#pragma once

#include <atomic>
#include <memory>

#include "cms/runtime/api.h"
#include "cms/runtime/critical.h"

class EachClientSRManager;
class EachClientRecvManager;
class EachClientSendManager;

namespace cms {

class IoSignal;

// A socket that a group's I/O threads may serve. The signals of those threads are set while the
// client is registered, and are held shared, so that waking a thread that ends meanwhile is safe.
// Members may be called from any thread unless they say otherwise.
class CMS_API SocketEndpoint {
 public:
  SocketEndpoint(const SocketEndpoint&) = delete;
  SocketEndpoint& operator=(const SocketEndpoint&) = delete;

 protected:
  SocketEndpoint();
  ~SocketEndpoint();

  int Socket() const { return socket_.load(std::memory_order_relaxed); }  // -1: none

  // errno of the last connect, receive or send that failed; 0 when none did since the last connect.
  int LastSocketError() const { return lastError_.load(std::memory_order_relaxed); }

  // Has the send thread look for bytes to send.
  void WakeSender();
  // Has the receive thread look at wantsReceive_ again.
  void ResumeReceiver();

  void SetSocket(int descriptor) { socket_.store(descriptor, std::memory_order_relaxed); }
  void SetLastError(int error) { lastError_.store(error, std::memory_order_relaxed); }
  // 0 when there was no socket, else whether closing succeeded. The client is not registered.
  int CloseEndpoint();
  // The option when there is a socket and it took it: 1, else 0.
  int SetBufferOption(int forced, int option, int bytes);

  // Receive steps only, on the receive thread. A step is cancelled when the client was unregistered
  // from inside it, even if it is registered again by then: another thread may serve it.
  class ReceiveStep {
   public:
    explicit ReceiveStep(SocketEndpoint& client)
        : client_(client), begun_(client.unregistrations_.load(std::memory_order_relaxed)) {
      client.stepWasBurst_ = false;
    }
    bool IsCancelled() const {
      return client_.unregistrations_.load(std::memory_order_relaxed) != begun_;
    }
    void NoteBurst() { client_.stepWasBurst_ = true; }

   private:
    SocketEndpoint& client_;
    const unsigned begun_;
  };

  // While unset the receive thread does not wait for the socket. Whoever sets it again while the
  // client may be registered calls ResumeReceiver.
  std::atomic<bool> wantsReceive_{true};

 private:
  friend class ::EachClientSRManager;
  friend class ::EachClientRecvManager;
  friend class ::EachClientSendManager;
  friend class OwnSendThread;

  void SetReceiveSignal(std::shared_ptr<IoSignal> signal);
  void SetSendSignal(std::shared_ptr<IoSignal> signal);

  std::atomic<int> socket_{-1};
  std::atomic<int> lastError_{0};
  std::atomic<unsigned> unregistrations_{0};  // from a receive thread
  bool stepWasBurst_ = false;                 // receive thread
  CMSCritical signalLock_;                    // innermost: nothing is locked inside
  std::shared_ptr<IoSignal> receiveSignal_ CMS_GUARDED_BY(signalLock_);
  std::shared_ptr<IoSignal> sendSignal_ CMS_GUARDED_BY(signalLock_);
};

}  // namespace cms

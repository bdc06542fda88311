// SocketEndpoint, what a group's I/O threads know of a TCP or UDP client: its socket and its steps.
#pragma once

#include <atomic>
#include <chrono>
#include <memory>

#include "cms/runtime/critical.h"

namespace cms {

class IoSignal;

// What stands behind a client. The signals of the I/O threads are set while the client is
// registered, and are held shared, so that waking a thread that ends meanwhile is safe. Members may
// be called from any thread unless they say otherwise.
class SocketEndpoint {
 public:
  enum class Transport { kTcp, kUdp };  // in the order in which a pass serves them

  explicit SocketEndpoint(Transport transport)
      : transport_(transport), rests_(transport == Transport::kTcp) {}
  virtual ~SocketEndpoint() = default;
  SocketEndpoint(const SocketEndpoint&) = delete;
  SocketEndpoint& operator=(const SocketEndpoint&) = delete;

  struct Received {
    int bytes = 0;       // -1: the client is not to be served any more
    bool burst = false;  // more is coming: look again at once
  };
  // The receive thread's step. The client may be gone afterwards, unregistered by its own callback.
  virtual Received ReceiveStep() = 0;

  enum class Sent {
    kAll,      // nothing is left to send
    kMore,     // the others' turn comes first
    kBlocked,  // the system takes no more now
    kFailed    // the client is not to be served any more
  };
  // The send thread's step. Calls nobody.
  virtual Sent SendStep() = 0;
  virtual bool HasPending() = 0;  // whether there is something for a send step to do

  Transport GetTransport() const { return transport_; }

  // How long the receive thread lets data gather. Packets of many cameras trickle in one by one;
  // taking them in batches saves most of the waits and wake-ups, and adds little to a picture
  // interval of 33 ms. Datagrams that a socket has no room for are lost, where a connection holds
  // the camera back: only a socket with much room rests for as long.
  static constexpr std::chrono::microseconds kShortRest{2000};
  static constexpr std::chrono::microseconds kLongRest{5000};
  std::chrono::microseconds Rest() const {
    return rests_.load(std::memory_order_relaxed) ? kLongRest : kShortRest;
  }

  int Socket() const { return socket_.load(std::memory_order_relaxed); }  // -1: none
  void SetSocket(int descriptor) { socket_.store(descriptor, std::memory_order_relaxed); }
  // Whether there was a socket and closing it succeeded. The client is not registered.
  bool CloseEndpoint();
  // Whether there is a socket and it took the option.
  bool SetBufferOption(int forced, int option, int bytes);

  // errno of the last connect, receive or send that failed; 0 when none did since the last connect.
  int LastError() const { return lastError_.load(std::memory_order_relaxed); }
  void SetLastError(int error) { lastError_.store(error, std::memory_order_relaxed); }

  // Has the send thread look for bytes to send.
  void WakeSender();
  // While off, the receive thread does not wait for the socket.
  bool WantsReceive() const { return wantsReceive_.load(std::memory_order_relaxed); }
  void PauseReceiver() { wantsReceive_.store(false, std::memory_order_relaxed); }
  void ResumeReceiver();

  // Counts up when the client is taken from a receive thread: a receive step whose callback has
  // done that ends at once, even where the client is registered again by then, for another thread
  // may serve it.
  unsigned Unregistrations() const { return unregistrations_.load(std::memory_order_relaxed); }

  // By the thread that serves it from now on; nullptr when none does any more.
  void SetReceiveSignal(std::shared_ptr<IoSignal> signal);
  void SetSendSignal(std::shared_ptr<IoSignal> signal);

 protected:
  // What a send step that did not fail leaves behind.
  Sent Left(bool blocked) {
    if (!HasPending()) {
      return Sent::kAll;
    }
    return blocked ? Sent::kBlocked : Sent::kMore;
  }

  void MayRestLong(bool may) { rests_.store(may, std::memory_order_relaxed); }

 private:
  const Transport transport_;
  std::atomic<bool> rests_;
  std::atomic<int> socket_{-1};
  std::atomic<int> lastError_{0};
  std::atomic<bool> wantsReceive_{true};
  std::atomic<unsigned> unregistrations_{0};
  CMSCritical signalLock_;  // innermost: nothing is locked inside
  std::shared_ptr<IoSignal> receiveSignal_ CMS_GUARDED_BY(signalLock_);
  std::shared_ptr<IoSignal> sendSignal_ CMS_GUARDED_BY(signalLock_);
};

}  // namespace cms

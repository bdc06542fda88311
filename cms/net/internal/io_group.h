// EachClientManager, the pair of threads behind one group.
#pragma once

#include <atomic>
#include <memory>
#include <variant>

#include "cms/net/internal/io_receiver.h"
#include "cms/net/internal/io_sender.h"

namespace cms {

// Who is served by a group, by the address that outlives it in the books.
using IoClient = std::variant<SocketEndpoint*, RTCPStep*>;

}  // namespace cms

// Any thread may call any member; a stopped pair stays stopped, and is destroyed only when neither
// thread runs.
class EachClientManager {
 public:
  enum class State { kNew, kStarted, kStopped };

  explicit EachClientManager(int group);

  // A socket is registered with the receiver and then with the sender, an RTCP step with the sender
  // only; they are unregistered in the same order.
  void RegisterClient(const cms::IoClient& client);
  void UnRegisterClient(const cms::IoClient& client);

  // Whether a step of that client, which calls somebody, is running; the client may be gone.
  bool IsInStepOf(const cms::IoClient& client) const;
  // Returns when the steps that run now have ended; at once on the threads that run them.
  void WaitForSteps();

  // Starts both threads unless that was done, or the pair was stopped: how it stands then. kNew
  // when the process could not make them. Takes 100 ms where it `settles` them.
  State start(bool settles);
  void stop();  // at most 10 seconds for each thread
  State CurrentState() const { return state_.load(std::memory_order_acquire); }
  bool IsRunning() const { return receiver_->IsRunning() || sender_->IsRunning(); }

  const EachClientRecvManager& Receiver() const { return *receiver_; }
  const EachClientSendManager& Sender() const { return *sender_; }

 private:
  CMSCritical startLock_;
  std::atomic<State> state_{State::kNew};  // written under startLock_
  const std::unique_ptr<EachClientRecvManager> receiver_;
  const std::unique_ptr<EachClientSendManager> sender_;  // uses the receiver
};

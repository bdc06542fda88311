// The pair of threads behind one group: EachClientRecvManager, EachClientSendManager and the
// EachClientManager that holds both.
#pragma once

#include <sys/epoll.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <vector>

#include "cms/net/internal/io_signal.h"
#include "cms/net/rtcp_step.h"
#include "cms/net/tcp_client.h"
#include "cms/net/udp_client.h"
#include "cms/runtime/critical.h"
#include "cms/runtime/thread.h"

// What both threads share: the lists of clients, and the set of at most 64 sockets that one wait
// covers. The set is an epoll instance, so a descriptor's number does not matter, and the thread's
// signal is in it besides the sockets; no wait has a time limit to notice flags.
//
// Registration happens on any thread; the lists are walked with the lock held, also while callbacks
// change them: an entry's client pointers become null when it is unregistered.
class EachClientSRManager : public Thread {
 public:
  static constexpr int kMaxSockets = 64;

  EachClientSRManager(const EachClientSRManager&) = delete;
  EachClientSRManager& operator=(const EachClientSRManager&) = delete;

  // A client that is in the list already only has its socket looked up anew.
  void RegisterClient(TCPClientBase* client);
  void RegisterClient(UDPClientBase* client);
  void UnRegisterClient(TCPClientBase* client);
  void UnRegisterClient(UDPClientBase* client);

  // Held around the use of the lock by any other thread than this one's.
  class Visitor {
   public:
    explicit Visitor(EachClientSRManager& manager) : manager_(manager) { ++manager_.visitors_; }
    ~Visitor() {
      ++manager_.visits_;
      --manager_.visitors_;
    }
    Visitor(const Visitor&) = delete;
    Visitor& operator=(const Visitor&) = delete;

   private:
    EachClientSRManager& manager_;
  };

  // Whether a step of that client, which calls somebody, is running. The client may have been
  // unregistered by it, or be gone.
  bool IsInStepOf(const void* client) const {
    return inStep_.load(std::memory_order_acquire) == client;
  }
  // Returns when the step that runs now has ended; at once on the thread that runs it.
  void WaitForStep();

  void Notify();         // ends a wait in progress
  void stop() override;  // ends the wait, then the thread

  bool IsUsable() const;  // got its descriptors
  std::uint64_t Passes() const { return passes_.load(std::memory_order_relaxed); }

 protected:
  struct Entry {
    cms::SocketEndpoint* endpoint = nullptr;  // null once unregistered
    TCPClientBase* tcp = nullptr;             // one of the two is set
    UDPClientBase* udp = nullptr;
    int slot = -1;         // the socket's place in the set; -1: not served
    bool blocked = false;  // send thread: bytes wait for the system to take them

    // The address that it was registered by.
    const void* Client() const { return tcp != nullptr ? static_cast<const void*>(tcp) : udp; }
  };
  using List = std::vector<std::shared_ptr<Entry>>;

  // Names the client whose step is running. Made and destroyed with the lock held.
  class Step {
   public:
    Step(EachClientSRManager& manager, const void* client) : inStep_(manager.inStep_) {
      inStep_.store(client, std::memory_order_release);
    }
    ~Step() { inStep_.store(nullptr, std::memory_order_release); }
    Step(const Step&) = delete;
    Step& operator=(const Step&) = delete;

   private:
    std::atomic<const void*>& inStep_;
  };

  // The events to wait for; whether a client is to be waited on; where its waking signal goes.
  EachClientSRManager(const char* name, int group, std::uint32_t events);
  ~EachClientSRManager() override;
  virtual bool IsWaitedOn(const Entry& entry) = 0;
  virtual void SetSignal(cms::SocketEndpoint& endpoint, std::shared_ptr<cms::IoSignal> signal) = 0;

  // Works the set out anew when something changed: the TCP list, then the UDP list, distinct
  // sockets, as far as there are places.
  void UpdateSet() CMS_REQUIRES(lock_);
  // Waits (negative: without limit); the ready sockets are marked until ClearReady.
  int Wait(int milliseconds);
  void MarkReady(int count) CMS_REQUIRES(lock_);
  void ClearReady() CMS_REQUIRES(lock_);
  bool IsReady(const Entry& entry) const CMS_REQUIRES(lock_);
  // The entries of the list that are served and that the predicate takes, to be walked while the
  // list may change. One at a time.
  template <class Predicate>
  const List& Snapshot(const List& list, Predicate predicate) CMS_REQUIRES(lock_) {
    snapshot_.clear();
    for (const std::shared_ptr<Entry>& entry : list) {
      if (entry->slot >= 0 && predicate(*entry)) {
        snapshot_.push_back(entry);
      }
    }
    return snapshot_;
  }
  void Remove(List& list, const cms::SocketEndpoint* endpoint) CMS_REQUIRES(lock_);
  // Between passes: whoever waits for the lock gets it even from a loop that never rests.
  void LetVisitorsIn();

  CMSCritical lock_;
  const std::shared_ptr<cms::IoSignal> signal_ = std::make_shared<cms::IoSignal>();
  List tcpClients_ CMS_GUARDED_BY(lock_);
  List udpClients_ CMS_GUARDED_BY(lock_);

 private:
  struct Slot {
    int descriptor = -1;
    std::uint32_t generation = 0;  // tells events of an earlier socket in this place apart
    bool watched = false;
    bool ready = false;
  };

  // A socket that is to have a place.
  struct Wanted {
    int descriptor = -1;
    bool watched = false;
    int place = -1;
  };

  template <class Function>
  void ForEachEntry(Function function) CMS_REQUIRES(lock_);
  void CountPass() { passes_.fetch_add(1, std::memory_order_relaxed); }
  void Add(List& list, const Entry& entry) CMS_REQUIRES(lock_);
  void Watch(Slot& slot, bool watched) CMS_REQUIRES(lock_);
  void FreeSlot(Entry& entry) CMS_REQUIRES(lock_);
  void Empty(Slot& slot) CMS_REQUIRES(lock_);
  int PlaceOf(int descriptor) CMS_REQUIRES(lock_);

  const int epoll_;
  const std::uint32_t events_;
  std::atomic<int> visitors_{0};
  std::atomic<unsigned> visits_{0};  // that have ended
  std::atomic<const void*> inStep_{nullptr};
  std::atomic<std::uint64_t> passes_{0};
  std::array<epoll_event, kMaxSockets + 1> received_{};  // this thread's
  std::array<Slot, kMaxSockets> slots_ CMS_GUARDED_BY(lock_);
  List snapshot_ CMS_GUARDED_BY(lock_);
  std::vector<Wanted> wanted_ CMS_GUARDED_BY(lock_);
};

// Waits for readability and calls the receive steps, in the order of the lists.
class EachClientRecvManager final : public EachClientSRManager {
 public:
  // After a pass that moved data the next wait begins no earlier than this long after that pass
  // began to wait. Datagrams of many cameras trickle in one by one; taking them in batches of 2 ms
  // saves most of the waits and wake-ups, and adds little to a picture interval of 33 ms. The first
  // data after a rest, and everything while a burst lasts, is taken at once.
  static constexpr std::chrono::microseconds kBatchInterval{2000};

  explicit EachClientRecvManager(int group);
  ~EachClientRecvManager() override;

  void run() override;
  CMSCritical& CallbackLock() { return lock_; }

 private:
  bool IsWaitedOn(const Entry& entry) override;
  void SetSignal(cms::SocketEndpoint& endpoint, std::shared_ptr<cms::IoSignal> signal) override;

  struct PassResult {
    bool moved = false;
    bool burst = false;
  };
  void Dispatch(List& list, PassResult& result) CMS_REQUIRES(lock_);
  void PauseUntil(std::chrono::steady_clock::time_point time);
};

// Calls the send steps of the clients that have something to send, waiting for writability only
// while the system's buffers are full, and the RTCP steps.
class EachClientSendManager final : public EachClientSRManager {
 public:
  // How often the RTCP steps are called. They answer what arrived and send a report every two
  // seconds, for which 50 ms are close enough.
  static constexpr std::chrono::milliseconds kRtcpInterval{50};

  // The receive manager of the pair: RTCP steps run under its lock too.
  EachClientSendManager(int group, EachClientRecvManager& receiver);
  ~EachClientSendManager() override;

  using EachClientSRManager::RegisterClient;
  using EachClientSRManager::UnRegisterClient;
  void RegisterClient(RTCPStep* step);
  void UnRegisterClient(RTCPStep* step);

  void run() override;

 private:
  bool IsWaitedOn(const Entry& entry) override;
  void SetSignal(cms::SocketEndpoint& endpoint, std::shared_ptr<cms::IoSignal> signal) override;

  void Dispatch(List& list) CMS_REQUIRES(lock_);
  void CallRtcpSteps();
  int MillisecondsToRtcp();
  int StepOnce(const Entry& entry) CMS_REQUIRES(lock_);
  static bool HasPending(const Entry& entry);

  EachClientRecvManager& receiver_;
  std::vector<RTCPStep*> rtcpSteps_ CMS_GUARDED_BY(lock_);
  std::vector<RTCPStep*> rtcpSnapshot_ CMS_GUARDED_BY(lock_);
  std::chrono::steady_clock::time_point nextRtcp_{};  // this thread's
  bool moreToSend_ = false;                           // this thread's
};

// One group. Any thread may call any member; a stopped pair stays stopped, and is destroyed only
// when neither thread runs.
class EachClientManager {
 public:
  enum class State { kNew, kStarted, kStopped };

  explicit EachClientManager(int group);

  void RegisterClient(TCPClientBase* client);
  void RegisterClient(UDPClientBase* client);
  void RegisterClient(RTCPStep* step);
  void UnRegisterClient(TCPClientBase* client);
  void UnRegisterClient(UDPClientBase* client);
  void UnRegisterClient(RTCPStep* step);

  // See EachClientSRManager.
  bool IsInStepOf(const void* client) const;
  void WaitForSteps();

  // Starts both threads unless that was done, or the pair was stopped: how it stands then. kNew
  // when the process could not make them.
  State start();
  void stop();  // at most 10 seconds for each thread
  State CurrentState() const { return state_.load(std::memory_order_acquire); }
  bool IsRunning() const { return receiver_->IsRunning() || sender_->IsRunning(); }

  const EachClientRecvManager& Receiver() const { return *receiver_; }
  const EachClientSendManager& Sender() const { return *sender_; }

 private:
  template <class Client>
  void RegisterBoth(Client* client);
  template <class Client>
  void UnRegisterBoth(Client* client);

  CMSCritical startLock_;
  std::atomic<State> state_{State::kNew};  // written under startLock_
  const std::unique_ptr<EachClientRecvManager> receiver_;
  const std::unique_ptr<EachClientSendManager> sender_;  // uses the receiver
};

// EachClientSRManager, what a group's receive thread and its send thread share.
#pragma once

#include <sys/epoll.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "cms/net/internal/io_signal.h"
#include "cms/net/internal/socket_endpoint.h"
#include "cms/runtime/critical.h"
#include "cms/runtime/thread.h"

// The list of clients, and the set of at most 64 sockets that one wait covers. The set is an epoll
// instance, so a descriptor's number does not matter, and the thread's signal is in it besides the
// sockets; no wait has a time limit to notice flags.
//
// Registration happens on any thread; the list is walked with the lock held, also while callbacks
// change it: an entry's endpoint becomes null when it is unregistered.
class EachClientSRManager : public Thread {
 public:
  static constexpr int kMaxSockets = 64;

  EachClientSRManager(const EachClientSRManager&) = delete;
  EachClientSRManager& operator=(const EachClientSRManager&) = delete;

  // A client that is in the list already only has its socket looked up anew.
  void RegisterClient(cms::SocketEndpoint* client);
  void UnRegisterClient(cms::SocketEndpoint* client);

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

  // Returns when the step that runs now has ended; at once on the thread that runs it.
  void WaitForStep();

  void Notify();         // ends a wait in progress
  void stop() override;  // ends the wait, then the thread

  bool IsUsable() const;  // got its descriptors
  std::uint64_t Passes() const { return passes_.load(std::memory_order_relaxed); }

 protected:
  struct Entry {
    cms::SocketEndpoint* endpoint = nullptr;  // null once unregistered
    int slot = -1;                            // the socket's place in the set; -1: not served
    bool blocked = false;                     // send thread: bytes wait for the system to take them
  };
  using List = std::vector<std::unique_ptr<Entry>>;

  // Whose step is running, of those that call somebody. It may have been unregistered by its step,
  // or be gone. Scopes are made and destroyed with the lock held.
  template <class Client>
  class StepInProgress {
   public:
    bool IsOf(const Client* client) const {
      return client_.load(std::memory_order_acquire) == client;
    }
    class Scope {
     public:
      Scope(StepInProgress& step, const Client* client) : step_(step) {
        step_.client_.store(client, std::memory_order_release);
      }
      ~Scope() { step_.client_.store(nullptr, std::memory_order_release); }
      Scope(const Scope&) = delete;
      Scope& operator=(const Scope&) = delete;

     private:
      StepInProgress& step_;
    };

   private:
    std::atomic<const Client*> client_{nullptr};
  };

  // The events to wait for; whether a client is to be waited on; where its waking signal goes.
  EachClientSRManager(const char* name, int group, std::uint32_t events);
  ~EachClientSRManager() override;
  virtual bool IsWaitedOn(const Entry& entry) = 0;
  virtual void SetSignal(cms::SocketEndpoint& endpoint, std::shared_ptr<cms::IoSignal> signal) = 0;

  // Works the set out anew when something changed: the list's distinct sockets, as far as there
  // are places.
  void UpdateSet() CMS_REQUIRES(lock_);
  // Waits (negative: without limit); the ready sockets are marked until ClearReady.
  int Wait(int milliseconds);
  void MarkReady(int count) CMS_REQUIRES(lock_);
  void ClearReady() CMS_REQUIRES(lock_);
  bool IsReady(const Entry& entry) const CMS_REQUIRES(lock_);
  // The clients that are served and that the predicate takes, to be walked while the list may
  // change. One at a time.
  template <class Predicate>
  const std::vector<Entry*>& Snapshot(Predicate predicate) CMS_REQUIRES(lock_) {
    snapshot_.clear();
    removed_.clear();
    for (const std::unique_ptr<Entry>& entry : clients_) {
      if (entry->slot >= 0 && predicate(*entry)) {
        snapshot_.push_back(entry.get());
      }
    }
    return snapshot_;
  }
  void Remove(const cms::SocketEndpoint* endpoint) CMS_REQUIRES(lock_);
  // Between passes: whoever waits for the lock gets it even from a loop that never rests.
  void LetVisitorsIn();

  CMSCritical lock_;
  const std::shared_ptr<cms::IoSignal> signal_ = std::make_shared<cms::IoSignal>();
  List clients_ CMS_GUARDED_BY(lock_);  // TCP before UDP, else in the order of registration

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

  void CountPass() { passes_.fetch_add(1, std::memory_order_relaxed); }
  void Watch(Slot& slot, bool watched) CMS_REQUIRES(lock_);
  void FreeSlot(Entry& entry) CMS_REQUIRES(lock_);
  void Empty(Slot& slot) CMS_REQUIRES(lock_);
  int PlaceOf(int descriptor) CMS_REQUIRES(lock_);

  const int epoll_;
  const std::uint32_t events_;
  std::atomic<int> visitors_{0};
  std::atomic<unsigned> visits_{0};  // that have ended
  std::atomic<std::uint64_t> passes_{0};
  std::array<epoll_event, kMaxSockets + 1> received_{};  // this thread's
  std::array<Slot, kMaxSockets> slots_ CMS_GUARDED_BY(lock_);
  std::vector<Entry*> snapshot_ CMS_GUARDED_BY(lock_);
  List removed_ CMS_GUARDED_BY(lock_);  // which a snapshot may have
  std::vector<Wanted> wanted_ CMS_GUARDED_BY(lock_);
};

#include "cms/net/internal/io_thread.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <span>
#include <string>
#include <thread>
#include <utility>

namespace {

constexpr std::uint64_t kSignalEvent = ~std::uint64_t{0};
constexpr int kSlotBits = 8;

// A visitor is awake and has the lock within a millisecond, unless the machine is overloaded.
constexpr std::chrono::milliseconds kVisitorPatience{20};
constexpr std::chrono::microseconds kVisitorPause{50};

}  // namespace

EachClientSRManager::EachClientSRManager(const char* name, int group, std::uint32_t events)
    : epoll_(epoll_create1(EPOLL_CLOEXEC)), events_(events) {
  SetName((std::string(name) + std::to_string(group)).c_str());
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.u64 = kSignalEvent;
  epoll_ctl(epoll_, EPOLL_CTL_ADD, signal_->Descriptor(), &event);
}

EachClientSRManager::~EachClientSRManager() {
  if (epoll_ >= 0) {
    close(epoll_);
  }
}

bool EachClientSRManager::IsUsable() const {
  return epoll_ >= 0 && signal_->Descriptor() >= 0;
}

void EachClientSRManager::RegisterClient(cms::SocketEndpoint* client) {
  const Visitor visitor(*this);
  ScopeLock lock(lock_);
  const auto found = std::ranges::find(clients_, client, &Entry::endpoint);
  if (found == clients_.end()) {
    const auto place = std::ranges::find_if(clients_, [client](const auto& other) {
      return other->endpoint->GetTransport() > client->GetTransport();
    });
    clients_.insert(place, std::make_unique<Entry>(Entry{client}));
    SetSignal(*client, signal_);
  } else {
    FreeSlot(**found);  // it may have another socket by now, even under the same number
  }
  signal_->Change();
}

void EachClientSRManager::UnRegisterClient(cms::SocketEndpoint* client) {
  const Visitor visitor(*this);
  ScopeLock lock(lock_);
  Remove(client);
  signal_->Wake();
}

void EachClientSRManager::Notify() {
  signal_->Wake();
}

void EachClientSRManager::stop() {
  notifyStop();
  signal_->Wake();
  Thread::stop();
}

void EachClientSRManager::Remove(const cms::SocketEndpoint* endpoint) {
  const auto found = std::ranges::find(clients_, endpoint, &Entry::endpoint);
  if (found == clients_.end()) {
    return;
  }
  Entry& entry = *removed_.emplace_back(std::move(*found));
  clients_.erase(found);
  // At once, since the owner closes the socket next and its number may come back as another's.
  FreeSlot(entry);
  SetSignal(*entry.endpoint, nullptr);
  entry.endpoint = nullptr;
  signal_->MarkChanged();
}

void EachClientSRManager::FreeSlot(Entry& entry) {
  const int place = std::exchange(entry.slot, -1);
  if (place < 0) {
    return;
  }
  if (std::ranges::find(clients_, place, &Entry::slot) == clients_.end()) {
    Empty(slots_[static_cast<std::size_t>(place)]);
  }
}

void EachClientSRManager::Empty(Slot& slot) {
  Watch(slot, false);
  slot.descriptor = -1;
  slot.ready = false;
}

void EachClientSRManager::Watch(Slot& slot, bool watched) {
  if (slot.watched == watched) {
    return;
  }
  epoll_event event{};
  event.events = events_;
  event.data.u64 = static_cast<std::uint64_t>(slot.generation) << kSlotBits |
                   static_cast<std::uint64_t>(&slot - slots_.data());
  // Taken out entirely when not watched: hang-ups would be reported even with no events asked for.
  // A socket that its owner has closed already is out by itself.
  const int result =
      epoll_ctl(epoll_, watched ? EPOLL_CTL_ADD : EPOLL_CTL_DEL, slot.descriptor, &event);
  slot.watched = watched && result == 0;
}

int EachClientSRManager::PlaceOf(int descriptor) {
  auto found = std::ranges::find(slots_, descriptor, &Slot::descriptor);
  if (found == slots_.end()) {
    found = std::ranges::find(slots_, -1, &Slot::descriptor);
    found->descriptor = descriptor;
    ++found->generation;
  }
  return static_cast<int>(found - slots_.begin());
}

void EachClientSRManager::UpdateSet() {
  if (!signal_->TakeChange()) {
    return;
  }
  wanted_.clear();
  for (const std::unique_ptr<Entry>& entry : clients_) {
    const int descriptor = entry->endpoint->Socket();
    entry->slot = -1;
    if (descriptor < 0) {
      continue;
    }
    auto item = std::ranges::find(wanted_, descriptor, &Wanted::descriptor);
    if (item == wanted_.end()) {
      if (wanted_.size() == kMaxSockets) {
        continue;
      }
      item = wanted_.insert(item, Wanted{descriptor});
    }
    entry->slot = static_cast<int>(item - wanted_.begin());
    item->watched = item->watched || IsWaitedOn(*entry);
  }
  for (Slot& slot : slots_) {
    if (slot.descriptor >= 0 &&
        std::ranges::find(wanted_, slot.descriptor, &Wanted::descriptor) == wanted_.end()) {
      Empty(slot);
    }
  }
  for (Wanted& item : wanted_) {
    item.place = PlaceOf(item.descriptor);
    Watch(slots_[static_cast<std::size_t>(item.place)], item.watched);
  }
  for (const std::unique_ptr<Entry>& entry : clients_) {
    if (entry->slot >= 0) {
      entry->slot = wanted_[static_cast<std::size_t>(entry->slot)].place;
    }
  }
}

int EachClientSRManager::Wait(int milliseconds) {
  const int count =
      epoll_wait(epoll_, received_.data(), static_cast<int>(received_.size()), milliseconds);
  CountPass();
  return std::max(count, 0);
}

void EachClientSRManager::MarkReady(int count) {
  for (const epoll_event& event : std::span(received_).first(static_cast<std::size_t>(count))) {
    if (event.data.u64 == kSignalEvent) {
      signal_->Clear();
      continue;
    }
    // The socket may have been taken out, and another have got its place, since the wait ended.
    Slot& slot = slots_[event.data.u64 & ((1u << kSlotBits) - 1)];
    slot.ready = slot.watched && slot.generation == event.data.u64 >> kSlotBits;
  }
}

void EachClientSRManager::ClearReady() {
  for (Slot& slot : slots_) {
    slot.ready = false;
  }
}

bool EachClientSRManager::IsReady(const Entry& entry) const {
  return entry.slot >= 0 && slots_[static_cast<std::size_t>(entry.slot)].ready;
}

// Those that wait now, not those that come meanwhile: many of them could hold up the sockets.
void EachClientSRManager::LetVisitorsIn() {
  const int waiting = visitors_.load(std::memory_order_relaxed);
  if (waiting == 0) {
    return;
  }
  const unsigned before = visits_.load(std::memory_order_relaxed);
  const auto limit = std::chrono::steady_clock::now() + kVisitorPatience;
  while (visitors_.load(std::memory_order_relaxed) > 0 &&
         visits_.load(std::memory_order_relaxed) - before < static_cast<unsigned>(waiting) &&
         std::chrono::steady_clock::now() < limit) {
    std::this_thread::sleep_for(kVisitorPause);
  }
}

void EachClientSRManager::WaitForStep() {
  const Visitor visitor(*this);
  const ScopeLock lock(lock_);
}

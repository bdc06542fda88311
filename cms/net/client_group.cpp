#include "cms/net/client_group.h"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <map>
#include <utility>
#include <vector>

#include "cms/net/internal/io_group.h"
#include "cms/net/tcp_client.h"
#include "cms/net/udp_client.h"
#include "cms/runtime/critical.h"

class EachClientGroupTable::Impl {
 public:
  int Register(const cms::IoClient& client, int group);
  void Prepare(int group);
  void Unregister(const cms::IoClient& client);
  void Stop();
  std::shared_ptr<EachClientManager> Find(int group);

 private:
  struct Registration {
    std::shared_ptr<EachClientManager> manager;
    std::uint64_t number = 0;  // tells a later registration apart
  };

  std::shared_ptr<EachClientManager>& EntryOf(int group) CMS_REQUIRES(lock_);

  using Managers = std::vector<std::shared_ptr<EachClientManager>>;
  Managers ManagersInStepOf(const cms::IoClient& client) CMS_REQUIRES(lock_);

  CMSCritical lock_;
  std::map<int, std::shared_ptr<EachClientManager>> groups_ CMS_GUARDED_BY(lock_);
  Managers stopping_ CMS_GUARDED_BY(lock_);  // no groups any more, but their threads run
  std::map<cms::IoClient, Registration> clients_ CMS_GUARDED_BY(lock_);
  std::uint64_t registrations_ CMS_GUARDED_BY(lock_) = 0;
};

std::shared_ptr<EachClientManager>& EachClientGroupTable::Impl::EntryOf(int group) {
  std::shared_ptr<EachClientManager>& entry = groups_[group];
  if (entry == nullptr) {
    entry = std::make_shared<EachClientManager>(group);
  }
  return entry;
}

void EachClientGroupTable::Impl::Prepare(int group) {
  std::shared_ptr<EachClientManager> manager;
  {
    ScopeLock lock(lock_);
    manager = EntryOf(group);
  }
  manager->start(false);
}

int EachClientGroupTable::Impl::Register(const cms::IoClient& client, int group) {
  for (;;) {
    std::shared_ptr<EachClientManager> manager;
    std::shared_ptr<EachClientManager> earlier;
    {
      ScopeLock lock(lock_);
      manager = EntryOf(group);
      Registration& registration = clients_[client];
      if (registration.manager != manager) {
        earlier.swap(registration.manager);
      }
      registration = {manager, ++registrations_};
    }
    if (earlier != nullptr) {
      earlier->UnRegisterClient(client);
    }
    manager->RegisterClient(client);
    switch (manager->start(true)) {
      case EachClientManager::State::kStarted:
        return 1;
      case EachClientManager::State::kStopped:
        continue;  // by Stop, which took the group out of the table first
      case EachClientManager::State::kNew:
        break;
    }
    Unregister(client);
    ScopeLock lock(lock_);
    const auto failed = groups_.find(group);
    if (failed != groups_.end() && failed->second == manager &&
        manager->CurrentState() == EachClientManager::State::kNew) {
      groups_.erase(failed);  // the next registration tries anew
      if (manager->IsRunning()) {
        stopping_.push_back(manager);
      }
    }
    return 0;
  }
}

void EachClientGroupTable::Impl::Unregister(const cms::IoClient& client) {
  Registration registration;
  Managers busy;
  {
    ScopeLock lock(lock_);
    const auto found = clients_.find(client);
    if (found != clients_.end()) {
      registration = found->second;
    }
    busy = ManagersInStepOf(client);
  }
  if (registration.manager != nullptr) {
    registration.manager->UnRegisterClient(client);
  }
  for (const std::shared_ptr<EachClientManager>& each : busy) {
    each->WaitForSteps();
  }
  // Only now: another thread that unregisters the client meanwhile has to wait as well.
  ScopeLock lock(lock_);
  const auto found = clients_.find(client);
  if (found != clients_.end() && found->second.number == registration.number) {
    clients_.erase(found);
  }
}

// Where its step runs although the table may know it under another key, or not at all.
EachClientGroupTable::Impl::Managers EachClientGroupTable::Impl::ManagersInStepOf(
    const cms::IoClient& client) {
  Managers found;
  for (const auto& [key, manager] : groups_) {
    if (manager->IsInStepOf(client)) {
      found.push_back(manager);
    }
  }
  std::ranges::copy_if(stopping_, std::back_inserter(found),
                       [&](const auto& manager) { return manager->IsInStepOf(client); });
  return found;
}

void EachClientGroupTable::Impl::Stop() {
  Managers managers;
  {
    ScopeLock lock(lock_);
    for (auto& [key, manager] : groups_) {
      stopping_.push_back(std::move(manager));
    }
    groups_.clear();
    managers = stopping_;
  }
  for (const std::shared_ptr<EachClientManager>& manager : managers) {
    manager->stop();
  }
  // Managers and their clients stay known until their threads have ended, so that an owner who
  // unregisters meanwhile still waits for a running step.
  ScopeLock lock(lock_);
  std::erase_if(managers, [](const auto& manager) { return manager->IsRunning(); });
  for (const std::shared_ptr<EachClientManager>& manager : managers) {
    std::erase(stopping_, manager);
    std::erase_if(clients_, [&](const auto& entry) { return entry.second.manager == manager; });
  }
}

std::shared_ptr<EachClientManager> EachClientGroupTable::Impl::Find(int group) {
  ScopeLock lock(lock_);
  const auto found = groups_.find(group);
  return found != groups_.end() ? found->second : nullptr;
}

EachClientGroupTable::EachClientGroupTable() : impl_(std::make_unique<Impl>()) {}

EachClientGroupTable& EachClientGroupTable::Instance() {
  static auto* const table = new EachClientGroupTable;
  return *table;
}

int EachClientGroupTable::Register(TCPClientBase* client, int group) {
  return impl_->Register(&client->Endpoint(), group);
}
int EachClientGroupTable::Register(UDPClientBase* client, int group) {
  return impl_->Register(&client->Endpoint(), group);
}
int EachClientGroupTable::Register(cms::RTCPStep* step, int group) {
  return impl_->Register(step, group);
}

void EachClientGroupTable::Prepare(int group) {
  impl_->Prepare(group);
}

void EachClientGroupTable::Unregister(TCPClientBase* client) {
  impl_->Unregister(&client->Endpoint());
}
void EachClientGroupTable::Unregister(UDPClientBase* client) {
  impl_->Unregister(&client->Endpoint());
}
void EachClientGroupTable::Unregister(cms::RTCPStep* step) {
  impl_->Unregister(step);
}

void EachClientGroupTable::Stop() {
  impl_->Stop();
}

std::shared_ptr<EachClientManager> EachClientGroupTable::Find(int group) {
  return impl_->Find(group);
}

#include "cms/net/client_group.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "cms/net/internal/client_managers.h"
#include "cms/net/rtcp_step.h"
#include "cms/net/tcp_client.h"
#include "cms/net/udp_client.h"

EachClientGroupTable& EachClientGroupTable::Instance() {
  static auto* const table = new EachClientGroupTable;
  return *table;
}

template <class Client>
int EachClientGroupTable::RegisterClient(Client* client, int group) {
  for (;;) {
    std::shared_ptr<EachClientManager> manager;
    std::shared_ptr<EachClientManager> earlier;
    {
      ScopeLock lock(lock_);
      std::shared_ptr<EachClientManager>& entry = groups_[group];
      if (entry == nullptr) {
        entry = std::make_shared<EachClientManager>(group);
      }
      manager = entry;
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
    switch (manager->start()) {
      case EachClientManager::State::kStarted:
        return 1;
      case EachClientManager::State::kStopped:
        continue;  // by Stop, which took the group out of the table first
      case EachClientManager::State::kNew:
        break;
    }
    UnregisterClient(client);
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

template <class Client>
void EachClientGroupTable::UnregisterClient(Client* client) {
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
EachClientGroupTable::Managers EachClientGroupTable::ManagersInStepOf(const void* client) {
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

int EachClientGroupTable::Register(TCPClientBase* client, int group) {
  return RegisterClient(client, group);
}
int EachClientGroupTable::Register(UDPClientBase* client, int group) {
  return RegisterClient(client, group);
}
int EachClientGroupTable::Register(RTCPStep* step, int group) {
  return RegisterClient(step, group);
}

void EachClientGroupTable::Unregister(TCPClientBase* client) {
  UnregisterClient(client);
}
void EachClientGroupTable::Unregister(UDPClientBase* client) {
  UnregisterClient(client);
}
void EachClientGroupTable::Unregister(RTCPStep* step) {
  UnregisterClient(step);
}

void EachClientGroupTable::Stop() {
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

std::shared_ptr<EachClientManager> EachClientGroupTable::Find(int group) {
  ScopeLock lock(lock_);
  const auto found = groups_.find(group);
  return found != groups_.end() ? found->second : nullptr;
}

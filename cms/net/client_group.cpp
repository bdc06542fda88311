#include "cms/net/client_group.h"

#include <new>
#include <vector>

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
    registration = {group, manager};
  }
  if (earlier != nullptr) {
    earlier->UnRegisterClient(client);
  }
  manager->RegisterClient(client);
  if (manager->start()) {
    return 1;
  }
  UnregisterClient(client);
  ScopeLock lock(lock_);
  const auto failed = groups_.find(group);
  if (failed != groups_.end() && failed->second == manager && !manager->IsStarted()) {
    groups_.erase(failed);  // the next registration tries anew
  }
  return 0;
}

template <class Client>
void EachClientGroupTable::UnregisterClient(Client* client) {
  std::shared_ptr<EachClientManager> manager;
  {
    ScopeLock lock(lock_);
    const auto found = clients_.find(client);
    if (found == clients_.end()) {
      return;
    }
    manager = found->second.manager;
    clients_.erase(found);
  }
  manager->UnRegisterClient(client);
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
  std::map<int, std::shared_ptr<EachClientManager>> groups;
  {
    ScopeLock lock(lock_);
    groups.swap(groups_);
  }
  // The clients stay in the table until their threads have ended, so that an owner who unregisters
  // meanwhile still waits for a running step.
  for (const auto& [key, manager] : groups) {
    manager->stop();
  }
  ScopeLock lock(lock_);
  for (const auto& group : groups) {
    std::erase_if(clients_,
                  [&](const auto& entry) { return entry.second.manager == group.second; });
  }
}

std::shared_ptr<EachClientManager> EachClientGroupTable::Find(int group) {
  ScopeLock lock(lock_);
  const auto found = groups_.find(group);
  return found != groups_.end() ? found->second : nullptr;
}

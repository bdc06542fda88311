// How the engine, etcd, is reached.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace cms::fleet {

// Of all clients that share it.
struct EngineCounts {
  std::atomic<std::uint64_t> requests = 0;
  std::atomic<std::uint64_t> failures = 0;
};

struct EngineAccess {
  std::vector<std::string> members;  // "https://e1:2379", at least one
  std::string caFile;                // whose certificates are believed; empty: the system's
  std::string certificateFile;       // of this client, without a common name; empty: none
  std::string keyFile;
  std::string user;  // empty: no login
  std::string password;
  std::shared_ptr<EngineCounts> counts = {};  // null: nobody asks
  bool waitsLong =
      false;  // for a person, who has no lease to keep: a slow disk's answer comes late
};

}  // namespace cms::fleet

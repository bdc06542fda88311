// Asks another recorder of the fleet.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "fleet/engine_access.h"

namespace cms::fleet {

// The certificates are those of the way to the engine; the login is SecretKeys::PeerLogin.
struct PeerAccess {
  std::string caFile;
  std::string certificateFile;
  std::string keyFile;
  std::string user;
  std::string password;
};

// For one thread, which waits.
class PeerClient {
 public:
  explicit PeerClient(PeerAccess access);
  ~PeerClient();
  PeerClient(const PeerClient&) = delete;
  PeerClient& operator=(const PeerClient&) = delete;

  // The body of what "URL/auth/PATH" answers; std::nullopt: it did not answer within the time, or
  // refused, and Problem() tells which. `most`: bytes; a longer answer is none.
  std::optional<std::string> Get(const std::string& url, const std::string& path,
                                 std::chrono::milliseconds wait, std::uint64_t most);
  std::string Escaped(const std::string& text) const;
  const std::string& Problem() const { return problem_; }

 private:
  const PeerAccess access_;
  void* const curl_;
  std::string problem_;
};

}  // namespace cms::fleet

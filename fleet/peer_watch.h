// Asks the other recorders: while the engine does not answer who records what, and always by how
// much their clocks differ.
#pragma once

#include <atomic>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "cms/runtime/critical.h"
#include "cms/runtime/thread_annotations.h"
#include "cms/runtime/wake_up.h"
#include "fleet/fleet_view.h"
#include "fleet/peer_client.h"

namespace cms::fleet {

// A recorder that the engine counts as living says that it records a camera, by this claim.
struct PeerClaim {
  std::string recorder;
  CameraCopy copy;
  std::int64_t claim = 0;
};

// A thread of its own asks once a minute, while the engine is silent twice a second, and sleeps
// where there is nobody to ask. `told` is called on it.
class PeerWatch {
 public:
  PeerWatch(PeerAccess access, std::function<void(const PeerClaim&)> told);
  ~PeerWatch();
  PeerWatch(const PeerWatch&) = delete;
  PeerWatch& operator=(const PeerWatch&) = delete;

  // From now on these, by their addresses; none: nobody. Any thread.
  void Ask(std::vector<std::string> peers, bool engineIsSilent);
  // Seconds that the clock of a peer was ahead when they were asked last, of the one that differs
  // most. Any thread.
  double ClockOffset() const { return clockOffset_; }

 private:
  void Run();
  double AskPeer(const std::string& url);

  PeerClient client_;
  const std::function<void(const PeerClaim&)> told_;
  std::atomic<bool> ends_ = false;
  std::atomic<double> clockOffset_ = 0;
  WakeUp wake_;
  CMSCritical lock_;
  std::vector<std::string> peers_ CMS_GUARDED_BY(lock_);
  bool often_ CMS_GUARDED_BY(lock_) = false;
  std::thread thread_;
};

// What /auth/claims answers: of one that is not confirmed, and of cameras that it does not record
// yet, nothing. Foreign bytes.
std::vector<PeerClaim> ReadPeerClaims(const std::string& json);
// The peer's clock in the same answer, milliseconds since 1970. Foreign bytes.
std::optional<std::int64_t> ReadPeerTime(const std::string& json);

}  // namespace cms::fleet

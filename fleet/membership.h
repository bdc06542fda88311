// Keeps this recorder's sign of life in the engine.
#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <thread>

#include "cms/runtime/wake_up.h"
#include "fleet/engine_access.h"
#include "fleet/engine_client.h"
#include "fleet/fleet_view.h"
#include "fleet/recorder_state.h"

namespace cms::fleet {

struct MembershipFact {
  enum class Kind { kJoined, kRenewed, kLost, kTaken };
  Kind kind = Kind::kLost;
  Tick sentAt{0};
  Tick granted{0};
  std::int64_t createRevision = 0;  // kJoined: of the member key
  std::int64_t revision = 0;        // of the engine as it answered
};

// A thread of its own writes the key member/NAME under a lease and renews that four times within
// its time; a lease that is gone is replaced at once, which loses nothing while claims do not hang
// on it. `told` is called on that thread and waits for nobody. kTaken: another recorder of this
// name lives, and nothing is written as long as it does.
class Membership {
 public:
  using Told = std::function<void(const MembershipFact&)>;

  Membership(EngineAccess access, std::string name, FleetMember self, int ttlSeconds, Told told);
  // Leaves the lease to run out, so that a restart within its time moves nothing.
  ~Membership();
  Membership(const Membership&) = delete;
  Membership& operator=(const Membership&) = delete;

  void SetPresent(bool present);                 // false: gives the lease back, and stays away
  std::int64_t Lease() const { return lease_; }  // 0: none

 private:
  void Run();
  void Join();
  void Renew();
  void Leave();

  EngineClient engine_;
  const std::string name_;
  const FleetMember self_;
  const int ttl_;
  const Told told_;
  WakeUp wake_;
  std::atomic<bool> present_ = true;
  std::atomic<bool> ends_ = false;
  std::atomic<std::int64_t> lease_ = 0;
  std::thread thread_;
};

}  // namespace cms::fleet

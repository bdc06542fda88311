// How a recorder of a fleet fares, for those who watch it and for other recorders.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "fleet/fleet_view.h"
#include "fleet/recorder_state.h"

namespace cms::fleet {

struct HeldCamera {
  CameraCopy copy;
  std::uint32_t site = 0;
  std::int64_t claim = 0;  // modRevision; 0: recorded without one
  bool up = false;
};

struct FleetFigures {
  std::string recorder;
  Standing standing = Standing::kStarting;
  std::vector<HeldCamera> cameras;  // that it records
  std::vector<std::string> peers;   // where other recorders that live are asked
  unsigned capacity = 0;
  std::size_t unplaced = 0;       // cameras without a living holder, in the whole fleet
  std::size_t moves = 0;          // that are under way
  double leaseRemaining = 0;      // seconds
  double clockOffset = 0;         // seconds that the clock of a peer is ahead, of the one most off
  double unconfirmedSeconds = 0;  // since the start, as all that follows
  double oldestWaiting = 0;       // seconds that something waits for the disk now
  double lastTakeover = 0;  // seconds from the last claim of a dead one's camera to its first frame
  std::uint64_t leaseLost = 0;
  std::uint64_t claimsWon = 0;
  std::uint64_t claimsRefused = 0;
  std::uint64_t yielded = 0;
  std::uint64_t engineRequests = 0;
  std::uint64_t engineFailures = 0;
};

// In the text format of Prometheus 0.0.4.
std::string FleetMetrics(const FleetFigures& figures);

}  // namespace cms::fleet

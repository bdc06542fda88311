// What one recorder of a fleet records, takes over and gives up: a state machine without clock,
// engine or camera, which are told to it as facts.
//
// The engine's word is needed to take a camera, never to go on with one: whatever of the engine or
// the network fails, what is recorded goes on.
#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "fleet/fleet_view.h"
#include "fleet/planner.h"

namespace cms::fleet {

// Since the machine was started, sleep included: no clock that somebody sets, none of another
// machine.
using Tick = std::chrono::milliseconds;

enum class Standing {
  kStarting,     // the engine has not answered yet
  kCold,         // nor will it, it seems: what was remembered is recorded
  kConfirmed,    // the engine counts this recorder as living
  kUnconfirmed,  // its lease may be over: what is recorded goes on, nothing is taken
  kVerifying,    // this process stood still: as unconfirmed, until the next renewal
  kStuck,        // the disk takes no data: left the fleet by itself, so that others take over
};
const char* StandingName(Standing standing);

// A camera that is taken over, adopted, or moved here. Done in one step of the engine, if the claim
// is as it was, its holder is as it was, and this recorder lives.
struct ClaimStep {
  CameraCopy copy;
  FleetClaim claim;                // to be written
  std::int64_t claimRevision = 0;  // as it must be; 0: there is none
  std::string deadHolder;          // whose member key must be absent; empty: nobody's
  bool isMove = false;             // its move must be there, and ends
};

struct ProofStep {
  CameraCopy copy;
  FleetProof proof;
};

struct Decisions {
  Standing standing = Standing::kStarting;
  std::map<CameraCopy, FleetCamera> record;
  std::vector<ClaimStep> claims;
  std::vector<ProofStep> proofs;
  std::vector<ClaimStep> republished;  // likewise, with cameras that a restored engine forgot
  bool leave = false;                  // the lease is to be given back
  bool bePlanner = false;              // the planner's place is free
  std::vector<PlannedMove> moves;      // the planner's
  std::vector<CameraCopy> staleMoves;  // likewise, to be taken back
  std::vector<std::string> gone;       // likewise, to be noted
};

// For one thread. `now` never goes back.
class RecorderState {
 public:
  RecorderState(std::string name, Tick ttl, Tick now);

  // The member key was written, with that revision.
  void Joined(Tick now, std::int64_t createRevision);
  void Renewed(Tick now, Tick sentAt, Tick granted);
  void LeaseLost(Tick now);
  void StoodStill() { verifying_ = true; }
  void DiskStuck(bool stuck) { stuck_ = stuck; }
  // Everything, at a revision; a lower one than before is an engine that was restored.
  void Loaded(Tick now, FleetView view, std::int64_t revision);
  void Changed(Tick now, const EngineEvent& event);
  // Whether frames of it are being recorded.
  void Recording(Tick now, const CameraCopy& copy, bool up);
  // Another recorder, which the engine counts as living, says that it records the camera by this
  // claim. Heard only while the engine is not: it is what the engine will say.
  void PeerRecords(Tick now, const CameraCopy& copy, const std::string& peer, std::int64_t claim);
  // What was recorded before this start, for when the engine stays silent.
  void Remember(std::map<CameraCopy, FleetCamera> held) { remembered_ = std::move(held); }

  Decisions Decide(Tick now);
  // What is to be remembered: without what is being given up.
  std::map<CameraCopy, FleetCamera> Held() const;
  const FleetView& View() const { return view_; }
  bool IsUp(const CameraCopy& copy) const;
  bool IsLoaded() const { return revision_.has_value(); }
  Standing StandingAt(Tick now) const;
  Tick Deadline() const { return deadline_.value_or(Tick{0}); }

 private:
  struct Place {
    FleetCamera camera;
    bool up = false;
    std::optional<Tick> downSince;
    std::optional<Tick> yields;          // since when it is somebody else's
    std::optional<Tick> proven;          // since when that one is known to record
    std::optional<Tick> forgotten = {};  // since when the engine does not know whose it is
  };
  // A camera without a living holder.
  struct Awaiting {
    PlannedPlace planned;
    std::optional<Tick> freeSince;
  };

  void HoldBack(Tick until) { heldBack_ = std::max(heldBack_, until); }
  void NoteDeath(Tick now, const std::string& recorder);
  bool IsDead(Tick now, const std::string& recorder) const;
  bool IsMovedHere(const CameraCopy& copy) const;
  bool MayTake(Tick now, Awaiting& camera, const FleetClaim* claim) const;
  void NotePlan(const EngineEvent& event);
  void MakePlan(Tick now);
  void Follow(Tick now);
  void FindOwn();
  void NoteRestored(Tick now, const FleetView& before);
  void TakeUp(const CameraCopy& copy);
  bool IsOver(Tick now, const CameraCopy& copy, Place& place);
  bool Yields(Tick now, const CameraCopy& copy, Place& place) const;
  void DecideClaims(Tick now, Decisions& decisions);
  void DecideProofs(Tick now, Decisions& decisions);
  void DecidePlans(Tick now, Decisions& decisions);
  bool Tries(Tick now, const CameraCopy& copy);
  FleetClaim NewClaim(const FleetClaim* before, const char* why) const;

  const std::string name_;
  const Tick ttl_;
  const Tick started_;
  FleetView view_;
  std::optional<std::int64_t> revision_;
  std::optional<Tick> deadline_;
  bool hasJoined_ = false;
  bool verifying_ = false;
  bool stuck_ = false;
  bool left_ = false;
  Tick heldBack_{0};  // until then nothing is taken
  Tick lastJoin_{0};  // of anybody
  std::map<std::string, Tick> livesSince_;
  std::map<std::string, Tick> diedAt_;  // of those that were seen to
  std::map<CameraCopy, Place> places_;  // what is recorded
  std::map<CameraCopy, FleetCamera> remembered_;
  std::set<std::string> missing_;  // cameras that a restored engine lacks
  std::optional<Tick> restored_;   // when the engine was seen to be
  std::map<CameraCopy, Tick> tried_;
  std::map<CameraCopy, Tick> moveSeen_;
  std::map<CameraCopy, Awaiting> plan_;
  bool planIsOld_ = true;
  std::optional<Tick> planMade_;
  bool followIsOld_ = true;           // whether any camera may have become its own
  std::vector<CameraCopy> mayBeOwn_;  // or these
  Tick lastMoves_{0};
};

}  // namespace cms::fleet

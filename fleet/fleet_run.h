// One recorder of a fleet: has those cameras recorded that the fleet gives it.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "cms/runtime/critical.h"
#include "cms/runtime/thread_annotations.h"
#include "cms/runtime/wake_up.h"
#include "fleet/camera_recorder.h"
#include "fleet/camera_secret.h"
#include "fleet/engine_access.h"
#include "fleet/fleet_figures.h"
#include "fleet/fleet_watch.h"
#include "fleet/latest_file.h"
#include "fleet/membership.h"
#include "fleet/peer_watch.h"
#include "fleet/recorder_state.h"
#include "fleet/token_log.h"

namespace cms::fleet {

struct FleetRunOptions {
  EngineAccess engine;
  std::string name;
  std::string folder;          // where it remembers what it records, beside the recordings
  FleetRecorder settings;      // written for a recorder that the fleet does not know yet
  bool settingsGiven = false;  // written anyway, but for whether it is drained
  int ttlSeconds = 4;
  std::string url;  // where other recorders ask this one; empty: nowhere
};

// The thread of Run decides and asks the engine for claims; others keep the sign of life, follow
// the engine's keys, and ask other recorders while the engine is silent. None of them waits for a
// camera, and only Run's for the recorder; what it remembers is written behind it.
class FleetRun {
 public:
  FleetRun(FleetRunOptions options, SecretKeys keys, CameraRecorder& recorder, TokenLog& tokens);
  ~FleetRun();
  FleetRun(const FleetRun&) = delete;
  FleetRun& operator=(const FleetRun&) = delete;

  // Until the descriptor is readable. Claims and lease stay: a start within the lease's time finds
  // its own cameras, behind that others take them.
  void Run(int stopDescriptor);

  FleetFigures Figures() const;  // not older than about a second; any thread

 private:
  struct Load {
    FleetView view;
    std::int64_t revision;
  };
  using Fact = std::variant<MembershipFact, EngineEvent, Load, PeerClaim>;

  void Tell(Fact fact);
  void TakeFacts();
  void Take(const MembershipFact& fact);
  void AskRecorder();
  void NoteTokens();
  void CountView();
  void UpdateFigures(Tick now);
  void Act();
  void Claim(const std::vector<ClaimStep>& steps);
  void Prove(const std::vector<ProofStep>& steps);
  void Plan(const Decisions& decisions);
  void Republish(const std::vector<ClaimStep>& steps);
  void RegisterSelf();
  void SetRecorded(const std::map<CameraCopy, FleetCamera>& cameras);
  void Remember();
  void Recall();

  const FleetRunOptions options_;
  const SecretKeys keys_;
  CameraRecorder& recorder_;
  TokenLog& tokens_;
  LatestFile memory_;
  EngineClient engine_;
  RecorderState state_;
  WakeUp wake_;
  std::map<CameraCopy, FleetCamera> decided_;
  std::vector<RecordedCamera> recorded_;  // the same with passwords
  std::map<CameraCopy, FleetCamera> remembered_;
  std::int64_t created_ = 0;  // revision of the own member key
  bool registered_ = false;
  Standing standing_ = Standing::kStarting;
  Tick lastTurn_{0};
  Tick lastStatus_{0};
  Tick lastChange_{0};  // of what is recorded
  Tick lastFigures_{0};
  Tick lastCount_{0};
  bool viewChanged_ = true;             // since the figures were made
  std::int64_t generation_ = 0;         // the highest that was seen
  FleetFigures counted_;                // what only this thread counts
  std::map<CameraCopy, Tick> takenAt_;  // of dead ones' cameras, until they are recorded

  mutable CMSCritical lock_;
  std::vector<Fact> facts_ CMS_GUARDED_BY(lock_);
  FleetFigures figures_ CMS_GUARDED_BY(lock_);

  std::unique_ptr<Membership> membership_;
  std::unique_ptr<FleetWatch> watch_;
  std::unique_ptr<PeerWatch> peers_;
};

}  // namespace cms::fleet

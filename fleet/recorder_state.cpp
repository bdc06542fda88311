#include "fleet/recorder_state.h"

#include <algorithm>
#include <utility>

#include "cms/runtime/clock.h"

namespace cms::fleet {
namespace {

constexpr Tick kGrace{500};           // in which a recorder whose lease was revoked wrongly is back
constexpr Tick kRankStep{1'500};      // after which the next best takes a camera
constexpr Tick kNobodyJoined{1'500};  // so long new cameras wait for recorders that are starting
constexpr Tick kLongestJoining{10'000};
constexpr Tick kUnseenDeath{30'000};  // after the own start, of those that were never seen living
constexpr Tick kCold{15'000};
constexpr Tick kTryAgain{1'000};
constexpr Tick kLongestYield{8'000};
// Recorders have the newest seconds in memory: behind that what the new holder recorded is stored.
constexpr Tick kYieldAfterMove{6'000};
constexpr Tick kYieldAfterProof{1'000};
constexpr Tick kForgotten{30'000};    // in which who has it is back at an engine that forgot it
constexpr Tick kDownForGood{20'000};  // a camera that is away for less is no news
constexpr Tick kLongestMove{15'000};
constexpr Tick kSettled{60'000};
constexpr Tick kMovesApart{1'000};
constexpr std::size_t kMovesAtOnce = 8;
// A plan is of all the fleet's cameras, a hundred of which may come in a second: the more it is of,
// the longer it stands. Of a few recorders' cameras that is less than the grace.
constexpr Tick kPlansApart{250};
constexpr Tick::rep kCamerasOfATick = 2;
constexpr std::size_t kClaimsAtOnce = 60;       // of one request: the engine takes 128 operations
constexpr std::size_t kRepublishedAtOnce = 50;  // two operations each

}  // namespace

const char* StandingName(Standing standing) {
  switch (standing) {
    case Standing::kStarting:
      return "starting";
    case Standing::kCold:
      return "cold";
    case Standing::kConfirmed:
      return "confirmed";
    case Standing::kUnconfirmed:
      return "unconfirmed";
    case Standing::kVerifying:
      return "verifying";
    case Standing::kStuck:
      break;
  }
  return "stuck";
}

RecorderState::RecorderState(std::string name, Tick ttl, Tick now)
    : name_(std::move(name)), ttl_(ttl), started_(now) {}

Standing RecorderState::StandingAt(Tick now) const {
  if (stuck_) {
    return Standing::kStuck;
  }
  if (!hasJoined_) {
    return IsLoaded() || now - started_ < kCold ? Standing::kStarting : Standing::kCold;
  }
  if (!deadline_ || now >= *deadline_) {
    return Standing::kUnconfirmed;
  }
  return verifying_ ? Standing::kVerifying : Standing::kConfirmed;
}

void RecorderState::Joined(Tick now, std::int64_t createRevision) {
  if (hasJoined_) {  // it was away, and may not know what happened meanwhile
    HoldBack(now + ttl_);
  }
  hasJoined_ = true;
  left_ = false;
  view_.members[name_].createRevision = createRevision;
  planIsOld_ = true;
}

void RecorderState::Renewed(Tick now, Tick sentAt, Tick granted) {
  if (deadline_ && now >= *deadline_) {
    HoldBack(now + ttl_);
  }
  deadline_ = sentAt + granted;
  verifying_ = verifying_ && now >= *deadline_;
}

void RecorderState::LeaseLost(Tick) {
  deadline_.reset();
}

void RecorderState::NoteDeath(Tick now, const std::string& recorder) {
  if (!diedAt_.try_emplace(recorder, now).second || recorder == name_) {
    return;
  }
  livesSince_.erase(recorder);
  // When most are gone at once it is the engine, or the network, rather than they.
  const auto recent = static_cast<std::size_t>(std::count_if(
      diedAt_.begin(), diedAt_.end(),
      [&](const auto& death) { return death.first != name_ && now - death.second <= ttl_; }));
  if (recent >= 2 && recent > view_.members.size()) {
    HoldBack(now + 2 * ttl_);
  }
}

void RecorderState::Loaded(Tick now, FleetView view, std::int64_t revision) {
  const bool isRestored = (revision_ && (revision < *revision_ ||
                                         view.settings.generation != view_.settings.generation)) ||
                          view.settings.generation == 0;
  const FleetView before = std::exchange(view_, std::move(view));
  revision_ = revision;
  planIsOld_ = true;
  planMade_.reset();
  followIsOld_ = true;
  for (const auto& [name, member] : before.members) {
    if (!view_.Lives(name)) {
      NoteDeath(now, name);
    }
  }
  for (const auto& [name, member] : view_.members) {
    diedAt_.erase(name);
    if (livesSince_.try_emplace(name, now).second) {
      lastJoin_ = now;
    }
  }
  if (isRestored) {
    NoteRestored(now, before);
  } else {
    std::erase_if(places_, [&](const auto& place) {
      return !view_.cameras.contains(place.first.camera) && !missing_.contains(place.first.camera);
    });
  }
}

// Nobody knows yet who comes back, and with which cameras. What was somebody else's, or only on its
// way here, is left to that one, who may be late.
void RecorderState::NoteRestored(Tick now, const FleetView& before) {
  HoldBack(now + 2 * ttl_);
  if (!before.cameras.empty() || !places_.empty()) {  // else it is one that was never used
    restored_ = now;
  }
  for (auto& [copy, place] : places_) {
    if (!view_.cameras.contains(copy.camera)) {
      missing_.insert(copy.camera);
    }
    if (const FleetClaim* claim = before.ClaimOf(copy);
        claim != nullptr && claim->recorder != name_) {
      place.forgotten = now;
    }
  }
}

void RecorderState::Changed(Tick now, const EngineEvent& event) {
  revision_ = std::max(revision_.value_or(0), event.key.modRevision);
  const FleetView& view = view_;
  const bool isMember = event.key.key.starts_with(MemberKey(""));
  const auto members = isMember ? view.members : decltype(view.members){};
  if (event.deleted) {
    view_.Remove(event.key.key);
  } else {
    view_.Put(event.key);
  }
  NotePlan(event);
  for (const auto& [name, member] : members) {
    if (!view.Lives(name)) {
      NoteDeath(now, name);
    }
  }
  for (const auto& [name, member] : isMember ? view.members : members) {
    if (!members.contains(name)) {
      diedAt_.erase(name);
      livesSince_.try_emplace(name, now);
      lastJoin_ = now;
    }
  }
  if (event.deleted) {
    std::erase_if(
        places_, [&](const auto& place) { return event.key.key == CameraKey(place.first.camera); });
  }
}

// What becomes of the plan, and of what is its own, without a look at all the fleet's cameras where
// it is not needed: claims, each of which every recorder hears of.
void RecorderState::NotePlan(const EngineEvent& event) {
  if (IsProofKey(event.key.key)) {
    return;
  }
  const auto copy = ClaimedBy(event.key.key);
  if (!copy) {
    planIsOld_ = planIsOld_ || !IsMoveKey(event.key.key);
    followIsOld_ = true;
    // Nothing is taken of a changed camera before there is a plan of it as it is now.
    if (const std::string cameras = CameraKey(""); event.key.key.starts_with(cameras)) {
      const std::string camera = event.key.key.substr(cameras.size());
      plan_.erase(plan_.lower_bound({camera, 0}), plan_.lower_bound({camera, kMostCopies}));
    }
    return;
  }
  mayBeOwn_.push_back(*copy);
  const FleetClaim* claim = view_.ClaimOf(*copy);
  const auto awaiting = plan_.find(*copy);
  if (claim == nullptr || !view_.Lives(claim->recorder)) {
    planIsOld_ = true;
  } else if (awaiting != plan_.end()) {
    // Taken by whom the plan gave it to, it leaves the rest of the plan as it is.
    planIsOld_ = planIsOld_ || awaiting->second.planned.first != claim->recorder;
    plan_.erase(awaiting);
  } else {
    planIsOld_ = planIsOld_ || !plan_.empty();
  }
}

void RecorderState::MakePlan(Tick now) {
  const Tick stands = kPlansApart + Tick(static_cast<Tick::rep>(plan_.size()) / kCamerasOfATick);
  if (!planIsOld_ || (planMade_ && now - *planMade_ < stands)) {
    return;
  }
  planIsOld_ = false;
  planMade_ = now;
  std::map<CameraCopy, Awaiting> plan;
  for (auto& [copy, planned] : PlanClaimsOf(view_, name_)) {
    const auto before = plan_.find(copy);
    plan.emplace_hint(plan.end(), copy,
                      Awaiting{planned, before == plan_.end() ? std::optional<Tick>()
                                                              : before->second.freeSince});
  }
  plan_ = std::move(plan);
}

void RecorderState::Recording(Tick now, const CameraCopy& copy, bool up) {
  const auto found = places_.find(copy);
  if (found == places_.end()) {
    return;
  }
  Place& place = found->second;
  if (up) {
    place.up = true;
    place.downSince.reset();
  } else if (!place.downSince) {
    place.downSince = now;
  } else if (now - *place.downSince >= kDownForGood) {
    place.up = false;
  }
}

bool RecorderState::IsUp(const CameraCopy& copy) const {
  const auto place = places_.find(copy);
  return place != places_.end() && place->second.up;
}

void RecorderState::PeerRecords(Tick now, const CameraCopy& copy, const std::string& peer,
                                std::int64_t claim) {
  const FleetClaim* own = view_.ClaimOf(copy);
  if (StandingAt(now) == Standing::kUnconfirmed && places_.contains(copy) && own != nullptr &&
      own->modRevision < claim && peer != name_) {
    view_.claims[copy] = {peer, own->recorder, "dead", WallSeconds(), claim};
    view_.proofs[copy] = {peer, claim, true};
    followIsOld_ = true;
  }
}

bool RecorderState::IsDead(Tick now, const std::string& recorder) const {
  if (view_.Lives(recorder) || recorder == name_) {
    return false;
  }
  if (const auto died = diedAt_.find(recorder); died != diedAt_.end()) {
    return now - died->second >= kGrace;
  }
  return view_.gone.contains(recorder) || now - started_ >= kUnseenDeath;
}

bool RecorderState::IsMovedHere(const CameraCopy& copy) const {
  const auto move = view_.moves.find(copy);
  const FleetClaim* claim = view_.ClaimOf(copy);
  return move != view_.moves.end() && claim != nullptr && move->second.to == name_ &&
         move->second.claim == claim->modRevision;
}

// Whether it goes on being recorded although it is somebody else's.
bool RecorderState::Yields(Tick now, const CameraCopy& copy, Place& place) const {
  if (!place.yields) {
    place.yields = now;
  }
  if (!view_.IsProven(copy)) {
    place.proven.reset();
  } else if (!place.proven) {
    place.proven = now;
  }
  const Tick behind = view_.ClaimOf(copy)->why == "moved" ? kYieldAfterMove : kYieldAfterProof;
  return now - *place.yields < kLongestYield && !(place.proven && now - *place.proven >= behind);
}

// Brings what is recorded in line with the claims. An absent key alone never ends a recording.
void RecorderState::Follow(Tick now) {
  if (StandingAt(now) == Standing::kCold) {
    for (const auto& [copy, camera] : remembered_) {
      places_.try_emplace(copy, Place{camera, false, {}, {}, {}});
    }
  }
  if (std::exchange(followIsOld_, false)) {
    FindOwn();
  }
  for (const CameraCopy& copy : std::exchange(mayBeOwn_, {})) {
    TakeUp(copy);
  }
  for (auto each = places_.begin(); each != places_.end();) {
    each = IsOver(now, each->first, each->second) ? places_.erase(each) : std::next(each);
  }
}

// Of all the fleet's cameras, so only when more than claims changed.
void RecorderState::FindOwn() {
  for (const auto& [copy, claim] : view_.claims) {
    if (claim.recorder == name_) {
      TakeUp(copy);
    }
  }
  for (const auto& [copy, move] : view_.moves) {
    TakeUp(copy);
  }
}

void RecorderState::TakeUp(const CameraCopy& copy) {
  const FleetClaim* claim = view_.ClaimOf(copy);
  const auto camera = view_.cameras.find(copy.camera);
  if (((claim != nullptr && claim->recorder == name_) || IsMovedHere(copy)) &&
      camera != view_.cameras.end() && camera->second.on) {
    places_.try_emplace(copy, Place{camera->second, false, {}, {}, {}});
  }
}

bool RecorderState::IsOver(Tick now, const CameraCopy& copy, Place& place) {
  if (const auto camera = view_.cameras.find(copy.camera); camera != view_.cameras.end()) {
    place.camera = camera->second;
    missing_.erase(copy.camera);
  }
  if (!place.camera.on || copy.copy >= place.camera.copies) {
    return true;
  }
  const FleetClaim* claim = view_.ClaimOf(copy);
  if (claim == nullptr && place.yields && !place.forgotten) {
    place.forgotten = now;
  }
  if (claim == nullptr && place.forgotten && now - *place.forgotten < kForgotten) {
    place.yields.reset();
    place.proven.reset();
    return false;  // that one will say so
  }
  place.forgotten.reset();
  if (claim == nullptr || claim->recorder == name_ || IsMovedHere(copy)) {
    place.yields.reset();
    place.proven.reset();
    return false;
  }
  return !Yields(now, copy, place);
}

FleetClaim RecorderState::NewClaim(const FleetClaim* before, const char* why) const {
  return {name_, before == nullptr ? "" : before->recorder, why, WallSeconds(), 0};
}

bool RecorderState::Tries(Tick now, const CameraCopy& copy) {
  const auto [tried, isFirst] = tried_.try_emplace(copy, now);
  if (!isFirst && now - tried->second < kTryAgain) {
    return false;
  }
  tried->second = now;
  return true;
}

// Rank 2 waits a step longer than rank 1, and so on.
bool RecorderState::MayTake(Tick now, Awaiting& camera, const FleetClaim* claim) const {
  const bool isFree = claim != nullptr
                          ? IsDead(now, claim->recorder)
                          : now - lastJoin_ >= kNobodyJoined || now - started_ >= kLongestJoining;
  if (!isFree) {
    camera.freeSince.reset();
    return false;
  }
  if (!camera.freeSince) {
    camera.freeSince = now;
  }
  // Of a restored engine's cameras somebody may have it, and be late to say so.
  const bool isForgotten = claim == nullptr && restored_ && now - *restored_ < kSettled;
  const auto& rank = camera.planned.rank;
  return rank && now - *camera.freeSince >=
                     kRankStep * static_cast<Tick::rep>(*rank) + (isForgotten ? ttl_ : Tick{0});
}

void RecorderState::DecideClaims(Tick now, Decisions& decisions) {
  for (auto& [copy, place] : places_) {
    const FleetClaim* claim = view_.ClaimOf(copy);
    if (missing_.contains(copy.camera)) {
      if (!place.forgotten && decisions.republished.size() < kRepublishedAtOnce) {
        decisions.republished.push_back({copy, NewClaim(nullptr, "new"), 0, "", false});
      }
    } else if (claim == nullptr && !place.forgotten && view_.cameras.contains(copy.camera) &&
               Tries(now, copy)) {
      decisions.claims.push_back({copy, NewClaim(nullptr, "new"), 0, "", false});
    } else if (claim != nullptr && claim->recorder != name_ && IsMovedHere(copy)) {
      const auto proof = view_.proofs.find(copy);
      const bool nothingToLose = proof != view_.proofs.end() && !proof->second.up &&
                                 proof->second.claim == claim->modRevision;
      if ((place.up || nothingToLose) && Tries(now, copy)) {
        decisions.claims.push_back({copy, NewClaim(claim, "moved"), claim->modRevision, "", true});
      }
    }
  }
  if (now < heldBack_) {
    return;
  }
  for (auto& [copy, awaiting] : plan_) {
    if (decisions.claims.size() >= kClaimsAtOnce) {
      break;
    }
    const FleetClaim* claim = view_.ClaimOf(copy);
    if (!places_.contains(copy) && MayTake(now, awaiting, claim) && Tries(now, copy)) {
      decisions.claims.push_back({copy, NewClaim(claim, claim == nullptr ? "new" : "dead"),
                                  claim == nullptr ? 0 : claim->modRevision,
                                  claim == nullptr ? "" : claim->recorder, false});
    }
  }
}

void RecorderState::DecideProofs(Tick now, Decisions& decisions) {
  for (const auto& [copy, place] : places_) {
    const FleetClaim* claim = view_.ClaimOf(copy);
    if (claim == nullptr || claim->recorder != name_ || decisions.proofs.size() >= kClaimsAtOnce) {
      continue;
    }
    const auto proof = view_.proofs.find(copy);
    const bool isTold = proof != view_.proofs.end() && proof->second.claim == claim->modRevision &&
                        proof->second.recorder == name_;
    const bool isDown = !place.up && place.downSince && now - *place.downSince >= kDownForGood;
    if (isTold ? proof->second.up != place.up && (place.up || isDown) : place.up || isDown) {
      decisions.proofs.push_back({copy, {name_, claim->modRevision, place.up}});
    }
  }
}

void RecorderState::DecidePlans(Tick now, Decisions& decisions) {
  decisions.bePlanner = view_.planner.empty();
  if (view_.planner != name_ || now - lastMoves_ < kMovesApart) {
    return;
  }
  lastMoves_ = now;
  for (const auto& [name, recorder] : view_.recorders) {
    if (IsDead(now, name) && diedAt_.contains(name) && !view_.gone.contains(name)) {
      decisions.gone.push_back(name);
    }
  }
  std::erase_if(moveSeen_, [&](const auto& seen) { return !view_.moves.contains(seen.first); });
  for (const auto& [copy, move] : view_.moves) {
    const Tick seen = moveSeen_.try_emplace(copy, now).first->second;
    const FleetClaim* claim = view_.ClaimOf(copy);
    if (claim == nullptr || claim->modRevision != move.claim || !view_.Lives(move.to) ||
        now - seen >= kLongestMove) {
      decisions.staleMoves.push_back(copy);
    }
  }
  std::vector<std::string> settled;
  for (const auto& [name, since] : livesSince_) {
    if (now - since >= kSettled) {
      settled.push_back(name);
    }
  }
  if (now >= heldBack_ && view_.moves.size() < kMovesAtOnce) {
    decisions.moves =
        PlanMoves(view_, settled, kMovesAtOnce - view_.moves.size(), view_.settings.rebalance);
  }
}

Decisions RecorderState::Decide(Tick now) {
  Follow(now);
  Decisions decisions;
  decisions.standing = StandingAt(now);
  if (decisions.standing == Standing::kStuck) {
    decisions.leave = !std::exchange(left_, true);
  }
  if (decisions.standing == Standing::kConfirmed && IsLoaded()) {
    MakePlan(now);
    DecideClaims(now, decisions);
    DecideProofs(now, decisions);
    DecidePlans(now, decisions);
  }
  const bool isIsolated =
      decisions.standing == Standing::kUnconfirmed && deadline_ && now - *deadline_ >= 2 * ttl_;
  for (const auto& [copy, place] : places_) {
    if (!isIsolated || !place.camera.stopsIsolated) {
      decisions.record.emplace(copy, place.camera);
    }
  }
  return decisions;
}

std::map<CameraCopy, FleetCamera> RecorderState::Held() const {
  std::map<CameraCopy, FleetCamera> held;
  for (const auto& [copy, place] : places_) {
    const FleetClaim* claim = view_.ClaimOf(copy);
    if (claim == nullptr || claim->recorder == name_) {
      held.emplace(copy, place.camera);
    }
  }
  return held;
}

}  // namespace cms::fleet

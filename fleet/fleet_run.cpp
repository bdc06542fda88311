#include "fleet/fleet_run.h"

#include <poll.h>

#include <algorithm>
#include <iterator>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <utility>

#include "cms/runtime/log.h"
#include "fleet/boot_clock.h"
#include "fleet/whole_file.h"

namespace cms::fleet {
namespace {

using nlohmann::json;

constexpr Tick kBusyTurn{100};  // while a camera is awaited, or a claim
constexpr Tick kQuietTurn{250};
constexpr Tick kLongestBusy{20'000};  // behind that a camera is away
constexpr Tick kStatusTurn{1'000};
constexpr Tick kFiguresTurn{500};
constexpr Tick kCountTurn{1'000};  // of the figures for which all the fleet's cameras are counted
constexpr std::size_t kStepsAtOnce = 60;
constexpr char kMemoryFile[] = "/fleet.json";
constexpr char kInstanceFile[] = "/fleet.id";

void LogInfo(const std::string& text) {
  Log(LogLevel::kInfo, "fleet", text);
}

// The same for good on one data folder: tells a restart from another recorder of the same name.
std::string InstanceOf(const std::string& folder) {
  std::string instance = ReadWholeFile(folder + kInstanceFile);
  if (instance.empty()) {
    instance = SecretKeys::MakeFileText().substr(3, 16);
    if (!WriteWholeFile(folder + kInstanceFile, instance)) {
      throw std::runtime_error(folder + ": it cannot be written, and is to hold the recordings");
    }
  }
  return instance;
}

std::string Name(const CameraCopy& copy) {
  return copy.copy == 0 ? copy.camera : copy.camera + "/" + std::to_string(copy.copy);
}

}  // namespace

FleetRun::FleetRun(FleetRunOptions options, SecretKeys keys, CameraRecorder& recorder,
                   TokenLog& tokens)
    : options_(std::move(options)),
      keys_(std::move(keys)),
      recorder_(recorder),
      tokens_(tokens),
      memory_(options_.folder + kMemoryFile),
      engine_(options_.engine),
      state_(options_.name, Tick(options_.ttlSeconds * 1'000), BootTick()) {
  Recall();
  watch_ = std::make_unique<FleetWatch>(
      options_.engine,
      [this](FleetView view, std::int64_t revision) {
        Tell(Load{std::move(view), revision});
      },
      [this](const EngineEvent& event) { Tell(event); });
  membership_ = std::make_unique<Membership>(
      options_.engine, options_.name, FleetMember{InstanceOf(options_.folder), 0, options_.url},
      options_.ttlSeconds, [this](const MembershipFact& fact) { Tell(fact); });
  const auto [user, password] = keys_.PeerLogin();
  peers_ = std::make_unique<PeerWatch>(
      PeerAccess{options_.engine.caFile, options_.engine.certificateFile, options_.engine.keyFile,
                 user, password},
      [this](const PeerClaim& claim) { Tell(claim); });
}

FleetRun::~FleetRun() {
  peers_.reset();
  membership_.reset();
  watch_.reset();
}

void FleetRun::Tell(Fact fact) {
  {
    const ScopeLock lock(lock_);
    facts_.push_back(std::move(fact));
  }
  wake_.Signal();
}

void FleetRun::Run(int stopDescriptor) {
  lastTurn_ = BootTick();
  while (true) {
    const bool isBusy =
        BootTick() - lastChange_ < kLongestBusy &&
        std::any_of(recorded_.begin(), recorded_.end(),
                    [&](const RecordedCamera& each) { return !state_.View().IsProven(each.copy); });
    pollfd waits[] = {{stopDescriptor, POLLIN, 0}, {wake_.Descriptor(), POLLIN, 0}};
    poll(waits, std::size(waits), static_cast<int>((isBusy ? kBusyTurn : kQuietTurn).count()));
    if (waits[0].revents != 0) {
      break;
    }
    wake_.Clear();
    const Tick now = BootTick();
    if (now - lastTurn_ > Tick(options_.ttlSeconds * 750)) {
      Log(LogLevel::kWarning, "fleet",
          "this process stood still for " + std::to_string((now - lastTurn_).count()) + " ms");
      state_.StoodStill();
    }
    lastTurn_ = now;
    if (now - lastStatus_ >= (isBusy ? kBusyTurn : kStatusTurn)) {
      lastStatus_ = now;
      AskRecorder();
    }
    TakeFacts();
    Act();
    UpdateFigures(now);
  }
  membership_.reset();
}

void FleetRun::TakeFacts() {
  std::vector<Fact> facts;
  {
    const ScopeLock lock(lock_);
    facts.swap(facts_);
  }
  for (Fact& fact : facts) {
    if (const auto* told = std::get_if<MembershipFact>(&fact)) {
      Take(*told);
    } else if (const auto* event = std::get_if<EngineEvent>(&fact)) {
      state_.Changed(BootTick(), *event);
      viewChanged_ = viewChanged_ || !IsProofKey(event->key.key);
    } else if (const auto* peer = std::get_if<PeerClaim>(&fact)) {
      state_.PeerRecords(BootTick(), peer->copy, peer->recorder, peer->claim);
    } else {
      auto& load = std::get<Load>(fact);
      registered_ = registered_ && load.view.recorders.contains(options_.name);
      state_.Loaded(BootTick(), std::move(load.view), load.revision);
      viewChanged_ = true;
    }
  }
  if (!facts.empty()) {
    generation_ = std::max(generation_, state_.View().settings.generation);
    NoteTokens();
  }
}

void FleetRun::NoteTokens() {
  for (const RecordedCamera& each : recorded_) {
    const FleetClaim* claim = state_.View().ClaimOf(each.copy);
    if (claim != nullptr && claim->recorder == options_.name) {
      tokens_.Note(each.camera.site, TokenOf(generation_, claim->modRevision));
    }
  }
}

FleetFigures FleetRun::Figures() const {
  const ScopeLock lock(lock_);
  return figures_;
}

// Of all cameras: only when something changed, and not often.
void FleetRun::CountView() {
  const FleetView& view = state_.View();
  counted_.peers.clear();
  for (const auto& [name, member] : view.members) {
    if (name != options_.name && !member.url.empty()) {
      counted_.peers.push_back(member.url);
    }
  }
  const auto own = view.recorders.find(options_.name);
  counted_.capacity =
      own == view.recorders.end() ? options_.settings.capacity : own->second.capacity;
  counted_.unplaced = 0;
  for (const CameraCopy& copy : view.Copies()) {
    const FleetClaim* claim = view.ClaimOf(copy);
    counted_.unplaced += claim == nullptr || !view.Lives(claim->recorder) ? 1 : 0;
  }
  counted_.moves = view.moves.size();
}

void FleetRun::UpdateFigures(Tick now) {
  const bool isNews = standing_ != counted_.standing;
  if (now - lastFigures_ < kFiguresTurn && !isNews) {
    return;
  }
  const FleetView& view = state_.View();
  if (counted_.standing == Standing::kUnconfirmed || counted_.standing == Standing::kCold) {
    counted_.unconfirmedSeconds += static_cast<double>((now - lastFigures_).count()) / 1e3;
  }
  lastFigures_ = now;
  counted_.standing = standing_;
  FleetFigures figures = counted_;
  figures.recorder = options_.name;
  figures.leaseRemaining =
      std::max(static_cast<double>((state_.Deadline() - now).count()) / 1e3, 0.0);
  for (const RecordedCamera& each : recorded_) {
    const FleetClaim* claim = view.ClaimOf(each.copy);
    const bool isOwn = claim != nullptr && claim->recorder == options_.name;
    figures.cameras.push_back(
        {each.copy, each.camera.site, isOwn ? claim->modRevision : 0, state_.IsUp(each.copy)});
  }
  if (viewChanged_ && now - lastCount_ >= kCountTurn) {
    viewChanged_ = false;
    lastCount_ = now;
    CountView();
  }
  figures.peers = counted_.peers;
  figures.capacity = counted_.capacity;
  figures.unplaced = counted_.unplaced;
  figures.moves = counted_.moves;
  if (const auto& counts = options_.engine.counts) {
    figures.engineRequests = counts->requests;
    figures.engineFailures = counts->failures;
  }
  peers_->Ask(figures.peers, standing_ == Standing::kUnconfirmed);
  figures.clockOffset = peers_->ClockOffset();
  const ScopeLock lock(lock_);
  figures_ = std::move(figures);
}

void FleetRun::Take(const MembershipFact& fact) {
  const Tick now = BootTick();
  watch_->EngineIsAt(fact.revision);
  switch (fact.kind) {
    case MembershipFact::Kind::kJoined:
      created_ = fact.createRevision;
      state_.Joined(now, fact.createRevision);
      state_.Renewed(now, fact.sentAt, fact.granted);
      break;
    case MembershipFact::Kind::kRenewed:
      state_.Renewed(now, fact.sentAt, fact.granted);
      break;
    case MembershipFact::Kind::kLost:
      ++counted_.leaseLost;
      state_.LeaseLost(now);
      break;
    case MembershipFact::Kind::kTaken:
      Log(LogLevel::kError, "fleet",
          "another recorder is called " + options_.name +
              " and lives: give one of them another --name; this one takes no cameras");
  }
}

void FleetRun::AskRecorder() {
  const CameraRecorderStatus status = recorder_.Status();
  state_.DiskStuck(status.isStuck);
  counted_.oldestWaiting = static_cast<double>(status.oldestWaiting) / 1e3;
  if (!status.answers) {
    return;
  }
  for (const RecordedCamera& each : recorded_) {
    const auto found = status.records.find(each.camera.site);
    state_.Recording(BootTick(), each.copy, found != status.records.end() && found->second);
  }
}

void FleetRun::Act() {
  const Decisions decisions = state_.Decide(BootTick());
  if (decisions.standing != standing_) {
    standing_ = decisions.standing;
    LogInfo(options_.name + " is " + StandingName(standing_));
  }
  membership_->SetPresent(standing_ != Standing::kStuck);
  SetRecorded(decisions.record);
  if (standing_ != Standing::kConfirmed) {
    return;
  }
  if (!registered_) {
    RegisterSelf();
  }
  Republish(decisions.republished);
  Claim(decisions.claims);
  Prove(decisions.proofs);
  Plan(decisions);
  Remember();
}

void FleetRun::RegisterSelf() {
  const auto known = engine_.Range(RecorderKey(options_.name));
  if (!known) {
    return;
  }
  FleetRecorder settings = options_.settings;
  if (const auto found = state_.View().recorders.find(options_.name);
      found != state_.View().recorders.end()) {
    settings.drain = found->second.drain;
  }
  registered_ = (!known->keys.empty() && !options_.settingsGiven) ||
                engine_.Put(RecorderKey(options_.name), ValueOf(settings)).has_value();
}

// One request, with conditions for each camera: some may be refused while the others are taken.
void FleetRun::Claim(const std::vector<ClaimStep>& steps) {
  for (std::size_t begin = 0; begin < steps.size(); begin += kStepsAtOnce) {
    EngineTransaction all;
    const std::size_t end = std::min(begin + kStepsAtOnce, steps.size());
    for (std::size_t i = begin; i < end; ++i) {
      const ClaimStep& step = steps[i];
      EngineTransaction one;
      one.IfChanged(ClaimKey(step.copy), step.claimRevision)
          .IfCreated(MemberKey(options_.name), created_);
      if (!step.deadHolder.empty()) {
        one.IfCreated(MemberKey(step.deadHolder), 0);
      }
      if (step.isMove) {
        one.IfPresent(MoveKey(step.copy)).Delete(MoveKey(step.copy));
      }
      all.Nested(one.Put(ClaimKey(step.copy), ValueOf(step.claim)));
    }
    const auto answer = engine_.Transact(all);
    if (!answer) {
      Log(LogLevel::kWarning, "fleet", "no claim could be made: " + engine_.Problem());
      return;
    }
    for (std::size_t i = begin; i < end && i - begin < answer->nested.size(); ++i) {
      const FleetClaim& claim = steps[i].claim;
      ++(answer->nested[i - begin] ? counted_.claimsWon : counted_.claimsRefused);
      if (answer->nested[i - begin] && claim.why == "dead") {
        takenAt_[steps[i].copy] = BootTick();
      }
      LogInfo(Name(steps[i].copy) + (answer->nested[i - begin] ? " is taken: " : " was refused: ") +
              claim.why + (claim.was.empty() ? "" : ", was " + claim.was + "'s"));
    }
  }
}

void FleetRun::Prove(const std::vector<ProofStep>& steps) {
  EngineTransaction all;
  for (const ProofStep& step : steps) {
    EngineTransaction one;
    one.IfChanged(ClaimKey(step.copy), step.proof.claim)
        .Put(ProofKey(step.copy), ValueOf(step.proof));
    if (const auto taken = takenAt_.find(step.copy); taken != takenAt_.end() && step.proof.up) {
      counted_.lastTakeover = static_cast<double>((BootTick() - taken->second).count()) / 1e3;
      takenAt_.erase(taken);
    }
    all.Nested(one);
  }
  if (!all.IsEmpty()) {
    engine_.Transact(all);
  }
}

void FleetRun::Plan(const Decisions& decisions) {
  const std::int64_t lease = membership_->Lease();
  if (decisions.bePlanner && lease != 0) {
    engine_.Transact(EngineTransaction()
                         .IfCreated(PlannerKey(), 0)
                         .IfCreated(MemberKey(options_.name), created_)
                         .Put(PlannerKey(), options_.name, lease));
  }
  EngineTransaction all;
  for (const PlannedMove& move : decisions.moves) {
    const FleetClaim* claim = state_.View().ClaimOf(move.copy);
    if (claim != nullptr) {
      EngineTransaction one;
      one.IfChanged(ClaimKey(move.copy), claim->modRevision)
          .IfCreated(MoveKey(move.copy), 0)
          .Put(MoveKey(move.copy), ValueOf(FleetMove{move.from, move.to, claim->modRevision, 0}),
               lease);
      all.Nested(one);
      LogInfo(Name(move.copy) + " is to move from " + move.from + " to " + move.to);
    }
  }
  for (const CameraCopy& copy : decisions.staleMoves) {
    all.Delete(MoveKey(copy));
  }
  for (const std::string& recorder : decisions.gone) {
    all.Nested(EngineTransaction()
                   .IfCreated(MemberKey(recorder), 0)
                   .Put(GoneKey(recorder), R"({"t":)" + std::to_string(time(nullptr)) + "}"));
  }
  if (!all.IsEmpty()) {
    engine_.Transact(EngineTransaction(all).IfCreated(MemberKey(options_.name), created_));
  }
}

// A restored engine lacks what was configured since its snapshot; an empty one lacks everything. A
// camera comes back together with its claim: nobody else is to find it without one, however long
// the next request takes.
void FleetRun::Republish(const std::vector<ClaimStep>& steps) {
  if (steps.empty()) {
    return;
  }
  EngineTransaction all;
  all.Nested(EngineTransaction()
                 .IfCreated(FleetKey(), 0)
                 .Put(FleetKey(), ValueOf(FleetSettings{generation_ + 1, true})));
  for (const ClaimStep& step : steps) {
    const auto decided = decided_.find(step.copy);
    if (decided == decided_.end()) {
      continue;  // isolated, and not to be recorded
    }
    const std::string camera = CameraKey(step.copy.camera);
    all.Nested(EngineTransaction().IfCreated(camera, 0).Put(camera, ValueOf(decided->second)));
    all.Nested(EngineTransaction()
                   .IfCreated(ClaimKey(step.copy), 0)
                   .IfCreated(MemberKey(options_.name), created_)
                   .Put(ClaimKey(step.copy), ValueOf(step.claim)));
  }
  engine_.Transact(all);
}

void FleetRun::SetRecorded(const std::map<CameraCopy, FleetCamera>& cameras) {
  if (cameras == decided_) {
    return;
  }
  for (const auto& [copy, camera] : decided_) {
    const FleetClaim* claim = state_.View().ClaimOf(copy);
    counted_.yielded +=
        !cameras.contains(copy) && claim != nullptr && claim->recorder != options_.name ? 1 : 0;
  }
  decided_ = cameras;
  std::vector<RecordedCamera> recorded;
  for (const auto& [copy, camera] : cameras) {
    RecordedCamera each{copy, camera, ""};
    if (!camera.secret.empty()) {
      const auto password = keys_.Open(camera.secret, copy.camera);
      if (!password) {
        Log(LogLevel::kError, "fleet",
            "the password of " + copy.camera + " cannot be opened: its key is not in --secret-key");
      }
      each.password = password.value_or("");
    }
    recorded.push_back(std::move(each));
  }
  recorded_ = std::move(recorded);
  lastChange_ = BootTick();
  recorder_.Record(recorded_);
  NoteTokens();
}

void FleetRun::Remember() {
  std::map<CameraCopy, FleetCamera> held = state_.Held();
  if (held == remembered_) {
    return;
  }
  json cameras = json::array();
  for (const auto& [copy, camera] : held) {
    cameras.push_back({{"camera", copy.camera}, {"copy", copy.copy}, {"value", ValueOf(camera)}});
  }
  memory_.Set(json{{"cameras", cameras}}.dump(1));
  remembered_ = std::move(held);
}

void FleetRun::Recall() {
  const json memory = json::parse(ReadWholeFile(options_.folder + kMemoryFile), nullptr, false);
  if (!memory.is_object() || !memory.contains("cameras") || !memory["cameras"].is_array()) {
    return;
  }
  std::map<CameraCopy, FleetCamera> held;
  for (const json& each : memory["cameras"]) {
    const auto name = each.is_object() ? each.find("camera") : each.end();
    const auto copy = each.is_object() ? each.find("copy") : each.end();
    const auto value = each.is_object() ? each.find("value") : each.end();
    if (!each.is_object() || name == each.end() || copy == each.end() || value == each.end() ||
        !name->is_string() || !copy->is_number_unsigned() || !value->is_string()) {
      continue;
    }
    if (const auto camera = ReadCamera(value->get<std::string>())) {
      held[{name->get<std::string>(), copy->get<unsigned>()}] = *camera;
    }
  }
  LogInfo(options_.name + " remembers " + std::to_string(held.size()) + " cameras");
  state_.Remember(std::move(held));
}

}  // namespace cms::fleet

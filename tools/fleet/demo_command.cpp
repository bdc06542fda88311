// orvanta fleet demo: what happens when parts of a fleet fail, on this machine and in minutes.
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <set>
#include <stdexcept>
#include <thread>

#include "cms/runtime/clock.h"
#include "tools/fleet/demo_fleet.h"
#include "tools/fleet/fleet_command.h"
#include "tools/fleet/recorded_times.h"
#include "tools/support/stop_signal.h"

namespace tools {
namespace {

using cms::fleet::CameraCopy;
using cms::fleet::FleetView;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr seconds kLongestStep{60};
constexpr seconds kSettle{7};  // so that what was recorded before a step is on disk
constexpr seconds kEngineAwayFor{15};
constexpr seconds kHangFor{10};
constexpr seconds kCutFor{15};
constexpr seconds kFrozenFor{15};
constexpr seconds kMemberHangsFor{6};
constexpr seconds kMemberIsBack{2};
constexpr seconds kPowerAwayFor{3};
constexpr std::size_t kTimelineColumns = 90;
constexpr std::int64_t kEdge = 1'000;       // milliseconds at a window's ends, where spans begin
constexpr std::int64_t kUnwritten = 5'000;  // milliseconds of a stream that are in memory at most

struct DemoArguments {
  int recorders = 3;
  int cameras = 6;
  std::vector<std::string> steps{"kill", "hang", "engine", "drain"};
  std::string keep;
  bool json = false;
  bool Has(const char* step) const {
    return std::find(steps.begin(), steps.end(), step) != steps.end();
  }
};

// Times are milliseconds since the step began; -1: it did not come.
struct DemoStep {
  std::string name;
  std::string what;
  std::size_t cameras = 0;  // that were concerned
  std::int64_t claimed = -1;
  std::int64_t recorded = -1;
  std::size_t moved = 0;  // claims that are other recorders' afterwards
  RecordedSpan window;
  std::int64_t longestGap = 0;
  std::int64_t recordedTwice = 0;
};

using Holders = std::map<CameraCopy, std::string>;

Holders HoldersOf(const FleetView& view) {
  Holders holders;
  for (const auto& [copy, claim] : view.claims) {
    holders[copy] = claim.recorder;
  }
  return holders;
}

std::size_t CountOf(const Holders& holders, const std::string& name) {
  return static_cast<std::size_t>(std::count_if(
      holders.begin(), holders.end(), [&](const auto& held) { return held.second == name; }));
}

bool IsAllProven(const FleetView& view) {
  const auto copies = view.Copies();
  return !copies.empty() && std::all_of(copies.begin(), copies.end(), [&](const CameraCopy& copy) {
    const auto* claim = view.ClaimOf(copy);
    return claim != nullptr && view.Lives(claim->recorder) && view.IsProven(copy);
  });
}

class Demo {
 public:
  explicit Demo(const DemoArguments& arguments)
      : arguments_(arguments),
        fleet_(arguments.keep, arguments.recorders, arguments.cameras,
               {arguments.Has("cut") || arguments.Has("alone"), arguments.Has("frozen"),
                arguments.Has("disks")}) {}

  int Run();

 private:
  void Say(const std::string& text) const;
  DemoStep Begin(const std::string& name, const std::string& what, std::size_t cameras);
  void Finish(DemoStep step, const Holders& before);
  void WaitTaken(DemoStep& step, const std::string& dead);
  void KillRecorder(DemoStep& step, const std::string& name);
  std::string Fullest(std::size_t* cameras);
  void Start();
  void Kill();
  void Hang();
  void EngineDies(bool forgets);
  void EngineIsOld();
  void MembersHang();
  void MajorityIsGone();
  void MachineOfBothDies();
  void PowerFails();
  void CutOff(bool fromAll);
  void DiskFreezes();
  void OneOfTwoDisksFreezes();
  void Freeze(DemoStep step, DemoDisk& disk, const std::string& name, const Holders& before);
  void GiveCameras(const std::string& name, std::size_t count);
  void Restart();
  void Drain();
  void Report();

  const DemoArguments& arguments_;
  DemoFleet fleet_;
  std::vector<DemoStep> steps_;
  DemoFleet::Clock::time_point begun_;
};

void Demo::Say(const std::string& text) const {
  if (!arguments_.json) {
    std::printf("%s\n", text.c_str());
    std::fflush(stdout);
  }
}

DemoStep Demo::Begin(const std::string& name, const std::string& what, std::size_t cameras) {
  Say(what);
  DemoStep step;
  step.name = name;
  step.what = what;
  step.cameras = cameras;
  step.window.from = cms::WallMicroseconds() / 1'000 - kEdge;
  begun_ = DemoFleet::Clock::now();
  return step;
}

void Demo::Finish(DemoStep step, const Holders& before) {
  if (!fleet_.WaitFor(kLongestStep, &IsAllProven)) {
    Say("  not all cameras are recorded again");
  } else if (step.recorded < 0) {
    step.recorded =
        std::chrono::duration_cast<milliseconds>(DemoFleet::Clock::now() - begun_).count();
  }
  WaitForStop(kSettle);
  step.window.to = cms::WallMicroseconds() / 1'000 - kEdge;
  if (const auto view = fleet_.View()) {
    for (const auto& [copy, holder] : HoldersOf(*view)) {
      const auto found = before.find(copy);
      step.moved += found != before.end() && found->second != holder ? 1 : 0;
    }
  }
  steps_.push_back(std::move(step));
}

// Until no camera is the dead one's, then until all are recorded.
void Demo::WaitTaken(DemoStep& step, const std::string& dead) {
  const auto since = [&] {
    return std::chrono::duration_cast<milliseconds>(DemoFleet::Clock::now() - begun_).count();
  };
  if (fleet_.WaitFor(kLongestStep, [&](const FleetView& view) {
        return std::none_of(view.claims.begin(), view.claims.end(),
                            [&](const auto& claim) { return claim.second.recorder == dead; });
      })) {
    step.claimed = since();
  }
  if (fleet_.WaitFor(kLongestStep, &IsAllProven)) {
    step.recorded = since();
  }
}

std::string Demo::Fullest(std::size_t* cameras) {
  const auto view = fleet_.View();
  std::map<std::string, std::size_t> counts;
  for (const auto& [copy, holder] : view ? HoldersOf(*view) : Holders{}) {
    ++counts[holder];
  }
  const auto most =
      std::max_element(counts.begin(), counts.end(),
                       [](const auto& a, const auto& b) { return a.second < b.second; });
  if (most == counts.end()) {
    throw std::runtime_error("no recorder has a camera: see the logs in " + fleet_.Folder());
  }
  *cameras = most->second;
  return most->first;
}

void Demo::Start() {
  begun_ = DemoFleet::Clock::now();
  Say(std::to_string(arguments_.cameras) + " cameras, " + std::to_string(arguments_.recorders) +
      " recorders, an engine of three members at " + fleet_.Engine().Members());
  if (!fleet_.WaitFor(kLongestStep, &IsAllProven)) {
    throw std::runtime_error("the cameras are not recorded: see the logs in " + fleet_.Folder());
  }
  Say("all cameras are recorded");
  WaitForStop(kSettle);
}

// What it had not written yet is this step's gap, not that of the one before.
void Demo::KillRecorder(DemoStep& step, const std::string& name) {
  step.window.from = cms::WallMicroseconds() / 1'000 - kUnwritten;
  if (!steps_.empty()) {
    steps_.back().window.to = std::min(steps_.back().window.to, step.window.from);
  }
  fleet_.Recorder(name).Signal(SIGKILL);
}

void Demo::Kill() {
  std::size_t cameras = 0;
  const std::string name = Fullest(&cameras);
  const Holders before = HoldersOf(fleet_.View().value_or(FleetView{}));
  DemoStep step =
      Begin("kill", name + " is killed, with " + std::to_string(cameras) + " cameras", cameras);
  KillRecorder(step, name);
  WaitTaken(step, name);
  Finish(std::move(step), before);
  fleet_.StartRecorder(name);
}

void Demo::Hang() {
  std::size_t cameras = 0;
  const std::string name = Fullest(&cameras);
  const Holders before = HoldersOf(fleet_.View().value_or(FleetView{}));
  DemoStep step = Begin("hang",
                        name + " hangs for " + std::to_string(kHangFor.count()) + " s, with " +
                            std::to_string(cameras) + " cameras",
                        cameras);
  fleet_.Recorder(name).Signal(SIGSTOP);
  WaitTaken(step, name);
  std::this_thread::sleep_until(begun_ + kHangFor);
  fleet_.Recorder(name).Signal(SIGCONT);
  Finish(std::move(step), before);
}

void Demo::EngineDies(bool forgets) {
  const Holders before = HoldersOf(fleet_.View().value_or(FleetView{}));
  DemoStep step =
      Begin(forgets ? "empty" : "engine",
            "all members of the engine are dead for " + std::to_string(kEngineAwayFor.count()) +
                " s" + (forgets ? " and come back empty" : ""),
            before.size());
  fleet_.Engine().Kill();
  if (forgets) {
    fleet_.Engine().Forget();
  }
  std::this_thread::sleep_until(begun_ + kEngineAwayFor);
  fleet_.Engine().Start();
  Finish(std::move(step), before);
}

// Comes back as it was before its cameras were configured anew.
void Demo::EngineIsOld() {
  std::size_t cameras = 0;
  Fullest(&cameras);
  fleet_.Engine().Kill();
  fleet_.Engine().Keep();
  fleet_.Engine().Start();
  if (!fleet_.WaitFor(kLongestStep, &IsAllProven)) {
    throw std::runtime_error("the engine came back, and not all cameras are recorded");
  }
  const auto view = fleet_.View();
  for (const auto& [name, camera] : view ? view->cameras : FleetView{}.cameras) {
    auto changed = camera;
    changed.spill = false;
    fleet_.Client().Put(cms::fleet::CameraKey(name), ValueOf(changed));
  }
  const Holders before = HoldersOf(view.value_or(FleetView{}));
  DemoStep step = Begin("snapshot", "the engine comes back from an old snapshot", before.size());
  fleet_.Engine().Kill();
  fleet_.Engine().PutBack();
  fleet_.Engine().Start();
  std::this_thread::sleep_for(kHangFor);
  Finish(std::move(step), before);
}

// One after another, so that the one that leads is among them.
void Demo::MembersHang() {
  const Holders before = HoldersOf(fleet_.View().value_or(FleetView{}));
  DemoStep step = Begin("members",
                        "each member of the engine hangs for " +
                            std::to_string(kMemberHangsFor.count()) + " s, one after another",
                        before.size());
  for (std::size_t i = 0; i < DemoEngine::kMembers; ++i) {
    fleet_.Engine().SignalMember(i, SIGSTOP);
    std::this_thread::sleep_for(kMemberHangsFor);
    fleet_.Engine().SignalMember(i, SIGCONT);
    std::this_thread::sleep_for(kMemberIsBack);
  }
  Finish(std::move(step), before);
}

void Demo::MajorityIsGone() {
  const Holders before = HoldersOf(fleet_.View().value_or(FleetView{}));
  DemoStep step = Begin("minority",
                        "one member of the engine hangs and another is dead, for " +
                            std::to_string(kEngineAwayFor.count()) + " s",
                        before.size());
  fleet_.Engine().SignalMember(0, SIGSTOP);
  fleet_.Engine().KillMember(1);
  std::this_thread::sleep_until(begun_ + kEngineAwayFor);
  fleet_.Engine().SignalMember(0, SIGCONT);
  fleet_.Engine().StartMember(1);
  Finish(std::move(step), before);
}

void Demo::MachineOfBothDies() {
  std::size_t cameras = 0;
  const std::string name = Fullest(&cameras);
  const Holders before = HoldersOf(fleet_.View().value_or(FleetView{}));
  const std::size_t leader = fleet_.Engine().Leader();
  DemoStep step = Begin("both",
                        name + " and the engine's leading member are killed, with " +
                            std::to_string(cameras) + " cameras",
                        cameras);
  fleet_.Engine().KillMember(leader);
  KillRecorder(step, name);
  WaitTaken(step, name);
  Finish(std::move(step), before);
  fleet_.Engine().StartMember(leader);
  fleet_.StartRecorder(name);
}

void Demo::PowerFails() {
  const Holders before = HoldersOf(fleet_.View().value_or(FleetView{}));
  DemoStep step = Begin("power",
                        "everything is killed, and started again after " +
                            std::to_string(kPowerAwayFor.count()) + " s",
                        before.size());
  for (const std::string& name : fleet_.Recorders()) {
    KillRecorder(step, name);
  }
  fleet_.Engine().Kill();
  std::this_thread::sleep_until(begun_ + kPowerAwayFor);
  fleet_.Engine().Start();
  for (const std::string& name : fleet_.Recorders()) {
    fleet_.StartRecorder(name);
  }
  fleet_.WaitFor(kLongestStep, [&](const FleetView& view) {
    return view.members.size() == fleet_.Recorders().size();
  });
  std::this_thread::sleep_for(seconds(5));
  Finish(std::move(step), before);
}

void Demo::CutOff(bool fromAll) {
  std::size_t cameras = 0;
  const std::string name = Fullest(&cameras);
  const Holders before = HoldersOf(fleet_.View().value_or(FleetView{}));
  const auto addresses =
      fromAll ? fleet_.AllBut(name) : std::vector<std::string>{fleet_.Network().EngineAddress()};
  DemoStep step = Begin(fromAll ? "alone" : "cut",
                        name + " is cut off from the engine" +
                            (fromAll ? " and from all other recorders" : "") + " for " +
                            std::to_string(kCutFor.count()) + " s, with " +
                            std::to_string(cameras) + " cameras",
                        cameras);
  fleet_.Network().Cut(name, addresses);
  WaitTaken(step, name);
  std::this_thread::sleep_until(begun_ + kCutFor);
  fleet_.Network().Mend(name, addresses);
  Finish(std::move(step), before);
}

void Demo::DiskFreezes() {
  const std::string name = DemoFleet::kFreezing;
  const Holders before = HoldersOf(fleet_.View().value_or(FleetView{}));
  const std::size_t cameras = CountOf(before, name);
  DemoStep step =
      Begin("frozen",
            "the disk of " + name + " stands still for " + std::to_string(kFrozenFor.count()) +
                " s, with " + std::to_string(cameras) + " cameras",
            cameras);
  Freeze(std::move(step), fleet_.Disk(), name, before);
}

void Demo::Freeze(DemoStep step, DemoDisk& disk, const std::string& name, const Holders& before) {
  disk.Freeze();
  WaitTaken(step, name);
  std::this_thread::sleep_until(begun_ + kFrozenFor);
  if (const auto view = fleet_.View(); view && view->Lives(name)) {
    throw std::runtime_error(name + " came back while its disk stood still");
  }
  disk.Thaw();
  Finish(std::move(step), before);
}

// One on each disk. It leaves with both of them.
void Demo::OneOfTwoDisksFreezes() {
  const std::string name = DemoFleet::kTwoDisks;
  GiveCameras(name, 2);
  const Holders before = HoldersOf(fleet_.View().value_or(FleetView{}));
  const std::size_t cameras = CountOf(before, name);
  DemoStep step = Begin("disks",
                        "one of the two disks of " + name + " stands still for " +
                            std::to_string(kFrozenFor.count()) + " s, with " +
                            std::to_string(cameras) + " cameras on both",
                        cameras);
  Freeze(std::move(step), fleet_.SecondDisk(), name, before);
}

// Until it has so many.
void Demo::GiveCameras(const std::string& name, std::size_t count) {
  const auto view = fleet_.View();
  const auto lease = fleet_.Client().Grant(static_cast<int>(kLongestStep.count()));
  std::size_t held = CountOf(HoldersOf(view.value_or(FleetView{})), name);
  for (const auto& [copy, claim] : view ? view->claims : FleetView{}.claims) {
    if (held < count && lease && claim.recorder != name) {
      fleet_.Client().Put(
          MoveKey(copy), ValueOf(cms::fleet::FleetMove{claim.recorder, name, claim.modRevision, 0}),
          lease->lease);
      ++held;
    }
  }
  if (!fleet_.WaitFor(kLongestStep, [&](const FleetView& now) {
        return CountOf(HoldersOf(now), name) >= count && IsAllProven(now);
      })) {
    throw std::runtime_error(name + " does not get " + std::to_string(count) + " cameras");
  }
  WaitForStop(kSettle);
}

void Demo::Restart() {
  std::size_t cameras = 0;
  const std::string name = Fullest(&cameras);
  const Holders before = HoldersOf(fleet_.View().value_or(FleetView{}));
  DemoStep step = Begin("restart", name + " crashes and is started again at once", cameras);
  KillRecorder(step, name);
  std::this_thread::sleep_for(seconds(1));
  fleet_.StartRecorder(name);
  std::this_thread::sleep_for(seconds(5));
  Finish(std::move(step), before);
}

void Demo::Drain() {
  std::size_t cameras = 0;
  const std::string name = Fullest(&cameras);
  const Holders before = HoldersOf(fleet_.View().value_or(FleetView{}));
  DemoStep step =
      Begin("drain", name + " is drained of " + std::to_string(cameras) + " cameras", cameras);
  const auto view = fleet_.View();
  if (!view || !view->recorders.contains(name)) {
    throw std::runtime_error(name + " has no settings in the engine");
  }
  auto settings = view->recorders.at(name);
  settings.drain = true;
  fleet_.Client().Put(cms::fleet::RecorderKey(name), ValueOf(settings));
  WaitTaken(step, name);
  Finish(std::move(step), before);
  settings.drain = false;
  fleet_.Client().Put(cms::fleet::RecorderKey(name), ValueOf(settings));
}

void Demo::Report() {
  const RecordedTimes times = ReadRecordedTimes(fleet_.DataFolders());
  nlohmann::ordered_json rows = nlohmann::ordered_json::array();
  Say("\nstep     cameras  claimed s  recorded s  moved  longest gap s  recorded twice s");
  for (DemoStep& step : steps_) {
    for (const auto& [site, name] : fleet_.Cameras()) {
      step.longestGap = std::max(step.longestGap, times.LongestGap(site, step.window));
      step.recordedTwice = std::max(step.recordedTwice, times.RecordedTwice(site, step.window));
    }
    char line[160];
    const auto inSeconds = [](std::int64_t value) {
      char text[24] = "-";
      if (value >= 0) {
        std::snprintf(text, sizeof text, "%.1f", static_cast<double>(value) / 1e3);
      }
      return std::string(text);
    };
    std::snprintf(line, sizeof line, "%-8s %7zu %10s %11s %6zu %14s %17s", step.name.c_str(),
                  step.cameras, inSeconds(step.claimed).c_str(), inSeconds(step.recorded).c_str(),
                  step.moved, inSeconds(step.longestGap).c_str(),
                  inSeconds(step.recordedTwice).c_str());
    Say(line);
    rows.push_back({{"step", step.name},
                    {"what", step.what},
                    {"cameras", step.cameras},
                    {"claimed_ms", step.claimed},
                    {"recorded_ms", step.recorded},
                    {"moved", step.moved},
                    {"longest_gap_ms", step.longestGap},
                    {"recorded_twice_ms", step.recordedTwice}});
  }
  if (arguments_.json) {
    PrintJson({{"steps", rows}});
  } else if (!steps_.empty()) {
    const RecordedSpan window{steps_.front().window.from - 5'000, steps_.back().window.to};
    std::printf(
        "\nWhat lies on the recorders' disks, from the first step on, %.1f s each sign:\n%s",
        static_cast<double>(window.to - window.from) / 1e3 / kTimelineColumns,
        Timeline(times, fleet_.Cameras(), window, kTimelineColumns).c_str());
  }
}

int Demo::Run() {
  const std::map<std::string, std::function<void()>> known{
      {"kill", [this] { Kill(); }},
      {"hang", [this] { Hang(); }},
      {"engine", [this] { EngineDies(false); }},
      {"empty", [this] { EngineDies(true); }},
      {"snapshot", [this] { EngineIsOld(); }},
      {"members", [this] { MembersHang(); }},
      {"minority", [this] { MajorityIsGone(); }},
      {"both", [this] { MachineOfBothDies(); }},
      {"power", [this] { PowerFails(); }},
      {"cut", [this] { CutOff(false); }},
      {"alone", [this] { CutOff(true); }},
      {"frozen", [this] { DiskFreezes(); }},
      {"disks", [this] { OneOfTwoDisksFreezes(); }},
      {"restart", [this] { Restart(); }},
      {"drain", [this] { Drain(); }}};
  Start();
  for (const std::string& step : arguments_.steps) {
    const bool isReady = fleet_.WaitFor(kLongestStep, [&](const FleetView& view) {
      return view.members.size() == static_cast<std::size_t>(arguments_.recorders) &&
             IsAllProven(view);
    });
    if (StopRequested() || !isReady) {
      throw std::runtime_error(StopRequested() ? "stopped" : "the step before has not ended well");
    }
    known.at(step)();
  }
  fleet_.EndRecorders();
  Report();
  return 0;
}

}  // namespace

void AddFleetDemoCommand(Command app, FleetResult& result) {
  auto arguments = std::make_shared<DemoArguments>();
  const Command command =
      app.Add("demo", "Let parts of a fleet on this machine fail, and show what was recorded");
  command.AddOption("--recorders", arguments->recorders).InRange(2, 20).ShowDefault();
  command.AddOption("--cameras", arguments->cameras).InRange(1, 100).ShowDefault();
  command
      .AddOption("--steps", arguments->steps,
                 "kill, hang, engine, empty, snapshot, members, minority, both, power, restart, "
                 "drain; as root also cut, alone, frozen, disks [kill,hang,engine,drain]")
      .List()
      .OneOf({"kill", "hang", "engine", "empty", "snapshot", "members", "minority", "both", "power",
              "restart", "drain", "cut", "alone", "frozen", "disks"});
  command.AddOption("--folder", arguments->keep, "keep recordings and logs here").TypeName("DIR");
  command.AddFlag("--json", arguments->json, "print one JSON object");
  RunFleetJob(command, result, [arguments] { return Demo(*arguments).Run(); });
}

}  // namespace tools

// orvanta fleet simulate: what a large fleet costs its engine. The engine and what recorders decide
// are real; the cameras, and that they are recorded, are not.
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <numeric>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "cms/runtime/critical.h"
#include "cms/runtime/thread_annotations.h"
#include "cms/runtime/wake_up.h"
#include "fleet/boot_clock.h"
#include "fleet/fleet_run.h"
#include "fleet/fleet_watch.h"
#include "fleet/whole_file.h"
#include "tools/fleet/demo_engine.h"
#include "tools/fleet/demo_fleet.h"
#include "tools/fleet/fleet_command.h"
#include "tools/support/stop_signal.h"

namespace tools {
namespace {

using cms::fleet::BootTick;
using cms::fleet::CameraCopy;
using cms::fleet::EngineEvent;
using cms::fleet::EngineTransaction;
using cms::fleet::FleetCamera;
using cms::fleet::FleetClaim;
using cms::fleet::RecordedCamera;
using cms::fleet::Tick;

constexpr std::size_t kCamerasAtOnce = 100;  // of one request
constexpr Tick kFirstFrame{300};             // and up to a second more, by the site's number
constexpr unsigned kFirstFrameSpread = 1'000;
constexpr Tick kSimulationLook{200};
constexpr double kRoom = 1.25;  // capacity, for each camera of an even share
constexpr double kMegabyte = 1 << 20;

struct SimulateArguments {
  int recorders = 50;
  int cameras = 10'000;
  int seconds = 30;
  int longest = 300;
  bool json = false;
};

// Cameras whose first frames come after a while, and then for good.
class SimulatedCameras final : public cms::fleet::CameraRecorder {
 public:
  void Record(const std::vector<RecordedCamera>& cameras) override {
    std::map<unsigned, Tick> next;
    for (const RecordedCamera& each : cameras) {
      const unsigned site = each.camera.site;
      const auto known = begins_.find(site);
      next[site] = known != begins_.end()
                       ? known->second
                       : BootTick() + kFirstFrame + Tick(site * 37 % kFirstFrameSpread);
    }
    begins_ = std::move(next);
  }
  cms::fleet::CameraRecorderStatus Status() override {
    cms::fleet::CameraRecorderStatus status;
    status.answers = true;
    for (const auto& [site, begin] : begins_) {
      status.records[site] = BootTick() >= begin;
    }
    return status;
  }

 private:
  std::map<unsigned, Tick> begins_;
};

class SimulatedRecorder {
 public:
  SimulatedRecorder(cms::fleet::FleetRunOptions options, const cms::fleet::SecretKeys& keys)
      : tokens_(options.folder), run_(std::move(options), keys, cameras_, tokens_) {
    thread_ = std::thread([this] { run_.Run(end_.Descriptor()); });
  }
  ~SimulatedRecorder() {
    end_.Signal();
    thread_.join();
  }
  SimulatedRecorder(const SimulatedRecorder&) = delete;
  SimulatedRecorder& operator=(const SimulatedRecorder&) = delete;

  cms::fleet::FleetFigures Figures() const { return run_.Figures(); }

 private:
  SimulatedCameras cameras_;
  cms::fleet::TokenLog tokens_;
  cms::fleet::FleetRun run_;
  cms::WakeUp end_;
  std::thread thread_;
};

// What the engine says, and when it said the last of it. Any thread.
class SimulationView {
 public:
  explicit SimulationView(const cms::fleet::EngineAccess& access)
      : watch_(
            access,
            [this](cms::fleet::FleetView view, std::int64_t) {
              const ScopeLock lock(lock_);
              view_ = std::move(view);
            },
            [this](const EngineEvent& event) { Take(event); }) {}

  // Cameras that this recorder has; of nobody in particular those that are claimed at all.
  std::size_t Claimed(const std::string& recorder = "") const {
    const ScopeLock lock(lock_);
    return static_cast<std::size_t>(std::count_if(
        view_.claims.begin(), view_.claims.end(),
        [&](const auto& claim) { return recorder.empty() || claim.second.recorder == recorder; }));
  }
  std::size_t Recorded() const {
    const ScopeLock lock(lock_);
    std::size_t count = 0;
    for (const auto& [copy, claim] : view_.claims) {
      count += view_.IsProven(copy) ? 1 : 0;
    }
    return count;
  }
  Tick LastClaim() const { return lastClaim_; }
  Tick LastProof() const { return lastProof_; }

 private:
  void Take(const EngineEvent& event) {
    const ScopeLock lock(lock_);
    if (event.deleted) {
      view_.Remove(event.key.key);
      return;
    }
    view_.Put(event.key);
    if (cms::fleet::IsProofKey(event.key.key)) {
      lastProof_ = BootTick();
    } else if (event.key.key.starts_with(std::string(cms::fleet::kFleetPrefix) + "claim/")) {
      lastClaim_ = BootTick();
    }
  }

  mutable CMSCritical lock_;
  cms::fleet::FleetView view_ CMS_GUARDED_BY(lock_);
  std::atomic<Tick> lastClaim_ = Tick{0};
  std::atomic<Tick> lastProof_ = Tick{0};
  cms::fleet::FleetWatch watch_;
};

// Seconds of processor time, of a process of this machine.
double ProcessorSeconds(pid_t process) {
  const std::string text = cms::fleet::ReadWholeFile("/proc/" + std::to_string(process) + "/stat");
  std::istringstream fields(text.substr(text.rfind(')') + 1));
  std::string skipped;
  for (int i = 0; i < 11; ++i) {  // to the 14th and 15th of all
    fields >> skipped;
  }
  double user = 0;
  double system = 0;
  fields >> user >> system;
  return (user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

double ResidentMegabytes(pid_t process) {
  std::istringstream fields(
      cms::fleet::ReadWholeFile("/proc/" + std::to_string(process) + "/statm"));
  double all = 0;
  double resident = 0;
  fields >> all >> resident;
  return resident * static_cast<double>(sysconf(_SC_PAGESIZE)) / kMegabyte;
}

class Simulation {
 public:
  explicit Simulation(const SimulateArguments& arguments)
      : arguments_(arguments),
        folder_(MakeWorkFolder()),
        engine_(folder_, "127.0.0.1"),
        client_(engine_.Access()),
        view_(engine_.Access()) {}
  ~Simulation() {
    recorders_.clear();
    engine_.Kill();
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
  }
  Simulation(const Simulation&) = delete;
  Simulation& operator=(const Simulation&) = delete;

  int Run();

 private:
  void Say(const std::string& text) const {
    if (!arguments_.json) {
      std::printf("%s\n", text.c_str());
      std::fflush(stdout);
    }
  }
  void StartRecorders();
  void AddCameras();
  bool WaitFor(const std::function<bool()>& isTrue) const;
  double EngineSeconds() const;
  void Rest();
  void Kill();
  std::uint64_t Refused() const;

  const SimulateArguments& arguments_;
  const std::string folder_;
  DemoEngine engine_;
  cms::fleet::EngineClient client_;
  SimulationView view_;
  std::shared_ptr<cms::fleet::EngineCounts> counts_ = std::make_shared<cms::fleet::EngineCounts>();
  std::map<std::string, std::unique_ptr<SimulatedRecorder>> recorders_;
  nlohmann::ordered_json figures_;
};

void Simulation::StartRecorders() {
  const std::string key = folder_ + "/secret.key";
  cms::fleet::WriteWholeFile(key, cms::fleet::SecretKeys::MakeFileText());
  const auto keys = cms::fleet::SecretKeys::Read(key);
  client_.Put(cms::fleet::FleetKey(), ValueOf(cms::fleet::FleetSettings{1, true}));
  const auto share = static_cast<double>(arguments_.cameras) / arguments_.recorders;
  for (int i = 1; i <= arguments_.recorders; ++i) {
    cms::fleet::FleetRunOptions options;
    options.engine = engine_.Access();
    options.engine.counts = counts_;
    options.name = "rec" + std::to_string(i);
    options.folder = folder_ + "/" + options.name;
    options.settings = {"", static_cast<unsigned>(share * kRoom) + 2, false};
    std::filesystem::create_directories(options.folder);
    const std::string name = options.name;
    recorders_[name] = std::make_unique<SimulatedRecorder>(std::move(options), keys);
  }
}

void Simulation::AddCameras() {
  for (std::size_t begin = 0; begin < static_cast<std::size_t>(arguments_.cameras);
       begin += kCamerasAtOnce) {
    EngineTransaction all;
    const auto end = std::min(begin + kCamerasAtOnce, static_cast<std::size_t>(arguments_.cameras));
    for (std::size_t i = begin; i < end; ++i) {
      FleetCamera camera;
      camera.site = static_cast<unsigned>(i + 1);
      camera.name = "Camera " + std::to_string(camera.site);
      camera.url = "rtsp://10.0.0.1/" + std::to_string(camera.site);
      all.Put(cms::fleet::CameraKey("cam" + std::to_string(camera.site)), ValueOf(camera));
    }
    // Fifty recorders read what is written, and this machine has to do that for all of them.
    if (!WaitFor([&] { return client_.Transact(all).has_value(); })) {
      throw std::runtime_error("the engine does not answer: " + client_.Problem());
    }
  }
}

bool Simulation::WaitFor(const std::function<bool()>& isTrue) const {
  const Tick until = BootTick() + std::chrono::seconds(arguments_.longest);
  while (!isTrue()) {
    if (BootTick() > until || WaitForStop(kSimulationLook)) {
      return false;
    }
  }
  return true;
}

double Simulation::EngineSeconds() const {
  const auto all = engine_.Processes();
  return std::accumulate(all.begin(), all.end(), 0.0,
                         [](double sum, pid_t process) { return sum + ProcessorSeconds(process); });
}

std::uint64_t Simulation::Refused() const {
  return std::accumulate(recorders_.begin(), recorders_.end(), std::uint64_t{0},
                         [](std::uint64_t sum, const auto& each) {
                           return sum + each.second->Figures().claimsRefused;
                         });
}

// What it costs when nothing happens.
void Simulation::Rest() {
  WaitForStop(std::chrono::seconds(5));  // so that the last proofs are behind it
  const double engine = EngineSeconds();
  const double own = ProcessorSeconds(getpid());
  const auto requests = counts_->requests.load();
  const Tick begun = BootTick();
  WaitForStop(std::chrono::seconds(arguments_.seconds));
  const double lasted = static_cast<double>((BootTick() - begun).count()) / 1e3;
  figures_["requests_per_second"] = static_cast<double>(counts_->requests - requests) / lasted;
  figures_["engine_processor_percent"] = (EngineSeconds() - engine) / lasted * 100;
  figures_["recorder_processor_percent"] =
      (ProcessorSeconds(getpid()) - own) / lasted * 100 / arguments_.recorders;
  double most = 0;
  for (const pid_t process : engine_.Processes()) {
    most = std::max(most, ResidentMegabytes(process));
  }
  figures_["member_megabytes"] = most;
}

void Simulation::Kill() {
  const std::string name = "rec1";
  const auto cameras = view_.Claimed(name);
  const auto refused = Refused() - recorders_.at(name)->Figures().claimsRefused;
  const auto requests = counts_->requests.load();
  const Tick begun = BootTick();
  recorders_.erase(name);  // its lease ends by itself
  const bool taken = WaitFor([&] {
    return view_.Claimed(name) == 0 &&
           view_.Recorded() == static_cast<std::size_t>(arguments_.cameras);
  });
  const double lasted = static_cast<double>((BootTick() - begun).count()) / 1e3;
  figures_["killed_cameras"] = cameras;
  figures_["claimed_ms"] = taken ? (view_.LastClaim() - begun).count() : -1;
  figures_["recorded_ms"] = taken ? (view_.LastProof() - begun).count() : -1;
  figures_["claims_refused"] = Refused() - refused;
  figures_["requests_per_second_meanwhile"] =
      static_cast<double>(counts_->requests - requests) / lasted;
}

int Simulation::Run() {
  StartRecorders();
  Say("an engine of three members, " + std::to_string(arguments_.recorders) + " recorders");
  AddCameras();
  const Tick begun = BootTick();
  const bool all =
      WaitFor([&] { return view_.Recorded() == static_cast<std::size_t>(arguments_.cameras); });
  figures_ = {{"recorders", arguments_.recorders}, {"cameras", arguments_.cameras}};
  figures_["first_claims_ms"] = all ? (view_.LastProof() - begun).count() : -1;
  if (all) {
    Say("all cameras have a recorder; waiting " + std::to_string(arguments_.seconds) + " s");
    Rest();
    Say("a recorder dies");
    Kill();
  }
  if (arguments_.json) {
    PrintJson(figures_);
  } else {
    for (const auto& [name, value] : figures_.items()) {
      std::printf("%-30s %s\n", name.c_str(), value.dump().c_str());
    }
  }
  return all && figures_["claimed_ms"] >= 0 ? 0 : kSomeAreNot;
}

}  // namespace

void AddFleetSimulateCommand(Command app, FleetResult& result) {
  auto arguments = std::make_shared<SimulateArguments>();
  const Command command = app.Add(
      "simulate", "What a fleet of that size costs an engine on this machine; without cameras");
  command.AddOption("--recorders", arguments->recorders).InRange(2, 200).ShowDefault();
  command.AddOption("--cameras", arguments->cameras).InRange(1, 100'000).ShowDefault();
  command.AddOption("--seconds", arguments->seconds, "of rest that are measured")
      .InRange(1, 3'600)
      .ShowDefault();
  command.AddFlag("--json", arguments->json, "print one JSON object");
  RunFleetJob(command, result, [arguments] { return Simulation(*arguments).Run(); });
}

}  // namespace tools

// orvanta fleet drain, undrain, move and rebalance.
#include <chrono>
#include <cstdio>
#include <memory>
#include <stdexcept>

#include "fleet/planner.h"
#include "tools/fleet/fleet_command.h"
#include "tools/support/stop_signal.h"

namespace tools {
namespace {

using cms::fleet::CameraCopy;
using cms::fleet::EngineClient;
using cms::fleet::EngineTransaction;
using cms::fleet::FleetClaim;
using cms::fleet::FleetView;
using cms::fleet::PlannedMove;

constexpr std::chrono::milliseconds kLookAgain{300};
constexpr int kMoveTtl = 20;  // seconds until a move that the target does not make ends
constexpr std::size_t kAllMoves = 8;

struct MoveArguments {
  FleetArguments fleet;
  std::string recorder;
  std::string camera;
  unsigned copy = 0;
  bool wait = false;
  bool dryRun = false;
};

std::size_t CamerasOf(const FleetView& view, const std::string& recorder) {
  std::size_t count = 0;
  for (const CameraCopy& copy : view.Copies()) {
    const FleetClaim* claim = view.ClaimOf(copy);
    count += claim != nullptr && claim->recorder == recorder ? 1 : 0;
  }
  return count;
}

int Drain(const MoveArguments& arguments, bool drain) {
  EngineClient engine(AccessOf(arguments.fleet));
  FleetView view = LoadFleet(engine);
  const auto found = view.recorders.find(arguments.recorder);
  if (found == view.recorders.end()) {
    throw std::runtime_error(arguments.recorder + ": there is no such recorder");
  }
  auto settings = found->second;
  settings.drain = drain;
  if (!engine.Put(cms::fleet::RecorderKey(arguments.recorder), ValueOf(settings))) {
    throw EngineIsAway(engine);
  }
  std::size_t left = CamerasOf(view, arguments.recorder);
  while (drain && arguments.wait && left > 0 && !WaitForStop(kLookAgain)) {
    left = CamerasOf(LoadFleet(engine), arguments.recorder);
  }
  if (arguments.fleet.json) {
    PrintJson({{"recorder", arguments.recorder}, {"drain", drain}, {"cameras", left}});
  } else {
    std::printf("%s is %s; it has %zu cameras\n", arguments.recorder.c_str(),
                drain ? "drained" : "in use", left);
  }
  return drain && arguments.wait && left > 0 ? kSomeAreNot : kAllRecorded;
}

void Write(EngineClient& engine, const FleetView& view, const std::vector<PlannedMove>& moves) {
  const auto lease = engine.Grant(kMoveTtl);
  if (!lease) {
    throw EngineIsAway(engine);
  }
  for (const PlannedMove& move : moves) {
    const std::int64_t claim = view.ClaimOf(move.copy)->modRevision;
    const auto answer = engine.Transact(
        EngineTransaction()
            .IfChanged(ClaimKey(move.copy), claim)
            .IfCreated(MoveKey(move.copy), 0)
            .Put(MoveKey(move.copy), ValueOf(cms::fleet::FleetMove{move.from, move.to, claim, 0}),
                 lease->lease));
    if (!answer) {
      throw EngineIsAway(engine);
    }
    if (!answer->succeeded) {
      throw std::runtime_error(move.copy.camera + ": it is moving already: try again");
    }
  }
}

int Move(const MoveArguments& arguments) {
  EngineClient engine(AccessOf(arguments.fleet));
  const FleetView view = LoadFleet(engine);
  const CameraCopy copy{arguments.camera, arguments.copy};
  const FleetClaim* claim = view.ClaimOf(copy);
  if (claim == nullptr || !view.cameras.contains(copy.camera)) {
    throw std::runtime_error(arguments.camera + ": nobody has such a camera");
  }
  if (!view.Lives(arguments.recorder)) {
    throw std::runtime_error(arguments.recorder + ": no such recorder lives");
  }
  for (unsigned other = 0; other < cms::fleet::kMostCopies; ++other) {
    const FleetClaim* held = view.ClaimOf({copy.camera, other});
    if (held != nullptr && held->recorder == arguments.recorder) {
      throw std::runtime_error(arguments.recorder + " has " + copy.camera + " already");
    }
  }
  const PlannedMove move{copy, claim->recorder, arguments.recorder};
  Write(engine, view, {move});
  bool moved = false;
  for (int look = 0; look * kLookAgain < std::chrono::seconds(kMoveTtl) && !moved; ++look) {
    if (WaitForStop(kLookAgain)) {
      break;
    }
    const FleetView now = LoadFleet(engine);
    const FleetClaim* held = now.ClaimOf(copy);
    moved = held != nullptr && held->recorder == arguments.recorder;
  }
  if (arguments.fleet.json) {
    PrintJson({{"camera", copy.camera}, {"from", move.from}, {"to", move.to}, {"moved", moved}});
  } else {
    std::printf("%s: %s\n", copy.camera.c_str(),
                moved ? ("recorded by " + move.to).c_str()
                      : (move.to + " recorded nothing of it, so it stays at " + move.from).c_str());
  }
  return moved ? kAllRecorded : kSomeAreNot;
}

int Rebalance(const MoveArguments& arguments) {
  EngineClient engine(AccessOf(arguments.fleet));
  const FleetView view = LoadFleet(engine);
  std::vector<std::string> living;
  for (const auto& [name, member] : view.members) {
    living.push_back(name);
  }
  const auto moves = PlanMoves(view, living, kAllMoves, true);
  nlohmann::ordered_json list = nlohmann::ordered_json::array();
  for (const PlannedMove& move : moves) {
    list.push_back({{"camera", move.copy.camera}, {"from", move.from}, {"to", move.to}});
    if (!arguments.fleet.json) {
      std::printf("%-20s %s -> %s\n", move.copy.camera.c_str(), move.from.c_str(), move.to.c_str());
    }
  }
  if (!arguments.dryRun && !moves.empty()) {
    Write(engine, view, moves);
  }
  if (arguments.fleet.json) {
    PrintJson({{"moves", list}});
  }
  return 0;
}

}  // namespace

void AddFleetRecorderCommands(Command app, FleetResult& result) {
  const auto add = [&](const char* name, const char* help, auto options, auto job) {
    auto arguments = std::make_shared<MoveArguments>();
    const Command command = app.Add(name, help);
    AddEngineOptions(command, arguments->fleet);
    options(command, *arguments);
    AddFleetJson(command, arguments->fleet);
    RunFleetJob(command, result, [arguments, job] { return job(*arguments); });
  };
  const auto named = [](Command command, MoveArguments& arguments) {
    command.AddOption("RECORDER", arguments.recorder).Required();
  };
  add(
      "drain", "Have a recorder's cameras moved to others, without a gap",
      [&](Command command, MoveArguments& arguments) {
        named(command, arguments);
        command.AddFlag("--wait", arguments.wait, "until it has none");
      },
      [](const MoveArguments& arguments) { return Drain(arguments, true); });
  add("undrain", "Let a recorder have cameras again", named,
      [](const MoveArguments& arguments) { return Drain(arguments, false); });
  add(
      "move", "Move a camera to another recorder, without a gap",
      [](Command command, MoveArguments& arguments) {
        command.AddOption("CAMERA", arguments.camera).Required();
        command.AddOption("--to", arguments.recorder, "that recorder").Required();
        command.AddOption("--copy", arguments.copy, "of a camera with several");
      },
      &Move);
  add(
      "rebalance", "Move some cameras from the fullest recorders to the emptiest",
      [](Command command, MoveArguments& arguments) {
        command.AddFlag("--dry-run", arguments.dryRun, "only say which");
      },
      &Rebalance);
}

}  // namespace tools

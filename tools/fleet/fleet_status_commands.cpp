// orvanta fleet status, cameras, recorders and moves: what the engine knows at this moment.
#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>

#include "fleet/planner.h"
#include "tools/fleet/fleet_command.h"
#include "tools/support/time_text.h"

namespace tools {
namespace {

using cms::fleet::CameraCopy;
using cms::fleet::FleetClaim;
using cms::fleet::FleetView;
using nlohmann::ordered_json;

struct ListArguments {
  FleetArguments fleet;
  bool unplaced = false;
};

std::string StateOf(const FleetView& view, const CameraCopy& copy) {
  const FleetClaim* claim = view.ClaimOf(copy);
  if (claim == nullptr) {
    return "unplaced";
  }
  if (!view.Lives(claim->recorder)) {
    return "dead";
  }
  return view.IsProven(copy) ? "recorded" : "missing";
}

ordered_json CamerasJson(const FleetView& view, bool unplacedOnly) {
  ordered_json cameras = ordered_json::array();
  for (const CameraCopy& copy : view.Copies()) {
    const auto& camera = view.cameras.at(copy.camera);
    const FleetClaim* claim = view.ClaimOf(copy);
    const std::string state = StateOf(view, copy);
    if (unplacedOnly && state != "unplaced" && state != "dead") {
      continue;
    }
    cameras.push_back({{"camera", copy.camera},
                       {"copy", copy.copy},
                       {"site", camera.site},
                       {"name", camera.name},
                       {"url", camera.url},
                       {"group", camera.group},
                       {"state", state},
                       {"recorder", claim == nullptr ? "" : claim->recorder},
                       {"was", claim == nullptr ? "" : claim->was},
                       {"why", claim == nullptr ? "" : claim->why},
                       {"since", claim == nullptr ? 0 : claim->time}});
  }
  return cameras;
}

ordered_json RecordersJson(const FleetView& view) {
  const auto loads = cms::fleet::LoadsOf(view);
  ordered_json recorders = ordered_json::array();
  for (const auto& [name, settings] : view.recorders) {
    const auto load = loads.find(name);
    ordered_json recorder = {{"recorder", name},
                             {"lives", view.Lives(name)},
                             {"planner", view.planner == name},
                             {"group", settings.group},
                             {"capacity", settings.capacity},
                             {"load", load == loads.end() ? 0 : load->second},
                             {"drain", settings.drain}};
    if (const auto gone = view.gone.find(name); gone != view.gone.end()) {
      recorder["gone"] = gone->second;
    }
    recorders.push_back(std::move(recorder));
  }
  return recorders;
}

std::size_t Count(const ordered_json& cameras, const char* state) {
  return static_cast<std::size_t>(
      std::count_if(cameras.begin(), cameras.end(),
                    [&](const ordered_json& camera) { return camera["state"] == state; }));
}

int FleetStatus(const FleetArguments& arguments) {
  cms::fleet::EngineClient engine(AccessOf(arguments));
  const FleetView view = LoadFleet(engine);
  const ordered_json cameras = CamerasJson(view, false);
  const std::size_t recorded = Count(cameras, "recorded");
  const bool all = recorded == cameras.size();
  if (arguments.json) {
    PrintJson({{"ok", all},
               {"cameras", cameras.size()},
               {"recorded", recorded},
               {"missing", Count(cameras, "missing")},
               {"dead", Count(cameras, "dead")},
               {"unplaced", Count(cameras, "unplaced")},
               {"moves", view.moves.size()},
               {"recorders", RecordersJson(view)}});
  } else {
    std::printf(
        "%zu of %zu cameras are recorded; %zu are missing, %zu of dead recorders, %zu without a "
        "place\n",
        recorded, cameras.size(), Count(cameras, "missing"), Count(cameras, "dead"),
        Count(cameras, "unplaced"));
    std::printf("%zu of %zu recorders live; %zu cameras are moving\n", view.members.size(),
                view.recorders.size(), view.moves.size());
  }
  return all ? kAllRecorded : kSomeAreNot;
}

int ListCameras(const ListArguments& arguments) {
  cms::fleet::EngineClient engine(AccessOf(arguments.fleet));
  const ordered_json cameras = CamerasJson(LoadFleet(engine), arguments.unplaced);
  if (arguments.fleet.json) {
    PrintJson({{"cameras", cameras}});
  } else {
    for (const ordered_json& camera : cameras) {
      std::printf("%s%-20s %-9s %-12s %s\n", camera["state"] == "recorded" ? "  " : "! ",
                  camera.value("camera", "").c_str(), camera.value("state", "").c_str(),
                  camera.value("recorder", "").c_str(), camera.value("name", "").c_str());
    }
  }
  return Count(cameras, "recorded") == cameras.size() ? kAllRecorded : kSomeAreNot;
}

int ListRecorders(const FleetArguments& arguments) {
  cms::fleet::EngineClient engine(AccessOf(arguments));
  const FleetView view = LoadFleet(engine);
  const ordered_json recorders = RecordersJson(view);
  if (arguments.json) {
    PrintJson({{"recorders", recorders}});
    return 0;
  }
  for (const ordered_json& recorder : recorders) {
    const std::string name = recorder.value("recorder", "");
    std::printf("%s%-16s %5u of %-5u %s%s%s\n", recorder.value("lives", false) ? "  " : "! ",
                name.c_str(), recorder.value("load", 0u), recorder.value("capacity", 0u),
                recorder.value("lives", false) ? "lives" : "away",
                recorder.value("drain", false) ? ", is drained" : "",
                recorder.value("planner", false) ? ", plans" : "");
    if (recorder.contains("gone")) {
      std::printf("    since %s\n", LocalTime(recorder["gone"].get<std::int64_t>()).c_str());
    }
  }
  return 0;
}

int ListMoves(const FleetArguments& arguments) {
  cms::fleet::EngineClient engine(AccessOf(arguments));
  const FleetView view = LoadFleet(engine);
  ordered_json moves = ordered_json::array();
  for (const auto& [copy, move] : view.moves) {
    moves.push_back(
        {{"camera", copy.camera}, {"copy", copy.copy}, {"from", move.from}, {"to", move.to}});
    if (!arguments.json) {
      std::printf("%-20s %s -> %s\n", copy.camera.c_str(), move.from.c_str(), move.to.c_str());
    }
  }
  if (arguments.json) {
    PrintJson({{"moves", moves}});
  }
  return 0;
}

}  // namespace

void AddFleetStatusCommands(Command app, FleetResult& result) {
  const auto add = [&](const char* name, const char* help, int (*job)(const FleetArguments&)) {
    auto arguments = std::make_shared<FleetArguments>();
    const Command command = app.Add(name, help);
    AddEngineOptions(command, *arguments);
    AddFleetJson(command, *arguments);
    RunFleetJob(command, result, [arguments, job] { return job(*arguments); });
  };
  add("status",
      "How the fleet fares: ends with 0 when all cameras are recorded, 1 when some are not, 2 when "
      "the engine is away",
      &FleetStatus);
  add("recorders", "List the recorders and what they have", &ListRecorders);
  add("moves", "List the cameras that are moving", &ListMoves);
  auto arguments = std::make_shared<ListArguments>();
  const Command cameras = app.Add("cameras", "List the cameras and who records them");
  AddEngineOptions(cameras, arguments->fleet);
  cameras.AddFlag("--unplaced", arguments->unplaced, "only those that no living recorder has");
  AddFleetJson(cameras, arguments->fleet);
  RunFleetJob(cameras, result, [arguments] { return ListCameras(*arguments); });
}

}  // namespace tools

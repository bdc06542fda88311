// How a subcommand joins the orvanta-fleet command line; as in tools/commands/command.h.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "fleet/engine_access.h"
#include "fleet/engine_client.h"
#include "fleet/fleet_view.h"
#include "tools/support/options.h"

namespace tools {

// What a command ends with, besides 1 for a job that failed.
inline constexpr int kAllRecorded = 0;
inline constexpr int kSomeAreNot = 1;
inline constexpr int kEngineAway = 2;

struct FleetResult {
  int status = 0;
};

// How the engine is reached, and whether one JSON object is printed.
struct FleetArguments {
  std::vector<std::string> engine;  // empty: those of $ORVANTA_FLEET_ENGINE
  std::string ca;
  std::string certificate;
  std::string key;
  std::string login;
  std::string passwordFile;
  std::string secretKey;
  bool json = false;
};

// The engine did not answer: the program ends with kEngineAway.
class EngineIsAway : public std::runtime_error {
 public:
  explicit EngineIsAway(const cms::fleet::EngineClient& engine)
      : std::runtime_error("the engine does not answer: " + engine.Problem()) {}
};

void AddEngineOptions(Command command, FleetArguments& arguments);
void AddFleetJson(Command command, FleetArguments& arguments);
// Of a command, which waits long for an answer.
cms::fleet::EngineAccess AccessOf(const FleetArguments& arguments);

// Everything that the engine has, a fleet or not; throws EngineIsAway.
cms::fleet::FleetView AnyFleet(cms::fleet::EngineClient& engine);
// The same; throws std::runtime_error where there is no fleet.
cms::fleet::FleetView LoadFleet(cms::fleet::EngineClient& engine);
void PrintJson(const nlohmann::ordered_json& object);
// Throws UsageError for what is no name of a camera or recorder.
void CheckFleetName(const std::string& option, const std::string& name);
std::string ReadFirstLine(const std::string& path);

// Runs the job with EngineIsAway told as the command's status.
void RunFleetJob(Command command, FleetResult& result, std::function<int()> job);

void AddRunCommand(Command app, FleetResult& result);
void AddInitCommand(Command app, FleetResult& result);
void AddFleetStatusCommands(Command app, FleetResult& result);
void AddFleetCameraCommands(Command app, FleetResult& result);
void AddFleetRecorderCommands(Command app, FleetResult& result);
void AddFleetCheckCommand(Command app, FleetResult& result);
void AddFleetRecordingCommands(Command app, FleetResult& result);
void AddFleetBackupCommands(Command app, FleetResult& result);
void AddFleetDemoCommand(Command app, FleetResult& result);
void AddFleetSimulateCommand(Command app, FleetResult& result);

}  // namespace tools

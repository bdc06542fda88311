// orvanta fleet check: whether the fleet can lose a recorder, or a member of the engine.
#include <chrono>
#include <cstdio>
#include <memory>

#include "fleet/planner.h"
#include "tools/fleet/fleet_command.h"

namespace tools {
namespace {

using cms::fleet::EngineAccess;
using cms::fleet::EngineClient;

constexpr std::int64_t kSlowMember = 500;  // milliseconds of an answer

int Check(const FleetArguments& arguments) {
  const EngineAccess access = AccessOf(arguments);
  EngineClient engine(access);
  const auto view = LoadFleet(engine);
  nlohmann::ordered_json problems = nlohmann::ordered_json::array();
  nlohmann::ordered_json members = nlohmann::ordered_json::array();
  for (const std::string& member : access.members) {
    EngineAccess alone = access;
    alone.members = {member};
    EngineClient one(alone);
    const auto begun = std::chrono::steady_clock::now();
    const bool answers = one.Range(cms::fleet::FleetKey()).has_value();
    const std::int64_t took = std::chrono::duration_cast<std::chrono::milliseconds>(
                                  std::chrono::steady_clock::now() - begun)
                                  .count();
    members.push_back({{"member", member}, {"answers", answers}, {"milliseconds", took}});
    if (!answers) {
      problems.push_back("the engine's member does not answer: " + one.Problem());
    } else if (took > kSlowMember) {
      problems.push_back(member + " took " + std::to_string(took) +
                         " ms to answer: its disk or its machine is too busy");
    }
  }
  if (access.members.size() < 3) {
    problems.push_back("with fewer than three members the engine cannot lose one");
  }
  for (const auto& [name, recorder] : view.recorders) {
    if (!view.Lives(name)) {
      problems.push_back("the recorder " + name + " is away");
    }
  }
  const unsigned missing = cms::fleet::MissingWithoutOne(view);
  if (view.members.empty()) {
    problems.push_back("no recorder lives");
  } else if (missing > 0) {
    problems.push_back("if one recorder died, cameras of weight " + std::to_string(missing) +
                       " would have no place: add a recorder, or raise --capacity");
  }
  std::size_t missed = 0;
  for (const auto& copy : view.Copies()) {
    missed += view.IsProven(copy) ? 0 : 1;
  }
  if (missed > 0) {
    problems.push_back(std::to_string(missed) + " cameras are not recorded");
  }
  if (arguments.json) {
    PrintJson({{"ok", problems.empty()}, {"problems", problems}, {"members", members}});
  } else {
    for (const auto& problem : problems) {
      std::printf("! %s\n", problem.get<std::string>().c_str());
    }
    std::printf("%s\n", problems.empty() ? "the fleet is sound: it can lose any one recorder"
                                         : "the fleet is not sound");
  }
  return problems.empty() ? kAllRecorded : kSomeAreNot;
}

}  // namespace

void AddFleetCheckCommand(Command app, FleetResult& result) {
  auto arguments = std::make_shared<FleetArguments>();
  const Command command =
      app.Add("check", "Look for what would hurt: ends with 0 only when any one recorder may die");
  AddEngineOptions(command, *arguments);
  AddFleetJson(command, *arguments);
  RunFleetJob(command, result, [arguments] { return Check(*arguments); });
}

}  // namespace tools

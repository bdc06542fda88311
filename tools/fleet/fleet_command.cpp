#include "tools/fleet/fleet_command.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace tools {

using cms::fleet::EngineAccess;
using cms::fleet::EngineClient;
using cms::fleet::FleetView;

void AddEngineOptions(Command command, FleetArguments& arguments) {
  command
      .AddOption("--engine", arguments.engine,
                 "members of the engine, such as https://e1:2379,https://e2:2379; else those of "
                 "$ORVANTA_FLEET_ENGINE")
      .List();
  command.AddOption("--ca", arguments.ca, "whose certificates are believed (PEM)");
  command.AddOption("--cert", arguments.certificate, "certificate shown to the engine (PEM)");
  command.AddOption("--key", arguments.key, "its key (PEM)");
  command.AddOption("--login", arguments.login, "user of the engine");
  command.AddOption("--password-file", arguments.passwordFile, "its first line is the password");
}

void AddFleetJson(Command command, FleetArguments& arguments) {
  command.AddFlag("--json", arguments.json, "print one JSON object");
}

std::string ReadFirstLine(const std::string& path) {
  std::ifstream file(path);
  std::string line;
  if (!std::getline(file, line)) {
    throw std::runtime_error(path + ": it cannot be read, or its first line is missing");
  }
  return line;
}

EngineAccess AccessOf(const FleetArguments& arguments) {
  EngineAccess access{arguments.engine, arguments.ca,    arguments.certificate,
                      arguments.key,    arguments.login, ""};
  access.waitsLong = true;
  const char* members = std::getenv("ORVANTA_FLEET_ENGINE");
  if (access.members.empty() && members != nullptr) {
    std::istringstream list(members);
    for (std::string member; std::getline(list, member, ',');) {
      access.members.push_back(member);
    }
  }
  if (access.members.empty()) {
    throw UsageError("--engine", "name the members of the engine");
  }
  for (const std::string& member : access.members) {
    if (!member.starts_with("http://") && !member.starts_with("https://")) {
      throw UsageError("--engine", member + " does not begin with http:// or https://");
    }
  }
  if (!arguments.passwordFile.empty()) {
    access.password = ReadFirstLine(arguments.passwordFile);
  }
  return access;
}

FleetView AnyFleet(EngineClient& engine) {
  const auto keys = engine.Load(cms::fleet::kFleetPrefix);
  if (!keys) {
    throw EngineIsAway(engine);
  }
  FleetView view;
  for (const auto& key : keys->keys) {
    view.Put(key);
  }
  return view;
}

FleetView LoadFleet(EngineClient& engine) {
  FleetView view = AnyFleet(engine);
  if (view.settings.generation == 0) {
    throw std::runtime_error("there is no fleet in this engine: run orvanta fleet init");
  }
  return view;
}

void PrintJson(const nlohmann::ordered_json& object) {
  std::printf("%s\n",
              object.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace).c_str());
}

void CheckFleetName(const std::string& option, const std::string& name) {
  if (!cms::fleet::IsFleetName(name)) {
    throw UsageError(option,
                     "\"" + name + "\" is no name: 1 to 64 letters, digits, '-', '_' and '.' are");
  }
}

void RunFleetJob(Command command, FleetResult& result, std::function<int()> job) {
  command.Run([&result, job = std::move(job)] {
    try {
      result.status = job();
    } catch (const EngineIsAway& error) {
      std::fprintf(stderr, "orvanta fleet: %s\n", error.what());
      result.status = kEngineAway;
    }
  });
}

}  // namespace tools

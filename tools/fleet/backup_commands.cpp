// orvanta fleet backup, restore and adopt: what was configured outlives the engine.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>

#include "fleet/whole_file.h"
#include "tools/fleet/fleet_command.h"
#include "tools/support/stop_signal.h"

namespace tools {
namespace {

using cms::fleet::EngineClient;
using cms::fleet::EngineTransaction;
using cms::fleet::FleetView;
using nlohmann::ordered_json;

constexpr std::size_t kPutsAtOnce = 60;
constexpr std::chrono::milliseconds kAdoptLook{300};

struct BackupArguments {
  FleetArguments fleet;
  std::string file;
  int seconds = 30;
};

// A key of the backup and its value. Who has which camera is no part of it: recorders say that
// themselves, and an old word on it would be wrong.
using SavedKeys = std::vector<std::pair<std::string, std::string>>;

SavedKeys KeysToSave(const FleetView& view) {
  SavedKeys keys{{cms::fleet::NextSiteKey(), std::to_string(view.nextSite)}};
  for (const auto& [name, camera] : view.cameras) {
    keys.emplace_back(cms::fleet::CameraKey(name), ValueOf(camera));
  }
  for (const auto& [name, recorder] : view.recorders) {
    keys.emplace_back(cms::fleet::RecorderKey(name), ValueOf(recorder));
  }
  return keys;
}

int BackUp(const BackupArguments& arguments) {
  EngineClient engine(AccessOf(arguments.fleet));
  const FleetView view = LoadFleet(engine);
  ordered_json keys = ordered_json::array();
  for (const auto& [key, value] : KeysToSave(view)) {
    keys.push_back({{"key", key}, {"value", value}});
  }
  const std::string text =
      ordered_json{{"generation", view.settings.generation}, {"keys", keys}}.dump(1) + "\n";
  if (!cms::fleet::WriteWholeFile(arguments.file, text)) {
    throw std::runtime_error(arguments.file + ": it cannot be written");
  }
  if (arguments.fleet.json) {
    PrintJson({{"cameras", view.cameras.size()}, {"recorders", view.recorders.size()}});
  } else {
    std::printf("%s: %zu cameras, %zu recorders\n", arguments.file.c_str(), view.cameras.size(),
                view.recorders.size());
  }
  return 0;
}

// With a generation that no recorder has seen: claims of now are later than all of before.
std::int64_t BeginGeneration(EngineClient& engine, const FleetView& view, std::int64_t saved) {
  const std::int64_t generation = std::max(view.settings.generation, saved) + 1;
  if (!engine.Put(cms::fleet::FleetKey(),
                  ValueOf(cms::fleet::FleetSettings{generation, view.settings.rebalance}))) {
    throw EngineIsAway(engine);
  }
  return generation;
}

// Only what the engine lacks: what recorders wrote again is newer.
int Restore(const BackupArguments& arguments) {
  std::ifstream file(arguments.file);
  if (!file) {
    throw std::runtime_error(arguments.file + ": it cannot be read");
  }
  const auto backup = nlohmann::json::parse(file, nullptr, false);
  EngineClient engine(AccessOf(arguments.fleet));
  const FleetView before = AnyFleet(engine);
  FleetView saved;
  std::int64_t generation = 0;
  try {
    generation = backup.at("generation").get_ref<const nlohmann::json::number_integer_t&>();
    for (const auto& each : backup.at("keys")) {
      saved.Put({each.at("key").get<std::string>(), each.at("value").get<std::string>(), 0, 0, 0});
    }
  } catch (const nlohmann::json::exception&) {
    generation = -1;
  }
  if (generation < 0 || generation > cms::fleet::kMostGenerations) {
    throw std::runtime_error(arguments.file + ": this is no backup of a fleet");
  }
  std::size_t cameras = 0;
  std::size_t recorders = 0;
  SavedKeys lacking;
  for (const auto& [name, camera] : saved.cameras) {
    if (!before.cameras.contains(name)) {
      ++cameras;
      lacking.emplace_back(cms::fleet::CameraKey(name), ValueOf(camera));
    }
  }
  for (const auto& [name, recorder] : saved.recorders) {
    if (!before.recorders.contains(name)) {
      ++recorders;
      lacking.emplace_back(cms::fleet::RecorderKey(name), ValueOf(recorder));
    }
  }
  unsigned next = std::max(before.nextSite, saved.nextSite);
  for (const FleetView* view : {&before, &std::as_const(saved)}) {
    for (const auto& [name, camera] : view->cameras) {
      next = std::max(next, camera.site + 1);
    }
  }
  lacking.emplace_back(cms::fleet::NextSiteKey(), std::to_string(next));
  for (std::size_t begin = 0; begin < lacking.size(); begin += kPutsAtOnce) {
    EngineTransaction all;
    for (std::size_t i = begin; i < std::min(begin + kPutsAtOnce, lacking.size()); ++i) {
      all.Put(lacking[i].first, lacking[i].second);
    }
    if (!engine.Transact(all)) {
      throw EngineIsAway(engine);
    }
  }
  generation = BeginGeneration(engine, before, generation);
  if (arguments.fleet.json) {
    PrintJson({{"cameras", cameras}, {"recorders", recorders}, {"generation", generation}});
  } else {
    std::printf("%zu cameras and %zu recorders were missing and are there again\n", cameras,
                recorders);
  }
  return 0;
}

// Recorders write what they record into an engine that lacks it; this waits until nothing comes any
// more.
int Adopt(const BackupArguments& arguments) {
  EngineClient engine(AccessOf(arguments.fleet));
  FleetView view = AnyFleet(engine);
  if (view.settings.generation == 0) {
    BeginGeneration(engine, view, 0);
  }
  std::size_t proven = 0;
  const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(arguments.seconds);
  while (std::chrono::steady_clock::now() < until && !WaitForStop(kAdoptLook)) {
    view = AnyFleet(engine);
    const auto copies = view.Copies();
    proven =
        static_cast<std::size_t>(std::count_if(copies.begin(), copies.end(), [&](const auto& copy) {
          const auto* claim = view.ClaimOf(copy);
          return claim != nullptr && view.Lives(claim->recorder);
        }));
  }
  if (arguments.fleet.json) {
    PrintJson({{"cameras", view.cameras.size()},
               {"claimed", proven},
               {"recorders", view.members.size()}});
  } else {
    std::printf("%zu cameras, %zu of them claimed, by %zu recorders that live\n",
                view.cameras.size(), proven, view.members.size());
  }
  return view.members.empty() ? kSomeAreNot : kAllRecorded;
}

}  // namespace

void AddFleetBackupCommands(Command app, FleetResult& result) {
  const auto add = [&](const char* name, const char* help, bool hasFile, auto job) {
    auto arguments = std::make_shared<BackupArguments>();
    const Command command = app.Add(name, help);
    AddEngineOptions(command, arguments->fleet);
    if (hasFile) {
      command.AddOption("FILE", arguments->file).Required();
    } else {
      command.AddOption("--seconds", arguments->seconds, "how long").InRange(1, 600).ShowDefault();
    }
    AddFleetJson(command, arguments->fleet);
    RunFleetJob(command, result, [arguments, job] { return job(*arguments); });
  };
  add("backup", "Write what is configured into a file; passwords stay sealed", true, &BackUp);
  add("restore", "Put back what the engine lacks of a backup", true, &Restore);
  add("adopt", "Have the recorders write what they record into an empty engine", false, &Adopt);
}

}  // namespace tools

// orvanta fleet search, play and export: recordings of all recorders as one.
#include <stdlib.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <set>
#include <stdexcept>

#include "fleet/camera_secret.h"
#include "fleet/day_record.h"
#include "tools/fleet/child_process.h"
#include "tools/fleet/fleet_command.h"
#include "tools/fleet/fleet_recordings.h"
#include "tools/support/stop_signal.h"
#include "tools/support/time_text.h"

namespace tools {
namespace {

using nlohmann::ordered_json;

constexpr std::chrono::milliseconds kChildLook{50};

struct RecordingArguments {
  FleetArguments fleet;
  std::string from;
  std::string to;
  std::string days;  // month
  std::vector<std::string> cameras;
  std::string out;
  std::vector<std::string> rest;  // what the command of one machine is told besides
  bool partial = false;
};

// A folder that is gone with everything in it at the end.
class GatheredFolder {
 public:
  GatheredFolder() {
    path_ = (std::filesystem::temp_directory_path() / "orvanta-fleet-XXXXXX").string();
    if (mkdtemp(path_.data()) == nullptr) {
      throw std::runtime_error(path_ + ": no folder can be made; set TMPDIR to one with room");
    }
  }
  ~GatheredFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  GatheredFolder(const GatheredFolder&) = delete;
  GatheredFolder& operator=(const GatheredFolder&) = delete;
  const std::string& Path() const { return path_; }

 private:
  std::string path_;
};

cms::fleet::PeerClient PeersOf(const FleetArguments& arguments) {
  const auto [user, password] = cms::fleet::SecretKeys::Read(arguments.secretKey).PeerLogin();
  return cms::fleet::PeerClient(
      {arguments.ca, arguments.certificate, arguments.key, user, password});
}

// What the catalogue knows, without asking a recorder: also of those that are away.
int ListDays(const RecordingArguments& arguments) {
  cms::fleet::EngineClient engine(AccessOf(arguments.fleet));
  const auto view = LoadFleet(engine);
  std::set<std::uint32_t> sites;
  for (const std::string& name : arguments.cameras) {
    const auto camera = view.cameras.find(name);
    sites.insert(camera == view.cameras.end() ? 0 : camera->second.site);
  }
  const std::int64_t first = ReadTime("--month", arguments.days + "-01T00:00:00Z") / 86'400;
  const auto keys = engine.Range(cms::fleet::DayKeyFrom(first), cms::fleet::DayKeyFrom(first + 31));
  if (!keys) {
    throw EngineIsAway(engine);
  }
  std::map<std::string, std::set<std::string>> days;
  for (const auto& key : keys->keys) {
    const auto parts = cms::fleet::ReadDayKey(key.key);
    const auto record = cms::fleet::DecodeDay(key.value);
    for (const auto& [site, held] : parts&& record ? *record : cms::fleet::DayRecord{}) {
      const std::string day = parts ? UtcTime(parts->day * 86'400).substr(0, 10) : "";
      if (day.starts_with(arguments.days) && (sites.empty() || sites.contains(site))) {
        days[day].insert(parts->recorder);
      }
    }
  }
  ordered_json list = ordered_json::array();
  for (const auto& [day, recorders] : days) {
    list.push_back({{"day", day}, {"recorders", recorders}});
    if (!arguments.fleet.json) {
      std::printf("%s", day.c_str());
      for (const std::string& recorder : recorders) {
        std::printf(" %s%s", recorder.c_str(), view.Lives(recorder) ? "" : " (away)");
      }
      std::printf("\n");
    }
  }
  if (arguments.fleet.json) {
    PrintJson({{"days", list}});
  }
  return 0;
}

ordered_json JsonOf(const FleetRecordings& found) {
  ordered_json holders = ordered_json::array();
  ordered_json spans = ordered_json::array();
  ordered_json also = ordered_json::array();
  ordered_json missing = ordered_json::array();
  for (const FleetHolder& holder : found.holders) {
    ordered_json each = {{"recorder", holder.recorder}, {"state", holder.state}};
    if (holder.since != 0) {
      each["since"] = holder.since;
    }
    if (!holder.problem.empty()) {
      each["problem"] = holder.problem;
    }
    holders.push_back(std::move(each));
  }
  const auto add = [](ordered_json& list, const FleetSite& site, const auto& piece) {
    list.push_back({{"camera", site.camera},
                    {"site", site.site},
                    {"recorder", piece.recorder},
                    {"from_ms", piece.from},
                    {"to_ms", piece.to}});
  };
  for (const FleetSite& site : found.sites) {
    for (const auto& piece : site.pieces) {
      add(spans, site, piece);
    }
    for (const auto& piece : site.held) {
      for (const auto& shown : site.pieces) {
        if (piece.recorder != shown.recorder && piece.from < shown.to && piece.to > shown.from) {
          auto both = piece;
          both.from = std::max(piece.from, shown.from);
          both.to = std::min(piece.to, shown.to);
          add(also, site, both);
        }
      }
    }
    for (const auto& hours : site.missing) {
      add(missing, site, hours);
    }
  }
  return {{"complete", found.IsComplete()},
          {"spans", spans},
          {"also_at", also},
          {"holders", holders},
          {"missing", missing}};
}

void PrintMissing(const FleetRecordings& found, std::FILE* out) {
  for (const FleetSite& site : found.sites) {
    for (const auto& hours : site.missing) {
      std::string why;
      for (const FleetHolder& holder : found.holders) {
        if (holder.recorder == hours.recorder) {
          why = holder.since != 0 ? "away since " + LocalTime(holder.since) : holder.problem;
        }
      }
      std::fprintf(out, "! %s: there are recordings between %s and %s at %s: %s\n",
                   site.camera.c_str(), LocalTime(hours.from / 1'000).c_str(),
                   LocalTime(hours.to / 1'000).c_str(), hours.recorder.c_str(), why.c_str());
    }
  }
}

FleetRecordings FindAll(const RecordingArguments& arguments, cms::fleet::EngineClient& engine,
                        cms::fleet::PeerClient& peers) {
  const std::int64_t from = ReadTime("--from", arguments.from);
  const std::int64_t to = ReadTime("--to", arguments.to, DayEdge::kLastSecond) + 1;
  if (from >= to) {
    throw UsageError("--to", "lies before --from");
  }
  return FindFleetRecordings(engine, peers, arguments.cameras, from * 1'000, to * 1'000);
}

int SearchFleet(const RecordingArguments& arguments) {
  if (!arguments.days.empty()) {
    return ListDays(arguments);
  }
  if (arguments.from.empty() || arguments.to.empty() || arguments.fleet.secretKey.empty()) {
    throw UsageError("say --month YYYY-MM, or --from TIME, --to TIME and --secret-key FILE");
  }
  cms::fleet::EngineClient engine(AccessOf(arguments.fleet));
  cms::fleet::PeerClient peers = PeersOf(arguments.fleet);
  const FleetRecordings found = FindAll(arguments, engine, peers);
  if (arguments.fleet.json) {
    PrintJson(JsonOf(found));
  } else {
    for (const FleetSite& site : found.sites) {
      for (const auto& piece : site.pieces) {
        std::printf("  %-20s %s to %s  %s\n", site.camera.c_str(),
                    LocalTime(piece.from / 1'000).c_str(), LocalTime(piece.to / 1'000).c_str(),
                    piece.recorder.c_str());
      }
    }
    PrintMissing(found, stdout);
  }
  return found.IsComplete() ? kAllRecorded : kSomeAreNot;
}

int RunOnGathered(const RecordingArguments& arguments, bool plays) {
  cms::fleet::EngineClient engine(AccessOf(arguments.fleet));
  cms::fleet::PeerClient peers = PeersOf(arguments.fleet);
  const FleetRecordings found = FindAll(arguments, engine, peers);
  PrintMissing(found, stderr);
  if (!found.IsComplete() && !arguments.partial) {
    throw std::runtime_error("not all of it can be had now; --partial takes what there is");
  }
  const GatheredFolder folder;
  GatherRecordings(LoadFleet(engine), peers, found, folder.Path());
  std::vector<std::string> command{ProgramBeside("orvanta"), plays ? "play" : "export", "--data",
                                   folder.Path()};
  if (!plays) {
    command.insert(command.end(),
                   {"--site", std::to_string(found.sites.front().site), "--from", arguments.from,
                    "--to", arguments.to, std::filesystem::absolute(arguments.out).string()});
  }
  if (arguments.fleet.json) {
    command.push_back("--json");
  }
  command.insert(command.end(), arguments.rest.begin(), arguments.rest.end());
  ChildProcess child(command, {});
  while (child.Runs() && !WaitForStop(kChildLook)) {
  }
  return child.Runs() ? kSomeAreNot : child.Status();
}

}  // namespace

void AddFleetRecordingCommands(Command app, FleetResult& result) {
  const auto add = [&](const char* name, const char* help, auto options, auto job) {
    auto arguments = std::make_shared<RecordingArguments>();
    const Command command = app.Add(name, help);
    AddEngineOptions(command, arguments->fleet);
    command.AddOption("--secret-key", arguments->fleet.secretKey,
                      "file of the key of cameras' passwords, by which recorders know the asker");
    command.AddOption("--from", arguments->from, "2026-11-21T10:30:00 (local), ...Z (UTC), a day");
    command.AddOption("--to", arguments->to, "likewise; a day alone is its end");
    options(command, *arguments);
    AddFleetJson(command, arguments->fleet);
    RunFleetJob(command, result, [arguments, job] { return job(*arguments); });
  };
  const auto cameras = [](Command command, RecordingArguments& arguments) {
    command.AddOption("--camera", arguments.cameras, "of this camera alone").List();
  };
  const auto partial = [](Command command, RecordingArguments& arguments) {
    command.AddFlag("--partial", arguments.partial,
                    "take what there is although a recorder that has some is away");
  };
  add(
      "search",
      "Say what was recorded, by whom, and what is missing: ends with 1 when something is",
      [&](Command command, RecordingArguments& arguments) {
        cameras(command, arguments);
        command.AddOption("--month", arguments.days,
                          "2026-11: the days with recordings, without asking a recorder");
      },
      &SearchFleet);
  add(
      "play", "Play recordings of all recorders by one clock",
      [&](Command command, RecordingArguments& arguments) {
        cameras(command, arguments);
        partial(command, arguments);
        command.AddOption("OPTIONS", arguments.rest, "of orvanta play, behind --");
      },
      [](const RecordingArguments& arguments) { return RunOnGathered(arguments, true); });
  add(
      "export", "Write a camera's recordings as one MP4 or Matroska file",
      [&](Command command, RecordingArguments& arguments) {
        command.AddOption("--camera", arguments.cameras, "whose").Required();
        partial(command, arguments);
        command.AddOption("OUT", arguments.out, ".mp4 or .mkv").Required();
      },
      [](const RecordingArguments& arguments) { return RunOnGathered(arguments, false); });
}

}  // namespace tools

// orvanta fleet camera add, set, remove, import and export.
#include <algorithm>
#include <cstdio>
#include <fstream>
#include <memory>
#include <optional>
#include <stdexcept>

#include "fleet/camera_secret.h"
#include "tools/fleet/camera_list.h"
#include "tools/fleet/fleet_command.h"

namespace tools {
namespace {

using cms::fleet::CameraCopy;
using cms::fleet::EngineClient;
using cms::fleet::EngineTransaction;
using cms::fleet::FleetCamera;
using cms::fleet::FleetView;

struct CameraChange {
  FleetArguments fleet;
  std::string camera;
  std::optional<std::string> name, url, user, cameraPasswordFile, transport, group, plan, isolated;
  std::optional<unsigned> weight, copies, keepDays;
  bool on = false;
  bool off = false;
  bool spill = false;
  bool stay = false;
  std::string file;
};

template <typename Value>
void Set(const std::optional<Value>& given, Value& value) {
  value = given.value_or(value);
}

void Change(const CameraChange& change, FleetCamera& camera) {
  Set(change.name, camera.name);
  Set(change.url, camera.url);
  Set(change.user, camera.user);
  Set(change.transport, camera.transport);
  Set(change.group, camera.group);
  Set(change.plan, camera.plan);
  Set(change.weight, camera.weight);
  Set(change.copies, camera.copies);
  Set(change.keepDays, camera.keepDays);
  if (change.isolated) {
    camera.stopsIsolated = *change.isolated == "stop";
  }
  camera.on = change.on || (camera.on && !change.off);
  camera.spill = change.spill || (camera.spill && !change.stay);
  if (change.cameraPasswordFile) {
    camera.secret = cms::fleet::SecretKeys::Read(change.fleet.secretKey)
                        .Seal(ReadFirstLine(*change.cameraPasswordFile), change.camera);
  }
  if (camera.url.find("://") == std::string::npos) {
    throw UsageError("--url", "\"" + camera.url + "\" is none; rtsp://HOST/PATH is one");
  }
  if (camera.url.find('@') != std::string::npos) {
    throw UsageError("--url",
                     "give the login by --user and --camera-password-file: the engine is "
                     "no place for passwords");
  }
}

// A new one gets the fleet's next site number, in the same step.
bool StoreCamera(EngineClient& engine, const FleetView& view, const std::string& name,
                 FleetCamera camera) {
  const auto current = engine.Range(cms::fleet::CameraKey(name));
  const auto numbers = engine.Range(cms::fleet::NextSiteKey());
  if (!current || !numbers) {
    throw EngineIsAway(engine);
  }
  const bool isNew = current->keys.empty();
  EngineTransaction step;
  step.IfChanged(cms::fleet::CameraKey(name), isNew ? 0 : current->keys.front().modRevision);
  if (isNew) {
    unsigned next = view.nextSite;
    for (const auto& [other, known] : view.cameras) {
      next = std::max(next, known.site + 1);  // numbers that a restored engine had forgotten
    }
    if (!numbers->keys.empty()) {
      next = std::max(next, static_cast<unsigned>(std::stoul(numbers->keys.front().value)));
    }
    camera.site = next;
    step.IfChanged(cms::fleet::NextSiteKey(),
                   numbers->keys.empty() ? 0 : numbers->keys.front().modRevision)
        .Put(cms::fleet::NextSiteKey(), std::to_string(next + 1));
  }
  const auto answer = engine.Transact(step.Put(cms::fleet::CameraKey(name), ValueOf(camera)));
  if (!answer) {
    throw EngineIsAway(engine);
  }
  if (answer->succeeded) {
    return true;
  }
  // Of a step that a slow member did, and another one was asked for as well, this is the second
  // answer: the site's number says whose it is.
  const auto stored = engine.Range(cms::fleet::CameraKey(name));
  return stored && !stored->keys.empty() && stored->keys.front().value == ValueOf(camera);
}

int AddOrSet(const CameraChange& change, bool add) {
  CheckFleetName("CAMERA", change.camera);
  EngineClient engine(AccessOf(change.fleet));
  for (int attempt = 0; attempt < 5; ++attempt) {  // somebody else may be changing it as well
    const FleetView view = LoadFleet(engine);
    const auto found = view.cameras.find(change.camera);
    if (add != (found == view.cameras.end())) {
      throw std::runtime_error(
          change.camera + (add ? ": there is such a camera already" : ": there is no such camera"));
    }
    FleetCamera camera = add ? FleetCamera{} : found->second;
    Change(change, camera);
    if (StoreCamera(engine, view, change.camera, camera)) {
      if (change.fleet.json) {
        PrintJson({{"camera", change.camera}});
      }
      return 0;
    }
  }
  throw std::runtime_error(change.camera + ": somebody else changes cameras: try again");
}

// With its claims, so that nothing of it is left for another camera of this name.
int Remove(const CameraChange& change) {
  CheckFleetName("CAMERA", change.camera);
  EngineClient engine(AccessOf(change.fleet));
  const FleetView view = LoadFleet(engine);
  if (!view.cameras.contains(change.camera)) {
    throw std::runtime_error(change.camera + ": there is no such camera");
  }
  EngineTransaction step;
  step.Delete(cms::fleet::CameraKey(change.camera));
  for (unsigned copy = 0; copy < cms::fleet::kMostCopies; ++copy) {
    const CameraCopy each{change.camera, copy};
    step.Delete(ClaimKey(each)).Delete(ProofKey(each)).Delete(MoveKey(each));
  }
  if (!engine.Transact(step)) {
    throw EngineIsAway(engine);
  }
  if (change.fleet.json) {
    PrintJson({{"removed", change.camera}});
  }
  return 0;
}

int Import(const CameraChange& change) {
  EngineClient engine(AccessOf(change.fleet));
  const std::vector<ListedCamera> cameras = ReadCameraList(change.file);
  std::optional<cms::fleet::SecretKeys> keys;
  if (!change.fleet.secretKey.empty()) {
    keys = cms::fleet::SecretKeys::Read(change.fleet.secretKey);
  }
  std::size_t made = 0;
  for (const ListedCamera& listed : cameras) {
    const FleetView view = LoadFleet(engine);
    const auto found = view.cameras.find(listed.name);
    FleetCamera camera = listed.camera;
    made += found == view.cameras.end() ? 1 : 0;
    if (found != view.cameras.end()) {
      camera.site = found->second.site;
      camera.secret = found->second.secret;
    }
    if (!listed.password.empty()) {
      if (!keys) {
        throw UsageError("--secret-key", "there are passwords in " + change.file);
      }
      camera.secret = keys->Seal(listed.password, listed.name);
    }
    if (!StoreCamera(engine, view, listed.name, camera)) {
      throw std::runtime_error(listed.name + ": somebody else changes cameras: try again");
    }
  }
  if (change.fleet.json) {
    PrintJson({{"cameras", cameras.size()}, {"made", made}});
  } else {
    std::printf("%zu cameras, %zu of them new\n", cameras.size(), made);
  }
  return 0;
}

int Export(const CameraChange& change) {
  EngineClient engine(AccessOf(change.fleet));
  const FleetView view = LoadFleet(engine);
  if (change.fleet.json) {
    nlohmann::ordered_json cameras = nlohmann::ordered_json::object();
    for (const auto& [name, camera] : view.cameras) {
      cameras[name] = nlohmann::ordered_json::parse(ValueOf(camera));
      cameras[name].erase("secret");
    }
    PrintJson({{"cameras", cameras}});
    return 0;
  }
  std::fputs(CameraListText(view).c_str(), stdout);
  return 0;
}

void AddProperties(Command command, CameraChange& change) {
  command.AddOption("--name", change.name, "what people call it");
  command.AddOption("--url", change.url, "rtsp[s]://, http:// or onvif://, without a login");
  command.AddOption("--user", change.user, "who logs in at the camera");
  command
      .AddOption("--camera-password-file", change.cameraPasswordFile,
                 "its first line is the camera's password")
      .Needs("--secret-key");
  command.AddOption("--transport", change.transport, "").OneOf({"tcp", "udp", "http", "multicast"});
  command.AddOption("--group", change.group, "whose recorders come first");
  command.AddOption("--weight", change.weight, "of a recorder's capacity").Positive();
  command.AddOption("--copies", change.copies, "so many recorders record it at once")
      .InRange(1u, cms::fleet::kMostCopies);
  command.AddOption("--plan", change.plan, "always, events, never or one of the recorders' plans");
  command.AddOption("--keep-days", change.keepDays, "0: not by their age");
  command
      .AddOption("--isolated", change.isolated,
                 "whether a recorder that is cut off from the engine goes on with it")
      .OneOf({"keep", "stop"});
  command.AddFlag("--off", change.off, "it is not recorded");
  command.AddFlag("--stay", change.stay, "only recorders of its group may have it");
}

}  // namespace

void AddFleetCameraCommands(Command app, FleetResult& result) {
  const Command camera = app.Add("camera", "Add, change and remove cameras");
  camera.RequireCommand();
  const auto add = [&](const char* name, const char* help, auto options, auto job) {
    auto change = std::make_shared<CameraChange>();
    const Command command = camera.Add(name, help);
    AddEngineOptions(command, change->fleet);
    command.AddOption("--secret-key", change->fleet.secretKey,
                      "file of the key of cameras' passwords");
    options(command, *change);
    AddFleetJson(command, change->fleet);
    RunFleetJob(command, result, [change, job] { return job(*change); });
  };
  const auto named = [](Command command, CameraChange& change) {
    command.AddOption("CAMERA", change.camera, "its name in the fleet").Required();
  };
  add(
      "add", "Add a camera: a recorder takes it within seconds",
      [&](Command command, CameraChange& change) {
        named(command, change);
        AddProperties(command, change);
      },
      [](const CameraChange& change) { return AddOrSet(change, true); });
  add(
      "set", "Change a camera",
      [&](Command command, CameraChange& change) {
        named(command, change);
        AddProperties(command, change);
        command.AddFlag("--on", change.on, "it is recorded");
        command.AddFlag("--spill", change.spill, "recorders of other groups may have it");
      },
      [](const CameraChange& change) { return AddOrSet(change, false); });
  add("remove", "Remove a camera; its recordings stay as long as retention keeps them", named,
      &Remove);
  add(
      "import", "Add and change the cameras of a CSV file",
      [](Command command, CameraChange& change) {
        command.AddOption("FILE", change.file, "its first line names the columns")
            .Required()
            .ExistingFile();
      },
      &Import);
  add(
      "export", "Print the cameras as CSV, without passwords", [](Command, CameraChange&) {},
      &Export);
}

}  // namespace tools

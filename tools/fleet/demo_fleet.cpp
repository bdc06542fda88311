#include "tools/fleet/demo_fleet.h"

#include <signal.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <utility>

#include "fleet/camera_secret.h"
#include "tools/support/stop_signal.h"

namespace tools {
namespace {

using cms::fleet::EngineTransaction;
using cms::fleet::FleetView;

constexpr std::chrono::seconds kLongestStart{30};
constexpr std::chrono::milliseconds kDemoLook{100};
constexpr unsigned kDemoCapacity = 100;
constexpr char kPeerPort[] = "8443";  // in namespaces of their own

}  // namespace

DemoFleet::DemoFleet(std::string folder, int recorders, int cameras, DemoNeeds needs)
    : folder_(std::move(folder)), removesFolder_(folder_.empty()) {
  if (removesFolder_) {
    folder_ = MakeWorkFolder();
  }
  std::filesystem::create_directories(folder_);
  folder_ = std::filesystem::absolute(folder_).string();
  if (needs.network) {
    network_ = std::make_unique<DemoNetwork>(recorders);
  }
  if (needs.disk) {
    disk_ = std::make_unique<DemoDisk>(folder_ + "/" + kFreezing);
  }
  if (needs.second) {
    const std::string first = folder_ + "/" + kTwoDisks;
    second_ = std::make_unique<DemoDisk>(first + "-second");
    std::ofstream(first + ".toml") << "[[disks]]\npath = \"" << first << "\"\n"
                                   << "[[disks]]\npath = \"" << first << "-second\"\n";
  }
  engine_ =
      std::make_unique<DemoEngine>(folder_, network_ ? network_->EngineAddress() : "127.0.0.1");
  cms::fleet::EngineAccess access = engine_->Access();
  access.waitsLong = true;
  client_ = std::make_unique<cms::fleet::EngineClient>(std::move(access));
  StartCameras(cameras);
  MakeFleet();
  for (int i = 1; i <= recorders; ++i) {
    StartRecorder("rec" + std::to_string(i));
  }
  if (!WaitFor(kLongestStart, [&](const FleetView& view) {
        return view.members.size() == recorders_.size() &&
               view.recorders.size() == recorders_.size();
      })) {
    throw std::runtime_error("the recorders do not start: see " + folder_ + "/rec1.log");
  }
  AddCameras();
}

DemoFleet::~DemoFleet() {
  EndRecorders();
  cameraProcess_.reset();
  engine_.reset();
  disk_.reset();
  second_.reset();
  if (removesFolder_) {
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
  }
}

void DemoFleet::StartCameras(int count) {
  const std::string answer = folder_ + "/cameras.json";
  cameraProcess_ = std::make_unique<ChildProcess>(
      std::vector<std::string>{ProgramBeside("orvanta-camera"), "--port", "0", "--bind",
                               network_ ? network_->CameraAddress() : "127.0.0.1", "--count",
                               std::to_string(count), "--size", "320x240", "--fps", "10", "--gop",
                               "10", "--json"},
      ChildOptions{true, answer});
  const auto until = Clock::now() + kLongestStart;
  while (urls_.empty()) {
    std::ifstream file(answer);
    std::stringstream text;
    text << file.rdbuf();
    const std::string all = text.str();
    const auto cameras = nlohmann::json::parse(all.substr(0, all.find('\n')), nullptr, false);
    if (all.find('\n') != std::string::npos && cameras.is_object()) {
      for (const auto& camera : cameras.value("cameras", nlohmann::json::array())) {
        urls_.push_back(camera.value("url", ""));
      }
    } else if (Clock::now() > until || StopRequested() || !cameraProcess_->Runs()) {
      throw std::runtime_error("the test cameras do not start: see " + answer);
    } else {
      std::this_thread::sleep_for(kDemoLook);
    }
  }
}

void DemoFleet::MakeFleet() {
  const std::string key = folder_ + "/secret.key";
  std::ofstream(key) << cms::fleet::SecretKeys::MakeFileText();
  std::filesystem::permissions(key, std::filesystem::perms::owner_read);
  client_->Put(cms::fleet::FleetKey(), ValueOf(cms::fleet::FleetSettings{1, true}));
}

void DemoFleet::AddCameras() {
  EngineTransaction all;
  all.Put(cms::fleet::NextSiteKey(), std::to_string(urls_.size() + 1));
  for (std::size_t i = 0; i < urls_.size(); ++i) {
    cms::fleet::FleetCamera camera;
    camera.site = static_cast<unsigned>(i + 1);
    camera.url = urls_[i];
    const std::string name = "cam" + std::to_string(i + 1);
    camera.name = name;
    cameras_[camera.site] = name;
    all.Put(cms::fleet::CameraKey(name), ValueOf(camera));
  }
  if (!client_->Transact(all)) {
    throw std::runtime_error("the engine does not answer: " + client_->Problem());
  }
}

void DemoFleet::StartRecorder(const std::string& name) {
  std::vector<std::string> command{ProgramBeside("orvanta-fleet"),
                                   "run",
                                   "--name",
                                   name,
                                   "--data",
                                   folder_ + "/" + name,
                                   "--engine",
                                   engine_->Members(),
                                   "--secret-key",
                                   folder_ + "/secret.key",
                                   "--capacity",
                                   std::to_string(kDemoCapacity)};
  if (second_ && name == kTwoDisks) {
    command.insert(command.end(), {"--config", folder_ + "/" + name + ".toml"});
  }
  if (network_) {
    const auto inside = network_->Inside(name);
    command.insert(command.begin(), inside.begin(), inside.end());
    const std::string url = "http://" + network_->AddressOf(name) + ":" + kPeerPort;
    command.insert(command.end(), {"--port", kPeerPort, "--url", url});
  }
  recorders_[name] =
      std::make_unique<ChildProcess>(command, ChildOptions{true, folder_ + "/" + name + ".log"});
}

std::vector<std::string> DemoFleet::AllBut(const std::string& name) const {
  std::vector<std::string> addresses{network_->EngineAddress()};
  for (const auto& [other, process] : recorders_) {
    if (other != name) {
      addresses.push_back(network_->AddressOf(other));
    }
  }
  return addresses;
}

std::vector<std::string> DemoFleet::Recorders() const {
  std::vector<std::string> names;
  for (const auto& [name, process] : recorders_) {
    names.push_back(name);
  }
  return names;
}

void DemoFleet::EndRecorders() {
  for (const auto& [name, process] : recorders_) {
    if (process) {
      process->Signal(SIGTERM);
    }
  }
  recorders_.clear();
}

std::map<std::string, std::string> DemoFleet::DataFolders() const {
  std::map<std::string, std::string> folders;
  for (const auto& entry : std::filesystem::directory_iterator(folder_)) {
    if (const std::string name = entry.path().filename().string();
        name.starts_with("rec") && entry.is_directory()) {
      folders[name] = entry.path().string();
    }
  }
  return folders;
}

std::optional<FleetView> DemoFleet::View() {
  const auto keys = client_->Load(cms::fleet::kFleetPrefix);
  if (!keys) {
    return std::nullopt;
  }
  FleetView view;
  for (const auto& key : keys->keys) {
    view.Put(key);
  }
  return view;
}

bool DemoFleet::WaitFor(std::chrono::milliseconds limit,
                        const std::function<bool(const FleetView&)>& isTrue) {
  const auto until = Clock::now() + limit;
  do {
    const auto view = View();
    if (view && isTrue(*view)) {
      return true;
    }
  } while (!WaitForStop(kDemoLook) && Clock::now() < until);
  return false;
}

}  // namespace tools

// A whole fleet on this machine: an engine of three members, test cameras and recorders.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "fleet/engine_client.h"
#include "fleet/fleet_view.h"
#include "tools/fleet/child_process.h"
#include "tools/fleet/demo_disk.h"
#include "tools/fleet/demo_engine.h"
#include "tools/fleet/demo_network.h"

namespace tools {

// What only root can make.
struct DemoNeeds {
  bool network = false;  // a namespace for each recorder
  bool disk = false;     // one of its own for kFreezing
  bool second = false;   // likewise for kTwoDisks, beside the one that it has
};

// For one thread. Everything ends with it; its folder is removed unless it was given.
class DemoFleet {
 public:
  static constexpr char kFreezing[] = "rec1";
  static constexpr char kTwoDisks[] = "rec2";
  using Clock = std::chrono::steady_clock;

  // Throws std::runtime_error where a program is missing or does not start.
  DemoFleet(std::string folder, int recorders, int cameras, DemoNeeds needs);
  ~DemoFleet();
  DemoFleet(const DemoFleet&) = delete;
  DemoFleet& operator=(const DemoFleet&) = delete;

  void StartRecorder(const std::string& name);
  ChildProcess& Recorder(const std::string& name) { return *recorders_.at(name); }
  std::vector<std::string> Recorders() const;
  void EndRecorders();  // with all that they have written
  void EndRecorder(const std::string& name) { recorders_.at(name).reset(); }

  cms::fleet::EngineClient& Client() { return *client_; }
  DemoEngine& Engine() { return *engine_; }
  DemoNetwork& Network() { return *network_; }  // with `network`
  DemoDisk& Disk() { return *disk_; }           // with `disk`
  DemoDisk& SecondDisk() { return *second_; }   // with `second`
  // Of the engine and the other recorders, with `network`.
  std::vector<std::string> AllBut(const std::string& name) const;
  std::optional<cms::fleet::FleetView> View();
  // Looks ten times a second; false when it does not come true in time.
  bool WaitFor(std::chrono::milliseconds limit,
               const std::function<bool(const cms::fleet::FleetView&)>& isTrue);
  std::map<std::string, std::string> DataFolders() const;
  std::map<unsigned, std::string> Cameras() const { return cameras_; }  // by sites
  const std::string& Folder() const { return folder_; }

 private:
  void StartCameras(int count);
  void MakeFleet();
  void AddCameras();

  std::string folder_;
  bool removesFolder_ = false;
  std::map<unsigned, std::string> cameras_;
  std::vector<std::string> urls_;
  std::unique_ptr<DemoNetwork> network_;
  std::unique_ptr<DemoDisk> disk_;
  std::unique_ptr<DemoDisk> second_;
  std::unique_ptr<DemoEngine> engine_;
  std::unique_ptr<ChildProcess> cameraProcess_;
  std::map<std::string, std::unique_ptr<ChildProcess>> recorders_;
  std::unique_ptr<cms::fleet::EngineClient> client_;
};

}  // namespace tools

// One camera that is configured or looked for: how the command line names it and waits for it.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <thread>

#include "cms/ipcam/config_utility.h"
#include "cms/runtime/wake_up.h"
#include "tools/command.h"

namespace tools {

struct SiteArguments {
  std::string host;  // HOST[:PORT]
  std::string user;
  std::string password;
  bool json = false;
};

void AddSiteOptions(CLI::App* app, SiteArguments& arguments);

// While it lives, Ctrl-C and SIGTERM end the utility's wait, and a terminal shows how long it takes
// (of `seconds` when that is known).
class CameraWait {
 public:
  explicit CameraWait(CIPCAM_Config_Utility& utility, int seconds = 0);
  ~CameraWait();
  CameraWait(const CameraWait&) = delete;
  CameraWait& operator=(const CameraWait&) = delete;

 private:
  void Watch(int seconds);

  CIPCAM_Config_Utility& utility_;
  cms::WakeUp done_;
  std::thread thread_;
};

// A utility for that camera. Throws CLI::ValidationError when it names none.
class CameraSite {
 public:
  explicit CameraSite(const SiteArguments& arguments);

  CIPCAM_Config_Utility* operator->() { return &utility_; }
  // Throws std::runtime_error with the utility's reason unless the operation succeeded.
  void Require(bool succeeded) const;

 private:
  CIPCAM_Config_Utility utility_;
  std::string name_;
  CameraWait wait_;
};

// One JSON object, or the same as indented lines for people.
void PrintAnswer(const nlohmann::ordered_json& answer, bool json);

// The address of the first profile's stream, asked for over ONVIF, with the user and the password
// of the onvif:// URL or else of the arguments left out of it: they are given back there. Throws
// std::runtime_error that names the camera.
std::string FindStream(const std::string& url, std::string* user, std::string* password);

}  // namespace tools

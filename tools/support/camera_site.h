// One camera that is configured or looked for: how the command line names it and waits for it.
#pragma once

#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>

#include "cms/ipcam/config_utility.h"
#include "cms/runtime/wake_up.h"
#include "tools/commands/command.h"

namespace tools {

struct SiteArguments {
  std::string host;  // HOST[:PORT]
  std::string user;
  std::string password;
  bool json = false;
};

void AddSiteOptions(Command app, SiteArguments& arguments);

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

// A utility for that camera. Throws UsageError when it names none.
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

// Adds a command with the site options, which Arguments has as `site`. The result adds a subcommand
// that prints what `run` answers: add(name, what it does, run).
template <typename Arguments>
auto AddSiteCommand(Command app, const char* name, const char* help,
                    std::shared_ptr<Arguments> arguments, CommandResult& result) {
  const Command command = app.Add(name, help);
  AddSiteOptions(command, arguments->site);
  command.RequireCommand();
  return
      [command, arguments, &result](const char* subcommand, const char* does,
                                    nlohmann::ordered_json (*run)(CameraSite&, const Arguments&)) {
        const Command added = command.Add(subcommand, does);
        // When all options are read, those behind the subcommand too.
        added.RunWithParent([arguments, run, &result] {
          CameraSite site(arguments->site);
          PrintAnswer(run(site, *arguments), arguments->site.json);
          result.status = 0;
        });
        return added;
      };
}

// The address of the first profile's stream, asked for over ONVIF, with the user and the password
// of the onvif:// URL or else of the arguments left out of it: they are given back there. Throws
// std::runtime_error that names the camera.
std::string FindStream(const std::string& url, std::string* user, std::string* password);

}  // namespace tools

// One camera that is configured or looked for: how the command line names it and waits for it.
#pragma once

#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <thread>

#include "cms/ipcam/config_utility.h"
#include "cms/ipcam/onvif_access.h"
#include "cms/runtime/wake_up.h"
#include "tools/commands/command.h"
#include "tools/support/camera_security.h"
#include "tools/support/stop_signal.h"

namespace tools {

struct LiveOptions;

struct SiteArguments {
  std::string host;  // HOST[:PORT], or with https:// in front
  std::string user;
  std::string password;
  bool json = false;
  SecurityArguments security;
};

void AddSiteOptions(Command app, SiteArguments& arguments);

// How that camera is reached. Throws UsageError when the host names none.
cms::OnvifAccess AccessOf(const SiteArguments& arguments);
// The same of onvif[s]://[USER:PASSWORD@]HOST[:PORT]; the user and the password are those of the
// URL, else the given ones. Throws UsageError for any other URL, and when there is no user.
cms::OnvifAccess AccessOf(const std::string& url, const std::string& user,
                          const std::string& password, const CameraSecurity& security);

// While it lives, Ctrl-C and SIGTERM end a camera's wait, and a terminal shows how long it takes
// (of `seconds` when that is known).
class CameraWait {
 public:
  explicit CameraWait(CIPCAM_Config_Utility& utility, int seconds = 0)
      : CameraWait([&utility] { utility.Interrupt(); }, seconds) {}
  explicit CameraWait(std::function<void()> interrupt, int seconds = 0);
  ~CameraWait();
  CameraWait(const CameraWait&) = delete;
  CameraWait& operator=(const CameraWait&) = delete;

 private:
  void Watch(int seconds);

  const std::function<void()> interrupt_;
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
  CameraWait wait_;
};

// What is asked of that camera by one of the classes behind cms::OnvifConnection.
template <typename Service>
class OnvifSite {
 public:
  explicit OnvifSite(const cms::OnvifAccess& access)
      : service_(access), wait_([this] { service_.Interrupt(); }) {}

  Service* operator->() { return &service_; }
  // Throws std::runtime_error with the service's reason unless the operation succeeded.
  void Require(bool succeeded) const {
    if (!succeeded) {
      throw std::runtime_error(StopRequested() ? "stopped" : service_.LastError());
    }
  }

 private:
  Service service_;
  CameraWait wait_;
};

// One JSON object, or the same as indented lines for people.
void PrintAnswer(const nlohmann::ordered_json& answer, bool json);

// A command with the site options, which needs one of its own commands.
inline Command AddSiteCommand(Command app, const char* name, const char* help,
                              SiteArguments& site) {
  const Command command = app.Add(name, help);
  AddSiteOptions(command, site);
  command.RequireCommand();
  return command;
}

// The result adds a subcommand that prints what `run` answers: add(name, what it does, run).
// Arguments has the site's as `site`.
template <typename Arguments>
auto SiteSubcommands(Command command, std::shared_ptr<Arguments> arguments, CommandResult& result) {
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

// Where the URL is onvif[s]://, asks the camera for the stream of its first profile with video, of
// H.265 too: that becomes the URL, and `onvif` the one of before; the user and the password are
// taken from it. Any other URL stays. Throws std::runtime_error that names the camera.
void FindStream(LiveOptions* live);

}  // namespace tools

// orvanta fleet init: makes a fleet in an engine, and the key of its cameras' passwords.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "fleet/camera_secret.h"
#include "tools/fleet/fleet_command.h"

namespace tools {
namespace {

using cms::fleet::EngineTransaction;

// An existing one stays as it is: what it sealed could not be opened any more.
bool MakeSecretKey(const std::string& path) {
  const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (file < 0 && errno == EEXIST) {
    cms::fleet::SecretKeys::Read(path);
    return false;
  }
  const std::string text = cms::fleet::SecretKeys::MakeFileText();
  const bool written =
      file >= 0 && write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  const int error = errno;
  close(file);
  if (!written) {
    throw std::runtime_error(path + ": the key cannot be written: " + std::strerror(error));
  }
  return true;
}

int Init(const FleetArguments& arguments) {
  cms::fleet::EngineClient engine(AccessOf(arguments));
  const bool madeKey = MakeSecretKey(arguments.secretKey);
  const auto answer =
      engine.Transact(EngineTransaction()
                          .IfCreated(cms::fleet::FleetKey(), 0)
                          .Put(cms::fleet::FleetKey(), ValueOf(cms::fleet::FleetSettings{1, true}))
                          .Put(cms::fleet::NextSiteKey(), "1"));
  if (!answer) {
    throw EngineIsAway(engine);
  }
  if (arguments.json) {
    PrintJson({{"made", answer->succeeded}, {"key_made", madeKey}});
    return 0;
  }
  std::printf("%s\n%s %s: copy it to every recorder, with mode 600\n",
              answer->succeeded ? "the fleet is made" : "there was a fleet already, and it stays",
              madeKey ? "the key is in" : "the key was there in", arguments.secretKey.c_str());
  return 0;
}

}  // namespace

void AddInitCommand(Command app, FleetResult& result) {
  auto arguments = std::make_shared<FleetArguments>();
  const Command command = app.Add("init", "Make a fleet in the engine");
  AddEngineOptions(command, *arguments);
  command
      .AddOption("--secret-key", arguments->secretKey,
                 "file of the key of cameras' passwords; made when it is not there")
      .Required();
  AddFleetJson(command, *arguments);
  RunFleetJob(command, result, [arguments] { return Init(*arguments); });
}

}  // namespace tools

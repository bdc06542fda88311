// orvanta camera: starts the test camera, orvanta-camera, a program of its own.
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>

#include "tools/commands/command.h"
#include "tools/testcamera/camera_arguments.h"

namespace tools {
namespace {

// The program beside this one, else the one in the path, takes this process over. `arguments` are
// those of `orvanta`, behind its own name.
[[noreturn]] void BecomeCamera(char** arguments) {
  constexpr char kProgram[] = "orvanta-camera";
  char name[] = "orvanta camera";  // by which it goes in its messages
  arguments[0] = name;
  std::error_code unknown;
  const auto own = std::filesystem::read_symlink("/proc/self/exe", unknown);
  execv((own.parent_path() / kProgram).c_str(), arguments);
  execvp(kProgram, arguments);
  throw std::runtime_error(std::string(kProgram) +
                           ", the test camera's program, cannot be started from beside orvanta or "
                           "from PATH: " +
                           std::strerror(errno));
}

}  // namespace

void AddCameraCommand(Command app, char** arguments) {
  const Command command = app.Add("camera", testcamera::kAbout);
  const auto read = std::make_shared<testcamera::CameraArguments>();
  testcamera::AddCameraOptions(command, *read);
  command.Run([read, arguments] { BecomeCamera(arguments); });
}

}  // namespace tools

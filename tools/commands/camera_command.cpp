// orvanta camera: starts the test camera, orvanta-camera, a program of its own.
#include <memory>

#include "tools/commands/command.h"
#include "tools/support/become_program.h"
#include "tools/testcamera/camera_arguments.h"

namespace tools {

void AddCameraCommand(Command app, char** arguments) {
  const Command command = app.Add("camera", testcamera::kAbout);
  const auto read = std::make_shared<testcamera::CameraArguments>();
  testcamera::AddCameraOptions(command, *read);
  command.Run([read, arguments] {
    BecomeProgram("orvanta-camera", "the test camera's program", "orvanta camera", arguments);
  });
}

}  // namespace tools

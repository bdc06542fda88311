// orvanta view: starts the viewer, orvanta-view, a program of its own.
#include <memory>

#include "tools/commands/command.h"
#include "tools/support/become_program.h"
#include "tools/view/view_options.h"

namespace tools {

void AddViewCommand(Command app, char** arguments) {
  const Command command = app.Add("view", kViewAbout);
  const auto read = std::make_shared<ViewArguments>();
  AddViewOptions(command, *read);
  command.Run([read, arguments] {
    BecomeProgram("orvanta-view", "the viewer's program", "orvanta view", arguments);
  });
}

}  // namespace tools

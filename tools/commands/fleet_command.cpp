// orvanta fleet: starts orvanta-fleet, a program of its own, which reads the rest of the line.
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string_view>

#include "tools/commands/command.h"
#include "tools/support/become_program.h"

namespace tools {

void AddFleetCommand(Command app, int count, char** arguments) {
  constexpr char kName[] = "fleet";
  app.Add(kName, "Recorders on several machines as one: see orvanta fleet --help");
  if (count > 1 && std::string_view(arguments[1]) == kName) {
    try {
      BecomeProgram("orvanta-fleet", "the program of a fleet of recorders", "orvanta fleet",
                    arguments + 1);
    } catch (const std::exception& error) {
      std::fprintf(stderr, "orvanta fleet: %s; install the package orvanta-fleet\n", error.what());
      std::exit(1);
    }
  }
}

}  // namespace tools

// The orvanta command line: a client application of the library.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <string>

#include "tools/command.h"
#include "tools/stop_signal.h"

namespace {

constexpr int kFailed = 1;
constexpr int kWrongUsage = 2;

// "orvanta camera" once a subcommand was recognised.
std::string Name(const CLI::App& app) {
  const auto chosen = app.get_subcommands();
  return chosen.empty() ? "orvanta" : "orvanta " + chosen.front()->get_name();
}

// The message on one line, whatever its source put into it.
int Fail(const CLI::App& app, std::string message, const std::string& hint, int status) {
  for (char& each : message) {
    if (each == '\n' || each == '\r') {
      each = ' ';
    }
  }
  message.erase(message.find_last_not_of(' ') + 1);
  std::fprintf(stderr, "%s: %s%s\n", Name(app).c_str(), message.c_str(), hint.c_str());
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Orvanta CMS media SDK: watch, record and configure IP cameras", "orvanta");
  app.require_subcommand(0, 1);
  tools::CommandResult result;
  tools::AddLiveCommand(app, result);
  tools::AddTalkCommand(app, result);
  tools::AddRecordCommand(app, result);
  tools::AddCameraCommand(app, result);
  tools::AddServeCommand(app, result);
  tools::AddAudioCommand(app, result);
  tools::AddBroadcastCommand(app, result);
  tools::AddDiscoverCommand(app, result);
  tools::AddOnvifCommand(app, result);
  tools::AddParamCommand(app, result);
  tools::AddInspectCommand(app, result);
  tools::AddDbCommand(app, result);
  tools::AddRepairCommand(app, result);
  tools::AddSearchCommand(app, result);
  tools::AddExportCommand(app, result);
  tools::AddManualCommand(app, result);
  tools::AddPlayCommand(app, result);
  tools::CatchStopSignals();
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& asked) {  // --help
    return app.exit(asked);
  } catch (const CLI::ParseError& error) {
    return Fail(app, error.what(), " (see " + Name(app) + " --help)", kWrongUsage);
  } catch (const std::exception& error) {
    return Fail(app, error.what(), "", kFailed);
  }
  if (app.get_subcommands().empty()) {
    return Fail(app, "say what to do (see orvanta --help)", "", kWrongUsage);
  }
  return result.status;
}

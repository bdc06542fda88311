// The orvanta command line: a client application of the library.
#include "tools/commands/command.h"
#include "tools/support/stop_signal.h"

int main(int argc, char** argv) {
  tools::CommandLine line("Orvanta CMS media SDK: watch, record and configure IP cameras",
                          "orvanta", "orvanta " ORVANTA_VERSION);
  const tools::Command app = line.Root();
  tools::CommandResult result;
  tools::AddLiveCommand(app, result);
  tools::AddTalkCommand(app, result);
  tools::AddUserCommand(app, result);
  tools::AddRecordCommand(app, result);
  tools::AddViewCommand(app, argv + 1);
  tools::AddCameraCommand(app, argv + 1);
  tools::AddFleetCommand(app, argc, argv);
  tools::AddServeCommand(app, result);
  tools::AddAudioCommand(app, result);
  tools::AddBroadcastCommand(app, result);
  tools::AddDiscoverCommand(app, result);
  tools::AddOnvifCommand(app, result);
  tools::AddParamCommand(app, result);
  tools::AddInspectCommand(app, result);
  tools::AddDbCommand(app, result);
  tools::AddRepairCommand(app, result);
  tools::AddStorageCommand(app, result);
  tools::AddKeepCommand(app, result);
  tools::AddProtectCommand(app, result);
  tools::AddRemoveCommand(app, result);
  tools::AddSearchCommand(app, result);
  tools::AddExportCommand(app, result);
  tools::AddStatusCommand(app, result);
  tools::AddManualCommand(app, result);
  tools::AddPlayCommand(app, result);
  tools::CatchStopSignals();
  const int status = line.Run(argc, argv);
  return status != 0 ? status : result.status;
}

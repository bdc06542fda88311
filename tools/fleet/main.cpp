// orvanta-fleet: recorders on several machines as one. A program of its own, so that one machine's
// recorder has nothing of it; `orvanta fleet` starts it.
#include "tools/fleet/fleet_command.h"
#include "tools/support/stop_signal.h"

int main(int argc, char** argv) {
  tools::CommandLine line("A fleet of recorders: who records which camera, and who takes over",
                          "orvanta fleet", "");
  const tools::Command app = line.Root();
  tools::FleetResult result;
  tools::AddInitCommand(app, result);
  tools::AddRunCommand(app, result);
  tools::AddFleetStatusCommands(app, result);
  tools::AddFleetCameraCommands(app, result);
  tools::AddFleetRecorderCommands(app, result);
  tools::AddFleetRecordingCommands(app, result);
  tools::AddFleetBackupCommands(app, result);
  tools::AddFleetCheckCommand(app, result);
  tools::AddFleetDemoCommand(app, result);
  tools::AddFleetSimulateCommand(app, result);
  tools::CatchStopSignals();
  const int status = line.Run(argc, argv);
  return status != 0 ? status : result.status;
}

// How a subcommand joins the orvanta command line.
//
// Each subcommand is one file, tools/<name>_command.cpp, with one function that adds its Command,
// its options and a callback that does the job. The callback sets the status that the program ends
// with; it throws a std::exception for a failed job (printed as one line, status 1) and a
// UsageError for usage that only shows later, such as two options that exclude each other
// (one line, status 2). Jobs that go on for long watch tools/support/stop_signal.h.
#pragma once

#include "tools/support/options.h"

namespace tools {

struct CommandResult {
  int status = 0;
};

void AddAudioCommand(Command app, CommandResult& result);
void AddBroadcastCommand(Command app, CommandResult& result);
void AddDbCommand(Command app, CommandResult& result);
void AddDiscoverCommand(Command app, CommandResult& result);
void AddExportCommand(Command app, CommandResult& result);
void AddInspectCommand(Command app, CommandResult& result);
void AddKeepCommand(Command app, CommandResult& result);
void AddLiveCommand(Command app, CommandResult& result);
void AddManualCommand(Command app, CommandResult& result);
void AddOnvifCommand(Command app, CommandResult& result);
void AddParamCommand(Command app, CommandResult& result);
void AddPlayCommand(Command app, CommandResult& result);
void AddProtectCommand(Command app, CommandResult& result);
void AddRecordCommand(Command app, CommandResult& result);
void AddRemoveCommand(Command app, CommandResult& result);
void AddRepairCommand(Command app, CommandResult& result);
void AddSearchCommand(Command app, CommandResult& result);
void AddServeCommand(Command app, CommandResult& result);
void AddStatusCommand(Command app, CommandResult& result);
void AddStorageCommand(Command app, CommandResult& result);
void AddTalkCommand(Command app, CommandResult& result);
void AddUserCommand(Command app, CommandResult& result);

// Another program does the job: `arguments` are the command line's, from "camera" or "view" on.
void AddCameraCommand(Command app, char** arguments);
// Likewise, at once when "fleet" is the first of the program's `count` arguments.
void AddFleetCommand(Command app, int count, char** arguments);
void AddViewCommand(Command app, char** arguments);

}  // namespace tools

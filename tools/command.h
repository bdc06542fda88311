// How a subcommand joins the orvanta command line.
//
// Each subcommand is one file, tools/<name>_command.cpp, with one function that adds its CLI::App,
// its options and a callback that does the job. The callback sets the status that the program ends
// with; it throws a std::exception for a failed job (printed as one line, status 1) and a
// CLI::ParseError for usage that only shows later, such as two options that exclude each other
// (one line, status 2). Jobs that go on for long watch tools/stop_signal.h.
#pragma once

#include <CLI/CLI.hpp>

namespace tools {

struct CommandResult {
  int status = 0;
};

void AddAudioCommand(CLI::App& app, CommandResult& result);
void AddBroadcastCommand(CLI::App& app, CommandResult& result);
void AddCameraCommand(CLI::App& app, CommandResult& result);
void AddDbCommand(CLI::App& app, CommandResult& result);
void AddDiscoverCommand(CLI::App& app, CommandResult& result);
void AddExportCommand(CLI::App& app, CommandResult& result);
void AddInspectCommand(CLI::App& app, CommandResult& result);
void AddLiveCommand(CLI::App& app, CommandResult& result);
void AddManualCommand(CLI::App& app, CommandResult& result);
void AddOnvifCommand(CLI::App& app, CommandResult& result);
void AddParamCommand(CLI::App& app, CommandResult& result);
void AddPlayCommand(CLI::App& app, CommandResult& result);
void AddRecordCommand(CLI::App& app, CommandResult& result);
void AddRepairCommand(CLI::App& app, CommandResult& result);
void AddSearchCommand(CLI::App& app, CommandResult& result);
void AddServeCommand(CLI::App& app, CommandResult& result);
void AddTalkCommand(CLI::App& app, CommandResult& result);

}  // namespace tools

#include "tools/view/view_options.h"

#include "tools/data/data_folder.h"

namespace tools {

void AddViewOptions(Command command, ViewArguments& arguments) {
  AddStreamOptions(command, arguments.streams).Required(false);
  AddDataOption(command, arguments.data).Required(false);
  command.AddOption("--site", arguments.sites, "number of a recorded site to play (default: all)")
      .TypeName("N")
      .Repeatable();
  command
      .AddOption("--from", arguments.from,
                 "where to begin to play: 2026-11-21T10:30:00 (local), ...Z (UTC) or ...+01:00")
      .TypeName("TIME");
  command.AddOption("--size", arguments.size, "of the window").ShowDefault().TypeName("WxH");
  command.AddFlag("--full-screen", arguments.fullScreen, "without a window's frame");
  command.AddOption("--pictures", arguments.pictures, "where pictures are written to")
      .ShowDefault()
      .TypeName("DIR");
  command
      .AddOption("--record", arguments.record,
                 "the data folder that the key r records cameras into, see orvanta record")
      .TypeName("DIR");
  command.AddOption("--device", arguments.device,
                    "sound device of the key a, see orvanta audio devices");
  command.AddOption("--font", arguments.font, "for texts; without it the system's usual one")
      .ExistingFile();
  command.AddOption("--seconds", arguments.seconds, "end after so many seconds").Positive();
  AddFisheyeOptions(command, arguments.fisheye);
  AddLogOptions(command, arguments.log);
  command.AddFlag("--json", arguments.json,
                  "print one JSON object at the end: what was shown of each tile");
}

}  // namespace tools

// The command line of the viewer: read by orvanta-view, and by `orvanta view`, which starts it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/support/fisheye_options.h"
#include "tools/support/log_output.h"
#include "tools/support/options.h"
#include "tools/support/stream_options.h"

namespace tools {

inline constexpr char kViewAbout[] = "Watch cameras, or play their recordings, in a window";

struct ViewArguments {
  StreamArguments streams;
  std::string data;
  std::vector<std::uint32_t> sites;
  std::string from;
  std::string size = "1280x720";
  bool fullScreen = false;
  std::string pictures = ".";  // the folder of snapshots
  std::string record;          // the data folder of what is recorded; empty: none
  std::string device;          // of sound
  std::string font;
  double seconds = 0;
  FisheyeArguments fisheye;
  LogArguments log;
  bool json = false;
};

// `arguments` lives as long as the command line.
void AddViewOptions(Command command, ViewArguments& arguments);

}  // namespace tools

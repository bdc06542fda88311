// orvanta-view: cameras and recordings in a window. A program of its own, so that the window
// system's libraries are loaded by those that look and nobody else.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "cms/exports/net_exports.h"
#include "cms/recording/rec_folder_db_writer.h"
#include "tools/data/data_folder.h"
#include "tools/data/playback_sites.h"
#include "tools/data/recording_folders.h"
#include "tools/support/stop_signal.h"
#include "tools/support/time_text.h"
#include "tools/view/live_view.h"
#include "tools/view/play_view.h"
#include "tools/view/view_loop.h"
#include "tools/view/view_options.h"

namespace {

using namespace tools;

void ReadSize(const std::string& text, cms::VideoWallOptions* options) {
  constexpr int kLeast = 64, kMost = 16384;
  char rest = 0;
  if (std::sscanf(text.c_str(), "%5dx%5d%c", &options->width, &options->height, &rest) != 2 ||
      std::min(options->width, options->height) < kLeast ||
      std::max(options->width, options->height) > kMost) {
    throw UsageError("--size", "\"" + text + "\" is not of the form 1280x720, from 64x64 on");
  }
}

std::unique_ptr<ViewSource> LiveSource(const ViewArguments& arguments, cms::VideoWall& wall) {
  std::vector<LiveOptions> sites;
  for (std::size_t i = 0; i < arguments.streams.urls.size(); ++i) {
    sites.push_back(OptionsOf(arguments.streams, i));
    sites.back().listenDevice = arguments.device;
  }
  const bool records = !arguments.record.empty();
  if (records) {
    EnterDataFolder(arguments.record, DataFolderUse::kCreate);
    CRecFolderDBWriter().WriterRecFolderDB(0, kRecordings);  // where searches look
  }
  return std::make_unique<LiveView>(sites, records, wall);
}

std::unique_ptr<ViewSource> PlaySource(const ViewArguments& arguments, cms::VideoWall& wall) {
  PlaybackSites wanted;
  wanted.data = arguments.data;
  wanted.sites = arguments.sites;
  if (!arguments.from.empty()) {
    wanted.from = ReadTime("--from", arguments.from) * 1000;
  }
  wanted.roots = {EnterDataFolder(arguments.data, DataFolderUse::kRead).path};
  return std::make_unique<PlayView>(PlaybackConfigOf(wanted), arguments.device, wall);
}

void View(ViewArguments& arguments) {
  if (arguments.data.empty() == arguments.streams.urls.empty()) {
    throw UsageError("say which cameras to watch, or --data DIR of what is recorded");
  }
  if (!arguments.data.empty() && !arguments.record.empty()) {
    throw UsageError("--record", "is for cameras; --data plays what is recorded already");
  }
  if (arguments.streams.urls.size() > cms::VideoWall::kMostTiles) {
    throw UsageError("16 cameras are shown at most");
  }
  cms::VideoWallOptions options;
  options.title = "Orvanta";
  options.font = arguments.font;
  ReadSize(arguments.size, &options);
  ViewLoopOptions loopOptions;
  loopOptions.pictures = AbsolutePath(arguments.pictures);  // before a data folder is entered
  loopOptions.fisheye = FisheyeOf(arguments.fisheye);
  loopOptions.seconds = arguments.seconds;
  const LogOutput log(LogLevelOf(arguments.log, "off"));
  std::string error;
  const auto wall = cms::VideoWall::Open(options, &error);
  if (!wall) {
    throw std::runtime_error(error);
  }
  wall->SetFullScreen(arguments.fullScreen);
  nlohmann::ordered_json tiles = nlohmann::ordered_json::array();
  std::uint64_t drawn = 0;
  {
    const auto source =
        arguments.data.empty() ? LiveSource(arguments, *wall) : PlaySource(arguments, *wall);
    ViewLoop loop(*wall, *source, loopOptions);
    loop.Run();
    drawn = loop.Drawn();
    for (unsigned tile = 0; tile < source->Tiles(); ++tile) {
      tiles.push_back(source->Json(tile));
    }
  }
  StopEachClientNBManager();
  if (arguments.json) {
    std::printf("%s\n", nlohmann::ordered_json{{"tiles", tiles},
                                               {"walls_drawn", drawn},
                                               {"graphics_processor", wall->HasGraphicsProcessor()}}
                            .dump(2)
                            .c_str());
  }
}

}  // namespace

int main(int argc, char** argv) {
  // `orvanta view` starts it by that name, which its messages go by then.
  CommandLine line(kViewAbout, std::filesystem::path(argv[0]).filename(),
                   "orvanta-view " ORVANTA_VERSION);
  ViewArguments arguments;
  const Command root = line.Root();
  AddViewOptions(root, arguments);
  root.Run([&arguments] { View(arguments); });
  CatchStopSignals();
  return line.Run(argc, argv);
}

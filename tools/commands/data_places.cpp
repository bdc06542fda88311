#include "tools/commands/data_places.h"

#include <cstdio>
#include <filesystem>
#include <stdexcept>

#include "cms/recording/data_root.h"
#include "tools/data/data_folder.h"
#include "tools/service/recorder_config.h"

namespace tools {
namespace {

namespace fs = std::filesystem;

FoundPlaces FindDisks(const std::string& config) {
  const std::string path = AbsolutePath(config);
  ConfigProblems problems;
  const std::vector<std::string> disks = ReadDataFolders(path, &problems);
  if (!problems.errors.empty()) {
    throw std::runtime_error(LinesOf(path, problems.errors).front());
  }
  FoundPlaces found;
  for (const std::string& disk : disks) {
    std::error_code error;
    if (fs::is_directory(disk + "/recordings", error)) {
      found.roots.push_back(disk);
    } else if (!fs::is_directory(disk, error)) {
      found.away.push_back(disk);
    }  // else nothing was recorded onto it yet
  }
  if (found.roots.empty()) {
    throw std::runtime_error(path + ": nothing was recorded onto its disks" +
                             (found.away.empty() ? "" : "; " + found.away.front() + " is away"));
  }
  cms::SetDataRoot(found.roots.front());
  return found;
}

}  // namespace

void AddDataPlaceOptions(Command app, DataPlaces& places) {
  const Option data = AddDataOption(app, places.data).Required(false);
  app.AddOption("--config", places.config,
                "configuration file of the recorder whose disks hold the recordings, in place of "
                "--data")
      .TypeName("FILE")
      .Excludes(data);
}

FoundPlaces EnterDataPlaces(const DataPlaces& places) {
  if (places.config.empty()) {
    return {{EnterDataFolder(places.data, DataFolderUse::kRead).path}, {}};
  }
  return FindDisks(places.config);
}

bool TellPlacesAway(const FoundPlaces& places, const char* command) {
  for (const std::string& disk : places.away) {
    std::fprintf(stderr, "orvanta %s: %s is not there; it may hold more than this\n", command,
                 disk.c_str());
  }
  return places.away.empty();
}

}  // namespace tools

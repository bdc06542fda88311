// Where recordings are looked for: in the folder of --data, or on all disks of a service's
// --config.
#pragma once

#include <string>
#include <vector>

#include "tools/support/options.h"

namespace tools {

struct DataPlaces {
  std::string data;
  std::string config;

  bool Any() const { return !data.empty() || !config.empty(); }
};

struct FoundPlaces {
  std::vector<std::string> roots;  // absolute; one at least, and the first is the process's
  std::vector<std::string> away;   // disks of the file that are not there, which may hold more
};

// Adds --data DIR and --config FILE, which exclude each other.
void AddDataPlaceOptions(Command app, DataPlaces& places);

// Throws std::runtime_error when nothing was recorded at any of them, or the file is wrong. Of the
// file only the disks are read: whoever looks for recordings needs none of its passwords.
FoundPlaces EnterDataPlaces(const DataPlaces& places);

// Says on standard error which disks are away. True when none is.
bool TellPlacesAway(const FoundPlaces& places, const char* command);

}  // namespace tools

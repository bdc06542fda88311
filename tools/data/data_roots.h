// What several data roots hold together: those of a recorder that records onto several disks.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "cms/playback/clip/recording_export.h"
#include "cms/playback/search_results.h"

namespace tools {

// Those there are at the moment, absolute native paths; any thread.
using DataRoots = std::function<std::vector<std::string>()>;

// A site's recordings in an interval of seconds, both inclusive, in the order of play. Where two
// roots have the same time, as around a disk's failure, what ends first comes first, and nothing is
// left out. Waits for the disks.
std::vector<cms::RecordingPart> PartsOf(const std::vector<std::string>& roots, std::uint32_t site,
                                        std::int64_t first, std::int64_t last);

// A root's stretches into those of all: their files get absolute names, and each site's stretches
// are in the order of their times.
void AddSpans(const std::string& root, std::vector<stPBTimeInfo> spans,
              std::vector<stPBTimeInfo>* all);

}  // namespace tools

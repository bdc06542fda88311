// The recorded sites of a data folder, or of files, as they are played.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "cms/playback/playback_config.h"

namespace tools {

inline constexpr std::size_t kMostPlayedSites = 16;

struct PlaybackSites {
  std::string data;                  // as the command line names it, for messages
  std::vector<std::string> roots;    // the data folders
  std::vector<std::string> files;    // in place of them
  std::vector<std::uint32_t> sites;  // empty: all
  std::int64_t from = cms::kPlaybackNoTargetTime;
};

// Paused at `from`; sites of a data folder go on with what is still being recorded. Throws
// std::runtime_error when there is nothing to play, or more than kMostPlayedSites.
_MULTI_SITE_PLAYBACK_CONFIG PlaybackConfigOf(const PlaybackSites& wanted);

// "2026-11-21T10:30:00.040Z"
std::string PlaybackTimeText(std::int64_t milliseconds);

}  // namespace tools

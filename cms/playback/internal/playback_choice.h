// PlaybackChoice, what a viewer wants to see and hear.
#pragma once

#include <array>
#include <map>
#include <string>

#include "cms/playback/internal/playback_data_reader.h"

namespace cms {

// Kept by the controller for as long as its configuration: before playback starts, and from one
// session to the next.
struct PlaybackChoice {
  struct Channel {
    bool on = true;
    bool quick = false;
    bool audio = false;
  };
  struct Site {
    int single = -1;  // the only channel that plays, -1: all
    std::string device;
    std::array<Channel, kMostPlaybackChannels> channels;
  };

  bool IsOn(unsigned siteIndex, unsigned number) const {
    const auto found = sites.find(siteIndex);
    return found == sites.end() ||
           (found->second.channels[number].on &&
            (found->second.single < 0 || found->second.single == static_cast<int>(number)));
  }

  int pictures = 0;  // of the display; 0: all
  int site = 0;      // the current one
  int channel = 0;
  std::map<unsigned, Site>
      sites;  // by their indexes; of those that nobody asked for all is as above
};

}  // namespace cms

// RecordedStretch: some seconds of a recording as fragmented MP4, for the Media Source Extensions
// of browsers.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "cms/playback/clip/recording_export.h"
#include "cms/runtime/api.h"

namespace cms {

// A file's beginning and the fragments behind it; see VideoFragments and SoundFragments.
struct StretchTrack {
  std::string codec;  // as browsers call it (RFC 6381); empty: there is nothing of it
  std::vector<std::uint8_t> bytes;
};

// One header serves all of it: where the pictures get another one, or nothing was recorded for more
// than a second, it ends. Times are microseconds since 1970-01-01 UTC.
struct RecordedStretch {
  std::string error;        // one line: why it could not be read; empty when it was
  bool unplayable = false;  // its video is none that browsers play: not H.264, or with B-frames
  StretchTrack video;
  StretchTrack sound;
  std::int64_t beginUs = 0;  // of the first picture, which is a key picture
  std::int64_t endUs = 0;    // of the last one
  // Of the key picture with which the next stretch begins; 0: nothing follows.
  std::int64_t nextUs = 0;
};

struct StretchWish {
  std::vector<RecordingPart> parts;  // of one site, from the moment on
  std::int64_t momentUs = 0;
  std::int64_t leastUs = 0;   // it ends with the first key picture so long behind its beginning
  std::int64_t originUs = 0;  // what the fragments' times count from
  bool sound = false;         // made AAC where it is something else
};

// Begins with the last key picture at that moment or in front of it, or else with the first behind
// it. Nothing is decoded but the first picture, for its size. Waits for the disk; any thread.
CMS_API RecordedStretch ReadStretch(const StretchWish& wish);

}  // namespace cms

// Exporting recordings: encoded frames are copied, or one picture is decoded.
#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "tools/data/clip_writer.h"
#include "tools/data/recording_frames.h"

namespace tools {

struct ExportInterval {
  std::int64_t first = std::numeric_limits<std::int64_t>::min();  // seconds, both inclusive
  std::int64_t last = std::numeric_limits<std::int64_t>::max();
};

struct ExportOptions {
  std::vector<RecordingPart> parts;
  std::optional<unsigned> stream;
  std::string path;  // to write
  ClipContainer container = ClipContainer::kMp4;
  bool firstPicture = false;  // ExportPicture: the first instead of the last
};

struct ExportSummary {
  std::uint64_t frames = 0;         // pictures written
  double duration = 0;              // seconds
  std::uint64_t skippedBytes = 0;   // damaged
  std::uint64_t skippedFrames = 0;  // that needed what was damaged
  std::int64_t first = 0;           // seconds of the first and the last picture
  std::int64_t last = 0;
  bool audio = false;
  std::vector<std::string> notes;  // what was left out, and what to do about it
};

// Both throw std::runtime_error, with nothing left behind, when there is no picture, when something
// cannot be read or written, and when a stop was asked for. Progress shows on a terminal.
ExportSummary ExportClip(const ExportOptions& options);
ExportSummary ExportPicture(const ExportOptions& options);  // the last of the parts' pictures

}  // namespace tools

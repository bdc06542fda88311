// When the frames of a recording were taken, from what its index and its headers say of them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace cms {

// A frame as an index names it, or as it was found by walking.
struct IndexedFrame {
  std::uint64_t milliseconds = 0;  // since 1970-01-01 UTC
  std::uint64_t offset = 0;        // of its header
  std::uint8_t type = 0;           // a FrameType
  bool timed = false;              // else its second alone is known

  std::uint64_t Second() const { return milliseconds / 1000; }
};

// What the files beside a recording leave of the timeline to it.
struct TimeBounds {
  std::optional<std::int64_t> begin;   // its first key frame has this time
  std::optional<std::int64_t> before;  // its last frame lies before this time
};

// The times of frames that lie behind each other in a recording, in milliseconds; they grow. The
// first and the last seconds of a recording tell the times of its ends as all of it does.
//  1. A frame's time is that of its record. Frames found by walking know their second only, an
//     index that was made anew after a crash numbers the frames of a second instead of timing them,
//     and some recorders counted the frames in front of an event so: frames of such a second are
//     spread evenly over it.
//  2. A second that no other follows ends, and one that none precedes begins, within the second:
//     its frames are as far apart as those of the second beside it.
//  3. Behind a clock that was set back, frames are moved on by as much.
std::vector<std::int64_t> TimesOf(std::span<const IndexedFrame> frames);

// Moves the times of the first and of the last second into the bounds; `key`: the first key frame.
// Frames that belong behind the end by two seconds or more stay.
void FitTimes(std::span<const IndexedFrame> frames, std::size_t key, const TimeBounds& bounds,
              std::span<std::int64_t> times);

}  // namespace cms

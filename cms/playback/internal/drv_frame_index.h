// DrvFrameIndex, the video frames of one channel of a .drv file with their times, in memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "cms/recording/drv_walker.h"
#include "cms/runtime/file_io.h"

namespace cms {

// How an index comes about:
//  1. The .idx beside the recording is read. It counts when its offsets grow, its times are such as
//     a header can tell, and most of a sample of its records point at frames of their type and
//     second.
//  2. What the recording holds behind the last record (it grows, or a crash came between) is found
//     by walking. So is everything when there is no index that counts.
//  3. A frame's time is that of its record. Frames found by walking know their second only, and an
//     index that was made anew after a crash numbers the frames of a second instead of timing them:
//     the frames of such a second are spread evenly over it.
//  4. The frames of a first second that is not a whole one lie at its end.
//  5. Times never go back: behind a clock that was set back, frames are moved on by as much.
// Only an index tells the channel of a frame. Without one it is the header's stream number when the
// recording has frames of several, and 0 otherwise.
class DrvFrameIndex {
 public:
  struct Frame {
    std::int64_t time = 0;  // milliseconds since 1970-01-01 UTC
    std::uint64_t offset = 0;
    std::uint8_t type = 0;
  };

  DrvFrameIndex(FileIo& io, int drv, std::string idxPath, unsigned channel);

  bool Load();  // false when there is no key frame of the channel
  // Takes what was recorded since; true when anything changed. Frames that were there stay and keep
  // their places; their times may become better known.
  bool Grow();

  const std::vector<Frame>& Frames() const { return frames_; }
  const std::vector<std::size_t>& Keys() const { return keys_; }  // places in Frames()
  bool KeyFramesOnly() const { return keyFramesOnly_; }  // other frames are not in Frames()
  bool WasRebuilt() const { return rebuilt_; }
  std::uint64_t SkippedBytes() const;

  // Whether a video frame that has no record belongs to the channel.
  bool IsOfChannel(const DrvHeader& header) const {
    return !stream_ || header.StreamNumber() == *stream_;
  }

 private:
  struct Raw {
    std::uint64_t milliseconds = 0;
    std::uint64_t offset = 0;
    std::uint8_t type = 0;
    bool timed = false;  // else its second alone is known
  };

  bool TakeNewRecords();
  void CountIndexed();
  bool ReadIdx();
  bool Fits(const Raw& frame) const;
  bool SampleFits() const;
  void DropTorn();
  void LearnStream(bool otherChannels);
  bool HasOtherFramesBetweenKeys();
  void Walk();
  std::uint64_t LeadOf(std::size_t begin, std::size_t end, bool spread,
                       std::uint64_t& interval) const;
  void MakeTimes();

  FileIo& io_;
  const int drv_;
  const std::string idxPath_;
  const unsigned channel_;
  DrvWalker walker_;
  std::vector<Raw> raw_;
  std::vector<Frame> frames_;
  std::vector<std::size_t> keys_;
  std::size_t indexed_ = 0;         // of raw_: up to the last with a record of the .idx
  std::uint64_t records_ = 0;       // of the .idx, of all channels, that were read
  std::optional<unsigned> stream_;  // of the channel's frames, when there are others
  bool keyFramesOnly_ = false;
  bool rebuilt_ = false;
};

}  // namespace cms

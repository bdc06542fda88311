// DrvFrameIndex, the video frames of one channel of a .drv file with their times, in memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "cms/playback/internal/index_times.h"
#include "cms/recording/drv_walker.h"
#include "cms/runtime/file_io.h"

namespace cms {

// How an index comes about:
//  1. The .idx beside the recording is read. It counts when its offsets grow, and most of a sample
//  of its records point at frames of their type and
//     second.
//  2. What the recording holds behind the last record (it grows, or a crash came between) is found
//     by walking, and what it holds in front of the first one. So is everything when there is no
//     index that counts.
//  3. A record whose second is not between those of its neighbours has to be that of its frame;
//  else
//     the frame's header tells the second.
//  4. The times are those of index_times.h, within the bounds that other recordings leave.
// Only an index tells the channel of a frame. Without one it is the header's stream number when the
// recording has frames of several, and 0 otherwise.
class DrvFrameIndex {
 public:
  struct Frame {
    std::int64_t time = 0;  // milliseconds since 1970-01-01 UTC
    std::uint64_t offset = 0;
    std::uint8_t type = 0;
  };

  DrvFrameIndex(FileIo& io, int drv, std::string idxPath, unsigned channel,
                const TimeBounds& bounds);

  bool Load();  // false when there is no key frame of the channel
  // Takes what was recorded since; true when anything changed. Frames that were there stay and keep
  // their places; their times may become better known.
  bool Grow();
  void SetBounds(const TimeBounds& bounds);  // after Load; times alone change

  const std::vector<Frame>& Frames() const { return frames_; }
  const std::vector<std::size_t>& Keys() const { return keys_; }              // places in Frames()
  std::uint64_t FirstSecond() const { return raw_[keys_.front()].Second(); }  // of a key frame
  std::uint64_t LastSecond() const { return raw_.back().Second(); }
  bool KeyFramesOnly() const { return keyFramesOnly_; }  // other frames are not in Frames()
  bool WasRebuilt() const { return rebuilt_; }
  bool HasOthers() const { return stream_.has_value(); }  // frames of other channels
  std::uint64_t SkippedBytes() const;

  // Whether a video frame that has no record belongs to the channel.
  bool IsOfChannel(const DrvHeader& header) const {
    return !stream_ || header.StreamNumber() == *stream_;
  }

 private:
  using Raw = IndexedFrame;

  bool TakeNewRecords();
  void CountIndexed();
  bool ReadIdx();
  bool Fits(const Raw& frame) const;
  void MendStrays(std::size_t from);
  bool SampleFits() const;
  void TakeFront();
  void DropTorn();
  void LearnStream(bool otherChannels);
  bool HasOtherFramesBetweenKeys();
  void Walk();
  void MakeTimes();

  FileIo& io_;
  const int drv_;
  const std::string idxPath_;
  const unsigned channel_;
  TimeBounds bounds_;
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

// FrameDecoder decodes the frames of a channel, one at a time, towards a wanted one.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "cms/live/media/codec_id.h"
#include "cms/live/media/internal/video_codec.h"
#include "cms/playback/internal/playback_track.h"

namespace cms {

// Reads and decodes on the caller's thread. Not for two threads at once.
//
// Frames lie in decoding order and have the times of their arrival. The pictures of a group take
// these times in the order in which they are shown: the k-th picture is that of the k-th frame,
// whichever it was made of. A codec that reorders gives it some frames later, or when it is told
// that the group ends. Each group is decoded by itself: pictures behind a key frame that refer to
// the group before it take their turn and count as lost.
class FrameDecoder {
 public:
  explicit FrameDecoder(PlaybackDataReader& reader) : reader_(reader) {}

  // The frame that has to be decoded next to arrive at the picture of `target`: the one behind the
  // last decoded frame of its group, or the group's key frame. Empty when none has to be.
  FrameRef NextTowards(const FrameRef& target) const;
  // How many frames that takes.
  std::size_t StepsTo(const FrameRef& target) const;

  // Reads a frame: its header area and its payload. Empty when that failed. Valid until the next.
  std::span<const std::uint8_t> Read(const FrameRef& frame);

  // Decodes what was read last: the frame behind the last one, or a key frame.
  void Decode(const FrameRef& frame);

  // When nothing has to be decoded any more: takes pictures out of the codec up to that of
  // `target`. True when this is the one that came last, or is lost. keyOnly: nothing of the group
  // is wanted but the key frame's own picture, which then goes for the group's first.
  bool Reach(const FrameRef& target, bool keyOnly = false);

  // What came last.
  const AVFrame& Picture() const { return codec_.Picture(); }
  bool HasPicture(const FrameRef& frame) const {
    return picture_ && IsIn(frame) && frame.index + 1 == passed_;
  }
  // The frames of the group whose pictures have come or are lost.
  std::size_t Passed() const { return passed_; }

  std::size_t Pixels() const {  // of a picture; 0: none yet
    return static_cast<std::size_t>(codec_.Width()) * static_cast<std::size_t>(codec_.Height());
  }
  std::uint64_t Lost() const { return lost_; }           // frames that gave no picture, so far
  CMSVideoType VideoType() const { return videoType_; }  // of what is decoded

 private:
  bool IsIn(const FrameRef& frame) const { return fed_ && fed_.Place() == frame.Place(); }
  bool Ended(const FrameRef& target) const { return fed_.index + 1 >= target.gop->video.size(); }
  void Begin();
  bool Feed(const FrameRef& frame);
  void Pass(std::size_t fed);
  void PassAll();
  void Drain();

  PlaybackDataReader& reader_;
  VideoCodec codec_;
  CMSVideoType videoType_ = CMS_VIDEO_UNKNOWN;
  FrameRef fed_;            // last, to the codec
  bool drained_ = false;    // the codec was told that the group ends
  std::size_t failed_ = 0;  // of the group, frames that the codec refused
  std::size_t before_ = 0;  // what passed_ was before the last picture
  std::size_t passed_ = 0;
  bool picture_ = false;     // of frame passed_ - 1
  std::size_t deepest_ = 0;  // of the codec's delays
  std::uint64_t lost_ = 0;
  std::vector<std::uint8_t> bytes_;
  std::size_t length_ = 0;
};

}  // namespace cms

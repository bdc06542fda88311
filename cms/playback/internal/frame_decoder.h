// FrameDecoder decodes the frames of a channel, one at a time, towards a wanted one.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "cms/live/internal/video_codec.h"
#include "cms/playback/internal/playback_track.h"

namespace cms {

// Reads and decodes on the caller's thread. Not for two threads at once.
class FrameDecoder {
 public:
  explicit FrameDecoder(PlaybackDataReader& reader) : reader_(reader) {}

  // The frame that has to be decoded next to arrive at `target`: the one behind the last decoded
  // frame of its group, or the group's key frame. Empty when `target` was the last one decoded.
  FrameRef NextTowards(const FrameRef& target) const;
  // How many frames that takes.
  std::size_t StepsTo(const FrameRef& target) const;

  // Reads a frame: its header area and its payload. Empty when that failed. Valid until the next.
  std::span<const std::uint8_t> Read(const FrameRef& frame);

  // Decodes what was read last. False when it gave no picture.
  bool Decode(const FrameRef& frame);

  // The picture of the last decoded frame.
  const AVFrame& Picture() const { return codec_.Picture(); }
  bool HasPicture(const FrameRef& frame) const { return picture_ && last_.Is(frame); }
  int VideoType() const { return videoType_; }  // 1 H.264, 2 MJPEG, 3 MPEG-4, 0: none yet

 private:
  PlaybackDataReader& reader_;
  VideoCodec codec_;
  int videoType_ = 0;
  FrameRef last_;
  bool picture_ = false;
  std::vector<std::uint8_t> bytes_;
  std::size_t length_ = 0;
};

}  // namespace cms

// ReverseDecoder decodes groups for playing backward: the part that is shown, then the one before
// it.
#pragma once

#include <cstddef>
#include <functional>

#include "cms/playback/internal/frame_decoder.h"
#include "cms/playback/internal/playback_track.h"
#include "cms/playback/internal/reverse_window.h"

namespace cms {

// Each call does one piece of work, the decoding of a frame. Of the channel's reader thread.
class ReverseDecoder {
 public:
  // Decodes `frame` on the way to the picture of `target`; false when the way has become another.
  using DecodeOne = std::function<bool(const FrameRef& frame, const FrameRef& target)>;

  ReverseDecoder(FrameDecoder& decoder, PlaybackTrack& track) : decoder_(decoder), track_(track) {}

  // Works on the part that holds or ends with `target`, of so many pictures at most. True when it
  // is all there.
  bool Ready(const FrameRef& target, std::size_t pictures, const DecodeOne& decode);
  // Null when the frame gave no picture. Of a part that is there.
  const AVFrame* Picture(const FrameRef& target) const { return window_.Picture(target); }

  // Works on the part before that one. False when there is nothing to do.
  bool Prefetch(std::size_t pictures, const DecodeOne& decode);

  void Clear();

 private:
  bool DecodeInto(ReverseWindow& window, const FrameRef& target, const DecodeOne& decode);

  FrameDecoder& decoder_;
  PlaybackTrack& track_;
  ReverseWindow window_;
  ReverseWindow ahead_;  // the part before window_
};

}  // namespace cms

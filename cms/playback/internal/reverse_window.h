// ReverseWindow, decoded pictures of a part of a group, for showing them from the last to the
// first.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

extern "C" {
#include <libavutil/frame.h>
}

#include "cms/playback/internal/frame_decoder.h"
#include "cms/playback/internal/playback_track.h"

namespace cms {

// Decoding a group's frames up to the picture of `high` keeps those from `low` on: as many as it is
// given memory for. A group that is larger is decoded once for each part of it. Not for two threads
// at once.
class ReverseWindow {
 public:
  // The part of the frame's group that ends with it; at least one picture.
  void Begin(const FrameRef& high, std::size_t pictures);
  void Clear();

  bool Ends(const FrameRef& high) const { return gop_ && FrameRef{gop_, high_}.Is(high); }
  bool Holds(const FrameRef& frame) const {
    return gop_ && frame.Place() == gop_->place && frame.index >= low_ && frame.index <= high_;
  }
  FrameRef Low() const { return {gop_, low_}; }

  // The next frame whose picture is missing; empty when all are there or lost.
  FrameRef Next() const { return gop_ && next_ <= high_ ? FrameRef{gop_, next_} : FrameRef{}; }
  // What the decoder, at work in this group, brought on the way to Next().
  void Take(const FrameDecoder& decoder);

  // Null when the frame gave no picture.
  const AVFrame* Picture(const FrameRef& frame) const {
    return pictures_[frame.index - low_].get();
  }

 private:
  struct FrameDelete {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
  };

  std::shared_ptr<const PlaybackGop> gop_;
  std::size_t low_ = 0;
  std::size_t high_ = 0;
  std::size_t next_ = 0;
  std::vector<std::unique_ptr<AVFrame, FrameDelete>> pictures_;
};

}  // namespace cms

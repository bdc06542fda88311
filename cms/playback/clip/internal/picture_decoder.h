// PictureDecoder: the picture of encoded frames that came last, for a clip's size and for a still.
#pragma once

#include <cstdint>
#include <memory>
#include <span>

#include "cms/live/media/internal/video_codec.h"

namespace cms {

// One thread at a time. Frames have kInputPadding readable bytes behind them.
class PictureDecoder {
 public:
  explicit PictureDecoder(CMSCodecID codec);

  void Decode(std::span<const std::uint8_t> frame);  // what cannot be decoded leaves no picture
  void End();  // nothing follows: what was held back comes out

  const AVFrame* Picture() const;  // of the last frame that gave one, or null
  int ChromaFormat() const;        // of that picture: H.264's number, 1 is 4:2:0
  int BitDepth() const;
  // How many pictures the stream says come before one shown earlier.
  int Reordering() const { return static_cast<int>(codec_.Delay()); }

 private:
  struct FreeFrame {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
  };

  void Keep();

  VideoCodec codec_;
  std::unique_ptr<AVFrame, FreeFrame> picture_;
};

}  // namespace cms

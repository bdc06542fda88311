// PictureOrder: where encoded pictures stand in the order of presentation, which is not that of
// decoding when a camera uses B-frames.
#pragma once

#include <cstdint>
#include <memory>
#include <span>

#include "cms/live/media/codec_id.h"

namespace cms {

// H.264, H.265 and MPEG-4. One thread at a time.
class PictureOrder {
 public:
  explicit PictureOrder(CMSCodecID codec);
  ~PictureOrder();
  PictureOrder(const PictureOrder&) = delete;
  PictureOrder& operator=(const PictureOrder&) = delete;

  // A number that grows in the order of presentation, also from key frame to key frame. Pictures
  // are given in the order of decoding, with kInputPadding readable bytes behind them;
  // only the headers are read.
  std::int64_t Of(std::span<const std::uint8_t> picture, bool key);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

// How many pictures come in front of one that is shown before them, at most. Numbers as above.
int ReorderingOf(std::span<const std::int64_t> numbers);

}  // namespace cms

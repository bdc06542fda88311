#include "cms/playback/internal/reverse_window.h"

#include <algorithm>

namespace cms {

void ReverseWindow::Begin(const FrameRef& high, std::size_t pictures) {
  const std::size_t most = std::max<std::size_t>(1, pictures);
  gop_ = high.gop;
  high_ = high.index;
  low_ = high_ + 1 > most ? high_ + 1 - most : 0;
  next_ = 0;
  pictures_.clear();
  pictures_.resize(high_ - low_ + 1);
}

void ReverseWindow::Clear() {
  gop_.reset();
  pictures_.clear();
}

void ReverseWindow::Take(const FrameDecoder& decoder) {
  const std::size_t passed = decoder.Passed();
  if (passed > low_ && passed <= high_ + 1 && decoder.HasPicture({gop_, passed - 1})) {
    pictures_[passed - 1 - low_].reset(av_frame_clone(&decoder.Picture()));
  }
  next_ = std::min(passed, high_ + 1);
}

}  // namespace cms

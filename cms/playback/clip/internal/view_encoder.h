// ViewEncoder: recorded pictures of a fisheye camera, as they are looked at, encoded anew as H.264.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>

#include "cms/live/media/fisheye.h"
#include "cms/playback/clip/internal/clip_writer.h"

namespace cms {

// What a clip's view has to know before its first picture.
struct ViewFormat {
  CMSCodecID codec = CMS_CODEC_NONE;  // of what is recorded
  FisheyeSettings fisheye;
  int width = 0;  // of the view; made even
  int height = 0;
  bool fullRange = false;
};

// One thread at a time. Pictures come out in the order in which they are shown. Throws
// std::runtime_error when nothing here encodes H.264.
class ViewEncoder {
 public:
  struct Picture {
    std::span<std::uint8_t> bytes;  // valid until the next call
    PictureTimes times;
    bool key = false;
  };

  explicit ViewEncoder(const ViewFormat& format);
  ~ViewEncoder();
  ViewEncoder(const ViewEncoder&) = delete;
  ViewEncoder& operator=(const ViewEncoder&) = delete;

  std::span<const std::uint8_t> ParameterSets() const;  // as start codes have them
  int Width() const;
  int Height() const;

  // What cannot be decoded is passed over. kInputPadding bytes behind the frame are readable.
  void Add(std::span<const std::uint8_t> frame, const PictureTimes& times);
  void End();
  std::optional<Picture> Next();  // until there is none, after each Add and after End

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace cms

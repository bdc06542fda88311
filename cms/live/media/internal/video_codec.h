// One video codec of the installed codec library: frames in, planar pictures out.
#pragma once

#include <cstddef>
#include <cstdint>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "cms/live/media/codec_id.h"
#include "cms/live/media/internal/borrowed_packet.h"

namespace cms {

// No member is safe against another on the same object; the owner locks. Opening is serialised
// process-wide here.
class VideoCodec {
 public:
  enum class Result { kPicture, kError, kNoPicture };

  // A stream may announce any size; a picture above this (8K) is refused instead of allocated.
  static constexpr std::int64_t kMaxPixels = 40'000'000;

  VideoCodec() = default;
  ~VideoCodec();
  VideoCodec(const VideoCodec&) = delete;
  VideoCodec& operator=(const VideoCodec&) = delete;

  // Closes whatever is open first. False leaves the object closed. `unrecovered`: pictures whose
  // references are missing come out, too, marked AV_FRAME_FLAG_CORRUPT, so that they can be
  // counted.
  bool Open(CMSCodecID codec, bool unrecovered = false);
  void Close();
  CMSCodecID Codec() const { return codec_; }  // CMS_CODEC_NONE when closed

  // Forgets the pictures before a jump, so that none of them mixes with what follows.
  void Flush();

  // The size that the codec itself works at; 0 while closed or before the first picture.
  int Width() const { return context_ != nullptr ? context_->width : 0; }
  int Height() const { return context_ != nullptr ? context_->height : 0; }

  // How many frames later than it could a picture comes out, because others may have to be shown
  // before it. 0 for a stream that is shown in the order of its frames.
  std::size_t Delay() const {
    return context_ != nullptr ? static_cast<std::size_t>(context_->has_b_frames) : 0;
  }

  // Decodes one frame; AV_INPUT_BUFFER_PADDING_SIZE bytes behind the data must be readable. When
  // the data holds more than one picture the first is kept. Nothing refers to the data afterwards.
  // The picture that is made of it carries `pts`.
  Result Decode(const std::uint8_t* data, int length, std::int64_t pts = AV_NOPTS_VALUE);

  // No frame follows: the next of the pictures that are still to come, kNoPicture behind the last.
  // Flush before the next Decode.
  Result Drain();

  // The picture that came last, valid until the next Decode, Drain or Close. Releasing it early
  // gives its memory back to the codec while it is still warm.
  const AVFrame& Picture() const { return *picture_; }
  // Moves it to `frame`, which is empty: it stays valid there, whatever happens to the codec.
  void TakePicture(AVFrame* frame) { av_frame_move_ref(frame, picture_); }
  void ReleasePicture() { av_frame_unref(picture_); }

 private:
  bool Allocate(CMSCodecID codec, bool unrecovered);
  Result Receive();

  CMSCodecID codec_ = CMS_CODEC_NONE;
  AVCodecContext* context_ = nullptr;
  BorrowedPacket packet_;
  AVFrame* picture_ = nullptr;
  AVFrame* surplus_ = nullptr;
};

}  // namespace cms

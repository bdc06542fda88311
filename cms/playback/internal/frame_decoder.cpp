#include "cms/playback/internal/frame_decoder.h"

#include "cms/live/codec_id.h"
#include "cms/live/decoder.h"
#include "cms/live/frame_header.h"
#include "cms/streaming/stream_probes.h"

namespace cms {
namespace {

CMSCodecID CodecOf(int videoType) {
  switch (videoType) {
    case CMS_VIDEO_H264:
      return CMS_CODEC_H264;
    case CMS_VIDEO_MJPEG:
      return CMS_CODEC_MJPEG;
    case CMS_VIDEO_MPEG4:
      return CMS_CODEC_MPEG4;
    default:
      return CMS_CODEC_NONE;
  }
}

}  // namespace

FrameRef FrameDecoder::NextTowards(const FrameRef& target) const {
  if (last_ && last_.Place() == target.Place() && last_.index <= target.index) {
    return last_.index == target.index ? FrameRef{} : FrameRef{target.gop, last_.index + 1};
  }
  return {target.gop, 0};
}

std::size_t FrameDecoder::StepsTo(const FrameRef& target) const {
  const FrameRef next = NextTowards(target);
  return next ? target.index - next.index + 1 : 0;
}

std::span<const std::uint8_t> FrameDecoder::Read(const FrameRef& frame) {
  const std::size_t size = frame.Frame().area + frame.Frame().payload;
  if (bytes_.size() < size + CMSDecoder::kInputPadding) {
    bytes_.resize(size + CMSDecoder::kInputPadding);
  }
  length_ = reader_.Read(frame.Place(), frame.Frame(), std::span(bytes_).first(size));
  if (length_ < size) {
    length_ = 0;
  }
  return std::span(bytes_).first(length_);
}

bool FrameDecoder::Decode(const FrameRef& frame) {
  const bool follows = last_ && last_.Place() == frame.Place() && last_.index + 1 == frame.index;
  last_ = frame;
  picture_ = false;
  if (length_ <= frame.Frame().area) {
    return false;
  }
  const auto bytes = std::span(bytes_).first(length_);
  const auto payload = bytes.subspan(frame.Frame().area);
  if (frame.index == 0) {
    const int marked = VideoTypeOfHeader(bytes.first(frame.Frame().area));
    const int type = marked != 0 ? marked : VideoTypeOf(payload);
    if (type != 0 && type != videoType_) {
      videoType_ = codec_.Open(CodecOf(type)) ? type : 0;
    }
  }
  if (!follows) {
    codec_.Flush();
  }
  picture_ = codec_.Decode(payload.data(), static_cast<int>(payload.size())) ==
             VideoCodec::Result::kPicture;
  return picture_;
}

}  // namespace cms

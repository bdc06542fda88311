#include "cms/playback/internal/frame_decoder.h"

#include <algorithm>

#include "cms/live/media/input_padding.h"
#include "cms/streaming/stream_probes.h"

namespace cms {

FrameRef FrameDecoder::NextTowards(const FrameRef& target) const {
  const bool cut = drained_ && !Ended(target);  // nothing can follow, though there is more
  if (IsIn(target) && target.index >= before_ && !cut) {
    const bool there = target.index < passed_ || Ended(target);
    return there ? FrameRef{} : FrameRef{target.gop, fed_.index + 1};
  }
  return {target.gop, 0};
}

std::size_t FrameDecoder::StepsTo(const FrameRef& target) const {
  const FrameRef next = NextTowards(target);
  if (!next) {
    return 0;
  }
  const std::size_t last = std::min(target.index + codec_.Delay(), target.gop->video.size() - 1);
  return last > next.index ? last - next.index + 1 : 1;
}

std::span<const std::uint8_t> FrameDecoder::Read(const FrameRef& frame) {
  const std::size_t size = frame.Frame().area + frame.Frame().payload;
  if (bytes_.size() < size + kInputPadding) {
    bytes_.resize(size + kInputPadding);
  }
  length_ = reader_.Read(frame.Place(), frame.Frame(), std::span(bytes_).first(size));
  if (length_ < size) {
    length_ = 0;
  }
  return std::span(bytes_).first(length_);
}

void FrameDecoder::Begin() {
  codec_.Flush();
  drained_ = false;
  failed_ = before_ = passed_ = 0;
}

void FrameDecoder::Decode(const FrameRef& frame) {
  if (!IsIn(frame) || fed_.index + 1 != frame.index || drained_) {
    Begin();
  }
  fed_ = frame;
  before_ = passed_;
  picture_ = false;
  if (Feed(frame)) {
    Pass(frame.index);
  } else if (codec_.Delay() == 0) {
    PassAll();
  }
  if (codec_.Delay() > deepest_) {
    deepest_ = codec_.Delay();
    if (passed_ > 0) {  // pictures may have come too early: once more, with what is known now
      fed_ = {};
      passed_ = 0;
    }
  }
}

// True when it gave a picture.
bool FrameDecoder::Feed(const FrameRef& frame) {
  VideoCodec::Result result = VideoCodec::Result::kError;
  if (length_ > frame.Frame().area) {
    const auto bytes = std::span(bytes_).first(length_);
    const auto payload = bytes.subspan(frame.Frame().area);
    if (frame.index == 0) {
      const CMSVideoType type = VideoTypeOfKeyFrame(bytes.first(frame.Frame().area), payload);
      if (type != CMS_VIDEO_UNKNOWN && type != videoType_) {
        videoType_ = codec_.Open(CodecOfVideoType(type), true) ? type : CMS_VIDEO_UNKNOWN;
        deepest_ = 0;
      }
    }
    result = codec_.Decode(payload.data(), static_cast<int>(payload.size()),
                           static_cast<std::int64_t>(frame.index));
  }
  failed_ += result == VideoCodec::Result::kError ? 1 : 0;
  return result == VideoCodec::Result::kPicture;
}

// A picture came with frame `fed`, or where this one would be behind the group's end. It is the
// next frame's, or a later one's where some are missing: none is shown more places before its own
// frame than the delay.
void FrameDecoder::Pass(std::size_t fed) {
  const auto ahead = [](std::size_t index, std::size_t delay) {
    return index > delay ? index - delay : 0;
  };
  const AVFrame& picture = codec_.Picture();
  std::size_t index = passed_;
  if (picture.pts != AV_NOPTS_VALUE) {
    index = std::max(index, ahead(static_cast<std::size_t>(picture.pts), codec_.Delay()));
  }
  if (passed_ == 0) {  // those in front of it that the codec left out without a word
    index = std::max(index, ahead(fed, codec_.Delay() + failed_));
  }
  picture_ = index <= fed_.index && (picture.flags & AV_FRAME_FLAG_CORRUPT) == 0;
  passed_ = std::min(index, fed_.index) + 1;
  lost_ += passed_ - before_ - (picture_ ? 1 : 0);
}

void FrameDecoder::PassAll() {
  passed_ = fed_.index + 1;
  lost_ += passed_ - before_;
}

void FrameDecoder::Drain() {
  drained_ = true;
  before_ = passed_;
  picture_ = false;
  if (codec_.Drain() == VideoCodec::Result::kPicture) {
    Pass(fed_.index + 1);
  } else {
    PassAll();
  }
}

bool FrameDecoder::Reach(const FrameRef& target, bool keyOnly) {
  if (!IsIn(target)) {
    return false;
  }
  const bool last = Ended(target) || (keyOnly && target.index == 0);
  while (last && target.index >= passed_) {
    Drain();
  }
  return target.index >= before_ && target.index < passed_;
}

}  // namespace cms

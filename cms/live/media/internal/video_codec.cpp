#include "cms/live/media/internal/video_codec.h"

#include "cms/live/media/internal/codec_map.h"
#include "cms/live/media/internal/library_silence.h"
#include "cms/runtime/critical.h"

namespace cms {
namespace {

// Pictures or faults taken out of one Decode's data before the rest is thrown away.
constexpr int kMaxOutputs = 64;

CMSCritical& OpenLock() {
  static auto& lock = *new CMSCritical;  // decoders may outlive static objects
  return lock;
}

}  // namespace

VideoCodec::~VideoCodec() {
  Close();
}

bool VideoCodec::Open(CMSCodecID codec, bool unrecovered) {
  const LibrarySilence silence;
  Close();
  if (!Allocate(codec, unrecovered)) {
    Close();
    return false;
  }
  codec_ = codec;
  return true;
}

bool VideoCodec::Allocate(CMSCodecID codec, bool unrecovered) {
  const AVCodecID id = ToLibraryCodec(codec);
  const AVCodec* decoder = id != AV_CODEC_ID_NONE ? avcodec_find_decoder(id) : nullptr;
  if (decoder == nullptr || decoder->type != AVMEDIA_TYPE_VIDEO) {
    return false;
  }
  context_ = avcodec_alloc_context3(decoder);
  picture_ = av_frame_alloc();
  surplus_ = av_frame_alloc();
  if (!packet_.Allocate() || context_ == nullptr || picture_ == nullptr || surplus_ == nullptr) {
    return false;
  }
  context_->thread_count = 1;  // a site's channels are the parallelism
  context_->max_pixels = kMaxPixels;
  if (unrecovered) {
    context_->flags |= AV_CODEC_FLAG_OUTPUT_CORRUPT;
  }
  const ScopeLock opening(OpenLock());
  return avcodec_open2(context_, decoder, nullptr) == 0;
}

void VideoCodec::Close() {
  codec_ = CMS_CODEC_NONE;
  avcodec_free_context(&context_);
  av_frame_free(&picture_);
  av_frame_free(&surplus_);
  packet_.Free();
}

void VideoCodec::Flush() {
  if (context_ != nullptr) {
    avcodec_flush_buffers(context_);
  }
}

VideoCodec::Result VideoCodec::Decode(const std::uint8_t* data, int length, std::int64_t pts) {
  if (context_ == nullptr || data == nullptr || length <= 0) {
    return Result::kError;
  }
  const LibrarySilence silence;
  const int sent = packet_.Send(context_, {data, static_cast<std::size_t>(length)}, pts);
  const Result received = Receive();
  return received == Result::kNoPicture && sent < 0 ? Result::kError : received;
}

VideoCodec::Result VideoCodec::Drain() {
  if (context_ == nullptr) {
    return Result::kNoPicture;
  }
  const LibrarySilence silence;
  avcodec_send_packet(context_, nullptr);
  return avcodec_receive_frame(context_, picture_) == 0 ? Result::kPicture : Result::kNoPicture;
}

// Takes pictures until the codec asks for data. What follows the first picture in the same data
// (thumbnails, rubbish behind a JPEG) is dropped and its faults do not count.
VideoCodec::Result VideoCodec::Receive() {
  Result result = Result::kNoPicture;
  for (int output = 0; output < kMaxOutputs; ++output) {
    const bool have = result == Result::kPicture;
    const int received = avcodec_receive_frame(context_, have ? surplus_ : picture_);
    if (received == AVERROR(EAGAIN) || received == AVERROR_EOF) {
      av_frame_unref(surplus_);
      return result;
    }
    if (!have) {
      result = received == 0 ? Result::kPicture : Result::kError;
    }
  }
  avcodec_flush_buffers(context_);
  return result;
}

}  // namespace cms

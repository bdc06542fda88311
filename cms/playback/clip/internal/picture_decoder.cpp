#include "cms/playback/clip/internal/picture_decoder.h"

extern "C" {
#include <libavutil/pixdesc.h>
}

#include "cms/live/media/input_padding.h"

namespace cms {

static_assert(kInputPadding >= AV_INPUT_BUFFER_PADDING_SIZE);

PictureDecoder::PictureDecoder(CMSCodecID codec) {
  codec_.Open(codec);
}

void PictureDecoder::Decode(std::span<const std::uint8_t> frame) {
  if (codec_.Decode(frame.data(), static_cast<int>(frame.size())) == VideoCodec::Result::kPicture) {
    Keep();
  }
}

void PictureDecoder::End() {
  while (codec_.Drain() == VideoCodec::Result::kPicture) {
    Keep();
  }
}

void PictureDecoder::Keep() {
  picture_.reset(av_frame_alloc());
  codec_.TakePicture(picture_.get());
}

const AVFrame* PictureDecoder::Picture() const {
  return picture_.get();
}

int PictureDecoder::ChromaFormat() const {
  const AVPixFmtDescriptor* format =
      av_pix_fmt_desc_get(static_cast<AVPixelFormat>(picture_->format));
  return format == nullptr           ? 1
         : format->nb_components < 3 ? 0
                                     : 3 - format->log2_chroma_w - format->log2_chroma_h;
}

int PictureDecoder::BitDepth() const {
  const AVPixFmtDescriptor* format =
      av_pix_fmt_desc_get(static_cast<AVPixelFormat>(picture_->format));
  return format == nullptr ? 8 : format->comp[0].depth;
}

}  // namespace cms

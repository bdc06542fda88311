#include "cms/playback/clip/internal/picture_order.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <algorithm>

#include "cms/live/media/internal/codec_map.h"

namespace cms {
struct PictureOrder::State {
  struct Free {
    void operator()(AVCodecContext* made) const { avcodec_free_context(&made); }
    void operator()(AVCodecParserContext* made) const { av_parser_close(made); }
  };

  std::unique_ptr<AVCodecContext, Free> context;
  std::unique_ptr<AVCodecParserContext, Free> parser;
  std::int64_t group = 0;    // from key frame to key frame; of MPEG-4 from I or P to I or P
  std::int64_t between = 0;  // B-frames of MPEG-4 in this group
};

PictureOrder::PictureOrder(CMSCodecID codec) : state_(std::make_unique<State>()) {
  state_->context.reset(avcodec_alloc_context3(avcodec_find_decoder(ToLibraryCodec(codec))));
  state_->parser.reset(av_parser_init(ToLibraryCodec(codec)));
  state_->parser->flags |= PARSER_FLAG_COMPLETE_FRAMES;
}

PictureOrder::~PictureOrder() = default;

std::int64_t PictureOrder::Of(std::span<const std::uint8_t> picture, bool key) {
  constexpr std::int64_t kGroup = std::int64_t{1} << 32;
  State& state = *state_;
  std::uint8_t* out = nullptr;
  int size = 0;
  av_parser_parse2(state.parser.get(), state.context.get(), &out, &size, picture.data(),
                   static_cast<int>(picture.size()), AV_NOPTS_VALUE, AV_NOPTS_VALUE, 0);
  if (state.context->codec_id == AV_CODEC_ID_H264 || state.context->codec_id == AV_CODEC_ID_HEVC) {
    // The picture order count begins anew with an IDR picture, and nothing in front of a key frame
    // is shown behind it.
    state.group += key || state.parser->key_frame == 1 ? 1 : 0;
    return state.group * kGroup + state.parser->output_picture_number;
  }
  // B-frames are shown before the I or P that they follow.
  if (state.parser->pict_type == AV_PICTURE_TYPE_B) {
    return (state.group - 1) * kGroup + ++state.between;
  }
  state.between = 0;
  return ++state.group * kGroup;
}

int ReorderingOf(std::span<const std::int64_t> numbers) {
  std::ptrdiff_t most = 0;
  for (std::size_t i = 0; i < numbers.size(); ++i) {
    const auto before = numbers.first(i);
    most = std::max(most, std::count_if(before.begin(), before.end(),
                                        [&](std::int64_t number) { return number > numbers[i]; }));
  }
  return static_cast<int>(most);
}

}  // namespace cms

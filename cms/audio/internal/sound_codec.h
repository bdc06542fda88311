// SoundCodec: one sound codec of the installed codec library, blocks in, 16-bit samples out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "cms/live/media/codec_id.h"
#include "cms/live/media/internal/borrowed_packet.h"

struct SwrContext;

namespace cms {

// Samples come out at the rate and with the channels that were asked for, whatever the stream says
// of itself. One thread at a time; nothing of this is allocated for a block once the stream's own
// format has been seen.
class SoundCodec {
 public:
  SoundCodec() = default;
  SoundCodec(const SoundCodec&) = delete;
  SoundCodec& operator=(const SoundCodec&) = delete;

  // `codec` is AAC or one of G.726's. A rate of 0 is that of the stream's first block.
  bool Open(CMSCodecID codec, unsigned sampleRate, unsigned channels);
  void Close();

  // The bytes written to `out`, interleaved; nothing when the block cannot be decoded or its
  // samples do not fit.
  std::optional<std::size_t> Decode(std::span<const std::uint8_t> block,
                                    std::span<std::uint8_t> out);

 private:
  struct FreeContext {
    void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
  };
  struct FreeFrame {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
  };
  struct FreeConverter {
    void operator()(SwrContext* converter) const;
  };

  bool PrepareConverter();
  std::optional<std::size_t> Convert(std::span<std::uint8_t> out);

  std::unique_ptr<AVCodecContext, FreeContext> context_;
  std::unique_ptr<AVFrame, FreeFrame> frame_;
  std::unique_ptr<SwrContext, FreeConverter> converter_;
  BorrowedPacket packet_;
  std::vector<std::uint8_t> padded_;  // the block, and what the codec reads behind it
  int sampleRate_ = 0;
  int channels_ = 0;
  struct StreamFormat {
    int format = -1;
    int sampleRate = 0;
    int channels = 0;
    bool operator==(const StreamFormat&) const = default;
  } converted_;  // what the converter is for
};

}  // namespace cms

#include "cms/playback/fragments/sound_fragments.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <cstdlib>
#include <optional>

#include "cms/live/media/frame_moment.h"
#include "cms/live/media/internal/adts.h"
#include "cms/playback/clip/internal/clip_writer.h"
#include "cms/playback/clip/internal/sound_encoder.h"
#include "cms/playback/fragments/internal/fragment_boxes.h"

namespace cms {
namespace {

// Blocks follow each other without a seam, unless they have left their times by so much of a
// second.
constexpr int kSeam = 6;

// MPEG-4 audio with its decoder's configuration: ISO/IEC 14496-14, 5.6; 14496-1, 7.2.6.
void PutAacEntry(Mp4Bytes& out, int rate, int channels, std::span<const std::uint8_t> config) {
  const Mp4Box entry(out, "mp4a");
  PutNumber(out, 1, 8);  // reserved; the data reference
  PutNumber(out, 0, 8);
  PutNumber(out, static_cast<std::uint64_t>(channels), 2);
  PutNumber(out, 16, 2);  // bits of a sample
  PutNumber(out, 0, 4);
  PutNumber(out, static_cast<std::uint64_t>(rate > 0xFFFF ? 0 : rate) << 16, 4);
  const Mp4Box box(out, "esds", 0, 0);
  const Mp4Descriptor stream(out, 3);
  PutNumber(out, 1, 2);
  PutNumber(out, 0, 1);
  {
    const Mp4Descriptor decoder(out, 4);
    PutNumber(out, 0x4015, 2);  // MPEG-4 audio, a stream of sound
    out.insert(out.end(), 3 + 4 + 4, 0);
    const Mp4Descriptor specific(out, 5);
    PutBytes(out, config);
  }
  const Mp4Descriptor layer(out, 6);
  PutNumber(out, 2, 1);
}

}  // namespace

struct SoundFragments::State {
  explicit State(std::int64_t us) : originUs(us) {}

  void Begin(int samplesASecond, int channels, std::span<const std::uint8_t> config);
  void Arrive(std::int64_t timeUs);
  bool Put(Mp4Bytes& out, std::span<const std::uint8_t> unit, std::int64_t sample);

  const std::int64_t originUs;
  std::optional<ClipAudio> format;
  std::optional<AdtsFormat> adts;  // of AAC that is not encoded here
  std::unique_ptr<SoundEncoder> encoder;
  int rate = 0;
  std::optional<std::int64_t> begin;  // the time of sample 0, in samples
  std::int64_t came = 0;              // samples
  Mp4Bytes header;
  unsigned version = 0;
  std::uint32_t number = 0;
  std::string codec;
};

void SoundFragments::State::Begin(int samplesASecond, int channels,
                                  std::span<const std::uint8_t> config) {
  rate = samplesASecond;
  begin.reset();
  came = 0;
  header.clear();
  PutFragmentHeader(header, {false, static_cast<std::uint32_t>(rate), 0, 0},
                    [&](Mp4Bytes& out) { PutAacEntry(out, rate, channels, config); });
  codec = "mp4a.40." + std::to_string(config.empty() ? 2 : config[0] >> 3);
  ++version;
}

// A block whose first sample was taken then.
void SoundFragments::State::Arrive(std::int64_t timeUs) {
  const std::int64_t us = timeUs - originUs;
  const std::int64_t taken = us / kMicro * rate + us % kMicro * rate / kMicro;
  if (!begin || std::abs(taken - *begin - came) > rate / kSeam) {
    begin = taken - came;
  }
}

bool SoundFragments::State::Put(Mp4Bytes& out, std::span<const std::uint8_t> unit,
                                std::int64_t sample) {
  const std::int64_t time = *begin + sample;
  if (time < 0) {
    return false;
  }
  const std::size_t at =
      BeginFragment(out, {++number, static_cast<std::uint64_t>(time), kAacUnitSamples, true});
  PutBytes(out, unit);
  return EndFragment(out, at);
}

SoundFragments::SoundFragments(std::int64_t originUs) : state_(std::make_unique<State>(originUs)) {}

SoundFragments::~SoundFragments() = default;

bool SoundFragments::SetFormat(const tCMSAudioPlayerConfig& format) {
  State& state = *state_;
  const ClipAudio wanted{static_cast<std::uint32_t>(format.codecId),
                         static_cast<int>(format.sampleRate),
                         static_cast<int>(format.channels),
                         {}};
  if (state.format == wanted) {
    return true;
  }
  state.encoder.reset();
  state.adts.reset();
  state.format.reset();
  if (wanted.codecId == CMS_CODEC_AAC) {
    state.format = wanted;  // its blocks tell the rest
    return true;
  }
  if (!SoundEncoder::Knows(wanted)) {
    return false;
  }
  state.encoder = std::make_unique<SoundEncoder>(wanted);
  state.format = wanted;
  const AVCodecContext& made = state.encoder->Context();
  state.Begin(state.encoder->Rate(), made.ch_layout.nb_channels,
              {made.extradata, static_cast<std::size_t>(made.extradata_size)});
  return true;
}

bool SoundFragments::Append(std::span<const std::uint8_t> block, std::int64_t timeUs,
                            std::vector<std::uint8_t>& out) {
  State& state = *state_;
  if (!state.format) {
    return false;
  }
  bool any = false;
  if (state.encoder != nullptr) {
    state.Arrive(timeUs);
    state.came += static_cast<std::int64_t>(state.encoder->Add(block));
    while (const AVPacket* packet = state.encoder->Next()) {
      any = state.Put(out, {packet->data, static_cast<std::size_t>(packet->size)}, packet->pts) ||
            any;
    }
    return any;
  }
  const auto frame = ReadAdtsFrame(block);
  if (!frame) {
    return false;
  }
  if (state.adts != frame->format) {
    state.adts = frame->format;
    state.Begin(static_cast<int>(frame->format.SampleRate()),
                static_cast<int>(frame->format.channels), AudioSpecificConfigOf(frame->format));
  }
  state.Arrive(timeUs);
  any = state.Put(out, frame->unit, state.came);
  state.came += kAacUnitSamples;
  return any;
}

std::span<const std::uint8_t> SoundFragments::Header() const {
  return state_->header;
}
const std::string& SoundFragments::Codec() const {
  return state_->codec;
}
unsigned SoundFragments::Version() const {
  return state_->version;
}

}  // namespace cms

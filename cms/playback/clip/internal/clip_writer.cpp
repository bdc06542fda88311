#include "cms/playback/clip/internal/clip_writer.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
}

#include <algorithm>
#include <cstring>
#include <new>
#include <vector>

#include "cms/live/media/internal/adts.h"
#include "cms/live/media/internal/codec_map.h"
#include "cms/playback/clip/internal/clip_file.h"
#include "cms/playback/clip/internal/file_units.h"
#include "cms/playback/clip/internal/sound_encoder.h"
#include "cms/recording/database_reader.h"

namespace cms {

struct FreeClipPacket {
  void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};
using Packet = std::unique_ptr<AVPacket, FreeClipPacket>;

namespace {

constexpr AVRational kMicroseconds{1, 1'000'000};
constexpr AVRational kVideoClock{1, 90'000};
constexpr std::uint32_t kHvc1 = MKTAG('h', 'v', 'c', '1');
constexpr int kSoundTolerance = 50;  // parts of a second that sound may be off its time

AVCodecID SoundCodecOf(const ClipAudio& audio) {
  return ToLibraryCodec(static_cast<CMSCodecID>(audio.codecId));
}

// Of PCM and the logarithmic codecs.
bool HasPlainSamples(const ClipAudio& audio) {
  return av_get_exact_bits_per_sample(SoundCodecOf(audio)) >= 8;
}

const char* MuxerOf(ClipContainer container) {
  return container == ClipContainer::kMp4 ? "mp4" : "matroska";
}

struct FreeFilter {
  void operator()(AVBSFContext* filter) const { av_bsf_free(&filter); }
};

void SetExtradata(AVCodecParameters& parameters, std::span<const std::uint8_t> bytes) {
  av_freep(&parameters.extradata);
  parameters.extradata =
      static_cast<std::uint8_t*>(av_mallocz(bytes.size() + AV_INPUT_BUFFER_PADDING_SIZE));
  if (parameters.extradata == nullptr) {
    throw std::bad_alloc();
  }
  std::memcpy(parameters.extradata, bytes.data(), bytes.size());
  parameters.extradata_size = static_cast<int>(bytes.size());
}

std::span<const std::uint8_t> Extradata(const AVCodecParameters& parameters) {
  return {parameters.extradata, static_cast<std::size_t>(parameters.extradata_size)};
}

// The parameter sets of a key frame, as the container's header wants them: the filter tells what it
// found in the frame.
void ReadParameterSets(std::span<const std::uint8_t> frame, AVCodecParameters& parameters) {
  AVBSFContext* made = nullptr;
  if (av_bsf_alloc(av_bsf_get_by_name("extract_extradata"), &made) < 0) {
    return;
  }
  const std::unique_ptr<AVBSFContext, FreeFilter> filter(made);
  const Packet packet(av_packet_alloc());
  if (avcodec_parameters_copy(filter->par_in, &parameters) < 0 || av_bsf_init(filter.get()) < 0 ||
      av_new_packet(packet.get(), static_cast<int>(frame.size())) < 0) {
    return;
  }
  std::memcpy(packet->data, frame.data(), frame.size());
  std::size_t size = 0;
  if (av_bsf_send_packet(filter.get(), packet.get()) < 0 ||
      av_bsf_receive_packet(filter.get(), packet.get()) < 0) {
    return;
  }
  const std::uint8_t* found =
      av_packet_get_side_data(packet.get(), AV_PKT_DATA_NEW_EXTRADATA, &size);
  if (found != nullptr) {
    SetExtradata(parameters, {found, size});
  }
}

}  // namespace

ClipSound SoundIn(ClipContainer container, const ClipAudio& audio) {
  if (audio.codecId == CMS_CODEC_AAC) {
    return audio.config != decltype(audio.config){} ? ClipSound::kCopied : ClipSound::kLeftOut;
  }
  // Matroska's own list lacks what it takes over from WAV.
  const AVOutputFormat* format = av_guess_format(MuxerOf(container), nullptr, nullptr);
  const bool place = format->codec_tag != nullptr && HasPlainSamples(audio) &&
                     av_codec_get_tag(format->codec_tag, SoundCodecOf(audio)) != 0;
  if (container == ClipContainer::kMatroska && place && audio.sampleRate > 0 &&
      audio.channels > 0) {
    return ClipSound::kCopied;
  }
  return SoundEncoder::Knows(audio) ? ClipSound::kEncoded : ClipSound::kLeftOut;
}

struct ClipWriter::State {
  explicit State(const std::string& path) : file(path) {}
  ~State() { avformat_free_context(context); }

  ClipFile file;
  AVFormatContext* context = nullptr;
  AVStream* video = nullptr;
  AVStream* audio = nullptr;
  Packet packet{av_packet_alloc()};
  std::int64_t begin = -1;                // microseconds
  std::int64_t end = 0;                   // of the last picture, from `begin` on
  std::optional<std::int64_t> lastVideo;  // decoding, in the stream's units
  std::int64_t samples = -1;    // of audio, up to which it was written; -1 before the first block
  std::int64_t lastSound = -1;  // the first sample of the last block
  int sampleBytes = 0;          // of all channels, where samples have any
  std::unique_ptr<SoundEncoder> encoder;  // of sound that is not copied
  bool lengths = false;                   // units of video carry theirs instead of start codes
  std::vector<std::uint8_t> scratch;

  void Check(int result) const { file.Check(result); }
  void AddVideo(const ClipFormat& format);
  void UseLengths(const std::vector<std::uint8_t>& configuration);
  void AddAudio(ClipContainer container, const ClipAudio& audio);
  int Rate() const { return audio->codecpar->sample_rate; }  // what `samples` counts by
  std::int64_t WriteBlock(std::span<const std::uint8_t> block);
  void WriteEncoded();
  struct Times {  // in the stream's units
    std::int64_t decoding = 0;
    std::int64_t presentation = 0;
    std::int64_t duration = 0;
  };
  void Write(AVStream& stream, std::span<const std::uint8_t> data, const Times& times, bool key);
};

void ClipWriter::State::AddVideo(const ClipFormat& format) {
  video = avformat_new_stream(context, nullptr);
  Check(video == nullptr ? AVERROR(ENOMEM) : 0);
  video->time_base = kVideoClock;
  AVCodecParameters& parameters = *video->codecpar;
  parameters.codec_type = AVMEDIA_TYPE_VIDEO;
  parameters.codec_id = ToLibraryCodec(format.video);
  parameters.width = format.width;
  parameters.height = format.height;
  if (format.video != CMS_CODEC_MJPEG) {
    ReadParameterSets(format.keyFrame, parameters);
  }
  if (format.video == CMS_CODEC_H264) {
    UseLengths(AvcConfiguration(Extradata(parameters), format.chromaFormat, format.bitDepth));
  } else if (format.video == CMS_CODEC_H265) {
    UseLengths(HevcConfiguration(Extradata(parameters), format.chromaFormat, format.bitDepth));
    // The name that all players take. The parameter sets stay in the pictures as well, for a camera
    // that changes them.
    parameters.codec_tag = format.container == ClipContainer::kMp4 && lengths ? kHvc1 : 0;
  }
}

// The muxers could make lengths of start codes as well; this is several times as fast.
void ClipWriter::State::UseLengths(const std::vector<std::uint8_t>& configuration) {
  lengths = !configuration.empty();
  if (lengths) {
    SetExtradata(*video->codecpar, configuration);
  }
}

void ClipWriter::State::AddAudio(ClipContainer container, const ClipAudio& wanted) {
  audio = avformat_new_stream(context, nullptr);
  Check(audio == nullptr ? AVERROR(ENOMEM) : 0);
  AVCodecParameters& parameters = *audio->codecpar;
  if (SoundIn(container, wanted) == ClipSound::kEncoded) {
    encoder = std::make_unique<SoundEncoder>(wanted);
    Check(avcodec_parameters_from_context(&parameters, &encoder->Context()));
    audio->time_base = {1, encoder->Rate()};
    return;
  }
  audio->time_base = {1, wanted.sampleRate};
  parameters.codec_type = AVMEDIA_TYPE_AUDIO;
  parameters.codec_id = SoundCodecOf(wanted);
  parameters.sample_rate = wanted.sampleRate;
  av_channel_layout_default(&parameters.ch_layout, wanted.channels);
  if (wanted.codecId == CMS_CODEC_AAC) {
    parameters.frame_size = kAacUnitSamples;
    SetExtradata(parameters, wanted.config);
    return;
  }
  parameters.bits_per_coded_sample = av_get_bits_per_sample(parameters.codec_id);
  sampleBytes = parameters.bits_per_coded_sample / 8 * wanted.channels;
  parameters.block_align = sampleBytes;
}

void ClipWriter::State::Write(AVStream& stream, std::span<const std::uint8_t> data,
                              const Times& times, bool key) {
  // Not reference-counted: the muxer writes what it needs before it returns.
  packet->data = const_cast<std::uint8_t*>(data.data());
  packet->size = static_cast<int>(data.size());
  packet->stream_index = stream.index;
  packet->pts = times.presentation;
  packet->dts = times.decoding;
  packet->duration = times.duration;
  packet->flags = key ? AV_PKT_FLAG_KEY : 0;
  Check(av_write_frame(context, packet.get()));
  Check(context->pb->error);
}

ClipWriter::ClipWriter(const std::string& path, const ClipFormat& format)
    : state_(std::make_unique<State>(path)) {
  State& state = *state_;
  state.Check(avformat_alloc_output_context2(&state.context, nullptr, MuxerOf(format.container),
                                             path.c_str()));
  state.file.Attach(*state.context);
  // Times of decoding may lie in front of the beginning: those of presentation do not.
  state.context->avoid_negative_ts = AVFMT_AVOID_NEG_TS_DISABLED;
  state.AddVideo(format);
  if (format.audio) {
    state.AddAudio(format.container, *format.audio);
  }
  const std::string begin =
      format.begin == 0 ? "1970-01-01T00:00:00Z" : TextOfRecordTime(format.begin);
  av_dict_set(&state.context->metadata, "creation_time", begin.c_str(), 0);
  AVDictionary* muxing = nullptr;
  av_dict_set(&muxing, "write_crc32", "0", 0);  // Matroska's, which would take half of the time
  // MP4's index in front, so that a player over a network begins at once.
  av_dict_set(&muxing, "movflags", "faststart", 0);
  const int written = avformat_write_header(state.context, &muxing);
  av_dict_free(&muxing);
  state.Check(written);
}

ClipWriter::~ClipWriter() = default;

void ClipWriter::WriteVideo(std::span<std::uint8_t> frame, const PictureTimes& times, bool key) {
  State& state = *state_;
  const std::span<const std::uint8_t> written =
      state.lengths ? LengthsForStartCodes(frame, state.scratch) : frame;
  if (written.empty()) {
    return;  // nothing of it is H.264
  }
  state.begin = state.begin < 0 ? times.presentation : state.begin;
  AVStream& stream = *state.video;
  const auto units = [&](std::int64_t time) {
    return av_rescale_q(time, kMicroseconds, stream.time_base);
  };
  // Matroska counts milliseconds: pictures closer than that must still follow each other.
  State::Times at;
  at.decoding = state.lastVideo
                    ? std::max(units(times.decoding - state.begin), *state.lastVideo + 1)
                    : units(times.decoding - state.begin);
  at.presentation = std::max(units(times.presentation - state.begin), at.decoding);
  at.duration = units(times.interval);
  state.lastVideo = at.decoding;
  state.end = std::max(state.end, times.presentation - state.begin + times.interval);
  state.Write(stream, written, at, key || stream.codecpar->codec_id == AV_CODEC_ID_MJPEG);
}

void ClipWriter::WriteAudio(std::span<const std::uint8_t> block, std::int64_t time, bool told) {
  State& state = *state_;
  const int rate = state.Rate();
  const std::int64_t arrived = av_rescale(time - state.begin, rate, kMicroseconds.den);
  // Blocks follow each other without a seam, unless they stayed away, or have left their times: the
  // clocks of pictures and of sound part by a second in an hour.
  const std::int64_t off = arrived - state.samples;
  if (told && state.samples < 0 && arrived < 0) {
    return;  // in front of the first picture
  }
  if (state.samples < 0 || off > rate / 2) {
    state.samples = std::max(state.samples, arrived);
    if (state.encoder != nullptr) {
      state.encoder->GoTo(state.samples);
    }
  } else if (told && std::abs(off) > rate / kSoundTolerance) {
    if (state.encoder != nullptr) {
      state.encoder->Stretch(off);
    } else {
      state.samples = std::max(arrived, state.lastSound + 1);
    }
  }
  state.lastSound = state.samples;
  state.samples += state.WriteBlock(block);
}

// The samples of it.
std::int64_t ClipWriter::State::WriteBlock(std::span<const std::uint8_t> block) {
  if (encoder != nullptr) {
    const std::size_t added = encoder->Add(block);
    WriteEncoded();
    return static_cast<std::int64_t>(added);
  }
  std::span<const std::uint8_t> data = block;
  std::int64_t count = kAacUnitSamples;
  if (sampleBytes != 0) {
    count = static_cast<std::int64_t>(block.size()) / sampleBytes;
  } else if (const auto frame = ReadAdtsFrame(block)) {
    data = frame->unit;
  } else {
    return 0;
  }
  const AVRational clock{1, Rate()};
  const std::int64_t at = av_rescale_q(samples, clock, audio->time_base);
  Write(*audio, data, {at, at, av_rescale_q(count, clock, audio->time_base)}, true);
  return count;
}

void ClipWriter::State::WriteEncoded() {
  const AVRational clock{1, Rate()};
  while (const AVPacket* made = encoder->Next()) {
    const std::int64_t at = av_rescale_q(made->pts, clock, audio->time_base);
    Write(*audio, {made->data, static_cast<std::size_t>(made->size)},
          {at, at, av_rescale_q(made->duration, clock, audio->time_base)}, true);
  }
}

void ClipWriter::Finish() {
  State& state = *state_;
  if (state.encoder != nullptr) {
    state.encoder->End();
    state.WriteEncoded();
  }
  state.Check(av_write_trailer(state.context));
  state.file.Keep();
}

double ClipWriter::Duration() const {
  return static_cast<double>(state_->end) / kMicroseconds.den;
}

}  // namespace cms

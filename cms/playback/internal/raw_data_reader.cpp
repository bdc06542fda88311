#include "cms/playback/internal/raw_data_reader.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "cms/live/media/frame_type.h"
#include "cms/live/media/internal/codec_map.h"
#include "cms/runtime/native_path.h"
#include "cms/streaming/stream_probes.h"

using cms::GopPlace;
using cms::PlaybackFrame;
using cms::PlaybackGop;

namespace {

constexpr std::size_t kChunk = 64 * 1024;
constexpr double kLowestRate = 0.1;

struct ParserClose {
  void operator()(AVCodecParserContext* parser) const { av_parser_close(parser); }
};
struct ContextFree {
  void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
};

}  // namespace

// Time 0 means "none" to those who ask.
CPlaybackRAWDataReader::CPlaybackRAWDataReader(cms::FileIo& io, const std::wstring& path,
                                               double rate, std::int64_t startTime)
    : io_(io),
      path_(cms::NativePath(path)),
      interval_(1000 / std::max(rate, kLowestRate)),
      startTime_(std::max<std::int64_t>(startTime, 1)),
      file_(io, path_, cms::kFileRead) {}

bool CPlaybackRAWDataReader::Open(std::string& error) {
  if (!file_) {
    error = path_ + ": " + std::strerror(errno);
    return false;
  }
  if (!Parse() || frames_.empty()) {
    error = path_ + ": no H.264, H.265, MPEG-4 or JPEG pictures in it";
    return false;
  }
  return true;
}

bool CPlaybackRAWDataReader::Parse() {
  std::vector<std::uint8_t> chunk(kChunk + AV_INPUT_BUFFER_PADDING_SIZE);
  std::size_t held = io_.ReadAllAt(file_.Handle(), chunk.data(), kChunk, 0);
  const AVCodecID codec = cms::ToLibraryCodec(
      cms::CodecOfVideoType(cms::VideoTypeOfKeyFrame(std::span(chunk).first(held))));
  const AVCodec* const decoder = avcodec_find_decoder(codec);
  const std::unique_ptr<AVCodecParserContext, ParserClose> parser(av_parser_init(codec));
  const std::unique_ptr<AVCodecContext, ContextFree> context(
      decoder != nullptr ? avcodec_alloc_context3(decoder) : nullptr);
  if (!parser || !context) {
    return false;
  }
  std::uint64_t begin = 0;  // of the picture that is being put together
  const auto feed = [&](const std::uint8_t* data, std::size_t size) {
    std::uint8_t* picture = nullptr;
    int length = 0;
    const int used = av_parser_parse2(parser.get(), context.get(), &picture, &length, data,
                                      static_cast<int>(size), AV_NOPTS_VALUE, AV_NOPTS_VALUE, 0);
    if (length > 0) {
      Add(begin, static_cast<std::size_t>(length),
          codec == AV_CODEC_ID_MJPEG || parser->key_frame == 1 ||
              (parser->key_frame < 0 && parser->pict_type == AV_PICTURE_TYPE_I));
      begin += static_cast<std::uint64_t>(length);
    }
    return std::max(used, 0);
  };
  for (std::uint64_t offset = 0; held > 0;) {
    for (std::size_t at = 0; at < held;) {
      const int used = feed(&chunk[at], held - at);
      at += static_cast<std::size_t>(used);
      if (used == 0 && begin == 0) {
        return false;
      }
    }
    offset += held;
    held = io_.ReadAllAt(file_.Handle(), chunk.data(), kChunk, offset);
  }
  feed(nullptr, 0);
  return true;
}

void CPlaybackRAWDataReader::Add(std::uint64_t offset, std::size_t size, bool key) {
  if (frames_.empty() && !key) {
    return;
  }
  if (key) {
    keys_.push_back(frames_.size());
  }
  PlaybackFrame frame;
  frame.time =
      startTime_ + static_cast<std::int64_t>(static_cast<double>(frames_.size()) * interval_);
  frame.offset = offset;
  frame.payload = static_cast<std::uint32_t>(size);
  frame.type = key ? cms::kKeyFrame : cms::kOtherFrame;
  frames_.push_back(frame);
}

std::optional<GopPlace> CPlaybackRAWDataReader::At(std::int64_t time) {
  const auto later =
      std::upper_bound(keys_.begin(), keys_.end(), time,
                       [this](std::int64_t t, std::size_t key) { return t < frames_[key].time; });
  if (later == keys_.begin()) {
    return std::nullopt;
  }
  return GopPlace{0, static_cast<std::size_t>(later - keys_.begin()) - 1};
}

std::optional<GopPlace> CPlaybackRAWDataReader::After(const GopPlace& place) {
  return place.key + 1 < keys_.size() ? std::optional(GopPlace{0, place.key + 1}) : std::nullopt;
}

std::optional<GopPlace> CPlaybackRAWDataReader::Before(const GopPlace& place) {
  return place.key > 0 ? std::optional(GopPlace{0, place.key - 1}) : std::nullopt;
}

bool CPlaybackRAWDataReader::Load(const GopPlace& place, PlaybackGop& gop) {
  const std::size_t end = place.key + 1 < keys_.size() ? keys_[place.key + 1] : frames_.size();
  gop.place = place;
  gop.video.assign(frames_.begin() + static_cast<std::ptrdiff_t>(keys_[place.key]),
                   frames_.begin() + static_cast<std::ptrdiff_t>(end));
  gop.audio.clear();
  return true;
}

std::size_t CPlaybackRAWDataReader::Read(const GopPlace&, const PlaybackFrame& frame,
                                         std::span<std::uint8_t> out) {
  return io_.ReadAllAt(file_.Handle(), out.data(), std::min<std::size_t>(out.size(), frame.payload),
                       frame.offset);
}

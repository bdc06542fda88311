#include "tools/data/recording_export.h"

extern "C" {
#include <libavutil/log.h>
}

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "cms/live/media/codec_id.h"
#include "cms/live/media/frame_header.h"
#include "cms/streaming/stream_probes.h"
#include "tools/data/frame_times.h"
#include "tools/data/picture_decoder.h"
#include "tools/data/picture_order.h"
#include "tools/data/presentation_order.h"
#include "tools/support/progress.h"
#include "tools/support/stop_signal.h"

namespace tools {
namespace {

std::optional<ClipVideo> VideoOf(std::span<const std::uint8_t> frame) {
  switch (cms::VideoTypeOf(frame)) {
    case CMS_VIDEO_H264:
      return ClipVideo::kH264;
    case CMS_VIDEO_MJPEG:
      return ClipVideo::kMjpeg;
    case CMS_VIDEO_MPEG4:
      return ClipVideo::kMpeg4;
    default:
      return std::nullopt;
  }
}

ClipAudio AudioOf(const RecordedFrame& frame) {
  cms::AudioFormatDescriptor format;
  std::memcpy(&format, frame.frame.header.Bytes().subspan(16).data(), sizeof(format));
  return {format.codecId, static_cast<int>(std::min<std::uint32_t>(format.sampleRate, 1'000'000)),
          format.channels};
}

std::string NameOf(const ClipAudio& audio) {
  switch (audio.codecId) {
    case CMS_CODEC_PCM_MULAW:
      return "mu-law";
    case CMS_CODEC_PCM_ALAW:
      return "A-law";
    case CMS_CODEC_PCM_S16LE:
    case CMS_CODEC_PCM_S16BE:
      return "L16";
    default:
      return "codec " + std::to_string(audio.codecId);
  }
}

// What the recordings begin with.
struct Beginning {
  std::optional<ClipVideo> video;
  std::vector<std::uint8_t> keyFrame;
  int width = 0;
  int height = 0;
  int chromaFormat = 1;
  int bitDepth = 8;
  std::optional<ClipAudio> audio;
  std::int64_t first = 0;
  int reordering = 0;  // of pictures, as PresentationOrder takes it
};

void TryKeyFrame(std::span<const std::uint8_t> payload, Beginning& beginning) {
  beginning.video = VideoOf(payload);
  beginning.keyFrame.assign(payload.begin(), payload.end());
  if (!beginning.video) {
    return;
  }
  PictureDecoder decoder(*beginning.video);
  decoder.Decode(payload);
  decoder.End();
  if (decoder.HasPicture()) {
    beginning.width = decoder.Width();
    beginning.height = decoder.Height();
    beginning.chromaFormat = decoder.ChromaFormat();
    beginning.bitDepth = decoder.BitDepth();
    beginning.reordering = decoder.Reordering();
  }
}

// Looks for a key frame that can be decoded, and some way on for sound and for the order in which
// the pictures are shown, of which not every stream tells.
Beginning LookAhead(const ExportOptions& options) {
  constexpr int kFrames = 1000;
  constexpr int kUndecodable = 20;
  constexpr std::size_t kPictures = 100;
  Beginning beginning;
  RecordingFrames frames(options.parts, options.stream);
  int refused = 0;
  std::unique_ptr<PictureOrder> order;
  std::vector<std::int64_t> numbers;
  for (int i = 0; i < kFrames && !(numbers.size() == kPictures && beginning.audio); ++i) {
    const auto frame = frames.Next();
    if (!frame || StopRequested()) {
      break;
    }
    if (frame->audio) {
      beginning.audio = beginning.audio ? beginning.audio : AudioOf(*frame);
      continue;
    }
    if (frame->key && beginning.width == 0 && refused < kUndecodable) {
      TryKeyFrame(frames.Payload(*frame, ClipPadding()), beginning);
      refused += beginning.width == 0 ? 1 : 0;
      beginning.first = frame->Seconds();
      order = beginning.width == 0 ? nullptr : std::make_unique<PictureOrder>(*beginning.video);
    }
    if (order && numbers.size() < kPictures) {
      numbers.push_back(order->Of(frames.Payload(*frame, ClipPadding()), frame->key));
    }
  }
  beginning.reordering = std::max(beginning.reordering, ReorderingOf(numbers));
  if (beginning.keyFrame.empty()) {
    throw std::runtime_error("there is no picture in it" +
                             std::string(frames.OtherFrames() != 0 ? " of that stream" : ""));
  }
  if (beginning.width == 0) {
    throw std::runtime_error("its pictures are neither H.264 nor MJPEG nor MPEG-4, or damaged");
  }
  return beginning;
}

class ClipExport {
 public:
  ClipExport(const ExportOptions& options, const Beginning& beginning)
      : video_(*beginning.video),
        frames_(options.parts, options.stream),
        progress_(frames_.Total()),
        writer_(options.path, FormatOf(options, beginning)),
        order_(beginning.reordering),
        firstSound_(beginning.audio) {
    if (beginning.reordering != 0) {
      numbers_.emplace(video_);
    }
  }

  ExportSummary Run() {
    while (auto frame = frames_.Next()) {
      times_.Add(std::move(*frame));
      WriteReady();
      progress_.Show(frames_.Done());
    }
    times_.End();
    WriteReady();
    order_.End();
    WriteOrdered();
    progress_.Wipe();
    writer_.Finish();
    summary_.duration = writer_.Duration();
    summary_.skippedBytes = frames_.SkippedBytes();
    summary_.skippedFrames += frames_.SkippedFrames();
    AddNotes();
    return summary_;
  }

 private:
  ClipFormat FormatOf(const ExportOptions& options, const Beginning& beginning) {
    if (beginning.audio && TakesAudio(options.container, *beginning.audio)) {
      audio_ = beginning.audio;
    } else if (beginning.audio) {
      summary_.notes.push_back("the sound (" + NameOf(*beginning.audio) + ") was left out: " +
                               (options.container == ClipContainer::kMp4
                                    ? "MP4 has no place for it; .mkv may have"
                                    : "Matroska has no place for it"));
    }
    summary_.audio = audio_.has_value();
    ClipFormat format;
    format.container = options.container;
    format.video = video_;
    format.width = beginning.width;
    format.height = beginning.height;
    format.chromaFormat = beginning.chromaFormat;
    format.bitDepth = beginning.bitDepth;
    format.keyFrame = beginning.keyFrame;
    format.audio = audio_;
    format.begin = beginning.first;
    return format;
  }

  void WriteReady() {
    while (auto next = times_.Next()) {
      if (StopRequested()) {
        throw std::runtime_error("stopped; nothing was written");
      }
      const std::int64_t number = NumberOf(next->frame);
      order_.Add(std::move(*next), number);
      WriteOrdered();
    }
  }

  // Only where pictures are shown in another order, for their payloads are read twice then.
  std::int64_t NumberOf(const RecordedFrame& frame) {
    return numbers_ && !frame.audio ? numbers_->Of(frames_.Payload(frame, ClipPadding()), frame.key)
                                    : 0;
  }

  void WriteOrdered() {
    while (const auto next = order_.Next()) {
      if (next->timed.frame.audio) {
        WriteAudio(next->timed);
      } else {
        WriteVideo(next->timed, next->decodingTime);
      }
    }
  }

  void WriteVideo(const TimedFrame& next, std::int64_t decodingTime) {
    const auto payload = frames_.Payload(next.frame, ClipPadding());
    if (next.frame.key) {
      foreign_ = VideoOf(payload) != video_;
    }
    begin_ = summary_.frames == 0 ? next.time : begin_;
    if (foreign_ || next.time < begin_) {
      foreignFrames_ += foreign_ ? 1 : 0;
      summary_.skippedFrames += foreign_ ? 0 : 1;  // needs what came in front of the first
      return;
    }
    writer_.WriteVideo(payload, {decodingTime, next.time, next.interval}, next.frame.key);
    summary_.first = summary_.frames == 0 ? next.frame.Seconds() : summary_.first;
    summary_.last = next.frame.Seconds();
    ++summary_.frames;
  }

  void WriteAudio(const TimedFrame& next) {
    if (summary_.frames == 0) {
      return;
    }
    const ClipAudio own = AudioOf(next.frame);
    if (!firstSound_ || !(own == *firstSound_)) {
      otherSound_ = own;
      ++otherBlocks_;
    } else if (audio_) {
      writer_.WriteAudio(frames_.Payload(next.frame, ClipPadding()), next.time);
    }
  }

  void AddNotes() {
    summary_.skippedFrames += foreignFrames_;
    if (foreignFrames_ != 0) {
      summary_.notes.push_back("the video's codec changes: " + std::to_string(foreignFrames_) +
                               " frames are not in this clip; export them from where it changes");
    }
    if (otherSound_) {
      summary_.notes.push_back(
          (firstSound_ ? "the sound changes: " : "sound begins behind the clip's beginning: ") +
          std::to_string(otherBlocks_) + " blocks (" + NameOf(*otherSound_) +
          ") are not in this clip; export them from where it " +
          (firstSound_ ? "changes" : "begins"));
    }
    if (frames_.OtherFrames() != 0) {
      summary_.notes.push_back("there are pictures of other streams as well; choose with --stream");
    }
  }

  const ClipVideo video_;
  std::optional<ClipAudio> audio_;
  ExportSummary summary_;
  RecordingFrames frames_;
  Progress progress_;
  ClipWriter writer_;
  FrameTimes times_;
  std::optional<PictureOrder> numbers_;  // where pictures are shown in another order
  PresentationOrder order_;
  std::int64_t begin_ = 0;  // of the first picture written
  bool foreign_ = false;
  std::uint64_t foreignFrames_ = 0;
  const std::optional<ClipAudio> firstSound_;
  std::optional<ClipAudio> otherSound_;  // what came that is not in the clip
  std::uint64_t otherBlocks_ = 0;
};

}  // namespace

ExportSummary ExportClip(const ExportOptions& options) {
  av_log_set_level(AV_LOG_FATAL);
  const Beginning beginning = LookAhead(options);
  return ClipExport(options, beginning).Run();
}

ExportSummary ExportPicture(const ExportOptions& options) {
  av_log_set_level(AV_LOG_FATAL);
  RecordingFrames frames(options.parts, options.stream);
  ExportSummary summary;
  std::optional<ClipVideo> video;
  std::unique_ptr<PictureDecoder> decoder;
  std::string jpeg;
  while (const auto frame = frames.Next()) {
    if (options.firstPicture && decoder && decoder->HasPicture()) {
      break;
    }
    if (StopRequested()) {
      throw std::runtime_error("stopped; nothing was written");
    }
    if (frame->audio) {
      continue;
    }
    const auto payload = frames.Payload(*frame, ClipPadding());
    if (frame->key && (!decoder || VideoOf(payload) != video)) {
      video = VideoOf(payload);
      decoder = video ? std::make_unique<PictureDecoder>(*video) : nullptr;
    }
    if (decoder) {
      decoder->Decode(payload);
      summary.first = summary.last = frame->Seconds();
      if (video == ClipVideo::kMjpeg) {
        jpeg.assign(payload.begin(), payload.end());
      }
    }
  }
  if (decoder) {
    decoder->End();
  }
  if (!decoder || !decoder->HasPicture()) {
    throw std::runtime_error("there is no picture in it that can be decoded");
  }
  // A JPEG stays as the camera made it.
  WriteBeside(options.path, video == ClipVideo::kMjpeg ? jpeg : decoder->Jpeg());
  summary.frames = 1;
  summary.skippedBytes = frames.SkippedBytes();
  summary.skippedFrames = frames.SkippedFrames();
  return summary;
}

}  // namespace tools

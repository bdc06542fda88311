#include "cms/playback/clip/internal/clip_export.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <utility>

#include "cms/live/media/codec_id.h"
#include "cms/live/media/frame_header.h"
#include "cms/playback/clip/internal/clip_writer.h"
#include "cms/playback/clip/internal/frame_times.h"
#include "cms/playback/clip/internal/picture_decoder.h"
#include "cms/playback/clip/internal/picture_order.h"
#include "cms/playback/clip/internal/presentation_order.h"
#include "cms/playback/clip/internal/recording_frames.h"
#include "cms/streaming/stream_probes.h"

namespace cms {
namespace {

ClipAudio AudioOf(const RecordedFrame& frame) {
  AudioFormatDescriptor format;
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
  CMSCodecID video = CMS_CODEC_NONE;
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
  beginning.video = CodecOfVideoType(VideoTypeOf(payload));
  beginning.keyFrame.assign(payload.begin(), payload.end());
  PictureDecoder decoder(beginning.video);
  decoder.Decode(payload);
  decoder.End();
  if (const AVFrame* picture = decoder.Picture()) {
    beginning.width = picture->width;
    beginning.height = picture->height;
    beginning.chromaFormat = decoder.ChromaFormat();
    beginning.bitDepth = decoder.BitDepth();
    beginning.reordering = decoder.Reordering();
  }
}

// Looks for a key frame that can be decoded, and some way on for sound and for the order in which
// the pictures are shown, of which not every stream tells.
Beginning LookAhead(const RecordingSource& source, const ExportProgress& progress) {
  constexpr int kFrames = 1000;
  constexpr int kUndecodable = 20;
  constexpr std::size_t kPictures = 100;
  Beginning beginning;
  RecordingFrames frames(source, [&progress](std::uint64_t, std::uint64_t total) {
    return !progress || progress(0, total);
  });
  int refused = 0;
  std::unique_ptr<PictureOrder> order;
  std::vector<std::int64_t> numbers;
  for (int i = 0; i < kFrames && !(numbers.size() == kPictures && beginning.audio); ++i) {
    const auto frame = frames.Next();
    if (!frame) {
      break;
    }
    if (frame->audio) {
      beginning.audio = beginning.audio ? beginning.audio : AudioOf(*frame);
      continue;
    }
    if (frame->key && beginning.width == 0 && refused < kUndecodable) {
      TryKeyFrame(frames.Payload(*frame), beginning);
      refused += beginning.width == 0 ? 1 : 0;
      beginning.first = frame->Seconds();
      order = beginning.width == 0 ? nullptr : std::make_unique<PictureOrder>(beginning.video);
    }
    if (order && numbers.size() < kPictures) {
      numbers.push_back(order->Of(frames.Payload(*frame), frame->key));
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
  ClipExport(const ExportOptions& options, const ExportProgress& progress,
             const Beginning& beginning)
      : video_(beginning.video),
        frames_(options.source, progress),
        writer_(options.path, FormatOf(options, beginning)),
        order_(beginning.reordering),
        firstSound_(beginning.audio) {
    if (beginning.reordering != 0) {
      numbers_.emplace(video_);
    }
  }

  ExportResult Run() {
    while (auto frame = frames_.Next()) {
      times_.Add(std::move(*frame));
      WriteReady();
    }
    times_.End();
    WriteReady();
    order_.End();
    WriteOrdered();
    writer_.Finish();
    result_.duration = writer_.Duration();
    result_.skippedBytes = frames_.SkippedBytes();
    result_.skippedFrames += frames_.SkippedFrames();
    AddNotes();
    return result_;
  }

 private:
  ClipFormat FormatOf(const ExportOptions& options, const Beginning& beginning) {
    if (beginning.audio && TakesAudio(options.container, *beginning.audio)) {
      audio_ = beginning.audio;
    } else if (beginning.audio) {
      result_.notes.push_back("the sound (" + NameOf(*beginning.audio) + ") was left out: " +
                              (options.container == ClipContainer::kMp4
                                   ? "MP4 has no place for it; .mkv may have"
                                   : "Matroska has no place for it"));
    }
    result_.audio = audio_.has_value();
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
      const std::int64_t number = NumberOf(next->frame);
      order_.Add(std::move(*next), number);
      WriteOrdered();
    }
  }

  // Only where pictures are shown in another order, for their payloads are read twice then.
  std::int64_t NumberOf(const RecordedFrame& frame) {
    return numbers_ && !frame.audio ? numbers_->Of(frames_.Payload(frame), frame.key) : 0;
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
    const auto payload = frames_.Payload(next.frame);
    if (next.frame.key) {
      foreign_ = CodecOfVideoType(VideoTypeOf(payload)) != video_;
    }
    begin_ = result_.frames == 0 ? next.time : begin_;
    if (foreign_ || next.time < begin_) {
      foreignFrames_ += foreign_ ? 1 : 0;
      result_.skippedFrames += foreign_ ? 0 : 1;  // needs what came in front of the first
      return;
    }
    writer_.WriteVideo(payload, {decodingTime, next.time, next.interval}, next.frame.key);
    result_.first = result_.frames == 0 ? next.frame.Seconds() : result_.first;
    result_.last = next.frame.Seconds();
    ++result_.frames;
  }

  void WriteAudio(const TimedFrame& next) {
    if (result_.frames == 0) {
      return;
    }
    const ClipAudio own = AudioOf(next.frame);
    if (!firstSound_ || !(own == *firstSound_)) {
      otherSound_ = own;
      ++otherBlocks_;
    } else if (audio_) {
      writer_.WriteAudio(frames_.Payload(next.frame), next.time);
    }
  }

  void AddNotes() {
    result_.skippedFrames += foreignFrames_;
    if (foreignFrames_ != 0) {
      result_.notes.push_back("the video's codec changes: " + std::to_string(foreignFrames_) +
                              " frames are not in this clip; export them from where it changes");
    }
    if (otherSound_) {
      result_.notes.push_back(
          (firstSound_ ? "the sound changes: " : "sound begins behind the clip's beginning: ") +
          std::to_string(otherBlocks_) + " blocks (" + NameOf(*otherSound_) +
          ") are not in this clip; export them from where it " +
          (firstSound_ ? "changes" : "begins"));
    }
    result_.otherFrames = frames_.OtherFrames();
  }

  const CMSCodecID video_;
  std::optional<ClipAudio> audio_;
  ExportResult result_;
  RecordingFrames frames_;
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

ExportResult ExportClip(const ExportOptions& options, const ExportProgress& progress) {
  const Beginning beginning = LookAhead(options.source, progress);
  return ClipExport(options, progress, beginning).Run();
}

}  // namespace cms

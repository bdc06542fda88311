#include "cms/playback/clip/internal/clip_export.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <utility>

#include "cms/live/media/codec_id.h"
#include "cms/live/media/frame_header.h"
#include "cms/live/media/internal/adts.h"
#include "cms/live/media/internal/fisheye_picture.h"
#include "cms/playback/clip/internal/clip_writer.h"
#include "cms/playback/clip/internal/frame_times.h"
#include "cms/playback/clip/internal/picture_decoder.h"
#include "cms/playback/clip/internal/picture_order.h"
#include "cms/playback/clip/internal/presentation_order.h"
#include "cms/playback/clip/internal/recording_frames.h"
#include "cms/playback/clip/internal/view_encoder.h"

namespace cms {
namespace {

ClipAudio AudioOf(const RecordedFrame& frame, std::span<const std::uint8_t> payload) {
  AudioFormatDescriptor format;
  std::memcpy(&format, frame.frame.header.Bytes().subspan(16).data(), sizeof(format));
  ClipAudio audio;
  audio.codecId = format.codecId;
  audio.sampleRate = static_cast<int>(std::min<std::uint32_t>(format.sampleRate, 1'000'000));
  audio.channels = format.channels;
  if (audio.codecId == CMS_CODEC_AAC) {
    if (const auto unit = ReadAdtsFrame(payload)) {
      audio.config = AudioSpecificConfigOf(unit->format);
      audio.sampleRate = static_cast<int>(unit->format.SampleRate());
    }
  }
  return audio;
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
    case CMS_CODEC_AAC:
      return "AAC without its header";
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
  bool fullRange = false;
  std::optional<ClipAudio> audio;
  std::int64_t first = 0;
  int reordering = 0;  // of pictures, as PresentationOrder takes it
};

void TryKeyFrame(RecordingFrames& frames, const RecordedFrame& frame, Beginning& beginning) {
  const auto payload = frames.Payload(frame);
  beginning.video = CodecOfVideoType(frames.VideoType(frame));
  beginning.keyFrame.assign(payload.begin(), payload.end());
  PictureDecoder decoder(beginning.video);
  decoder.Decode(payload);
  decoder.End();
  if (const AVFrame* picture = decoder.Picture()) {
    beginning.width = picture->width;
    beginning.height = picture->height;
    beginning.chromaFormat = decoder.ChromaFormat();
    beginning.bitDepth = decoder.BitDepth();
    beginning.fullRange = IsFullRange(*picture);
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
      if (!beginning.audio) {
        beginning.audio = AudioOf(*frame, frames.Payload(*frame));
      }
      continue;
    }
    if (frame->key && beginning.width == 0 && refused < kUndecodable) {
      TryKeyFrame(frames, *frame, beginning);
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
    throw std::runtime_error(
        "its pictures are neither H.264 nor H.265 nor MJPEG nor MPEG-4, or damaged");
  }
  return beginning;
}

class ClipExport {
 public:
  ClipExport(const ExportOptions& options, const ExportProgress& progress,
             const Beginning& beginning)
      : video_(beginning.video),
        frames_(options.source, progress),
        views_(ViewsOf(options.source, beginning)),
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
    if (views_) {
      views_->End();
      WriteViews();
    }
    writer_.Finish();
    result_.duration = writer_.Duration();
    result_.skippedBytes = frames_.SkippedBytes();
    result_.skippedFrames += frames_.SkippedFrames();
    AddNotes();
    return result_;
  }

 private:
  ClipFormat FormatOf(const ExportOptions& options, const Beginning& beginning) {
    if (beginning.audio && SoundIn(options.container, *beginning.audio) != ClipSound::kLeftOut) {
      audio_ = beginning.audio;
    } else if (beginning.audio) {
      result_.notes.push_back("the sound (" + NameOf(*beginning.audio) +
                              ") was left out: it cannot be decoded");
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
    if (views_) {
      format.video = CMS_CODEC_H264;
      format.width = views_->Width();
      format.height = views_->Height();
      format.chromaFormat = 1;
      format.bitDepth = 8;
      format.keyFrame = views_->ParameterSets();
    }
    format.audio = audio_;
    format.begin = beginning.first;
    return format;
  }

  // Nothing when the pictures go into the clip as the camera made them.
  static std::unique_ptr<ViewEncoder> ViewsOf(const RecordingSource& source,
                                              const Beginning& beginning) {
    if (!source.fisheye.Dewarps()) {
      return nullptr;
    }
    ViewFormat format;
    format.codec = beginning.video;
    format.fisheye = source.fisheye;
    format.width = source.viewWidth > 0 ? source.viewWidth : beginning.width;
    format.height = source.viewHeight > 0 ? source.viewHeight : beginning.height;
    format.fullRange = beginning.fullRange;
    return std::make_unique<ViewEncoder>(format);
  }

  void WriteViews() {
    while (const auto view = views_->Next()) {
      writer_.WriteVideo(view->bytes, view->times, view->key);
      ++result_.frames;
    }
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
      foreign_ = CodecOfVideoType(frames_.VideoType(next.frame)) != video_;
    }
    if (!foreign_) {
      begin_ = begin_.value_or(next.time);
    }
    if (foreign_ || next.time < *begin_) {
      foreignFrames_ += foreign_ ? 1 : 0;
      result_.skippedFrames += foreign_ ? 0 : 1;  // needs what came in front of the first
      return;
    }
    result_.first = result_.last == 0 ? next.frame.Seconds() : result_.first;
    result_.last = next.frame.Seconds();
    const PictureTimes times{decodingTime, next.time, next.interval};
    if (views_) {
      views_->Add(payload, times);
      WriteViews();
    } else {
      writer_.WriteVideo(payload, times, next.frame.key);
      ++result_.frames;
    }
  }

  void WriteAudio(const TimedFrame& next) {
    if (result_.frames == 0) {
      return;
    }
    const auto payload = frames_.Payload(next.frame);
    const ClipAudio own = AudioOf(next.frame, payload);
    if (!firstSound_ || !(own == *firstSound_)) {
      otherSound_ = own;
      ++otherBlocks_;
    } else if (audio_) {
      writer_.WriteAudio(payload, next.time, next.told);
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
  const std::unique_ptr<ViewEncoder> views_;
  ClipWriter writer_;
  FrameTimes times_;
  std::optional<PictureOrder> numbers_;  // where pictures are shown in another order
  PresentationOrder order_;
  std::optional<std::int64_t> begin_;  // of the first picture
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

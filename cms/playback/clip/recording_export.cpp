#include "cms/playback/clip/recording_export.h"

#include <algorithm>
#include <exception>
#include <memory>
#include <stdexcept>

#include "cms/live/media/codec_id.h"
#include "cms/live/media/internal/fisheye_picture.h"
#include "cms/live/media/internal/library_silence.h"
#include "cms/live/media/internal/picture_converter.h"
#include "cms/playback/clip/internal/clip_export.h"
#include "cms/playback/clip/internal/picture_decoder.h"
#include "cms/playback/clip/internal/recording_frames.h"
#include "cms/playback/local_pb_search_engine.h"
#include "cms/recording/data_root.h"

namespace cms {
namespace {

// What the job gives, or a result with nothing but the failure's line.
template <typename Result, typename Job>
Result ResultOf(const Job& job) {
  const LibrarySilence silence;
  try {
    return job();
  } catch (const std::exception& failure) {
    Result result;
    result.error = failure.what();
    return result;
  }
}

RecordedPicture Decode(const RecordingSource& source, WhichPicture which,
                       const ExportProgress& progress) {
  RecordingFrames frames(source, progress);
  RecordedPicture result;
  CMSCodecID codec = CMS_CODEC_NONE;
  std::unique_ptr<PictureDecoder> decoder;
  while (const auto frame = frames.Next()) {
    if (which == WhichPicture::kFirst && decoder && decoder->Picture() != nullptr) {
      break;
    }
    if (frame->audio) {
      continue;
    }
    const auto payload = frames.Payload(*frame);
    if (frame->key) {
      const CMSCodecID own = CodecOfVideoType(frames.VideoType(*frame));
      if (!decoder || own != codec) {
        codec = own;
        decoder = codec != CMS_CODEC_NONE ? std::make_unique<PictureDecoder>(codec) : nullptr;
      }
    }
    if (decoder) {
      decoder->Decode(payload);
      result.second = frame->Seconds();
      if (codec == CMS_CODEC_MJPEG) {
        result.jpeg.assign(payload.begin(), payload.end());
      }
    }
  }
  if (decoder) {
    decoder->End();
  }
  if (!decoder || decoder->Picture() == nullptr) {
    throw std::runtime_error("there is no picture in it that can be decoded");
  }
  const AVFrame& picture = *decoder->Picture();
  const bool dewarps = source.fisheye.Dewarps();
  if (codec != CMS_CODEC_MJPEG || dewarps) {
    result.jpeg.clear();  // of pictures in front of the codec's change
  }
  result.width = dewarps && source.viewWidth > 0 ? source.viewWidth : picture.width;
  result.height = dewarps && source.viewHeight > 0 ? source.viewHeight : picture.height;
  FisheyePicture look;
  look.Set(source.fisheye);
  const AVFrame* const seen = look.Look(picture, result.width, result.height);
  PictureConverter converter;
  if (seen == nullptr || !converter.Convert(*seen, result.width, result.height)) {
    throw std::runtime_error("its pictures are of a kind that cannot be converted");
  }
  const auto size = static_cast<std::size_t>(4) * static_cast<std::size_t>(result.width) *
                    static_cast<std::size_t>(result.height);
  result.bgra.assign(converter.Pixels(), converter.Pixels() + size);
  result.skippedBytes = frames.SkippedBytes();
  result.skippedFrames = frames.SkippedFrames();
  return result;
}

}  // namespace

std::vector<RecordingPart> RecordingPartsOf(std::uint32_t site, std::int64_t first,
                                            std::int64_t last, const std::string& dataRoot) {
  LocalPBSearchEngine engine;
  engine.SetDataRoot(dataRoot);
  engine.searchByInterval(first, last);
  std::vector<RecordingPart> parts;
  for (const stPBTimeInfo& span : engine.getNormalPBInfo()) {
    for (std::size_t i = 0; span.siteNumber == site && i < span.records.size(); ++i) {
      const auto& record = span.records[i];
      RecordingPart part;
      part.path = PathInData(record.GetFilenameW(), dataRoot);
      part.first = first;
      part.last = std::min(record.GetEndTime(), last);
      part.sharesSecond = i + 1 < span.records.size() &&
                          span.records[i + 1].GetStartTime() == part.last + 1 && part.last < last;
      parts.push_back(std::move(part));
    }
  }
  return parts;
}

ExportResult ExportRecording(const ExportOptions& options, const ExportProgress& progress) {
  return ResultOf<ExportResult>([&] { return ExportClip(options, progress); });
}

RecordedPicture DecodeRecordedPicture(const RecordingSource& source, WhichPicture which,
                                      const ExportProgress& progress) {
  return ResultOf<RecordedPicture>([&] { return Decode(source, which, progress); });
}

}  // namespace cms

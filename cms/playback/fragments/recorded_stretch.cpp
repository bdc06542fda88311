#include "cms/playback/fragments/recorded_stretch.h"

#include <cstring>
#include <exception>
#include <optional>
#include <utility>

#include "cms/live/media/codec_id.h"
#include "cms/live/media/frame_header.h"
#include "cms/live/media/frame_moment.h"
#include "cms/live/media/internal/library_silence.h"
#include "cms/playback/clip/internal/frame_times.h"
#include "cms/playback/clip/internal/picture_decoder.h"
#include "cms/playback/clip/internal/recording_frames.h"
#include "cms/playback/fragments/sound_fragments.h"
#include "cms/playback/fragments/video_fragments.h"

namespace cms {
namespace {

// More time than this between pictures is a gap.
constexpr std::int64_t kLongestPicture = kMicro + kMicro / 2;
// Of one stretch, whose key pictures may be far apart.
constexpr std::size_t kMostStretchBytes = std::size_t{24} << 20;

class StretchReader {
 public:
  explicit StretchReader(const StretchWish& wish)
      : wish_(wish), frames_({wish.parts, {}, {}, 0, 0}, {}), pictures_(wish.originUs) {
    Restart();
  }

  RecordedStretch Read() {
    bool more = true;
    while (more) {
      auto frame = frames_.Next();
      more = frame.has_value();
      if (more) {
        times_.Add(std::move(*frame));
      } else {
        times_.End();
      }
      while (const auto next = times_.Next()) {
        if (next->frame.audio) {
          AddSound(*next);
        } else if (!AddPicture(*next)) {
          return Whole();
        }
      }
    }
    return Whole();
  }

 private:
  // What came so far is in front of the moment.
  void Restart() {
    fragments_.clear();
    sound_.clear();
    version_.reset();
    width_ = 0;
    blocks_.emplace(wish_.originUs);
  }

  // False when the stretch ends in front of it.
  bool AddPicture(const TimedFrame& timed) {
    const bool key = timed.frame.key;
    if (key && version_ && timed.time <= wish_.momentUs) {
      Restart();
    }
    const bool full = version_ && (timed.time - made_.beginUs >= wish_.leastUs ||
                                   fragments_.size() >= kMostStretchBytes);
    const bool gap = version_ && timed.time - made_.endUs > kMicro;
    if (fragments_.size() >= 2 * kMostStretchBytes || (key && (full || gap))) {
      made_.nextUs = timed.time;
      return false;
    }
    FragmentPicture picture{frames_.Payload(timed.frame), key, timed.time, 0, 0, timed.interval};
    if (picture.lengthUs <= 0 || picture.lengthUs > kLongestPicture) {
      picture.lengthUs = kMicro / 25;
    }
    if (key && !ReadKeyPicture(timed, picture)) {
      made_.nextUs = version_ ? timed.time : 0;
      made_.unplayable = !version_;
      return false;
    }
    const std::size_t before = fragments_.size();
    if (!pictures_.Append(picture, fragments_)) {
      return true;
    }
    if (pictures_.HasReordering()) {
      made_.unplayable = true;
      return false;
    }
    if (version_ && *version_ != pictures_.Version()) {
      fragments_.resize(before);
      made_.nextUs = timed.time;
      return false;
    }
    if (!version_) {
      version_ = pictures_.Version();
      made_.beginUs = timed.time;
      made_.video.codec = pictures_.Codec();
      made_.video.bytes.assign(pictures_.Header().begin(), pictures_.Header().end());
    }
    made_.endUs = timed.time + picture.lengthUs;
    return true;
  }

  // Its size; false when it is none that browsers play.
  bool ReadKeyPicture(const TimedFrame& timed, FragmentPicture& picture) {
    if (CodecOfVideoType(frames_.VideoType(timed.frame)) != CMS_CODEC_H264) {
      return false;
    }
    if (width_ == 0) {
      PictureDecoder decoder(CMS_CODEC_H264);
      decoder.Decode(frames_.Payload(timed.frame));
      decoder.End();
      if (decoder.Picture() == nullptr) {
        return false;
      }
      width_ = static_cast<unsigned>(decoder.Picture()->width);
      height_ = static_cast<unsigned>(decoder.Picture()->height);
    }
    picture.bytes = frames_.Payload(timed.frame);
    picture.width = width_;
    picture.height = height_;
    return true;
  }

  void AddSound(const TimedFrame& timed) {
    if (!wish_.sound || !version_) {
      return;
    }
    AudioFormatDescriptor described;
    std::memcpy(&described, timed.frame.frame.header.Bytes().subspan(16).data(), sizeof described);
    tCMSAudioPlayerConfig format;
    format.codecId = static_cast<CMSCodecID>(described.codecId);
    format.sampleRate = described.sampleRate;
    format.channels = described.channels;
    const unsigned before = blocks_->Version();
    const std::size_t length = sound_.size();
    if (soundEnded_ || !blocks_->SetFormat(format)) {
      return;
    }
    blocks_->Append(frames_.Payload(timed.frame), timed.time, sound_);
    if (length != 0 && blocks_->Version() != before) {  // another header
      soundEnded_ = true;
    }
  }

  RecordedStretch Whole() {
    if (made_.unplayable) {
      made_.video = {};
      return std::move(made_);
    }
    const auto append = [](StretchTrack& track, const std::vector<std::uint8_t>& fragments) {
      track.bytes.insert(track.bytes.end(), fragments.begin(), fragments.end());
    };
    append(made_.video, fragments_);
    if (!sound_.empty() && !soundEnded_) {  // of two kinds there is none
      made_.sound.codec = blocks_->Codec();
      made_.sound.bytes.assign(blocks_->Header().begin(), blocks_->Header().end());
      append(made_.sound, sound_);
    }
    return std::move(made_);
  }

  const StretchWish& wish_;
  RecordingFrames frames_;
  FrameTimes times_;
  VideoFragments pictures_;
  std::optional<SoundFragments> blocks_;
  std::vector<std::uint8_t> fragments_;
  std::vector<std::uint8_t> sound_;
  std::optional<unsigned> version_;  // of the header, once there is a picture
  unsigned width_ = 0;
  unsigned height_ = 0;
  bool soundEnded_ = false;
  RecordedStretch made_;
};

}  // namespace

RecordedStretch ReadStretch(const StretchWish& wish) {
  const LibrarySilence silence;
  try {
    return StretchReader(wish).Read();
  } catch (const std::exception& failure) {
    RecordedStretch failed;
    failed.error = failure.what();
    return failed;
  }
}

}  // namespace cms

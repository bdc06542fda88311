#include "tools/serve/recorded_answers.h"

#include <algorithm>
#include <optional>
#include <utility>
#include <vector>

#include "cms/live/media/frame_moment.h"
#include "cms/playback/clip/recording_export.h"
#include "cms/playback/fragments/recorded_stretch.h"
#include "cms/recording/keep/storage_use.h"
#include "tools/serve/jpeg_encoder.h"

namespace tools {
namespace {

using nlohmann::ordered_json;

// So long, or up to the next key picture.
constexpr std::int64_t kStretchUs = 8 * cms::kMicro;
// What follows a moment is looked for so far.
constexpr std::int64_t kLookAhead = 12 * 3600;
constexpr std::int64_t kThumbnailAhead = 60;
constexpr int kThumbnailWidth = 160;
constexpr std::int64_t kMsInSecond = 1'000;

// Every pixel is the mean of those that it stands for.
std::string SmallJpeg(const cms::RecordedPicture& picture) {
  const int by = std::max(1, picture.width / kThumbnailWidth);
  const int width = picture.width / by;
  const int height = picture.height / by;
  std::vector<unsigned char> small;
  small.reserve(static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * 4);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      for (int part = 0; part < 4; ++part) {
        int sum = 0;
        for (int i = 0; i < by * by; ++i) {
          const int row = y * by + i / by;
          const int column = x * by + i % by;
          sum += picture.bgra[static_cast<std::size_t>((row * picture.width + column) * 4 + part)];
        }
        small.push_back(static_cast<unsigned char>(sum / (by * by)));
      }
    }
  }
  return JpegEncoder().Encode(small.data(), width, height);
}

std::string MakeThumbnail(const std::vector<std::string>& roots, std::int64_t site,
                          std::int64_t second) {
  cms::RecordingSource source;
  source.parts = PartsOf(roots, static_cast<std::uint32_t>(site), second, second + kThumbnailAhead);
  if (source.parts.empty()) {
    return {};
  }
  const cms::RecordedPicture picture =
      cms::DecodeRecordedPicture(source, cms::WhichPicture::kFirst, {});
  return picture.error.empty() ? SmallJpeg(picture) : std::string();
}

}  // namespace

void RecordedAnswers::Stretch(WebRequest& request) {
  const std::int64_t site = request.Number("site", 1, INT32_MAX);
  cms::StretchWish wish;
  wish.momentUs = request.Number("ms", kMsInSecond, kLatestTime * kMsInSecond) * kMsInSecond;
  wish.originUs = request.Number("origin", 0, wish.momentUs / cms::kMicro) * cms::kMicro;
  wish.leastUs = kStretchUs;
  wish.sound = request.Value("sound") == "1";
  const std::int64_t second = wish.momentUs / cms::kMicro;
  cms::RecordedStretch stretch;
  {
    const ScopeLock turn(stretchLocks_[static_cast<std::size_t>(site % 2)]);
    wish.parts = PartsOf(roots_(), static_cast<std::uint32_t>(site), second,
                         std::min(second + kLookAhead, kLatestTime));
    stretch = cms::ReadStretch(wish);
  }
  if (!stretch.error.empty()) {
    throw std::runtime_error(stretch.error);
  }
  const auto typeOf = [](const char* kind, const cms::StretchTrack& track) {
    return track.codec.empty() ? std::string()
                               : std::string(kind) + "/mp4; codecs=\"" + track.codec + "\"";
  };
  std::vector<std::uint8_t>& bytes = stretch.video.bytes;
  const std::size_t pictures = bytes.size();
  bytes.insert(bytes.end(), stretch.sound.bytes.begin(), stretch.sound.bytes.end());
  const std::string line = HarmlessJson({{"site", site},
                                         {"unplayable", stretch.unplayable},
                                         {"begin", stretch.beginUs / kMsInSecond},
                                         {"end", stretch.endUs / kMsInSecond},
                                         {"next", stretch.nextUs / kMsInSecond},
                                         {"type", typeOf("video", stretch.video)},
                                         {"sound_type", typeOf("audio", stretch.sound)},
                                         {"video_bytes", pictures},
                                         {"bytes", bytes.size()}}) +
                           "\n";
  bytes.insert(bytes.begin(), line.begin(), line.end());
  request.AnswerBytes("application/octet-stream", bytes);
}

void RecordedAnswers::Thumbnail(WebRequest& request) {
  const std::int64_t site = request.Number("site", 1, INT32_MAX);
  const std::int64_t second = request.Number("at", 1, kLatestTime);
  const auto known = [&]() -> std::optional<std::string> {
    const ScopeLock lock(lock_);
    const auto found = std::ranges::find_if(thumbnails_, [&](const SmallPicture& each) {
      return each.site == site && each.second == second;
    });
    if (found == thumbnails_.end()) {
      return std::nullopt;
    }
    thumbnails_.splice(thumbnails_.begin(), thumbnails_, found);
    return thumbnails_.front().jpeg;
  };
  std::optional<std::string> jpeg = known();
  if (!jpeg) {
    const ScopeLock turn(decoding_);
    jpeg = known();  // made meanwhile
    if (!jpeg) {
      jpeg = MakeThumbnail(roots_(), site, second);
      const ScopeLock lock(lock_);
      thumbnails_.push_front({site, second, *jpeg});
      if (thumbnails_.size() > kMostThumbnails) {
        thumbnails_.pop_back();
      }
    }
  }
  if (jpeg->empty()) {
    throw BadRequest("nothing was recorded then");
  }
  request.AnswerBytes("image/jpeg",
                      {reinterpret_cast<const std::uint8_t*>(jpeg->data()), jpeg->size()});
}

void RecordedAnswers::Storage(WebRequest& request) const {
  ordered_json disks = ordered_json::array();
  ordered_json sites = ordered_json::array();
  bool complete = true;
  for (const std::string& root : roots_()) {
    const cms::StorageReport report = cms::StorageUse(root);
    complete = complete && report.errors.empty();
    for (const cms::DiskUse& disk : report.disks) {
      disks.push_back({{"folder", disk.folder},
                       {"total", disk.total},
                       {"free", disk.free},
                       {"recordings", disk.bytes},
                       {"kept", disk.protectedBytes},
                       {"full_at", disk.fullAt}});
    }
    for (const cms::SiteUse& site : report.sites) {
      sites.push_back({{"site", site.site},
                       {"data", root},
                       {"files", site.files},
                       {"recordings", site.bytes},
                       {"kept", site.protectedBytes},
                       {"days", site.days.size()},
                       {"first", site.first},
                       {"last", site.last}});
    }
  }
  request.Answer({{"disks", disks}, {"sites", sites}, {"complete", complete}});
}

}  // namespace tools

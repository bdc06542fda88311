#include "tools/serve/site_stream.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <stdexcept>
#include <string>

#include "cms/live/media/codec_id.h"
#include "cms/live/media/frame_moment.h"
#include "cms/runtime/clock.h"
#include "cms/runtime/log.h"
#include "tools/serve/picture_record.h"

namespace tools {
namespace {

// A day: our clock may be set back while a camera is watched.
constexpr std::int64_t kRoomBefore = 86'400 * cms::kMicro;

// A record's line ends with the number of its bytes, which is known behind them.
constexpr std::size_t kDigits = 9;
constexpr char kEnd[] = "}\n";

void BeginRecord(RecordBytes& record, int site, bool key) {
  std::array<char, 64> line{};
  const int length =
      std::snprintf(line.data(), line.size(), "{\"site\":%d,\"key\":%s,\"bytes\":%*s%s", site,
                    key ? "true" : "false", static_cast<int>(kDigits), "", kEnd);
  record.assign(line.begin(), line.begin() + length);
}

// `begin`: the length of what BeginRecord made.
void EndRecord(RecordBytes& record, std::size_t begin) {
  std::array<char, kDigits + 1> digits{};
  std::snprintf(digits.data(), digits.size(), "%*zu", static_cast<int>(kDigits),
                record.size() - begin);
  std::copy_n(digits.begin(), kDigits,
              record.begin() + static_cast<std::ptrdiff_t>(begin - (sizeof kEnd - 1) - kDigits));
}

std::shared_ptr<const RecordBytes> MakeRecord(nlohmann::ordered_json about,
                                              std::span<const std::uint8_t> bytes) {
  about["bytes"] = bytes.size();
  const std::string line = HarmlessJson(about) + "\n";
  auto record = std::make_shared<RecordBytes>(line.begin(), line.end());
  record->insert(record->end(), bytes.begin(), bytes.end());
  return record;
}

}  // namespace

SiteStream::SiteStream(int number)
    : number_(number),
      originUs_(cms::WallSeconds() * cms::kMicro - kRoomBefore),
      pictures_(originUs_),
      blocks_(originUs_) {}

void SiteStream::AddJpeg(CMSClientBase& client, std::span<const std::uint8_t> jpeg) {
  unsigned width = 0;
  unsigned height = 0;
  client.GetWidthAndHeight(0, &width, &height);
  std::shared_ptr<StreamPiece> piece = video_.Blank();
  std::array<char, 128> line{};
  const int length = std::snprintf(line.data(), line.size(),
                                   "{\"site\":%d,\"width\":%u,\"height\":%u,\"bytes\":%zu}\n",
                                   number_, width, height, jpeg.size());
  piece->bytes.assign(line.begin(), line.begin() + length);
  piece->bytes.insert(piece->bytes.end(), jpeg.begin(), jpeg.end());
  piece->key = true;
  video_.Add(std::move(piece));
}

std::shared_ptr<const RecordBytes> SiteStream::HeaderRecord() const {
  return MakeRecord({{"site", number_},
                     {"type", "video/mp4; codecs=\"" + pictures_.Codec() + "\""},
                     {"origin", pictures_.OriginUs() / 1000}},
                    pictures_.Header());
}

void SiteStream::OnPicture(CMSClientBase& client, std::span<const std::uint8_t> bytes, bool key) {
  if (!video_.IsWatched()) {
    return;
  }
  if (key || videoType_ == 0) {
    videoType_ = client.GetVideoType(0);
  }
  if (videoType_ == cms::CMS_VIDEO_MJPEG) {
    AddJpeg(client, bytes);
    return;
  }
  if (videoType_ != cms::CMS_VIDEO_H264) {
    return;
  }
  cms::FragmentPicture picture{bytes, key, client.GetFrameMoment().timeUs};
  if (key) {
    client.GetWidthAndHeight(0, &picture.width, &picture.height);
  }
  std::shared_ptr<StreamPiece> piece = video_.Blank();
  BeginRecord(piece->bytes, number_, key);
  const std::size_t begin = piece->bytes.size();
  if (!pictures_.Append(picture, piece->bytes)) {
    return;
  }
  if (pictures_.HasReordering()) {
    if (key) {  // the page asks for pictures in its place
      piece->bytes = *MakeRecord({{"site", number_}, {"unplayable", true}}, {});
      piece->key = true;
      video_.Add(std::move(piece));
    }
    return;
  }
  EndRecord(piece->bytes, begin);
  if (pictures_.Version() != videoVersion_) {
    videoVersion_ = pictures_.Version();
    videoHeader_ = HeaderRecord();
  }
  piece->header = videoHeader_;
  piece->key = key;
  video_.Add(std::move(piece));
}

void SiteStream::OnSound(CMSClientBase& client, std::span<const std::uint8_t> block) {
  if (!sound_.IsWatched()) {
    return;
  }
  tCMSAudioPlayerConfig format;
  if (client.GetAudioFormat(&format) == 0) {
    return;
  }
  try {
    scratch_.clear();
    if (!blocks_.SetFormat(format) ||
        !blocks_.Append(block, client.GetFrameMoment().timeUs, scratch_)) {
      return;
    }
  } catch (const std::runtime_error& error) {
    cms::Log(cms::LogLevel::kWarning, "page",
             "site " + std::to_string(number_) + ": " + error.what());
    return;
  }
  if (blocks_.Version() != soundVersion_) {
    soundVersion_ = blocks_.Version();
    soundHeader_ = MakeRecord({{"site", number_},
                               {"type", "audio/mp4; codecs=\"" + blocks_.Codec() + "\""},
                               {"origin", originUs_ / 1000}},
                              blocks_.Header());
  }
  std::shared_ptr<StreamPiece> piece = sound_.Blank();
  BeginRecord(piece->bytes, number_, true);
  const std::size_t begin = piece->bytes.size();
  piece->bytes.insert(piece->bytes.end(), scratch_.begin(), scratch_.end());
  EndRecord(piece->bytes, begin);
  piece->header = soundHeader_;
  piece->key = true;
  sound_.Add(std::move(piece));
}

}  // namespace tools

#include "cms/playback/internal/single_drv_data_reader.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <utility>

#include "cms/recording/idx_file.h"
#include "cms/recording/recording_names.h"
#include "cms/runtime/native_path.h"

using cms::GopPlace;
using cms::PlaybackFrame;
using cms::PlaybackGop;

namespace {

// A recording that was written to within so many seconds may go on.
constexpr std::int64_t kGrowingSeconds = 30;

}  // namespace

CPlaybackSingleDRVDataReader::CPlaybackSingleDRVDataReader(cms::FileIo& io, std::wstring path,
                                                           unsigned channel)
    : io_(io),
      path_(std::move(path)),
      drvPath_(cms::NativePath(path_)),
      idxPath_(cms::NativePath(cms::IdxPathOf(path_))),
      channel_(channel) {}

bool CPlaybackSingleDRVDataReader::Open(std::string& error) {
  if (!OpenFile()) {
    error = drvPath_ + ": " + std::strerror(errno);
    return false;
  }
  if (ReadEnds()) {
    return true;
  }
  if (!Ready()) {
    error = drvPath_ + ": no picture of channel " + std::to_string(channel_) + " in it";
    return false;
  }
  return true;
}

bool CPlaybackSingleDRVDataReader::OpenFile() {
  if (!file_) {
    file_.emplace(io_, drvPath_, cms::kFileRead);
    if (!*file_) {
      file_.reset();
      return false;
    }
  }
  return true;
}

// The times of a long recording without reading its index: those of the first and the last record,
// if both point at frames of the channel and nothing lies behind the last one.
bool CPlaybackSingleDRVDataReader::ReadEnds() {
  const cms::ScopedFile idx(io_, idxPath_, cms::kFileRead);
  const std::int64_t size = idx ? io_.Size(idx.Handle()) : -1;
  const std::int64_t drvSize = io_.Size(file_->Handle());
  if (size < static_cast<std::int64_t>(2 * sizeof(DrvIdx))) {
    return false;
  }
  std::array<DrvIdx, 2> ends;
  const std::uint64_t last =
      (static_cast<std::uint64_t>(size) / sizeof(DrvIdx) - 1) * sizeof(DrvIdx);
  if (io_.ReadAllAt(idx.Handle(), &ends[0], sizeof(DrvIdx), 0) < sizeof(DrvIdx) ||
      io_.ReadAllAt(idx.Handle(), &ends[1], sizeof(DrvIdx), last) < sizeof(DrvIdx)) {
    return false;
  }
  std::uint64_t end = 0;
  for (const DrvIdx& record : ends) {
    std::array<std::uint8_t, cms::kDrvHeaderSize> bytes;
    if (record.channel != channel_ ||
        io_.ReadAllAt(file_->Handle(), bytes.data(), bytes.size(), record.offset) < bytes.size()) {
      return false;
    }
    const cms::DrvHeader header(bytes);
    if (!header.Holds() || header.Seconds() != record.milliseconds / 1000) {
      return false;
    }
    end = record.offset + header.FrameLength();
  }
  // Audio may follow the last picture; anything longer is looked at.
  constexpr std::uint64_t kBehind = 64 * 1024;
  if (end + kBehind < static_cast<std::uint64_t>(drvSize) ||
      ends[0].milliseconds > ends[1].milliseconds) {
    return false;
  }
  start_ = static_cast<std::int64_t>(ends[0].milliseconds);
  end_ = static_cast<std::int64_t>(ends[1].milliseconds);
  return true;
}

bool CPlaybackSingleDRVDataReader::Ready() {
  if (index_) {
    return true;
  }
  if (failed_ || !OpenFile()) {
    failed_ = true;
    return false;
  }
  auto index = std::make_unique<cms::DrvFrameIndex>(io_, file_->Handle(), idxPath_, channel_);
  if (!index->Load()) {
    failed_ = true;
    return false;
  }
  index_ = std::move(index);
  rebuilt_ = index_->WasRebuilt();
  walker_ = std::make_unique<cms::DrvWalker>(io_, file_->Handle());
  TakeEnds();
  return true;
}

void CPlaybackSingleDRVDataReader::TakeEnds() {
  start_ = index_->Frames()[index_->Keys().front()].time;
  end_ = index_->Frames().back().time;
}

void CPlaybackSingleDRVDataReader::Rest() {
  skipped_ = index_ ? index_->SkippedBytes() : skipped_;
  index_.reset();
  walker_.reset();
  file_.reset();
}

std::optional<GopPlace> CPlaybackSingleDRVDataReader::At(std::int64_t time) {
  if (!Ready()) {
    return std::nullopt;
  }
  const auto& keys = index_->Keys();
  const auto later = std::upper_bound(
      keys.begin(), keys.end(), time,
      [this](std::int64_t t, std::size_t key) { return t < index_->Frames()[key].time; });
  if (later == keys.begin()) {
    return std::nullopt;
  }
  return GopPlace{0, static_cast<std::size_t>(later - keys.begin()) - 1};
}

std::optional<GopPlace> CPlaybackSingleDRVDataReader::First() {
  return Ready() ? std::optional(GopPlace{}) : std::nullopt;
}

std::optional<GopPlace> CPlaybackSingleDRVDataReader::After(const GopPlace& place) {
  if (!Ready() || place.key + 1 >= index_->Keys().size()) {
    return std::nullopt;
  }
  return GopPlace{0, place.key + 1};
}

std::optional<GopPlace> CPlaybackSingleDRVDataReader::Before(const GopPlace& place) {
  if (!Ready() || place.key == 0) {
    return std::nullopt;
  }
  return GopPlace{0, std::min(place.key, index_->Keys().size()) - 1};
}

bool CPlaybackSingleDRVDataReader::Load(const GopPlace& place, PlaybackGop& gop) {
  gop.video.clear();
  gop.audio.clear();
  gop.place = place;
  if (!Ready() || place.key >= index_->Keys().size()) {
    return false;
  }
  const auto& frames = index_->Frames();
  std::size_t next = index_->Keys()[place.key];
  const std::size_t first = next;
  const std::size_t behind =
      place.key + 1 < index_->Keys().size() ? index_->Keys()[place.key + 1] : frames.size();
  const std::uint64_t limit = behind < frames.size() ? frames[behind].offset : UINT64_MAX;
  const bool timed = !index_->KeyFramesOnly();
  walker_->Refresh();
  const std::uint64_t skippedBefore = SkippedByWalker();
  walker_->Seek(frames[first].offset);
  while (const auto found = walker_->Next()) {
    if (found->offset >= limit) {
      break;
    }
    PlaybackFrame frame{0, found->offset, found->header.AreaLength(), found->payload_length,
                        found->header.FrameType()};
    if (found->header.IsAudio()) {
      if (!gop.video.empty() && index_->IsOfChannel(found->header)) {
        frame.time = gop.video.back().time;
        gop.audio.push_back({gop.video.size() - 1, frame});
      }
      continue;
    }
    while (next < behind && frames[next].offset < frame.offset) {
      ++next;  // damaged: the walk passed it over
    }
    const bool known = next < behind && frames[next].offset == frame.offset;
    if (gop.video.empty() && (!known || next != first)) {
      break;  // without its key frame nothing of it can be decoded
    }
    if (known) {
      frame.time = frames[next++].time;
    } else if (timed || !index_->IsOfChannel(found->header)) {
      continue;
    }
    gop.video.push_back(frame);
  }
  if (const std::uint64_t skipped = SkippedByWalker() - skippedBefore; skipped != 0) {
    damaged_[place.key] = skipped;
  }
  if (gop.video.empty()) {
    return false;
  }
  if (!timed) {
    const std::int64_t end = behind < frames.size() ? frames[behind].time : INT64_MAX;
    const auto count = static_cast<std::int64_t>(gop.video.size());
    // Nothing tells more than the key frames on both sides.
    constexpr std::int64_t kUsualInterval = 40;
    const std::int64_t begin = gop.video.front().time;
    const std::int64_t interval =
        end - begin < count * cms::kPlaybackGap ? (end - begin) / count : kUsualInterval;
    for (std::int64_t i = 1; i < count; ++i) {
      gop.video[static_cast<std::size_t>(i)].time = begin + i * interval;
    }
    for (PlaybackGop::Audio& audio : gop.audio) {
      audio.frame.time = gop.video[audio.after].time;
    }
  }
  return true;
}

std::uint64_t CPlaybackSingleDRVDataReader::SkippedByWalker() const {
  return walker_->Report().skipped_bytes - walker_->Report().tail_length;
}

std::size_t CPlaybackSingleDRVDataReader::Read(const GopPlace&, const PlaybackFrame& frame,
                                               std::span<std::uint8_t> out) {
  const std::size_t size = std::min<std::size_t>(out.size(), frame.area + frame.payload);
  return Ready() ? io_.ReadAllAt(file_->Handle(), out.data(), size, frame.offset) : 0;
}

bool CPlaybackSingleDRVDataReader::Refresh() {
  if (!Ready() || !index_->Grow()) {
    return false;
  }
  TakeEnds();
  return true;
}

bool CPlaybackSingleDRVDataReader::MayGrow() {
  cms::FileStatus status;
  return io_.Status(drvPath_, status) &&
         std::time(nullptr) -
                 static_cast<std::int64_t>(status.modified_nanoseconds / 1'000'000'000) <
             kGrowingSeconds;
}

cms::PlaybackReaderStatus CPlaybackSingleDRVDataReader::Status() const {
  cms::PlaybackReaderStatus status;
  status.skippedBytes = index_ ? index_->SkippedBytes() : skipped_;
  // An index that was made by walking knows of all damage already.
  for (const auto& [key, bytes] : damaged_) {
    status.skippedBytes += rebuilt_ ? 0 : bytes;
  }
  status.rebuiltIndexes = rebuilt_ ? 1 : 0;
  return status;
}

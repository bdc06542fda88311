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
  if (!ReadEnds() && !Ready()) {
    error = drvPath_ + ": no picture of channel " + std::to_string(channel_) + " in it";
    return false;
  }
  bounds_.begin = start_;
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

std::optional<cms::DrvHeader> CPlaybackSingleDRVDataReader::HeaderAt(std::uint64_t offset) const {
  std::array<std::uint8_t, cms::kDrvHeaderSize> bytes;
  if (io_.ReadAllAt(file_->Handle(), bytes.data(), bytes.size(), offset) < bytes.size()) {
    return std::nullopt;
  }
  const cms::DrvHeader header(bytes);
  return header.Holds() ? std::optional(header) : std::nullopt;
}

// False unless all of them are of the channel, and behind each other.
bool CPlaybackSingleDRVDataReader::ReadRecords(int idx, std::uint64_t first, std::size_t count,
                                               std::vector<cms::IndexedFrame>& frames) const {
  std::vector<DrvIdx> records(count);
  const std::size_t size = count * sizeof(DrvIdx);
  if (io_.ReadAllAt(idx, records.data(), size, first * sizeof(DrvIdx)) < size) {
    return false;
  }
  for (const DrvIdx& record : records) {
    const cms::IndexedFrame frame{record.milliseconds, record.offset,
                                  static_cast<std::uint8_t>(record.frameType), true};
    if (record.channel != channel_ ||
        (!frames.empty() &&
         (frame.Second() < frames.back().Second() || frame.offset <= frames.back().offset))) {
      return false;
    }
    frames.push_back(frame);
  }
  return true;
}

// Whether there is nothing but some blocks of sound between two places.
bool CPlaybackSingleDRVDataReader::IsSound(std::uint64_t from, std::uint64_t to) const {
  constexpr int kMostBlocks = 64;
  for (int i = 0; i < kMostBlocks && from < to; ++i) {
    const auto header = HeaderAt(from);
    if (!header || !header->IsAudio()) {
      return false;
    }
    from += header->FrameLength();
  }
  return from == to;
}

// The times of a long recording without reading its index: from the records of two whole seconds at
// both ends, if they point at frames of their seconds and no picture lies outside of them.
bool CPlaybackSingleDRVDataReader::ReadEnds() {
  const cms::ScopedFile idx(io_, idxPath_, cms::kFileRead);
  const std::int64_t size = idx ? io_.Size(idx.Handle()) : -1;
  const std::uint64_t count = size < 0 ? 0 : static_cast<std::uint64_t>(size) / sizeof(DrvIdx);
  std::vector<cms::IndexedFrame> head;
  std::vector<cms::IndexedFrame> tail;
  constexpr std::size_t kUsual = 128;
  constexpr std::size_t kMost = 1024;
  if (count == 0 || (!ReadSeconds(idx.Handle(), count, kUsual, head, tail) &&
                     !ReadSeconds(idx.Handle(), count, kMost, head, tail))) {
    return false;
  }
  const auto first = HeaderAt(head.front().offset);
  const auto last = HeaderAt(tail.back().offset);
  if (!first || !first->IsKeyFrame() || first->Seconds() != head.front().Second() || !last ||
      last->Seconds() != tail.back().Second() || head.front().Second() > tail.back().Second() ||
      head.front().type != cms::kKeyFrame) {
    return false;
  }
  const std::int64_t drvSize = io_.Size(file_->Handle());
  if (drvSize < 0 || !IsSound(0, head.front().offset) ||
      !IsSound(tail.back().offset + last->FrameLength(), static_cast<std::uint64_t>(drvSize))) {
    return false;
  }
  firstSecond_ = first->Seconds();
  lastSecond_ = last->Seconds();
  start_ = cms::TimesOf(head).front();
  end_ = std::max(start_, cms::TimesOf(tail).back());
  return true;
}

// The first and the last records: all there are, or two whole seconds and more at both ends.
bool CPlaybackSingleDRVDataReader::ReadSeconds(int idx, std::uint64_t count, std::size_t most,
                                               std::vector<cms::IndexedFrame>& head,
                                               std::vector<cms::IndexedFrame>& tail) const {
  head.clear();
  tail.clear();
  if (count <= most) {
    const bool read = ReadRecords(idx, 0, static_cast<std::size_t>(count), head);
    tail = head;
    return read;
  }
  if (!ReadRecords(idx, 0, most, head) || !ReadRecords(idx, count - most, most, tail)) {
    return false;
  }
  const std::uint64_t cut = tail.front().Second();  // there may be more of it in front
  std::erase_if(tail, [cut](const auto& frame) { return frame.Second() == cut; });
  return head.back().Second() >= head.front().Second() + 2 && !tail.empty() &&
         tail.back().Second() > tail.front().Second();
}

bool CPlaybackSingleDRVDataReader::Ready() {
  if (index_) {
    return true;
  }
  if (failed_ || !OpenFile()) {
    failed_ = true;
    return false;
  }
  auto index =
      std::make_unique<cms::DrvFrameIndex>(io_, file_->Handle(), idxPath_, channel_, bounds_);
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
  firstSecond_ = index_->FirstSecond();
  lastSecond_ = index_->LastSecond();
}

void CPlaybackSingleDRVDataReader::BeginAt(std::int64_t time) {
  bounds_.begin = time;
  start_ = time;
  if (Ready()) {  // where it ends then, its frames alone tell
    Fit();
  }
}

void CPlaybackSingleDRVDataReader::EndBefore(std::int64_t time) {
  bounds_.before = time;
  if (index_) {
    Fit();
  } else {
    end_ = std::max(start_, std::min(end_, time - 1));
  }
}

void CPlaybackSingleDRVDataReader::Fit() {
  index_->SetBounds(bounds_);
  TakeEnds();
}

void CPlaybackSingleDRVDataReader::Rest() {
  if (index_ && !io_.Exists(drvPath_)) {
    return;  // it was removed, and is played on all the same
  }
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

// To where the key frame is that begins a group. When its record points elsewhere, the frame is
// looked for behind the one in front of it.
void CPlaybackSingleDRVDataReader::SeekGroup(std::size_t first) {
  const auto& frames = index_->Frames();
  std::uint64_t offset = frames[first].offset;
  if (!HeaderAt(offset)) {
    const auto before = first > 0 ? HeaderAt(frames[first - 1].offset) : std::nullopt;
    if (first == 0) {
      offset = 0;
    } else if (before) {
      offset = frames[first - 1].offset + before->FrameLength();
    }
  }
  walker_->Seek(offset);
}

// The walk decides what there is, the index the times: a record may be missing or wrong, and a
// frame may be damaged.
bool CPlaybackSingleDRVDataReader::Load(const GopPlace& place, PlaybackGop& gop) {
  gop.video.clear();
  gop.audio.clear();
  gop.place = place;
  if (!Ready() || place.key >= index_->Keys().size()) {
    return false;
  }
  const auto& frames = index_->Frames();
  const auto& keys = index_->Keys();
  const auto keyAt = [&](std::size_t key) { return key < keys.size() ? keys[key] : frames.size(); };
  const std::size_t first = keys[place.key];
  std::size_t next = first;
  std::size_t key = place.key + 1;
  std::size_t behind = keyAt(key);
  const bool timed = !index_->KeyFramesOnly();
  const bool alone = timed && !index_->HasOthers();  // so is what has no record, of its stream
  unsigned stream = 0;
  walker_->Refresh();
  const std::uint64_t skippedBefore = SkippedByWalker();
  SeekGroup(first);
  while (const auto found = walker_->Next()) {
    const cms::DrvHeader& header = found->header;
    // What the index takes for the next key frame may be none.
    while (behind < frames.size() && found->offset == frames[behind].offset && !header.IsAudio() &&
           !header.IsKeyFrame()) {
      behind = keyAt(++key);
    }
    if (behind < frames.size() && found->offset >= frames[behind].offset) {
      break;
    }
    PlaybackFrame frame{0, found->offset, header.AreaLength(), found->payloadLength,
                        header.FrameType()};
    if (header.IsAudio()) {
      if (!gop.video.empty() && index_->IsOfChannel(header)) {
        frame.time = gop.video.back().time;
        gop.audio.push_back({gop.video.size() - 1, frame});
      }
      continue;
    }
    while (next < behind && frames[next].offset < frame.offset) {
      ++next;  // damaged, or a wrong record: the walk passed it over
    }
    const bool known = next < behind && frames[next].offset == frame.offset;
    if (gop.video.empty()) {
      if (!(known ? next == first : alone) || !header.IsKeyFrame()) {
        break;  // without its key frame nothing of it can be decoded
      }
      frame.time = frames[first].time;
      next += known ? 1 : 0;
      stream = header.StreamNumber();
    } else if (known) {
      frame.time = frames[next++].time;
    } else if (alone && header.StreamNumber() == stream) {
      if (header.IsKeyFrame() && next >= behind &&
          (behind == frames.size() || !HeaderAt(frames[behind].offset))) {
        break;  // of the next group, whose record points elsewhere
      }
      const std::int64_t before = gop.video.back().time;
      const std::size_t later = std::min(next, frames.size() - 1);
      frame.time = before + std::max<std::int64_t>(frames[later].time - before, 0) / 2;
      if (frame.time == before) {
        continue;
      }
    } else if (timed || !index_->IsOfChannel(header)) {
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
    SpreadTimes(behind < frames.size() ? frames[behind].time : INT64_MAX, gop);
  }
  return true;
}

// Nothing tells more than the key frames on both sides.
void CPlaybackSingleDRVDataReader::SpreadTimes(std::int64_t end, PlaybackGop& gop) const {
  const auto count = static_cast<std::int64_t>(gop.video.size());
  const std::int64_t begin = gop.video.front().time;
  const std::int64_t interval =
      end - begin < count * cms::kPlaybackGap ? (end - begin) / count : cms::kUsualInterval;
  for (std::int64_t i = 1; i < count; ++i) {
    gop.video[static_cast<std::size_t>(i)].time = begin + i * std::max<std::int64_t>(interval, 1);
  }
  while (gop.video.back().time >= end && gop.video.size() > 1) {
    gop.video.pop_back();  // less than a millisecond each
  }
  while (!gop.audio.empty() && gop.audio.back().after >= gop.video.size()) {
    gop.audio.pop_back();
  }
  for (PlaybackGop::Audio& audio : gop.audio) {
    audio.frame.time = gop.video[audio.after].time;
  }
}

std::uint64_t CPlaybackSingleDRVDataReader::SkippedByWalker() const {
  return walker_->Report().skippedBytes - walker_->Report().tailLength;
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

int CPlaybackSingleDRVDataReader::LookAgainAfter() {
  constexpr int kSoon = 500;
  cms::FileStatus status;
  const bool growing =
      io_.Status(drvPath_, status) &&
      std::time(nullptr) - static_cast<std::int64_t>(status.modifiedNanoseconds / 1'000'000'000) <
          kGrowingSeconds;
  return growing ? kSoon : kNever;
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

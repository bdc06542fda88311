#include "cms/playback/internal/drv_frame_index.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <limits>
#include <utility>

#include "cms/playback/internal/playback_data_reader.h"
#include "cms/recording/drv_format.h"
#include "cms/recording/idx_file.h"

namespace cms {
namespace {

constexpr std::size_t kSample = 16;  // records that are compared with their frames
constexpr std::uint64_t kLatest =    // that a header can tell
    std::uint64_t{std::numeric_limits<std::uint32_t>::max()} * 1000;

}  // namespace

DrvFrameIndex::DrvFrameIndex(FileIo& io, int drv, std::string idxPath, unsigned channel,
                             const TimeBounds& bounds)
    : io_(io),
      drv_(drv),
      idxPath_(std::move(idxPath)),
      channel_(channel),
      bounds_(bounds),
      walker_(io, drv) {}

bool DrvFrameIndex::Load() {
  if (!ReadIdx() || !SampleFits()) {
    rebuilt_ = true;
    raw_.clear();
    stream_.reset();
    walker_.Seek(0);
  }
  DropTorn();
  if (!rebuilt_) {
    keyFramesOnly_ = HasOtherFramesBetweenKeys();
    TakeFront();
  }
  CountIndexed();
  Walk();
  MakeTimes();
  return !keys_.empty();
}

bool DrvFrameIndex::Grow() {
  const std::uint64_t before = walker_.Report().fileSize;
  walker_.Refresh();
  const bool moreRecords = !rebuilt_ && TakeNewRecords();
  if (walker_.Report().fileSize == before && !moreRecords) {
    return false;
  }
  Walk();
  MakeTimes();
  return true;
}

// Gives frames that were walked the records that came since, if these fit. False when there are no
// new ones; else the walk goes on behind the last frame.
bool DrvFrameIndex::TakeNewRecords() {
  const auto begin = static_cast<std::ptrdiff_t>(indexed_);
  const std::vector<Raw> walked(raw_.begin() + begin, raw_.end());
  raw_.resize(indexed_);
  rebuilt_ = !ReadIdx();  // no index any more: go on with what is known
  std::vector<Raw> added(raw_.begin() + begin, raw_.end());
  raw_.resize(indexed_);
  const auto earlier = [](const Raw& a, const Raw& b) { return a.offset < b.offset; };
  std::erase_if(added, [&](const Raw& record) {
    const auto found = std::lower_bound(walked.begin(), walked.end(), record, earlier);
    return rebuilt_ || (found != walked.end() && found->offset == record.offset &&
                        (found->type != record.type ||
                         found->milliseconds / 1000 != record.milliseconds / 1000));
  });
  std::set_union(added.begin(), added.end(), walked.begin(), walked.end(), std::back_inserter(raw_),
                 earlier);
  if (added.empty()) {
    return false;
  }
  DropTorn();
  CountIndexed();
  return true;
}

void DrvFrameIndex::CountIndexed() {
  indexed_ = raw_.size();
  while (indexed_ > 0 && !raw_[indexed_ - 1].timed) {
    --indexed_;
  }
}

std::uint64_t DrvFrameIndex::SkippedBytes() const {
  return walker_.Report().skippedBytes - walker_.Report().tailLength;
}

// Reads the records from the first one that was not read yet. False when there is no index, or none
// that can be one.
bool DrvFrameIndex::ReadIdx() {
  const ScopedFile file(io_, idxPath_, kFileRead);
  if (!file) {
    return false;
  }
  IdxReader reader(io_, file.Handle());
  if (reader.Records() < records_ || (records_ == 0 && reader.Records() == 0)) {
    return false;
  }
  const std::size_t known = raw_.size();
  std::uint64_t number = 0;
  std::size_t others = 0;
  std::uint64_t last = 0;
  while (const auto record = reader.Next()) {
    if (number != 0 && record->offset <= last) {
      return false;
    }
    last = record->offset;
    others += record->channel != channel_ && record->channel < kMostPlaybackChannels ? 1 : 0;
    if (number++ >= records_ && record->channel == channel_) {
      raw_.push_back({std::min(record->milliseconds, kLatest), record->offset,
                      static_cast<std::uint8_t>(record->frameType), true});
    }
  }
  records_ = number;
  MendStrays(known);
  LearnStream(others > 1);  // a single one is a wrong record
  return reader.Error() == 0 && !raw_.empty();
}

bool DrvFrameIndex::Fits(const Raw& frame) const {
  std::array<std::uint8_t, kDrvHeaderSize> bytes;
  if (io_.ReadAllAt(drv_, bytes.data(), bytes.size(), frame.offset) < bytes.size()) {
    return false;
  }
  const DrvHeader header(bytes);
  return header.Holds() && !header.IsAudio() && header.FrameType() == frame.type &&
         header.Seconds() == frame.milliseconds / 1000;
}

// A flipped bit in a time would move all frames behind it, and the recording's ends.
void DrvFrameIndex::MendStrays(std::size_t from) {
  for (std::size_t i = from; i < raw_.size(); ++i) {
    const std::uint64_t before = raw_[i > 0 ? i - 1 : i].Second();
    const std::uint64_t behind = raw_[i + 1 < raw_.size() ? i + 1 : i].Second();
    const bool between = raw_[i].Second() >= std::min(before, behind) &&
                         raw_[i].Second() <= std::max(before, behind);
    const bool atAnEnd = i == 0 || i + 1 == raw_.size();
    std::array<std::uint8_t, kDrvHeaderSize> bytes;
    if ((between && !atAnEnd) ||
        io_.ReadAllAt(drv_, bytes.data(), bytes.size(), raw_[i].offset) < bytes.size()) {
      continue;
    }
    const DrvHeader header(bytes);
    if (i == 0 && header.Holds()) {
      raw_[i].type = header.FrameType();  // what it begins with is not found otherwise
    }
    const std::uint64_t second = header.Holds() ? header.Seconds() : before;
    if (second != raw_[i].Second()) {
      raw_[i].milliseconds = second * 1000;
      raw_[i].timed = false;
    }
  }
}

// Records over the whole recording are tried: damage may hit some, a foreign index misses most.
bool DrvFrameIndex::SampleFits() const {
  std::size_t fitting = 0;
  const std::size_t count = std::min(kSample, raw_.size());
  for (std::size_t i = 0; i < count; ++i) {
    fitting += Fits(raw_[i * raw_.size() / count]) ? 1 : 0;
  }
  return fitting * 2 > count;
}

// The frames in front of the first record, which lost its own or is of another one.
void DrvFrameIndex::TakeFront() {
  if (raw_.empty() || stream_ || keyFramesOnly_) {
    return;
  }
  std::vector<Raw> front;
  DrvWalker walker(io_, drv_);
  while (raw_.front().offset > 0) {
    const auto frame = walker.Next();
    if (!frame || frame->offset >= raw_.front().offset) {
      break;
    }
    if (!frame->header.IsAudio()) {
      front.push_back({std::uint64_t{frame->header.Seconds()} * 1000, frame->offset,
                       frame->header.FrameType(), false});
    }
  }
  std::array<std::uint8_t, kDrvHeaderSize> bytes;
  if (!front.empty() &&
      (io_.ReadAllAt(drv_, bytes.data(), bytes.size(), raw_.front().offset) < bytes.size() ||
       !DrvHeader(bytes).Holds())) {
    raw_.erase(raw_.begin());  // it points beside its frame, which was found now
  }
  raw_.insert(raw_.begin(), front.begin(), front.end());
}

// Records at the end may point behind the data, or at a frame that is not whole yet. The walk
// begins behind the last one that is.
void DrvFrameIndex::DropTorn() {
  const std::uint64_t size = walker_.Report().fileSize;
  while (!raw_.empty()) {
    std::array<std::uint8_t, kDrvHeaderSize> bytes;
    const Raw& last = raw_.back();
    if (io_.ReadAllAt(drv_, bytes.data(), bytes.size(), last.offset) == bytes.size()) {
      const DrvHeader header(bytes);
      if (!header.Holds()) {  // damaged, and whole as far as one can know
        walker_.Seek(last.offset);
        return;
      }
      if (last.offset + header.FrameLength() <= size) {
        walker_.Seek(last.offset + header.FrameLength());
        return;
      }
    }
    raw_.pop_back();
  }
}

void DrvFrameIndex::LearnStream(bool otherChannels) {
  stream_.reset();
  if (!otherChannels || raw_.empty()) {
    return;
  }
  std::array<std::uint8_t, kDrvHeaderSize> bytes;
  if (io_.ReadAllAt(drv_, bytes.data(), bytes.size(), raw_.front().offset) == bytes.size()) {
    stream_ = DrvHeader(bytes).StreamNumber();
  }
}

bool DrvFrameIndex::HasOtherFramesBetweenKeys() {
  if (raw_.size() < 2 || std::any_of(raw_.begin(), raw_.end(),
                                     [](const Raw& frame) { return frame.type != kKeyFrame; })) {
    return false;
  }
  DrvWalker walker(io_, drv_);
  walker.Seek(raw_[0].offset);
  while (const auto frame = walker.Next()) {
    if (frame->offset >= raw_[1].offset) {
      break;
    }
    if (!frame->header.IsAudio() && !frame->header.IsKeyFrame() && IsOfChannel(frame->header)) {
      return true;
    }
  }
  return false;
}

// The frames from the walker's place up to the end of the recording.
void DrvFrameIndex::Walk() {
  const bool first = rebuilt_ && raw_.empty();
  std::vector<std::uint8_t> streams;
  unsigned seen = 0;
  while (const auto frame = walker_.Next()) {
    const DrvHeader& header = frame->header;
    if (header.IsAudio() || (!first && !IsOfChannel(header)) ||
        (keyFramesOnly_ && !header.IsKeyFrame())) {
      continue;
    }
    raw_.push_back(
        {std::uint64_t{header.Seconds()} * 1000, frame->offset, header.FrameType(), false});
    if (first) {
      streams.push_back(header.StreamNumber());
      seen |= 1U << header.StreamNumber();
    }
  }
  if (!first || (channel_ == 0 && (seen & (seen - 1)) == 0)) {
    return;
  }
  stream_ = channel_;
  std::size_t kept = 0;
  for (std::size_t i = 0; i < raw_.size(); ++i) {
    if (streams[i] == channel_) {
      raw_[kept++] = raw_[i];
    }
  }
  raw_.resize(kept);
}

void DrvFrameIndex::SetBounds(const TimeBounds& bounds) {
  bounds_ = bounds;
  MakeTimes();
}

void DrvFrameIndex::MakeTimes() {
  std::vector<std::int64_t> times = TimesOf(raw_);
  keys_.clear();
  for (std::size_t i = 0; i < raw_.size(); ++i) {
    if (raw_[i].type == kKeyFrame) {
      keys_.push_back(i);
    }
  }
  if (!keys_.empty()) {
    FitTimes(raw_, keys_.front(), bounds_, times);
  }
  frames_.clear();
  frames_.reserve(raw_.size());
  for (std::size_t i = 0; i < raw_.size(); ++i) {
    frames_.push_back({times[i], raw_[i].offset, raw_[i].type});
  }
}

}  // namespace cms

#include "cms/playback/internal/drv_frame_index.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <limits>
#include <utility>

#include "cms/recording/drv_format.h"
#include "cms/recording/idx_file.h"

namespace cms {
namespace {

constexpr std::size_t kSample = 16;          // records that are compared with their frames
constexpr std::uint64_t kNumbered = 2;       // ms a frame: nearer together is no time
constexpr std::int64_t kClockStep = 1000;    // ms back: the clock was set
constexpr std::int64_t kUsualInterval = 40;  // ms, where times cannot tell

}  // namespace

DrvFrameIndex::DrvFrameIndex(FileIo& io, int drv, std::string idxPath, unsigned channel)
    : io_(io), drv_(drv), idxPath_(std::move(idxPath)), channel_(channel), walker_(io, drv) {}

bool DrvFrameIndex::Load() {
  if (!ReadIdx() || !SampleFits()) {
    rebuilt_ = true;
    raw_.clear();
    stream_.reset();
    walker_.Seek(0);
  }
  DropTorn();
  CountIndexed();
  if (!rebuilt_) {
    keyFramesOnly_ = HasOtherFramesBetweenKeys();
  }
  Walk();
  MakeTimes();
  return !keys_.empty();
}

bool DrvFrameIndex::Grow() {
  const std::uint64_t before = walker_.Report().file_size;
  walker_.Refresh();
  const bool moreRecords = !rebuilt_ && TakeNewRecords();
  if (walker_.Report().file_size == before && !moreRecords) {
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
  return walker_.Report().skipped_bytes - walker_.Report().tail_length;
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
  std::uint64_t number = 0;
  bool others = false;
  std::uint64_t last = 0;
  while (const auto record = reader.Next()) {
    if ((number != 0 && record->offset <= last) ||
        record->milliseconds / 1000 > std::numeric_limits<std::uint32_t>::max()) {
      return false;
    }
    last = record->offset;
    others = others || record->channel != channel_;
    if (number++ >= records_ && record->channel == channel_) {
      raw_.push_back({record->milliseconds, record->offset,
                      static_cast<std::uint8_t>(record->frame_type), true});
    }
  }
  records_ = number;
  LearnStream(others);
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

// Records over the whole recording are tried: damage may hit some, a foreign index misses most.
bool DrvFrameIndex::SampleFits() const {
  std::size_t fitting = 0;
  const std::size_t count = std::min(kSample, raw_.size());
  for (std::size_t i = 0; i < count; ++i) {
    fitting += Fits(raw_[i * raw_.size() / count]) ? 1 : 0;
  }
  return fitting * 2 > count;
}

// Records at the end may point behind the data, or at a frame that is not whole yet. The walk
// begins behind the last one that is.
void DrvFrameIndex::DropTorn() {
  const std::uint64_t size = walker_.Report().file_size;
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
  if (raw_.size() < 2 || std::any_of(raw_.begin(), raw_.end(), [](const Raw& frame) {
        return frame.type != kKeyFrameType;
      })) {
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

// A recording that begins within a second has only the rest of it, but its recorder counts the
// milliseconds of a second from the first frame. How much later these frames are, so that the next
// second follows them without a break. Of frames that are spread `interval` becomes that of the
// next second.
std::uint64_t DrvFrameIndex::LeadOf(std::size_t begin, std::size_t end, bool spread,
                                    std::uint64_t& interval) const {
  const std::uint64_t next = raw_[begin].milliseconds / 1000 + 1;
  const std::uint64_t count = end - begin;
  if (raw_[begin].milliseconds % 1000 != 0 || end == raw_.size() ||
      raw_[end].milliseconds / 1000 != next) {
    return 0;
  }
  if (spread) {
    std::uint64_t following = 0;
    for (std::size_t i = end; i < raw_.size() && raw_[i].milliseconds / 1000 == next; ++i) {
      ++following;
    }
    if (following <= count) {
      return 0;
    }
    interval = 1000 / following;
    return 1000 - count * interval;
  }
  const std::uint64_t last = raw_[end - 1].milliseconds;
  const std::uint64_t usual =
      count > 1 ? (last - raw_[begin].milliseconds) / (count - 1) : kUsualInterval;
  const std::uint64_t pause = raw_[end].milliseconds - last;
  return pause > 2 * usual ? pause - usual : 0;
}

void DrvFrameIndex::MakeTimes() {
  frames_.clear();
  frames_.reserve(raw_.size());
  keys_.clear();
  std::int64_t previous = 0;
  std::int64_t shift = 0;
  std::uint64_t interval = 1000;  // of the second before
  for (std::size_t begin = 0; begin < raw_.size();) {
    const std::uint64_t second = raw_[begin].milliseconds / 1000;
    std::size_t end = begin;
    bool timed = true;
    for (; end < raw_.size() && raw_[end].milliseconds / 1000 == second; ++end) {
      timed = timed && raw_[end].timed;
    }
    const std::uint64_t count = end - begin;
    const bool numbered = count > 1 && raw_[end - 1].milliseconds - raw_[begin].milliseconds <
                                           kNumbered * (count - 1);
    const bool spread = !timed || numbered;
    if (spread) {
      // The last second may be going on.
      interval = end == raw_.size() ? std::min(interval, 1000 / count) : 1000 / count;
    }
    std::uint64_t lead = 0;
    if (begin == 0 || raw_[begin - 1].milliseconds / 1000 + 1 != second) {
      lead = LeadOf(begin, end, spread, interval);
    }
    for (std::size_t i = begin; i < end; ++i) {
      const std::uint64_t milliseconds =
          lead + (spread ? second * 1000 + (i - begin) * interval : raw_[i].milliseconds);
      auto time = static_cast<std::int64_t>(milliseconds);
      if (!frames_.empty()) {
        if (time > previous) {
          shift = 0;
        } else if (previous - time > kClockStep && shift == 0) {
          shift = previous + kUsualInterval - time;
        }
        time = std::max(time + shift, previous + 1);
      }
      if (raw_[i].type == kKeyFrameType) {
        keys_.push_back(frames_.size());
      }
      frames_.push_back({time, raw_[i].offset, raw_[i].type});
      previous = time;
    }
    begin = end;
  }
}

}  // namespace cms

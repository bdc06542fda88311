#include "cms/playback/clip/internal/recording_frames.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <utility>

#include "cms/live/media/frame_header.h"
#include "cms/live/media/input_padding.h"
#include "cms/recording/idx_file.h"
#include "cms/recording/recording_names.h"
#include "cms/runtime/native_path.h"
#include "cms/streaming/stream_probes.h"

namespace cms {
namespace {

// In seconds of their times: sound lies in front of pictures whose encoder is slow, or behind them.
constexpr std::int64_t kStreamsApart = 10;

[[noreturn]] void Fail(const std::string& path, int error) {
  throw std::runtime_error(path + ": " + std::strerror(error));
}

// A header that the index points at, a good while in front of `first`, so that no usual distance of
// key frames leads past it; 0 without one.
std::uint64_t StartNear(int handle, const std::string& path, std::int64_t first) {
  constexpr std::int64_t kLead = 120;
  auto& io = SystemFileIo();
  const ScopedFile idx(io, NativePath(IdxPathOf(SystemPath(path))), kFileRead);
  std::uint64_t start = 0;
  if (!idx) {
    return start;
  }
  IdxReader reader(io, idx.Handle());
  while (const auto record = reader.Next()) {
    if (static_cast<std::int64_t>(record->milliseconds / 1000) + kLead >= first) {
      break;
    }
    start = record->frameType == kKeyFrame ? record->offset : start;
  }
  std::array<std::uint8_t, kDrvHeaderSize> bytes{};
  const bool holds = io.ReadAllAt(handle, bytes.data(), bytes.size(), start) == bytes.size() &&
                     DrvHeader(bytes).Holds();
  return holds ? start : 0;
}

}  // namespace

RecordingFrames::RecordingFrames(RecordingSource source, ExportProgress progress)
    : parts_(std::move(source.parts)), stream_(source.stream), progress_(std::move(progress)) {
  for (const RecordingPart& part : parts_) {
    std::error_code missing;
    const auto size = std::filesystem::file_size(part.path, missing);
    total_ += missing ? 0 : size;
  }
}

void RecordingFrames::ReportDone() {
  if (progress_ && !progress_(done_, total_)) {
    throw std::runtime_error("stopped; nothing was written");
  }
}

void RecordingFrames::OpenPart() {
  const RecordingPart& part = parts_[part_++];
  auto& io = SystemFileIo();
  auto file = std::make_shared<ScopedFile>(io, part.path, kFileRead);
  if (!*file) {
    Fail(part.path, errno);
  }
  walker_ = std::make_unique<DrvWalker>(io, file->Handle());
  if (part.first > 0) {
    walker_->Seek(StartNear(file->Handle(), part.path, part.first));
  }
  file_ = std::move(file);
  damage_ = 0;
  needsKey_ = true;
  takesSharedSecond_.reset();
  begun_ = part.first <= 0;
}

void RecordingFrames::ClosePart() {
  doneBefore_ += walker_->Report().fileSize;
  done_ = doneBefore_;
  walker_.reset();
  file_.reset();
  begun_ = true;  // what waits in front of the first second wanted is all there is
}

// The walker's next frame. Damage in front of it means that a key frame has to come first.
std::optional<DrvFrame> RecordingFrames::Walk() {
  for (;;) {
    const auto frame = walker_->Next();
    const DrvWalkReport& report = walker_->Report();
    if (report.error != 0) {
      Fail(parts_[part_ - 1].path, report.error);
    }
    const std::uint64_t damage = std::exchange(damage_, report.skippedBytes);
    if (damage != report.skippedBytes) {
      needsKey_ = true;
      skippedBytes_ += begun_ ? report.skippedBytes - damage : 0;
    }
    if (!frame || (frame->payloadLength != 0 && frame->payloadLength <= kLargestFrame)) {
      return frame;
    }
    needsKey_ = true;
    skippedBytes_ += begun_ ? frame->End() - frame->offset : 0;
  }
}

// Whether the file has nothing later than this second behind `offset`.
bool RecordingFrames::EndsWithin(std::int64_t second, std::uint64_t offset) {
  DrvWalker ahead(SystemFileIo(), file_->Handle());
  ahead.Seek(offset);
  while (const auto frame = ahead.Next()) {
    if (frame->header.Seconds() > second) {
      return false;
    }
  }
  return true;
}

// Whether nothing is needed to show it. Every JPEG is such a frame, whatever its header says.
bool RecordingFrames::StandsAlone(const DrvFrame& frame) {
  std::array<std::uint8_t, 2> begin{};
  return frame.header.IsKeyFrame() ||
         (frame.payloadLength >= begin.size() &&
          SystemFileIo().ReadAllAt(file_->Handle(), begin.data(), begin.size(),
                                   frame.payloadOffset) == begin.size() &&
          begin[0] == 0xFF && begin[1] == 0xD8);
}

// A frame that is not behind the part's last second.
void RecordingFrames::Take(const DrvFrame& frame) {
  RecordedFrame taken{file_, frame, frame.header.IsKeyFrame(), frame.header.IsAudio()};
  if (taken.audio) {
    if (!needsKey_) {
      ready_.push_back(std::move(taken));
    }
    return;
  }
  const bool inFront = !begun_;  // so far, of the first second wanted
  begun_ = begun_ || taken.Seconds() >= parts_[part_ - 1].first;
  if ((needsKey_ || inFront) && StandsAlone(frame)) {
    taken.key = true;
    needsKey_ = false;
    ready_.clear();  // nothing in front of this one is needed
  }
  if (needsKey_) {
    skippedFrames_ += begun_ ? 1 : 0;
    ready_.clear();
    return;
  }
  ready_.push_back(std::move(taken));
}

std::optional<RecordedFrame> RecordingFrames::Next() {
  while (!begun_ || ready_.empty()) {
    if (!walker_) {
      if (part_ == parts_.size()) {
        break;
      }
      OpenPart();
    }
    const auto frame = Walk();
    if (!frame) {
      ClosePart();
      continue;
    }
    done_ = doneBefore_ + frame->End();
    ReportDone();
    if (!frame->header.IsAudio() && !stream_) {
      stream_ = frame->header.StreamNumber();
    }
    if (!stream_ || frame->header.StreamNumber() != *stream_) {
      otherFrames_ += frame->header.IsAudio() ? 0 : 1;
      continue;
    }
    const RecordingPart& part = parts_[part_ - 1];
    const std::int64_t second = frame->header.Seconds();
    if (second > part.last) {
      if (second > part.last + kStreamsApart) {
        ClosePart();
        continue;
      }
      if (!part.sharesSecond || second != part.last + 1) {
        continue;
      }
      if (!takesSharedSecond_) {
        takesSharedSecond_ = EndsWithin(second, frame->offset);
      }
      if (!*takesSharedSecond_) {
        continue;
      }
    }
    Take(*frame);
  }
  if (ready_.empty()) {
    return std::nullopt;
  }
  RecordedFrame frame = std::move(ready_.front());
  ready_.pop_front();
  return frame;
}

CMSVideoType RecordingFrames::VideoType(const RecordedFrame& frame) const {
  constexpr std::size_t kProbed = 8;
  const auto read = [&](std::span<std::uint8_t> bytes, std::uint64_t offset) {
    return bytes.first(
        SystemFileIo().ReadAllAt(frame.file->Handle(), bytes.data(), bytes.size(), offset));
  };
  std::array<std::uint8_t, kVideoHeaderRoom> area{};
  std::array<std::uint8_t, kProbed> front{};
  const std::size_t length = frame.frame.payloadOffset - frame.frame.offset;
  return VideoTypeOfKeyFrame(
      length == area.size() ? read(area, frame.frame.offset) : std::span<std::uint8_t>(),
      read(std::span(front).first(std::min<std::size_t>(kProbed, frame.frame.payloadLength)),
           frame.frame.payloadOffset));
}

std::span<std::uint8_t> RecordingFrames::Payload(const RecordedFrame& frame) {
  const std::size_t size = frame.frame.payloadLength;
  payload_.resize(std::max(payload_.size(), size + kInputPadding));
  if (SystemFileIo().ReadAllAt(frame.file->Handle(), payload_.data(), size,
                               frame.frame.payloadOffset) != size) {
    throw std::runtime_error(std::string("a recording became shorter while it was read: ") +
                             std::strerror(errno == 0 ? EIO : errno));
  }
  std::fill_n(payload_.begin() + static_cast<std::ptrdiff_t>(size), kInputPadding, std::uint8_t{0});
  return std::span(payload_).first(size);
}

}  // namespace cms

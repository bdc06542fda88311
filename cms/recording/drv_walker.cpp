#include "cms/recording/drv_walker.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

namespace cms {
namespace {

constexpr std::size_t kBufferSize = 64 * 1024;
constexpr std::size_t kReadAhead = 4096;  // when only a header is wanted

}  // namespace

DrvWalker::DrvWalker(FileIo& io, int handle) : io_(io), handle_(handle), buffer_(kBufferSize) {
  Refresh();
}

void DrvWalker::Refresh() {
  const std::int64_t size = io_.Size(handle_);
  if (size < 0) {
    report_.error = errno;
    ended_ = true;
    return;
  }
  report_.fileSize = static_cast<std::uint64_t>(size);
  buffered_ = 0;
  if (ended_ && report_.error == 0 && report_.fileSize > position_) {
    report_.skippedBytes -= std::exchange(report_.tailLength, 0);
    report_.badChecks -= std::exchange(tailBadChecks_, 0);
    report_.tail = DrvTail::kNone;
    ended_ = false;
  }
}

void DrvWalker::Seek(std::uint64_t offset) {
  position_ = offset;
  ended_ = report_.error != 0;
}

// The bytes at `offset`, as many as are wanted unless the file ends (or fails) before.
std::span<const std::uint8_t> DrvWalker::Bytes(std::uint64_t offset, std::size_t wanted) {
  if (offset >= report_.fileSize) {
    return {};
  }
  wanted = std::min<std::uint64_t>(wanted, report_.fileSize - offset);
  if (offset < bufferOffset_ || offset + wanted > bufferOffset_ + buffered_) {
    const std::size_t size =
        std::min<std::uint64_t>(std::max(wanted, kReadAhead), report_.fileSize - offset);
    bufferOffset_ = offset;
    buffered_ = io_.ReadAllAt(handle_, buffer_.data(), size, offset);
    if (buffered_ < wanted && report_.error == 0) {
      report_.error = errno != 0 ? errno : EIO;  // the file became shorter meanwhile
    }
  }
  const std::size_t skipped = offset - bufferOffset_;
  return std::span(buffer_).subspan(skipped, std::min(wanted, buffered_ - skipped));
}

std::optional<DrvHeader> DrvWalker::HeaderAt(std::uint64_t offset) {
  const auto bytes = Bytes(offset, kDrvHeaderSize);
  if (bytes.size() < kDrvHeaderSize) {
    return std::nullopt;
  }
  return DrvHeader(bytes.first<kDrvHeaderSize>());
}

bool DrvWalker::HeaderHoldsAt(std::uint64_t offset) {
  const auto header = HeaderAt(offset);
  return header && header->Holds();
}

// A header that leads to the next one or to the end of the file is no accident of a payload. What
// lies elsewhere is read without giving up the buffer that is being searched.
bool DrvWalker::LeadsOn(std::uint64_t offset, const DrvHeader& header) {
  const std::uint64_t end = offset + header.FrameLength();
  if (end >= report_.fileSize) {
    return end == report_.fileSize;
  }
  if (end + kDrvHeaderSize <= bufferOffset_ + buffered_) {
    return HeaderHoldsAt(end);
  }
  std::array<std::uint8_t, kDrvHeaderSize> bytes;
  return io_.ReadAllAt(handle_, bytes.data(), bytes.size(), end) == bytes.size() &&
         DrvHeader(bytes).Holds();
}

// The first place from `from` on, in front of `limit`, with a header that holds; else `limit`.
std::uint64_t DrvWalker::Find(std::uint64_t from, std::uint64_t limit, bool mustLeadOn) {
  while (from < limit) {
    const auto bytes = Bytes(from, kBufferSize);
    if (bytes.size() < kDrvHeaderSize) {
      break;
    }
    const std::size_t places = bytes.size() - kDrvHeaderSize + 1;
    for (std::size_t at = 0; at < places; ++at) {
      const void* sync = std::memchr(&bytes[at], kDrvSync, places - at);
      if (sync == nullptr) {
        break;
      }
      at = static_cast<std::size_t>(static_cast<const std::uint8_t*>(sync) - bytes.data());
      if (from + at >= limit) {
        return limit;
      }
      const DrvHeader header(bytes.subspan(at).first<kDrvHeaderSize>());
      if (header.Holds() && (!mustLeadOn || LeadsOn(from + at, header))) {
        return from + at;
      }
    }
    from += places;
  }
  return limit;
}

std::optional<DrvFrame> DrvWalker::FrameAt(std::uint64_t offset) {
  const auto header = HeaderAt(offset);
  if (!header || !header->Holds()) {
    tailBadChecks_ = header && header->HasSync() ? 1 : 0;
    report_.badChecks += tailBadChecks_;
    return std::nullopt;
  }
  tailBadChecks_ = 0;
  DrvFrame frame;
  frame.header = *header;
  frame.offset = offset;
  frame.payloadOffset = offset + header->AreaLength();
  frame.payloadLength = header->PayloadLength();
  return frame;
}

std::optional<DrvFrame> DrvWalker::Next() {
  while (!ended_ && report_.error == 0 && position_ < report_.fileSize) {
    const auto frame = FrameAt(position_);
    if (report_.error != 0) {
      break;
    }
    if (!frame) {
      const std::uint64_t next = Find(position_ + 1, report_.fileSize, false);
      if (next == report_.fileSize) {
        break;
      }
      Skip(position_, next);
      position_ = next;
      continue;
    }
    const std::uint64_t end = frame->End();
    if (end != report_.fileSize && !HeaderHoldsAt(end)) {
      const std::uint64_t limit = std::min(end, report_.fileSize);
      const std::uint64_t inside = Find(position_ + kDrvHeaderSize, limit, true);
      if (inside < limit) {
        Skip(position_, inside);
        position_ = inside;
        continue;
      }
      if (end > report_.fileSize) {
        break;
      }
    }
    if (report_.error != 0) {
      break;
    }
    position_ = end;
    Count(*frame);
    return frame;
  }
  End();
  return std::nullopt;
}

void DrvWalker::Count(const DrvFrame& frame) {
  ++report_.frames;
  report_.keyFrames += frame.header.IsKeyFrame() ? 1 : 0;
  report_.frameBytes += frame.End() - frame.offset;
  report_.endOfFrames = frame.End();
  if (frame.header.IsAudio()) {
    ++report_.audioFrames;
    return;
  }
  const std::uint32_t seconds = frame.header.Seconds();
  const bool first = report_.frames - report_.audioFrames == 1;
  report_.firstSeconds = first ? seconds : report_.firstSeconds;
  report_.earliestSeconds = first ? seconds : std::min(report_.earliestSeconds, seconds);
  report_.lastSeconds = seconds;
  report_.latestSeconds = std::max(report_.latestSeconds, seconds);
}

void DrvWalker::Skip(std::uint64_t from, std::uint64_t to) {
  report_.skippedBytes += to - from;
  auto& ranges = report_.skipped;
  if (!ranges.empty() && ranges.back().offset + ranges.back().length == from) {
    ranges.back().length += to - from;
  } else if (ranges.size() < DrvWalkReport::kMaximumRanges) {
    ranges.push_back({from, to - from});
  }
}

void DrvWalker::End() {
  if (std::exchange(ended_, true) || report_.error != 0 || position_ >= report_.fileSize) {
    return;
  }
  const DrvTail tail = JudgeTail();
  if (report_.error == 0) {
    report_.tail = tail;
    report_.tailLength = report_.fileSize - position_;
    report_.skippedBytes += report_.tailLength;
  }
}

// Everything from `position_` on is the tail: no header behind it holds.
DrvTail DrvWalker::JudgeTail() {
  const auto header = HeaderAt(position_);
  if (header && header->Holds()) {
    return DrvTail::kTornFrame;
  }
  for (std::uint64_t at = position_; at < report_.fileSize;) {
    const auto bytes = Bytes(at, kBufferSize);
    if (bytes.empty()) {
      break;
    }
    if (std::any_of(bytes.begin(), bytes.end(), [](std::uint8_t byte) { return byte != 0; })) {
      return report_.fileSize - position_ < kDrvHeaderSize ? DrvTail::kPartialHeader
                                                           : DrvTail::kForeign;
    }
    at += bytes.size();
  }
  return DrvTail::kZeros;
}

std::size_t DrvWalker::Read(const DrvFrame& frame, std::span<std::uint8_t> out) {
  const std::size_t size = std::min<std::uint64_t>(out.size(), frame.End() - frame.offset);
  return io_.ReadAllAt(handle_, out.data(), size, frame.offset);
}

}  // namespace cms

#include "cms/streaming/rtp_processer.h"

#include <algorithm>
#include <new>

#include "cms/runtime/clock.h"
#include "cms/streaming/internal/rtp_packet.h"

namespace {

constexpr int kMaxDropout = 3000;
constexpr int kMaxMisorder = 100;

constexpr std::uint64_t kIntervalMilliseconds = 1000;

void Add(std::atomic<unsigned int>& counter, unsigned int value) {
  counter.store(counter.load(std::memory_order_relaxed) + value, std::memory_order_relaxed);
}

}  // namespace

void RTPProcesserBase::FreeBuffer::operator()(unsigned char* buffer) const {
  ::operator delete (buffer, std::align_val_t{kAlignment});
}

RTPProcesserBase::RTPProcesserBase(bool isVideo, bool checksSequence)
    : isVideo_(isVideo), checksSequence_(checksSequence) {
  // Left as it comes: pages that no frame reaches cost nothing.
  constexpr std::size_t kAllocated = kFrameOffset + kFrameCapacity + kTailRoom;
  buffer_.reset(static_cast<unsigned char*>(
      ::operator new (kAllocated, std::align_val_t{kAlignment}, std::nothrow)));
  capacity_ = buffer_ ? kFrameCapacity : 0;
  ResetFrameBuffer();
}

RTPProcesserBase::~RTPProcesserBase() = default;

void RTPProcesserBase::SetFrameCallback(FrameCallback callback, void* context) {
  callback_.callback = callback;
  callback_.context = context;
  sink_ = callback != nullptr ? &callback_ : nullptr;
}

void RTPProcesserBase::ResetFrameBuffer() {
  frame_ = buffer_ ? buffer_.get() + kFrameOffset : nullptr;
  frameLength_ = 0;
}

void RTPProcesserBase::ResetLostCount() {
  recentLost_.store(0, std::memory_order_relaxed);
  notLost_.store(0, std::memory_order_relaxed);
  resetSequence_.store(GetLastSeqNum(), std::memory_order_relaxed);
}

unsigned char RTPProcesserBase::GetLostFraction() const {
  const auto expected =
      static_cast<std::uint16_t>(GetLastSeqNum() - resetSequence_.load(std::memory_order_relaxed));
  if (expected == 0) {
    return 0;
  }
  const unsigned int recent = GetLostCount();
  const unsigned int lost = recent - std::min(recent, notLost_.load(std::memory_order_relaxed));
  return static_cast<unsigned char>(
      std::min<std::uint64_t>(255, std::uint64_t{lost} * 256 / expected));
}

void RTPProcesserBase::SetIsBPSCounting(bool on) {
  if (on) {
    statistics_.bytesPerSecond.store(0, std::memory_order_relaxed);
    statistics_.lossRate.store(0.0, std::memory_order_relaxed);
    statistics_.restart.store(true, std::memory_order_relaxed);
  }
  statistics_.on.store(on, std::memory_order_release);
}

unsigned int RTPProcesserBase::GetStreamBytesPerSecond() const {
  return statistics_.bytesPerSecond.load(std::memory_order_relaxed);
}

double RTPProcesserBase::GetStreamLossRate() const {
  return statistics_.lossRate.load(std::memory_order_relaxed);
}

void RTPProcesserBase::GetMetadata(void** dest, unsigned int* length) const {
  if (metadataLength_ > 0 && dest != nullptr && *dest != nullptr) {
    std::memcpy(*dest, metadata_, static_cast<std::size_t>(metadataLength_));
  }
  if (length != nullptr) {
    *length = static_cast<unsigned int>(metadataLength_);
  }
}

int RTPProcesserBase::SetMetadada(void* data, unsigned int length) {
  if (length > static_cast<unsigned int>(kMaxMetadata)) {
    return 0;
  }
  if (length > 0) {
    std::memcpy(metadata_, data, length);
  }
  metadataLength_ = static_cast<int>(length);
  return 1;
}

int RTPProcesserBase::InsertDataToFrameBuff(const void* data, int offset, int length) {
  if (offset < 0 || length < 0 || offset > frameLength_) {
    return 0;
  }
  if (length > capacity_ - frameLength_) {
    Add(oversize_, 1);
    return 0;
  }
  if (length == 0) {
    return 1;
  }
  const auto count = static_cast<std::size_t>(length);
  if (offset == 0 && frame_ - buffer_.get() >= kFrontRoom + length) {
    frame_ -= length;
  } else {
    std::memmove(frame_ + offset + length, frame_ + offset,
                 static_cast<std::size_t>(frameLength_ - offset));
  }
  std::memcpy(frame_ + offset, data, count);
  frameLength_ += length;
  return 1;
}

unsigned int RTPProcesserBase::GetRTPHeaderSize(const void* packet, int length) {
  const std::span bytes(static_cast<const std::uint8_t*>(packet), static_cast<std::size_t>(length));
  return static_cast<unsigned int>(cms::RtpPacket(bytes).HeaderSize());
}

void RTPProcesserBase::Count(std::uint16_t sequence, unsigned int length) {
  Statistics& s = statistics_;
  const std::uint64_t now = cms::TickMilliseconds();
  if (s.restart.load(std::memory_order_relaxed)) [[unlikely]] {
    s.restart.store(false, std::memory_order_relaxed);
    s.intervalStart = now;
    s.intervalSequence = sequence;
    s.intervalBytes = 0;
    s.intervalPackets = 0;
  }
  if (now - s.intervalStart < kIntervalMilliseconds) {
    s.intervalBytes += length;
    ++s.intervalPackets;
    return;
  }
  s.bytesPerSecond.store(s.intervalBytes, std::memory_order_relaxed);
  double lossRate = 100.0;
  if (s.intervalPackets >= 2) {
    const int expected =
        sequence - s.intervalSequence + (sequence > s.intervalSequence ? 0 : 65536);
    lossRate = (1.0 - static_cast<double>(s.intervalPackets) / expected) * 100.0;
  }
  s.lossRate.store(lossRate, std::memory_order_relaxed);
  s.intervalStart = now;
  s.intervalSequence = sequence;
  s.intervalBytes = length;
  s.intervalPackets = 1;
}

void RTPProcesserBase::NoteSequence(std::uint16_t sequence) {
  const bool first = !anyPacket_;
  if (const auto step = static_cast<std::uint16_t>(sequence - observedSequence_);
      step == 1 || first) [[likely]] {
    observedSequence_ = sequence;
    anyPacket_ = true;
  } else if (step != 0 && step < 65536 - kMaxMisorder) {  // else late or doubled
    // A jump further than kMaxDropout is a sender that started anew (RFC 3550, appendix A.1).
    Add(missing_, step < kMaxDropout ? step - 1u : 0u);
    observedSequence_ = sequence;
  }
  if (!checksSequence_) {
    return;
  }
  const std::uint16_t last = lastSequence_.load(std::memory_order_relaxed);
  if (sequence != static_cast<std::uint16_t>(last + 1)) [[unlikely]] {
    discard_ = true;
    boundary_ = false;
    // The wrapped case counts one too few, see the header.
    const int gap = sequence > last ? sequence - last - 1 : sequence - last + 65534;
    totalLost_.fetch_add(static_cast<unsigned int>(gap), std::memory_order_relaxed);
    recentLost_.fetch_add(static_cast<unsigned int>(gap), std::memory_order_relaxed);
  }
  if (first) [[unlikely]] {
    resetSequence_.store(static_cast<std::uint16_t>(sequence - 1), std::memory_order_relaxed);
    notLost_.store(GetLostCount(), std::memory_order_relaxed);
  }
  lastSequence_.store(sequence, std::memory_order_relaxed);
}

std::span<const std::uint8_t> RTPProcesserBase::NotePacket(std::span<const std::uint8_t> bytes) {
  if (bytes.size() < cms::RtpPacket::kFixedHeader) {
    return {};
  }
  const cms::RtpPacket packet(bytes);
  if (statistics_.on.load(std::memory_order_acquire)) [[unlikely]] {
    Count(packet.Sequence(), static_cast<unsigned int>(bytes.size()));
  }
  if (packet.HeaderSize() >= bytes.size()) {
    return {};
  }
  // A packet of nothing but padding has its place in the sequence and no payload.
  NoteSequence(packet.Sequence());
  lastTimestamp_ = packet.Timestamp();
  return packet.Payload();
}

int RTPProcesserBase::ProcessData(void* packet, int length) {
  if (packet == nullptr || length < 0) {
    return 0;
  }
  const auto* const bytes = static_cast<const std::uint8_t*>(packet);
  const auto payload = NotePacket({bytes, static_cast<std::size_t>(length)});
  if (payload.empty()) {
    return 0;
  }
  const auto headerSize = static_cast<unsigned int>(payload.data() - bytes);
  length = static_cast<int>(headerSize + payload.size());

  if (boundary_) {
    boundary_ = false;
    const int answer = FindIFrame(packet, length, headerSize);
    if (answer == kAskNextPacket) {
      boundary_ = true;
    } else if (answer != 0) {
      discard_ = false;
    }
  }
  if (!discard_ && AddDataToFrameBuff(packet, length, headerSize) == 0) [[unlikely]] {
    discard_ = true;
    ResetFrameBuffer();
    if (IsEndOfFrame(packet, length, headerSize) != 0) {
      Add(dropped_, 1);
    }
    return 0;
  }
  if (IsEndOfFrame(packet, length, headerSize) == 0) {
    return 0;
  }
  const bool delivers = !discard_ && frameLength_ >= kMinFrameLength && sink_ != nullptr;
  if (delivers) {
    std::memset(frame_ + frameLength_, 0, kTailRoom);
    sink_->OnFrame(*this, {frame_, static_cast<std::size_t>(frameLength_)});
  } else if (discard_ || frameLength_ > 0) {
    Add(dropped_, 1);
  }
  boundary_ = discard_;
  ResetFrameBuffer();
  return delivers ? 1 : 0;
}

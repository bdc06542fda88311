#include "cms/streaming/rtcp_instance.h"

#include <unistd.h>

#include <algorithm>

#include "cms/live/media/frame_buffer.h"
#include "cms/runtime/clock.h"
#include "cms/streaming/internal/rtcp_report.h"

namespace {

constexpr std::array<std::uint8_t, 4> kUnknownSender = {0xff, 0xff, 0xff, 0xff};

// Where the sender's SSRC lies in what a read returns: behind the prefix and the first RTCP word.
constexpr std::size_t kSenderOffset = 8;

constexpr int kLoopPause = 50;  // ms

}  // namespace

RTCPInstance::RTCPInstance() : senderSsrc_(kUnknownSender) {}

RTCPInstance::~RTCPInstance() {
  StopPlay();
}

int RTCPInstance::SetConfig(const _RTCP_CONFIG& config) {
  configured_ = false;
  if (config.transportMode != kRTCPOverUDP && config.transportMode != kRTCPInterleaved) return 0;
  if (!config.send || !config.statistics) return 0;
  if (!config.read) {
    if (config.transportMode != kRTCPInterleaved) return 0;
    queue_ = std::make_unique<CFrameBufferNW>();
    if (!queue_->AllocateBuffer(kQueueSlots, kReadBufferSize)) return 0;
  }
  config_ = config;
  configured_ = true;
  return 1;
}

int RTCPInstance::Play() {
  if (!configured_) return 0;
  forgetSender_ = true;
  stopped_.Reset();
  playing_ = true;
  return 1;
}

int RTCPInstance::StopPlay() {
  playing_ = false;
  stopped_.Set();
  return 1;
}

int RTCPInstance::RTPOverRTSPAddPacket(const void* data, int length) {
  if (!playing_ || config_.read || length <= 0) return 0;
  return queue_->Write(data, length, 1) == length ? 1 : 0;
}

int RTCPInstance::RTCPProcessNB() {
  if (!playing_) return 0;
  if (forgetSender_.exchange(false)) senderSsrc_ = kUnknownSender;

  const int length = config_.read
                         ? config_.read(config_.readContext, buffer_.data(), kReadBufferSize)
                         : static_cast<int>(queue_->Read(buffer_.data(), kReadBufferSize));
  if (length < 0) return -1;
  if (static_cast<std::size_t>(length) >= kSenderOffset + senderSsrc_.size() &&
      length <= kReadBufferSize && senderSsrc_ == kUnknownSender) {
    std::copy_n(buffer_.begin() + kSenderOffset, senderSsrc_.size(), senderSsrc_.begin());
  }
  if (senderSsrc_ == kUnknownSender) return 0;

  const std::uint64_t now = cms::TickMilliseconds();
  if (lastReport_ != 0 && now - lastReport_ <= kReportInterval) return 0;
  SendReport();
  lastReport_ = now;
  return 0;
}

void RTCPInstance::SendReport() {
  cms::ReceiverReportValues values;
  values.receiver_ssrc = static_cast<std::uint32_t>(getpid());
  values.sender_ssrc = senderSsrc_;
  values.fraction_lost = config_.statistics->FractionLost();
  values.cumulative_lost = config_.statistics->CumulativeLost();
  values.last_sequence = config_.statistics->LastSequence();
  const auto report = cms::BuildReceiverReport(values);
  config_.send(config_.sendContext, report.data(), static_cast<int>(report.size()));
  config_.statistics->ResetFraction();
}

void RTCPInstance::RTCPProcessFn() {
  while (playing_ && RTCPProcessNB() >= 0) {
    stopped_.Wait(kLoopPause);
  }
}

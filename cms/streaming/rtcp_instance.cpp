#include "cms/streaming/rtcp_instance.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>

#include "cms/live/media/frame_buffer.h"
#include "cms/runtime/clock.h"
#include "cms/runtime/event.h"
#include "cms/streaming/internal/rtcp_report.h"

namespace {

constexpr std::array<std::uint8_t, 4> kUnknownSender = {0xff, 0xff, 0xff, 0xff};

// Where the sender's SSRC lies in what a read returns: behind the prefix and the first RTCP word.
constexpr std::size_t kSenderOffset = 8;

constexpr int kLoopPause = 50;  // ms

}  // namespace

class RTCPInstance::State {
 public:
  void SendReport();

  _RTCP_CONFIG config;
  std::unique_ptr<CFrameBufferNW> queue;  // when the packets come by RTPOverRTSPAddPacket
  std::atomic<bool> configured{false};
  std::atomic<bool> playing{false};
  std::atomic<bool> forgetSender{false};

  // Of the processing thread.
  std::array<unsigned char, kReadBufferSize> buffer{};
  std::array<std::uint8_t, 4> senderSsrc = kUnknownSender;
  std::uint64_t lastReport = 0;  // ms; 0: none yet

  cms::Event stopped;  // wakes RTCPProcessFn
};

RTCPInstance::RTCPInstance() : state_(std::make_unique<State>()) {}

RTCPInstance::~RTCPInstance() {
  StopPlay();
}

int RTCPInstance::SetConfig(const _RTCP_CONFIG& config) {
  state_->configured = false;
  if (config.transportMode != cms::kRTCPOverUDP && config.transportMode != cms::kRTCPInterleaved)
    return 0;
  if (!config.send || !config.statistics) return 0;
  if (!config.read) {
    if (config.transportMode != cms::kRTCPInterleaved) return 0;
    state_->queue = std::make_unique<CFrameBufferNW>();
    if (!state_->queue->AllocateBuffer(kQueueSlots, kReadBufferSize)) return 0;
  }
  state_->config = config;
  state_->configured = true;
  return 1;
}

int RTCPInstance::Play() {
  if (!state_->configured) return 0;
  state_->forgetSender = true;
  state_->stopped.Reset();
  state_->playing = true;
  return 1;
}

int RTCPInstance::StopPlay() {
  state_->playing = false;
  state_->stopped.Set();
  return 1;
}

int RTCPInstance::RTPOverRTSPAddPacket(const void* data, int length) {
  if (!state_->playing || state_->config.read || length <= 0) return 0;
  return state_->queue->Write(data, length, 1) == length ? 1 : 0;
}

int RTCPInstance::RTCPProcessNB() {
  if (!state_->playing) return 0;
  if (state_->forgetSender.exchange(false)) state_->senderSsrc = kUnknownSender;

  const int length =
      state_->config.read
          ? state_->config.read(state_->config.readContext, state_->buffer.data(), kReadBufferSize)
          : static_cast<int>(state_->queue->Read(state_->buffer.data(), kReadBufferSize));
  if (length < 0) return -1;
  if (static_cast<std::size_t>(length) >= kSenderOffset + state_->senderSsrc.size() &&
      length <= kReadBufferSize && state_->senderSsrc == kUnknownSender) {
    std::copy_n(state_->buffer.begin() + kSenderOffset, state_->senderSsrc.size(),
                state_->senderSsrc.begin());
  }
  if (state_->senderSsrc == kUnknownSender) return 0;

  const std::uint64_t now = cms::TickMilliseconds();
  if (state_->lastReport != 0 && now - state_->lastReport <= kReportInterval) return 0;
  state_->SendReport();
  state_->lastReport = now;
  return 0;
}

void RTCPInstance::State::SendReport() {
  cms::ReceiverReportValues values;
  values.receiverSsrc = static_cast<std::uint32_t>(getpid());
  values.senderSsrc = senderSsrc;
  values.fractionLost = config.statistics->FractionLost();
  values.cumulativeLost = config.statistics->CumulativeLost();
  values.todaysCameras = config.todaysCameras;
  values.lastSequence = config.statistics->LastSequence();
  const auto report = cms::BuildReceiverReport(values);
  config.send(config.sendContext, report.data(), static_cast<int>(report.size()));
  config.statistics->ResetFraction();
}

void RTCPInstance::RTCPProcessFn() {
  while (state_->playing && RTCPProcessNB() >= 0) {
    state_->stopped.Wait(kLoopPause);
  }
}

// RTCPInstance reads the sender's RTCP packets of one media stream and sends receiver reports (RFC
// 3550).
#pragma once

#include <cstdint>
#include <memory>

#include "cms/net/rtcp_step.h"
#include "cms/runtime/api.h"

namespace cms {

// Where the reports get their numbers from. Called on the thread that runs RTCPProcessNB.
class CMS_API RTCPStatistics {
 public:
  virtual ~RTCPStatistics() = default;
  virtual std::uint16_t LastSequence() const = 0;
  virtual std::uint8_t FractionLost() const = 0;  // since the last ResetFraction, in 1/256
  virtual std::uint32_t CumulativeLost() const = 0;
  virtual void ResetFraction() = 0;
};

enum RTCPTransportMode : int {
  kRTCPOverUDP = 0,
  kRTCPInterleaved = 1,
};

// Reads one packet without waiting into `buffer`: four bytes of room (the interleaved prefix, or
// left as they are when the packet came over UDP), then the packet. Returns the length with the
// room, 0 when there is nothing, negative when the source is gone for good.
using RTCPReadFunction = int (*)(void* context, unsigned char* buffer, int size);

// Sends one RTCP packet, without a prefix: an interleaved sender puts its own in front. The result
// is not looked at: a lost report is made good by the next.
using RTCPSendFunction = int (*)(void* context, const unsigned char* packet, int length);

}  // namespace cms

struct CMS_API _RTCP_CONFIG {
  int transportMode = cms::kRTCPOverUDP;
  cms::RTCPReadFunction read =
      nullptr;  // null: what RTPOverRTSPAddPacket queued (kRTCPInterleaved only)
  void* readContext = nullptr;
  cms::RTCPSendFunction send = nullptr;
  void* sendContext = nullptr;
  cms::RTCPStatistics* statistics = nullptr;  // not owned
  bool todaysCameras = false;  // reports as RFC 3550 has them, without the two peculiarities
};

// Threads: SetConfig before anything else; Play, StopPlay from the owner's; RTPOverRTSPAddPacket
// from the thread that reads the connection; RTCPProcessNB from one thread at a time. The owner
// unregisters the instance from its I/O threads before it or its configuration's objects go.
class CMS_API RTCPInstance final : public cms::RTCPStep {
 public:
  static constexpr int kReadBufferSize = 2048;
  static constexpr int kQueueSlots = 8;
  static constexpr std::uint64_t kReportInterval = 2000;  // ms; reports are further apart than this

  RTCPInstance();
  ~RTCPInstance();
  RTCPInstance(const RTCPInstance&) = delete;
  RTCPInstance& operator=(const RTCPInstance&) = delete;

  // 1, or 0 when the transport mode is unknown, a function or the statistics are missing, or memory
  // is short.
  int SetConfig(const _RTCP_CONFIG& config);

  // Starts reading and reporting; the sender's SSRC is learned anew. 1, or 0 without a
  // configuration.
  int Play();
  // Ends both and lets RTCPProcessFn return. 1.
  int StopPlay();

  // Queues one interleaved RTCP packet with its four-byte prefix. 1, or 0 when it is dropped: not
  // playing, queue full, longer than kReadBufferSize.
  int RTPOverRTSPAddPacket(const void* data, int length);

  // Reads at most one packet and sends at most one report: none before the first packet of the
  // sender, and never within kReportInterval of the last. 0, or negative when the source is gone
  // and the instance is of no more use. Does nothing while not playing.
  int RTCPProcessNB() override;

  // The same as a loop, for an owner that gives it a thread of its own: returns after StopPlay or
  // when the source is gone.
  void RTCPProcessFn();

 private:
  class CMS_HIDDEN State;

  const std::unique_ptr<State> state_;
};

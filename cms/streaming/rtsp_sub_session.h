// RTSPSubSession: one media stream of an RTSP session, from its packets to its frames.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "cms/runtime/api.h"
#include "cms/streaming/media_session.h"
#include "cms/streaming/rtcp_instance.h"
#include "cms/streaming/rtp_processer.h"

namespace cms {
class AccessUnitSink;
struct SenderReport;

// Where the frames of a stream go: pictures from the depacketizer, sound packet by packet, of AAC
// access unit by access unit.
class RTSPFrameSink : public RTPProcesserBase::Sink {
 public:
  // As OnFrame: `block` is valid during the call only, and kFrontRoom bytes in front of it are the
  // sink's to write.
  // `timestamp` is the RTP time of its first sample.
  virtual void OnSound(std::span<std::uint8_t> block, std::uint32_t timestamp) = 0;
  // What the sender's RTCP says of its clock. Never at the same time as the others.
  virtual void OnReport(bool video, const SenderReport& report) = 0;

 protected:
  ~RTSPFrameSink() = default;
};

// What a sub-session is made for, beyond what the description says of its stream.
struct RTSPSubSessionOptions {
  bool video = true;
  int siteNumber = 0;
  // For servers that send an access-unit delimiter or filler data: see
  // H264RTPProcesser::SetIgnoreDelimiters.
  bool ignoreDelimiters = false;
  RTSPFrameSink* sink = nullptr;  // the owner's
  // Set, pictures of H.264, H.265 and JPEG are put together as today's cameras send them, and go
  // there whole; the depacketizer only counts their packets then. See docs/todays_cameras.md.
  AccessUnitSink* units = nullptr;  // the owner's
  std::size_t mostUnitBytes = 0;    // of a picture; larger ones are dropped and counted
};

}  // namespace cms

// Video packets go to the depacketizer of their encoding, whose finished frames are handed on.
// Audio packets are handed on one by one, since senders mark the end of a talk spurt at best; the
// depacketizer only counts them.
//
// Threads: packets come on the receiving thread; Play and StopPlay from any; the counters may be
// read from any. The owner stops the packets before it destroys the object.
class CMS_API RTSPSubSession final : public cms::RTCPStatistics {
 public:
  RTSPSubSession();
  ~RTSPSubSession() override;

  // 0 when the encoding is none that the library receives, or memory is short.
  int SetConfig(const _RTSPSUBSESSION_CONFIG& config, const cms::RTSPSubSessionOptions& options);
  int CreateRTPProcesser();
  void DestroyRTPProcesser();

  // Packets before Play and after StopPlay are counted for the watchdog and dropped; with units
  // those of the half second before the first Play are kept for it.
  int Play();
  int StopPlay();

  // One RTP packet, from the interleaved connection or a datagram.
  int RTPOverRTSPAddPacket(const void* data, int length);
  // The sender's RTCP, a compound packet; while no RTP packet is being taken.
  void TakeControlPacket(std::span<const std::uint8_t> packet);

  void ResetLostCount();
  unsigned int GetLostCount() const;
  unsigned int GetTotalLostCount() const;
  unsigned short GetLastSeqNum() const;

  std::uint64_t PacketCount() const;
  unsigned int MissingPacketCount() const;
  unsigned int OversizeFrameCount() const;
  double LossRate() const;
  // The processer, for metadata; nullptr before CreateRTPProcesser.
  RTPProcesserBase* Processer();

  std::uint16_t LastSequence() const override { return GetLastSeqNum(); }
  std::uint8_t FractionLost() const override;
  std::uint32_t CumulativeLost() const override { return GetTotalLostCount(); }
  void ResetFraction() override { ResetLostCount(); }

 private:
  class CMS_HIDDEN State;

  const std::unique_ptr<State> state_;
};

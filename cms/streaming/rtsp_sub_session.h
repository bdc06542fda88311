// RTSPSubSession: one media stream of an RTSP session, from its packets to its frames.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <span>

#include "cms/runtime/api.h"
#include "cms/streaming/media_session.h"
#include "cms/streaming/rtcp_instance.h"
#include "cms/streaming/rtp_processer.h"

// Where the frames of a stream go: pictures from the depacketizer, sound packet by packet.
class RTSPFrameSink : public RTPProcesserBase::Sink {
 public:
  // As OnFrame: `block` is valid during the call only, and kFrontRoom bytes in front of it are the
  // sink's to write.
  virtual void OnSound(std::span<std::uint8_t> block) = 0;

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
};

// Video packets go to the depacketizer of their encoding, whose finished frames are handed on.
// Audio packets are handed on one by one, since senders mark the end of a talk spurt at best; the
// depacketizer only counts them.
//
// Threads: packets come on the receiving thread; Play and StopPlay from any; the counters may be
// read from any. The owner stops the packets before it destroys the object.
class CMS_API RTSPSubSession final : public RTCPStatistics {
 public:
  RTSPSubSession();
  ~RTSPSubSession() override;

  // 0 when the encoding is none that the library receives, or memory is short.
  int SetConfig(const _RTSPSUBSESSION_CONFIG& config, const RTSPSubSessionOptions& options);
  int CreateRTPProcesser();
  void DestroyRTPProcesser();

  // Packets before Play and after StopPlay are counted for the watchdog and dropped.
  int Play();
  int StopPlay();

  // One RTP packet, from the interleaved connection or a datagram.
  int RTPOverRTSPAddPacket(const void* data, int length);

  void ResetLostCount();
  unsigned int GetLostCount() const;
  unsigned int GetTotalLostCount() const;
  unsigned short GetLastSeqNum() const;

  std::uint64_t PacketCount() const { return packets_.load(std::memory_order_relaxed); }
  unsigned int MissingPacketCount() const;
  unsigned int OversizeFrameCount() const;
  double LossRate() const;
  // The processer, for metadata; nullptr before CreateRTPProcesser.
  RTPProcesserBase* Processer() { return processer_.get(); }

  std::uint16_t LastSequence() const override { return GetLastSeqNum(); }
  std::uint8_t FractionLost() const override;
  std::uint32_t CumulativeLost() const override { return GetTotalLostCount(); }
  void ResetFraction() override { ResetLostCount(); }

 private:
  void DeliverAudio(std::span<const std::uint8_t> payload);

  _RTSPSUBSESSION_CONFIG config_{};
  RTSPSubSessionOptions options_;
  std::unique_ptr<RTPProcesserBase> processer_;
  std::unique_ptr<std::uint8_t[]> sound_;  // front room, then one packet's payload
  std::atomic<bool> playing_{false};
  std::atomic<std::uint64_t> packets_{0};
  bool leftOut_ = false;  // packets came while not playing; the receiving thread's
};

// SimpleRTPProcesser: audio whose payload is the stream itself (PCMU, PCMA, L16; RFC 3551).
#pragma once

#include "cms/streaming/rtp_processer.h"

// Payloads are joined as they are; the marker ends a frame, and a frame may start anywhere.
// Receivers of senders that set the marker as RFC 3551 (4.1) has it need SetFramePerPacket.
class CMS_API SimpleRTPProcesser : public RTPProcesserBase {
 public:
  SimpleRTPProcesser();
  ~SimpleRTPProcesser() override;

  // Audio has no frame types: leaves the caller's value.
  void GetFrameData(void* frame, int* length, int* frameType) override;
  int AddDataToFrameBuff(void* packet, int length, unsigned int headerSize) override;
  int FindIFrame(void* packet, int length, unsigned int headerSize) override;
  int IsEndOfFrame(void* packet, int length, unsigned int headerSize) override;

  // For senders that set the marker only on the first packet behind a silence (RFC 3551, 4.1;
  // GStreamer and FFmpeg among them): by the rule, which is the default, their packets pile up
  // until the frame is too long. On, every packet is a frame. Any thread; best before the first
  // packet.
  void SetFramePerPacket(bool on) { framePerPacket_.store(on, std::memory_order_relaxed); }

 private:
  std::atomic<bool> framePerPacket_{false};
};

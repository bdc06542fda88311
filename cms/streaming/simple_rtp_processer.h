// SimpleRTPProcesser: audio whose payload is the stream itself (PCMU, PCMA, L16; RFC 3551).
#pragma once

#include "cms/streaming/rtp_processer.h"

// Payloads are joined as they are; the marker ends a frame, and a frame may start anywhere.
// Senders that set the marker only behind a silence (RFC 3551, 4.1; GStreamer and FFmpeg among
// them) end no frame so: RTSPSubSession therefore hands audio on packet by packet.
class CMS_API SimpleRTPProcesser : public RTPProcesserBase {
 public:
  SimpleRTPProcesser();
  ~SimpleRTPProcesser() override;

  // Audio has no frame types: leaves the caller's value.
  void GetFrameData(void* frame, int* length, int* frameType) override;
  int AddDataToFrameBuff(void* packet, int length, unsigned int headerSize) override;
  int FindIFrame(void* packet, int length, unsigned int headerSize) override;
  int IsEndOfFrame(void* packet, int length, unsigned int headerSize) override;
};

// MP4VESRTPProcesser: MPEG-4 Visual elementary streams over RTP (RFC 3016).
#pragma once

#include "cms/streaming/rtp_processer.h"

// Payloads are joined as they are; the marker ends a frame. A key frame starts with a packet whose
// first VOP is an I-VOP.
class CMS_API MP4VESRTPProcesser : public RTPProcesserBase {
 public:
  MP4VESRTPProcesser();
  ~MP4VESRTPProcesser() override;

  // Type 1 when the first VOP within the frame's first 256 bytes is an I-VOP, else 2. The caller
  // owes 256 readable bytes, except in the frame callback.
  void GetFrameData(void* frame, int* length, int* frameType) override;
  int AddDataToFrameBuff(void* packet, int length, unsigned int headerSize) override;
  int FindIFrame(void* packet, int length, unsigned int headerSize) override;
  int IsEndOfFrame(void* packet, int length, unsigned int headerSize) override;
};

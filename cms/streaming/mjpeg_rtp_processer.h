// MJPEGRTPProcesser: JPEG over RTP (RFC 2435).
#pragma once

#include <cstdint>
#include <memory>

#include "cms/streaming/mjpeg_header.h"
#include "cms/streaming/rtp_processer.h"

// Scan data is joined in the order of arrival; the marker ends a frame, which then gets the JPEG
// header in front (no end-of-image marker behind). Sequence numbers are not checked: a lost
// fragment is not noticed here and shows as a damaged picture. The header is made again only when
// Q, type or size change; new tables or a new restart interval under the same Q are not taken up.
class CMS_API MJPEGRTPProcesser : public RTPProcesserBase {
 public:
  MJPEGRTPProcesser();
  ~MJPEGRTPProcesser() override;

  int ProcessData(void* packet, int length) override;
  // Type 1 once in each second of the wall clock, 2 and 3 in turn for the frames between. Call it
  // once for each frame. Reads nothing of the frame.
  void GetFrameData(void* frame, int* length, int* frameType) override;
  int AddDataToFrameBuff(void* packet, int length, unsigned int headerSize) override;
  // 1 for the first fragment of any frame.
  int FindIFrame(void* packet, int length, unsigned int headerSize) override;
  int IsEndOfFrame(void* packet, int length, unsigned int headerSize) override;

 private:
  std::unique_ptr<tMJPEGJFIFHeaderParam> header_;
  std::int64_t keyFrameSecond_ = 0;
  unsigned char frameCounter_ = 0;
};

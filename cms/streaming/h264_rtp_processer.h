// H264RTPProcesser: H.264 over RTP (RFC 6184), packetization modes 0 and 1.
#pragma once

#include <span>
#include <vector>

#include "cms/streaming/rtp_processer.h"

// Single NAL units, STAP-A and FU-A become an Annex B frame with 4-byte start codes. A frame ends
// with an FU-A's end bit, or with the marker on a single NAL unit that is no SEI, SPS or PPS; an
// aggregate never ends one. So a picture of several fragmented slices comes as one frame a slice.
//
// Reception starts with an SPS (alone or in an aggregate) or an IDR slice; with a fragmented IDR
// slice only when both parameter sets are stored, which are then put in front of it. Any other NAL
// type (access-unit delimiters too, see SetIgnoreDelimiters) drops the frame in progress.
class CMS_API H264RTPProcesser : public RTPProcesserBase {
 public:
  H264RTPProcesser();
  ~H264RTPProcesser() override;

  // Type 1 for a frame that starts with an SPS or an IDR slice, else 2. Reads 5 bytes.
  void GetFrameData(void* frame, int* length, int* frameType) override;
  int AddDataToFrameBuff(void* packet, int length, unsigned int headerSize) override;
  int FindIFrame(void* packet, int length, unsigned int headerSize) override;
  int IsEndOfFrame(void* packet, int length, unsigned int headerSize) override;

  // Replace the stored parameter set with a copy (a NAL unit without start code); length 0 clears
  // it. Before the first packet, or on the receiving thread.
  void SetSPSSet(unsigned char* data, unsigned int length);
  void SetPPSSet(unsigned char* data, unsigned int length);
  // The stored set, null and 0 when there is none. It is the object's, until the next Set call.
  void GetSPSSet(unsigned char** data, unsigned int& length);
  void GetPPSSet(unsigned char** data, unsigned int& length);

  // For servers that send an access-unit delimiter before each picture (every GStreamer pipeline
  // with an h264parse) or filler data behind it: off, which is the rule, each of them drops its
  // frame and nothing is ever received. On, NAL units of the types 9 (access-unit delimiter) and
  // 12 (filler data) add no bytes and fail nothing, alone, in an aggregate or in fragments. A
  // packet with nothing else still ends a frame when its marker is set (filler at the end of a
  // picture); behind a frame end and without the marker it leaves it to the packet behind it to
  // start the key frame. Any thread; best before the first packet.
  void SetIgnoreDelimiters(bool ignore) {
    ignoreDelimiters_.store(ignore, std::memory_order_relaxed);
  }

 private:
  using Payload = std::span<const unsigned char>;

  bool HasNothingButDelimiters(Payload payload) const;
  int AppendNalUnit(Payload nalUnit);
  int AppendAggregate(Payload payload);
  int AppendFragment(Payload payload);

  std::atomic<bool> ignoreDelimiters_{false};
  std::vector<unsigned char> sps_;
  std::vector<unsigned char> pps_;
};

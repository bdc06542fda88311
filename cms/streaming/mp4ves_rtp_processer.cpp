#include "cms/streaming/mp4ves_rtp_processer.h"

#include <algorithm>

#include "cms/streaming/stream_probes.h"

MP4VESRTPProcesser::MP4VESRTPProcesser() : RTPProcesserBase(true) {}

MP4VESRTPProcesser::~MP4VESRTPProcesser() = default;

void MP4VESRTPProcesser::GetFrameData(void* frame, int* /*length*/, int* frameType) {
  constexpr int kSearched = 256;
  const int readable = frame == FrameData() ? std::min(kSearched, FrameLength()) : kSearched;
  const cms::Bytes head(static_cast<const unsigned char*>(frame),
                        static_cast<std::size_t>(readable));
  *frameType = cms::StartsWithMpeg4IVop(head) ? cms::kKeyFrame : cms::kOtherFrame;
}

int MP4VESRTPProcesser::AddDataToFrameBuff(void* packet, int length, unsigned int headerSize) {
  return AppendDataToFrameBuff(static_cast<const unsigned char*>(packet) + headerSize,
                               length - static_cast<int>(headerSize));
}

int MP4VESRTPProcesser::FindIFrame(void* packet, int length, unsigned int headerSize) {
  const cms::Bytes payload(static_cast<const unsigned char*>(packet) + headerSize,
                           static_cast<std::size_t>(length) - headerSize);
  return cms::StartsWithMpeg4IVop(payload);
}

int MP4VESRTPProcesser::IsEndOfFrame(void* packet, int /*length*/, unsigned int /*headerSize*/) {
  return HasMarker(packet);
}

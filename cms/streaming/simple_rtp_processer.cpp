#include "cms/streaming/simple_rtp_processer.h"

SimpleRTPProcesser::SimpleRTPProcesser() : RTPProcesserBase(false) {}

SimpleRTPProcesser::~SimpleRTPProcesser() = default;

void SimpleRTPProcesser::GetFrameData(void* /*frame*/, int* /*length*/, int* /*frameType*/) {}

int SimpleRTPProcesser::AddDataToFrameBuff(void* packet, int length, unsigned int headerSize) {
  return AppendDataToFrameBuff(static_cast<const unsigned char*>(packet) + headerSize,
                               length - static_cast<int>(headerSize));
}

int SimpleRTPProcesser::FindIFrame(void* /*packet*/, int /*length*/, unsigned int /*headerSize*/) {
  return 1;
}

int SimpleRTPProcesser::IsEndOfFrame(void* packet, int /*length*/, unsigned int /*headerSize*/) {
  return HasMarker(packet);
}

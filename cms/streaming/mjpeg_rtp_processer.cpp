#include "cms/streaming/mjpeg_rtp_processer.h"

#include "cms/runtime/clock.h"

namespace {

using Header = CMJPEGMainHeader;

Header::Payload PayloadBehind(const void* packet, int length, unsigned int headerSize) {
  return Header::Payload(static_cast<const unsigned char*>(packet),
                         static_cast<std::size_t>(length))
      .subspan(headerSize);
}

bool IsMadeFor(const tMJPEGJFIFHeaderParam& header, Header::Payload payload) {
  return header.headerLength != 0 && header.q == Header::Q(payload) &&
         header.type == Header::Type(payload) && header.width == Header::Width(payload) &&
         header.height == Header::Height(payload);
}

}  // namespace

MJPEGRTPProcesser::MJPEGRTPProcesser()
    : RTPProcesserBase(true, false), header_(CMJPEGMainHeader::CreateParam()) {}

MJPEGRTPProcesser::~MJPEGRTPProcesser() = default;

int MJPEGRTPProcesser::ProcessData(void* packet, int length) {
  return RTPProcesserBase::ProcessData(packet, length);
}

void MJPEGRTPProcesser::GetFrameData(void* /*frame*/, int* /*length*/, int* frameType) {
  ++frameCounter_;
  const std::int64_t now = cms::WallSeconds();
  if (now != keyFrameSecond_) {
    keyFrameSecond_ = now;
    frameCounter_ = 0;
    *frameType = cms::kKeyFrame;
  } else {
    *frameType = frameCounter_ % 2 != 0 ? cms::kOtherFrame : cms::kEvenFrame;
  }
}

int MJPEGRTPProcesser::AddDataToFrameBuff(void* packet, int length, unsigned int headerSize) {
  const auto payload = PayloadBehind(packet, length, headerSize);
  if (payload.size() < Header::kMainHeader) {
    return 0;
  }
  const std::size_t dataOffset = Header::GetDataOffset(payload);
  if (dataOffset == 0) {
    return 0;
  }
  if (Header::FragmentOffset(payload) == 0 && !IsMadeFor(*header_, payload)) {
    Header::GenerateJPEGHeader(payload, *header_);
  }
  const auto scan = payload.subspan(dataOffset);
  if (AppendDataToFrameBuff(scan.data(), static_cast<int>(scan.size())) == 0) {
    return 0;
  }
  return HasMarker(packet) ? InsertDataToFrameBuff(header_->header, 0, header_->headerLength) : 1;
}

int MJPEGRTPProcesser::FindIFrame(void* packet, int length, unsigned int headerSize) {
  const auto payload = PayloadBehind(packet, length, headerSize);
  return payload.size() >= Header::kMainHeader && Header::FragmentOffset(payload) == 0;
}

int MJPEGRTPProcesser::IsEndOfFrame(void* packet, int /*length*/, unsigned int /*headerSize*/) {
  return HasMarker(packet);
}

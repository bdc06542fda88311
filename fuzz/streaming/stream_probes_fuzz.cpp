// Any bytes as a frame: no probe reads outside them, and every offset is one that the rule allows.
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "cms/streaming/stream_probes.h"

namespace {

void Check(bool holds) {
  if (!holds) {
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::vector<unsigned char> frame(data, data + size);  // a block of its exact size
  const auto checkPos = [&](int pos, std::size_t pattern) {
    if (size < pattern) {
      Check(pos == static_cast<int>(size + pattern));
    } else {
      Check(pos == -1 || (pos >= static_cast<int>(pattern) && pos < static_cast<int>(size)));
    }
  };
  checkPos(cms::Mpeg4VopDataPos(frame), 4);
  checkPos(cms::Mpeg4VolDataPos(frame), 4);
  checkPos(cms::H264SpsDataPos(frame), 5);
  checkPos(cms::H264SeiDataPos(frame), 5);
  cms::StartsWithMpeg4IVop(frame);
  Check(cms::VideoTypeOf(frame) <= cms::CMS_VIDEO_MPEG4);
  const cms::CMSVideoType key = cms::VideoTypeOfKeyFrame(frame);
  Check(key == cms::VideoTypeOf(frame) || key == cms::CMS_VIDEO_H265);
  const int sps265 = cms::H265SpsDataPos(frame);
  Check(sps265 == -1 || (sps265 >= 5 && sps265 < static_cast<int>(size)));
  for (const bool halve : {false, true}) {
    const auto size4 = cms::Mpeg4Size(frame, halve);
    Check(!size4 || (size4->width < 8192 && size4->height < 8192));
  }
  const auto size264 = cms::H264Size(frame);
  Check(!size264 || (size264->width > 0 && size264->height > 0));
  const auto jpeg = cms::MjpegSize(frame);
  Check(jpeg.width <= 0xFFFF && jpeg.height <= 0xFFFF);
  const auto sei = cms::ParseSeiMessage(frame);
  Check(!sei || static_cast<std::size_t>(sei->payloadPos) <= size);
  return 0;
}

// Any bytes as a key frame and as a parameter set: nothing outside them is read, a size is positive
// and bounded, and a set that stands in a frame gives the frame its size.
#include <vector>

#include "cms/streaming/internal/picture_size.h"
#include "fuzz/support/check.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::vector<unsigned char> bytes(data, data + size);  // a block of its exact size
  for (int type = cms::CMS_VIDEO_UNKNOWN; type <= cms::CMS_VIDEO_H265; ++type) {
    const auto announced = cms::AnnouncedSize(type, bytes);
    CHECK(!announced || (announced->width > 0 && announced->width <= 65536));
    CHECK(!announced || (announced->height > 0 && announced->height <= 131072));
  }
  const auto whole = cms::FullH264Size(bytes);
  CHECK(!whole || (whole->width > 0 && whole->height > 0));

  std::vector<unsigned char> frame = {0, 0, 0, 1, 0x67};
  frame.insert(frame.end(), bytes.begin(), bytes.end());
  // A start code inside the set ends it there; a size is then the same or missing.
  const auto framed = cms::AnnouncedSize(cms::CMS_VIDEO_H264, frame);
  CHECK(!framed || framed == whole);
  return 0;
}

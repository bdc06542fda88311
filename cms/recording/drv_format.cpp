#include "cms/recording/drv_format.h"

#include "cms/live/media/frame_header.h"

namespace cms {

std::size_t FirstDrvHeader(std::span<const std::uint8_t> head) {
  constexpr std::size_t kHalf = kDrvHeaderSize / 2;  // a check byte makes its half's exclusive-or 0
  if (head.size() < kDrvScanSize) {
    return 0;
  }
  for (std::size_t p = 0; p <= kDrvLastScanned; ++p) {
    if (head[p] == kDrvSync && IsDrvKind(head[p + 1]) && XorCheck(head.subspan(p, kHalf)) == 0) {
      return p;
    }
  }
  return 0;
}

}  // namespace cms

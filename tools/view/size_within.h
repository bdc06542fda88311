// The size that a picture is shown in.
#pragma once

#include <algorithm>
#include <cmath>

#include "cms/live/media/size.h"

namespace tools {

// The largest of the picture's shape that fits, not larger than the picture; 0x0 (as it is) when
// one of the two is not known.
inline tagSIZE SizeWithin(const tagSIZE& room, const tagSIZE& picture) {
  if (room.cx <= 0 || room.cy <= 0 || picture.cx <= 0 || picture.cy <= 0) {
    return {};
  }
  const double scale =
      std::min({1.0, static_cast<double>(room.cx) / static_cast<double>(picture.cx),
                static_cast<double>(room.cy) / static_cast<double>(picture.cy)});
  const auto scaled = [scale](long side) {
    return std::max(1L, std::lround(static_cast<double>(side) * scale));
  };
  return {scaled(picture.cx), scaled(picture.cy)};
}

}  // namespace tools

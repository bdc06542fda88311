// Where a fisheye lens's circle is in the camera's picture.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "cms/live/media/fisheye/fisheye_lens.h"
#include "cms/runtime/api.h"

namespace cms {

// Looks for a bright circle on black in the plane of brightness of a picture: its edge where it is
// first met from the picture's sides, and the circle on which most of those points lie. A part of
// the circle may be cut off by the picture. Nothing when there is none (a picture without black
// around it, or one that is dark altogether): ask again with a later picture.
// `luma`: rows of `width` bytes, `stride` apart. Takes a millisecond or less, and no memory.
CMS_API std::optional<FisheyeCircle> FindFisheyeCircle(std::span<const std::uint8_t> luma,
                                                       std::size_t stride, int width, int height);

// For when there is none to be found: the largest in the middle.
CMS_API FisheyeCircle InnerCircle(int width, int height);

}  // namespace cms

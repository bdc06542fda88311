// FisheyeDewarper makes a view of a fisheye camera's picture, by tables that are made once for each
// view.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "cms/live/media/fisheye/fisheye_view.h"
#include "cms/runtime/api.h"

namespace cms {

// What the view is of, and how large it becomes.
struct FisheyeJob {
  FisheyeLens lens;
  FisheyeView view;
  FisheyeMap::Size source;
  FisheyeMap::Size shown;
  // How many pixels share a sample of colour, as powers of two: 1 and 1 for 4:2:0 pictures.
  int chromaRight = 1;
  int chromaDown = 1;
  bool operator==(const FisheyeJob&) const = default;
};

enum class FisheyePlane { kLuma, kChroma };

// Not for two threads at once. Interpolates between the four nearest samples, with AVX2 where the
// processor has it.
class CMS_API FisheyeDewarper {
 public:
  static constexpr int kLargestSide = 16384;

  FisheyeDewarper();
  ~FisheyeDewarper();
  FisheyeDewarper(FisheyeDewarper&&) noexcept;
  FisheyeDewarper& operator=(FisheyeDewarper&&) noexcept;

  // Makes the tables, unless they are of the same job already; some milliseconds for a view of a
  // million pixels, 9 bytes for each of them. False without a sensible size (a source of 8x4 and
  // a view of 1x1 are the smallest), lens or circle: then nothing is dewarped.
  bool Prepare(const FisheyeJob& job);

  // The planes of 8-bit pictures, their rows `stride` bytes apart from the top down. What the lens
  // did not see becomes `outside` (128 of a plane of colours has none). False, with nothing
  // written, before Prepare and when a plane is too short for its rows.
  bool Dewarp(FisheyePlane plane, std::span<const std::uint8_t> from, std::size_t fromStride,
              std::span<std::uint8_t> to, std::size_t toStride, std::uint8_t outside);
  // Pictures of four bytes a pixel, as LockDecodedImage gives them.
  bool DewarpBgra(std::span<const std::uint8_t> from, std::size_t fromStride,
                  std::span<std::uint8_t> to, std::size_t toStride);

  const FisheyeMap* Map() const;  // of what was prepared; null before

 private:
  struct CMS_HIDDEN Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace cms

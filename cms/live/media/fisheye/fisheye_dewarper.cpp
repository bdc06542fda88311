#include "cms/live/media/fisheye/fisheye_dewarper.h"

#include <cmath>
#include <optional>

#include "cms/live/media/fisheye/internal/fisheye_rows.h"
#include "cms/live/media/fisheye/internal/fisheye_table.h"

namespace cms {
namespace {

constexpr double kLeastFieldOfView = 1;
constexpr double kMostFieldOfView = 359;

bool IsSide(int pixels, int least) {
  return pixels >= least && pixels <= FisheyeDewarper::kLargestSide;
}

bool IsSensible(const FisheyeJob& job) {
  const auto is = [](int value) { return value == 0 || value == 1; };
  const FisheyeCircle& circle = job.lens.circle;
  return IsSide(job.source.width, 8) && IsSide(job.source.height, 4) &&
         IsSide(job.shown.width, 1) && IsSide(job.shown.height, 1) && is(job.chromaRight) &&
         is(job.chromaDown) && circle.radius >= 1 && std::isfinite(circle.radius) &&
         std::isfinite(circle.x) && std::isfinite(circle.y) &&
         job.lens.fieldOfView >= kLeastFieldOfView && job.lens.fieldOfView <= kMostFieldOfView;
}

bool Holds(std::size_t bytes, int rowBytes, int rows, std::size_t stride) {
  const auto row = static_cast<std::size_t>(rowBytes);
  return stride >= row && bytes >= stride * (static_cast<std::size_t>(rows) - 1) + row;
}

}  // namespace

struct FisheyeDewarper::Impl {
  const FisheyeTable& TableOf(FisheyePlane plane) const {
    return plane == FisheyePlane::kLuma ? luma : chroma;
  }

  FisheyeJob job;
  std::optional<FisheyeMap> map;  // prepared
  FisheyePlaneSize lumaSize;
  FisheyePlaneSize chromaSize;
  FisheyeTable luma;
  FisheyeTable chroma;
};

FisheyeDewarper::FisheyeDewarper() : impl_(std::make_unique<Impl>()) {}
FisheyeDewarper::~FisheyeDewarper() = default;
FisheyeDewarper::FisheyeDewarper(FisheyeDewarper&&) noexcept = default;
FisheyeDewarper& FisheyeDewarper::operator=(FisheyeDewarper&&) noexcept = default;

bool FisheyeDewarper::Prepare(const FisheyeJob& job) {
  if (impl_->map && job == impl_->job) {
    return true;
  }
  impl_->map.reset();
  if (!IsSensible(job)) {
    return false;
  }
  const FisheyeMap map(job.lens, job.view, job.source, job.shown);
  impl_->lumaSize = {job.source.width, job.source.height, 0, 0};
  impl_->chromaSize = {(job.source.width + job.chromaRight) >> job.chromaRight,
                       (job.source.height + job.chromaDown) >> job.chromaDown, job.chromaRight,
                       job.chromaDown};
  impl_->luma.Build(map, job.shown, impl_->lumaSize);
  impl_->chroma.Build(map, job.shown, impl_->chromaSize);
  impl_->job = job;
  impl_->map = map;
  return true;
}

bool FisheyeDewarper::Dewarp(FisheyePlane plane, std::span<const std::uint8_t> from,
                             std::size_t fromStride, std::span<std::uint8_t> to,
                             std::size_t toStride, std::uint8_t outside) {
  const FisheyeTable& table = impl_->TableOf(plane);
  const FisheyePlaneSize& source =
      plane == FisheyePlane::kLuma ? impl_->lumaSize : impl_->chromaSize;
  if (!impl_->map || !Holds(from.size(), source.width, source.height, fromStride) ||
      !Holds(to.size(), table.Width(), table.Height(), toStride)) {
    return false;
  }
  for (int row = 0; row < table.Height(); ++row) {
    DewarpBytes({table.Places(row), table.Fractions(row)}, from.data(), fromStride, outside,
                to.data() + static_cast<std::size_t>(row) * toStride);
  }
  return true;
}

bool FisheyeDewarper::DewarpBgra(std::span<const std::uint8_t> from, std::size_t fromStride,
                                 std::span<std::uint8_t> to, std::size_t toStride) {
  const FisheyeTable& table = impl_->luma;
  constexpr int kBytes = 4;
  if (!impl_->map ||
      !Holds(from.size(), kBytes * impl_->lumaSize.width, impl_->lumaSize.height, fromStride) ||
      !Holds(to.size(), kBytes * table.Width(), table.Height(), toStride)) {
    return false;
  }
  for (int row = 0; row < table.Height(); ++row) {
    DewarpPixels({table.Places(row), table.Fractions(row)}, from.data(), fromStride,
                 to.data() + static_cast<std::size_t>(row) * toStride);
  }
  return true;
}

const FisheyeMap* FisheyeDewarper::Map() const {
  return impl_->map ? &*impl_->map : nullptr;
}

}  // namespace cms

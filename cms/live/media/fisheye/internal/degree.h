// Directions are told in degrees, and reckoned with in radians.
#pragma once

#include <numbers>

namespace cms {

inline constexpr double kDegree = std::numbers::pi / 180;

}  // namespace cms

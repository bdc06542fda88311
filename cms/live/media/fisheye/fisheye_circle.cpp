#include "cms/live/media/fisheye/fisheye_circle.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace cms {
namespace {

constexpr int kBlack = 40;      // brighter than that is a picture, for kInARow pixels
constexpr int kInARow = 3;      // so that noise is none
constexpr int kLines = 64;      // looked along, across and down
constexpr int kTries = 400;     // of circles through three of the points
constexpr double kNear = 0.01;  // of the radius: such points lie on the circle
constexpr std::size_t kLeastPoints = 24;
constexpr double kLeastShare = 0.5;   // of the points that have to lie on it
constexpr double kLeastRadius = 0.2;  // of the shorter side
constexpr double kMostRadius = 2;

struct EdgePoints {
  std::array<FisheyePoint, 4 * static_cast<std::size_t>(kLines)> points;
  std::size_t count = 0;
};

// Along a line of pixels: the first bright one, -1 without one.
int FirstBright(const std::uint8_t* pixel, std::ptrdiff_t step, int length) {
  int bright = 0;
  for (int i = 0; i < length; ++i, pixel += step) {
    bright = *pixel > kBlack ? bright + 1 : 0;
    if (bright == kInARow) {
      return i - kInARow + 1;
    }
  }
  return -1;
}

EdgePoints FindEdges(std::span<const std::uint8_t> luma, std::size_t stride, int width,
                     int height) {
  EdgePoints edges;
  const auto pixel = [&](int x, int y) {
    return luma.data() + static_cast<std::size_t>(y) * stride + static_cast<std::size_t>(x);
  };
  // What touches the picture's side is cut off there, and no edge of the circle.
  const auto add = [&edges](int found, double x, double y) {
    if (found > 0) {
      edges.points[edges.count++] = {x, y};
    }
  };
  const auto down = static_cast<std::ptrdiff_t>(stride);
  for (int line = 0; line < kLines; ++line) {
    const int y = (2 * line + 1) * height / (2 * kLines);
    const int left = FirstBright(pixel(0, y), 1, width);
    const int right = FirstBright(pixel(width - 1, y), -1, width);
    add(left, left - 0.5, y);
    add(right, width - 0.5 - right, y);
    const int x = (2 * line + 1) * width / (2 * kLines);
    const int top = FirstBright(pixel(x, 0), down, height);
    const int bottom = FirstBright(pixel(x, height - 1), -down, height);
    add(top, x, top - 0.5);
    add(bottom, x, height - 0.5 - bottom);
  }
  return edges;
}

std::optional<FisheyeCircle> Through(const FisheyePoint& a, const FisheyePoint& b,
                                     const FisheyePoint& c) {
  const double bx = b.x - a.x, by = b.y - a.y;
  const double cx = c.x - a.x, cy = c.y - a.y;
  const double twice = 2 * (bx * cy - by * cx);
  if (std::abs(twice) < 1) {
    return std::nullopt;
  }
  const double bb = bx * bx + by * by, cc = cx * cx + cy * cy;
  const double x = (cy * bb - by * cc) / twice;
  const double y = (bx * cc - cx * bb) / twice;
  return FisheyeCircle{a.x + x, a.y + y, std::hypot(x, y)};
}

bool IsOn(const FisheyeCircle& circle, const FisheyePoint& point) {
  const double off = std::hypot(point.x - circle.x, point.y - circle.y) - circle.radius;
  return std::abs(off) <= kNear * circle.radius;
}

// The circle with the least squares of x^2 + y^2 - 2ax - 2by - c over the points near it.
FisheyeCircle Settled(const FisheyeCircle& near, std::span<const FisheyePoint> points) {
  double n = 0, sx = 0, sy = 0, sxx = 0, syy = 0, sxy = 0, sz = 0, sxz = 0, syz = 0;
  for (const FisheyePoint& point : points) {
    if (!IsOn(near, point)) {
      continue;
    }
    const double x = point.x - near.x, y = point.y - near.y, z = x * x + y * y;
    n += 1;
    sx += x, sy += y, sxx += x * x, syy += y * y, sxy += x * y;
    sz += z, sxz += x * z, syz += y * z;
  }
  // Without the means it is two equations.
  const double xx = sxx - sx * sx / n, yy = syy - sy * sy / n, xy = sxy - sx * sy / n;
  const double xz = (sxz - sx * sz / n) / 2, yz = (syz - sy * sz / n) / 2;
  const double determinant = xx * yy - xy * xy;
  if (!(determinant > 1)) {
    return near;
  }
  const double x = (xz * yy - yz * xy) / determinant;
  const double y = (yz * xx - xz * xy) / determinant;
  const double square = (sz - 2 * x * sx - 2 * y * sy) / n + x * x + y * y;
  return square > 0 ? FisheyeCircle{near.x + x, near.y + y, std::sqrt(square)} : near;
}

}  // namespace

FisheyeCircle InnerCircle(int width, int height) {
  return {(width - 1) / 2.0, (height - 1) / 2.0, std::min(width, height) / 2.0};
}

std::optional<FisheyeCircle> FindFisheyeCircle(std::span<const std::uint8_t> luma,
                                               std::size_t stride, int width, int height) {
  if (width < kLines || height < kLines || stride < static_cast<std::size_t>(width) ||
      luma.size() <
          stride * static_cast<std::size_t>(height - 1) + static_cast<std::size_t>(width)) {
    return std::nullopt;
  }
  const EdgePoints edges = FindEdges(luma, stride, width, height);
  const auto points = std::span(edges.points).first(edges.count);
  if (points.size() < kLeastPoints) {
    return std::nullopt;
  }
  const double side = std::min(width, height);
  FisheyeCircle best;
  std::ptrdiff_t most = 0;
  std::uint32_t random = 1;
  const auto any = [&]() -> const FisheyePoint& {
    random = random * 1664525U + 1013904223U;
    return points[(random >> 8) % points.size()];
  };
  for (int i = 0; i < kTries; ++i) {
    const auto circle = Through(any(), any(), any());
    if (circle && circle->radius >= kLeastRadius * side && circle->radius <= kMostRadius * side) {
      const auto on = std::ranges::count_if(
          points, [&](const FisheyePoint& point) { return IsOn(*circle, point); });
      if (on > most) {
        most = on;
        best = *circle;
      }
    }
  }
  if (static_cast<double>(most) <
      std::max<double>(kLeastPoints, kLeastShare * static_cast<double>(points.size()))) {
    return std::nullopt;
  }
  return Settled(Settled(best, points), points);
}

}  // namespace cms

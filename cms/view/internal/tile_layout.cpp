#include "cms/view/internal/tile_layout.h"

#include <algorithm>
#include <cmath>

namespace cms {

SDL_Rect CellOf(const SDL_Rect& area, unsigned count, unsigned tile) {
  int side = 1;
  while (static_cast<unsigned>(side * side) < count) {
    ++side;
  }
  const int column = static_cast<int>(tile) % side;
  const int row = static_cast<int>(tile) / side;
  // Rounded so that no pixel is left between two cells.
  const int left = area.w * column / side, right = area.w * (column + 1) / side;
  const int top = area.h * row / side, bottom = area.h * (row + 1) / side;
  return {area.x + left, area.y + top, right - left, bottom - top};
}

SDL_Rect Fitted(const SDL_Rect& cell, int width, int height) {
  if (width <= 0 || height <= 0) {
    return cell;
  }
  const double scale =
      std::min(static_cast<double>(cell.w) / width, static_cast<double>(cell.h) / height);
  const int w = std::max(1, static_cast<int>(std::lround(width * scale)));
  const int h = std::max(1, static_cast<int>(std::lround(height * scale)));
  return {cell.x + (cell.w - w) / 2, cell.y + (cell.h - h) / 2, w, h};
}

ViewLens Kept(const ViewLens& lens) {
  constexpr double kMostZoom = 32;
  ViewLens kept;
  kept.zoom = std::clamp(lens.zoom, 1.0, kMostZoom);
  const double half = 0.5 / kept.zoom;
  kept.x = std::clamp(lens.x, half, 1 - half);
  kept.y = std::clamp(lens.y, half, 1 - half);
  return kept;
}

SDL_Rect SeenThrough(const ViewLens& lens, int width, int height) {
  const ViewLens kept = Kept(lens);
  const int w = std::max(1, static_cast<int>(std::lround(width / kept.zoom)));
  const int h = std::max(1, static_cast<int>(std::lround(height / kept.zoom)));
  return {std::clamp(static_cast<int>(std::lround(kept.x * width)) - w / 2, 0, width - w),
          std::clamp(static_cast<int>(std::lround(kept.y * height)) - h / 2, 0, height - h), w, h};
}

bool Contains(const SDL_Rect& rect, int x, int y) {
  return x >= rect.x && x < rect.x + rect.w && y >= rect.y && y < rect.y + rect.h;
}

}  // namespace cms

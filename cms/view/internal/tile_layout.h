// Where tiles lie.
#pragma once

#include <SDL.h>

#include "cms/view/video_wall.h"

namespace cms {

// The cell of a tile in a grid over `area`.
SDL_Rect CellOf(const SDL_Rect& area, unsigned count, unsigned tile);

// The largest rectangle in the cell's middle of a picture's shape.
SDL_Rect Fitted(const SDL_Rect& cell, int width, int height);

// The part of a picture that a lens shows, kept within the picture; and the lens that is so kept.
SDL_Rect SeenThrough(const ViewLens& lens, int width, int height);
ViewLens Kept(const ViewLens& lens);

bool Contains(const SDL_Rect& rect, int x, int y);

}  // namespace cms

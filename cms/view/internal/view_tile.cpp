#include "cms/view/internal/view_tile.h"

#include "cms/view/internal/tile_layout.h"

namespace cms {
namespace {

constexpr SDL_Color kSelected{80, 160, 255, 255};
constexpr SDL_Color kBorder{40, 40, 40, 255};

SDL_YUV_CONVERSION_MODE ColoursOf(const PlanarPicture& picture) {
  if (picture.fullRange) {
    return SDL_YUV_CONVERSION_JPEG;
  }
  return picture.bt709 ? SDL_YUV_CONVERSION_BT709 : SDL_YUV_CONVERSION_BT601;
}

// SDL has one for the process, which counts when a texture is filled or when it is drawn.
void UseColours(SDL_Renderer* renderer, SDL_YUV_CONVERSION_MODE colours) {
  if (SDL_GetYUVConversionMode() != colours) {
    SDL_RenderFlush(renderer);
    SDL_SetYUVConversionMode(colours);
  }
}

}  // namespace

bool ViewTile::Provide(SDL_Renderer* renderer, Uint32 format, int width, int height) {
  if (width <= 0 || height <= 0) {
    return false;
  }
  if (!texture_ || format != format_ || width != width_ || height != height_) {
    texture_.reset(SDL_CreateTexture(renderer, format, SDL_TEXTUREACCESS_STREAMING, width, height));
    format_ = format;
    width_ = width;
    height_ = height;
    if (texture_) {
      SDL_SetTextureScaleMode(texture_.get(), SDL_ScaleModeLinear);
    }
  }
  return texture_ != nullptr;
}

bool ViewTile::Upload(SDL_Renderer* renderer, const PlanarPicture& picture) {
  colours_ = ColoursOf(picture);
  UseColours(renderer, colours_);
  shown_ = Provide(renderer, SDL_PIXELFORMAT_IYUV, picture.width, picture.height) &&
           SDL_UpdateYUVTexture(texture_.get(), nullptr, picture.planes[0], picture.strides[0],
                                picture.planes[1], picture.strides[1], picture.planes[2],
                                picture.strides[2]) == 0;
  return shown_;
}

bool ViewTile::UploadBgra(SDL_Renderer* renderer, const std::uint8_t* pixels, const tagSIZE& size) {
  const auto width = static_cast<int>(size.cx);
  // In memory B, G, R and a byte that does not count: not every decoder sets it.
  shown_ = Provide(renderer, SDL_PIXELFORMAT_RGB888, width, static_cast<int>(size.cy)) &&
           SDL_UpdateTexture(texture_.get(), nullptr, pixels, width * 4) == 0;
  return shown_;
}

SDL_Rect ViewTile::Place(const SDL_Rect& cell) const {
  return Fitted(cell, width_, height_);
}

void ViewTile::Draw(SDL_Renderer* renderer, TTF_Font* font, const SDL_Rect& cell, bool selected) {
  if (shown_) {
    UseColours(renderer, colours_);
    const SDL_Rect part = SeenThrough(lens, width_, height_);
    const SDL_Rect place = Place(cell);
    SDL_RenderCopy(renderer, texture_.get(), &part, &place);
  }
  caption_.Draw(renderer, font, cell.x, cell.y, cell.w, false);
  status_.Draw(renderer, font, cell.x, cell.y + cell.h, cell.w, true);
  const SDL_Color colour = selected ? kSelected : kBorder;
  SDL_SetRenderDrawColor(renderer, colour.r, colour.g, colour.b, colour.a);
  SDL_RenderDrawRect(renderer, &cell);
}

}  // namespace cms

// ViewTile: one picture of a VideoWall, as a texture, and what is said of it.
#pragma once

#include "cms/view/internal/view_text.h"
#include "cms/view/video_wall.h"

namespace cms {

class ViewTile {
 public:
  bool Upload(SDL_Renderer* renderer, const PlanarPicture& picture);
  bool UploadBgra(SDL_Renderer* renderer, const std::uint8_t* pixels, const tagSIZE& size);
  void Clear() { shown_ = false; }

  void Draw(SDL_Renderer* renderer, TTF_Font* font, const SDL_Rect& cell, bool selected);

  SDL_Rect Place(const SDL_Rect& cell) const;  // of the picture
  ViewText& Caption() { return caption_; }
  ViewText& Status() { return status_; }
  ViewLens lens;

 private:
  bool Provide(SDL_Renderer* renderer, Uint32 format, int width, int height);

  SdlOwn<SDL_Texture> texture_;
  Uint32 format_ = 0;
  int width_ = 0;
  int height_ = 0;
  bool shown_ = false;
  SDL_YUV_CONVERSION_MODE colours_ = SDL_YUV_CONVERSION_BT601;
  ViewText caption_;
  ViewText status_;
};

}  // namespace cms

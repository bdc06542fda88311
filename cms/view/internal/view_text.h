// ViewText draws short texts, each rendered once as long as it stays the same.
#pragma once

#include <SDL.h>
#include <SDL_ttf.h>

#include <memory>
#include <string>

namespace cms {

struct CloseSdl {
  void operator()(SDL_Window* window) const { SDL_DestroyWindow(window); }
  void operator()(SDL_Renderer* renderer) const { SDL_DestroyRenderer(renderer); }
  void operator()(SDL_Texture* texture) const { SDL_DestroyTexture(texture); }
  void operator()(SDL_Surface* surface) const { SDL_FreeSurface(surface); }
  void operator()(TTF_Font* font) const { TTF_CloseFont(font); }
};
template <typename Kind>
using SdlOwn = std::unique_ptr<Kind, CloseSdl>;

// Null with the reason. `file` empty: what fontconfig has for "sans".
SdlOwn<TTF_Font> OpenFont(const std::string& file, std::string* error);

class ViewText {
 public:
  void Set(const std::string& text, SDL_Color colour);
  // On a dark ground, not wider than `width`; at the bottom of y when `above`, else below it.
  void Draw(SDL_Renderer* renderer, TTF_Font* font, int x, int y, int width, bool above);
  bool Empty() const { return text_.empty(); }
  void Forget() { texture_.reset(); }  // the renderer is another

 private:
  std::string text_;
  SDL_Color colour_{};
  SdlOwn<SDL_Texture> texture_;
  int width_ = 0;
  int height_ = 0;
};

}  // namespace cms

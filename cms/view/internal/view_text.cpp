#include "cms/view/internal/view_text.h"

#include <fontconfig/fontconfig.h>

#include <algorithm>

namespace cms {
namespace {

constexpr int kFontPixels = 13;
constexpr int kMargin = 3;  // pixels around a text
constexpr SDL_Color kGround{0, 0, 0, 160};

std::string UsualFont() {
  std::string path;
  FcConfig* const config = FcInitLoadConfigAndFonts();
  FcPattern* const wanted = FcNameParse(reinterpret_cast<const FcChar8*>("sans"));
  FcConfigSubstitute(config, wanted, FcMatchPattern);
  FcDefaultSubstitute(wanted);
  FcResult result = FcResultNoMatch;
  FcPattern* const found = FcFontMatch(config, wanted, &result);
  FcChar8* file = nullptr;
  if (found != nullptr && FcPatternGetString(found, FC_FILE, 0, &file) == FcResultMatch) {
    path = reinterpret_cast<const char*>(file);
  }
  if (found != nullptr) {
    FcPatternDestroy(found);
  }
  FcPatternDestroy(wanted);
  FcConfigDestroy(config);
  return path;
}

}  // namespace

SdlOwn<TTF_Font> OpenFont(const std::string& file, std::string* error) {
  const std::string path = file.empty() ? UsualFont() : file;
  SdlOwn<TTF_Font> font(path.empty() ? nullptr : TTF_OpenFont(path.c_str(), kFontPixels));
  if (!font) {
    *error = path.empty() ? "no font is installed (fonts-dejavu-core has one)"
                          : "the font " + path + " cannot be read: " + TTF_GetError();
  }
  return font;
}

void ViewText::Set(const std::string& text, SDL_Color colour) {
  const bool same = colour.r == colour_.r && colour.g == colour_.g && colour.b == colour_.b;
  if (text != text_ || !same) {
    text_ = text;
    colour_ = colour;
    texture_.reset();
  }
}

void ViewText::Draw(SDL_Renderer* renderer, TTF_Font* font, int x, int y, int width, bool above) {
  if (text_.empty()) {
    return;
  }
  if (!texture_) {
    const SdlOwn<SDL_Surface> surface(TTF_RenderUTF8_Blended(font, text_.c_str(), colour_));
    if (!surface) {
      return;
    }
    texture_.reset(SDL_CreateTextureFromSurface(renderer, surface.get()));
    width_ = surface->w;
    height_ = surface->h;
  }
  const int shown = std::min(width_, width - 2 * kMargin);
  if (shown <= 0) {
    return;
  }
  const int top = above ? y - height_ - 2 * kMargin : y;
  const SDL_Rect ground{x, top, shown + 2 * kMargin, height_ + 2 * kMargin};
  SDL_SetRenderDrawBlendMode(renderer, SDL_BLENDMODE_BLEND);
  SDL_SetRenderDrawColor(renderer, kGround.r, kGround.g, kGround.b, kGround.a);
  SDL_RenderFillRect(renderer, &ground);
  const SDL_Rect part{0, 0, shown, height_};
  const SDL_Rect target{x + kMargin, top + kMargin, shown, height_};
  SDL_RenderCopy(renderer, texture_.get(), &part, &target);
}

}  // namespace cms

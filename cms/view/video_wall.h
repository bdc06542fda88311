// VideoWall draws the pictures of up to 16 cameras in a grid, with what is to be said of them.
//
// It is a library of its own, liborvanta-cms-view (target orvanta::view): it needs SDL2, SDL2_ttf
// and fontconfig, of which applications that draw by themselves need nothing.
//
// Threads: one, that which opened it. Pictures are uploaded to textures as they are decoded and
// scaled by the graphics processor; nothing is drawn before Draw, so whoever uploads only the
// newest picture of a tile never falls behind.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "cms/live/media/planar_picture.h"
#include "cms/live/media/size.h"
#include "cms/runtime/api.h"

namespace cms {

// Where the wall is: in a window of its own; in one of the application's, given by its number in
// the window system (X11: the Window); or in an SDL_Renderer of the application's, which then also
// presents. What the application made keeps its events to itself.
struct VideoWallOptions {
  std::string title;  // UTF-8
  int width = 1280;   // pixels, of a window of its own
  int height = 720;
  std::uintptr_t nativeWindow = 0;
  void* renderer = nullptr;  // an SDL_Renderer
  std::string font;          // a font file; empty: the system's usual one without serifs
};

enum class ViewTone { kPlain, kGood, kFault };

// What somebody did. Pixels are those of the drawing.
struct ViewInput {
  enum class Kind { kKey, kPress, kDoublePress, kDrag, kRelease, kWheel, kClose, kResized };
  Kind kind = Kind::kKey;
  std::string
      key;  // "a", "1", "Space", "Left", "Return" ...: SDL's name of the key in small letters
  bool shift = false;
  int x = 0;
  int y = 0;
  int dragX = 0;  // pixels since the last event
  int dragY = 0;
  double wheel = 0;  // clicks away from the user
};

// How a tile's picture lies in the tile: 1 is whole; at 4 a quarter of its width is seen.
struct ViewLens {
  double zoom = 1;
  double x = 0.5;  // what of the picture is in the middle, 0 to 1
  double y = 0.5;
};

// A bar below the tiles: what is recorded, where the clock is, and texts at its ends.
struct ViewTimeline {
  double position = 0;                            // 0 to 1
  std::vector<std::pair<double, double>> filled;  // from, to
  std::string left;
  std::string right;
};

class CMS_API VideoWall {
 public:
  static constexpr unsigned kMostTiles = 16;

  // Null when there is no display or no font, with the reason.
  static std::unique_ptr<VideoWall> Open(const VideoWallOptions& options, std::string* error);
  ~VideoWall();
  VideoWall(const VideoWall&) = delete;
  VideoWall& operator=(const VideoWall&) = delete;

  // Whether a graphics processor scales. Without one (Xvfb, remote displays) it costs less to let
  // the decoder make BGRA pictures of the size that SizeOf gives.
  bool HasGraphicsProcessor() const;

  // --- What is shown; a tile that there is not is left alone
  // ----------------------------------------
  void SetTiles(unsigned count);                // 1 to kMostTiles: in 1, 2x2, 3x3 or 4x4
  void ShowOnly(std::optional<unsigned> tile);  // it alone, over the whole drawing
  void Select(std::optional<unsigned> tile);
  void SetFullScreen(bool full);  // of a window of its own
  bool IsFullScreen() const;

  // Copies the picture; false when that failed. The tile keeps it until the next one or Clear.
  bool Upload(unsigned tile, const PlanarPicture& picture);
  bool UploadBgra(unsigned tile, const std::uint8_t* pixels, const tagSIZE& size);
  void Clear(unsigned tile);

  void SetCaption(unsigned tile, const std::string& text);                // at its top
  void SetStatus(unsigned tile, const std::string& text, ViewTone tone);  // at its bottom
  void SetLens(unsigned tile, const ViewLens& lens);
  ViewLens Lens(unsigned tile) const;
  void SetTimeline(std::optional<ViewTimeline> timeline);

  // --- Where it is
  // ------------------------------------------------------------------------------------
  std::optional<unsigned> TileAt(int x, int y) const;
  // The point of the tile's picture there, from 0 to 1 in both directions.
  std::optional<std::pair<double, double>> PictureAt(unsigned tile, int x, int y) const;
  std::optional<double> TimelineAt(int x, int y) const;  // 0 to 1
  tagSIZE SizeOf(unsigned tile) const;  // pixels that it has for a picture; 0x0 while it is hidden

  // --- Drawing and input
  // --------------------------------------------------------------------------------
  void Draw();
  struct Shot {
    int width = 0;
    int height = 0;
    std::vector<std::uint8_t> bgra;  // rows from the top without gaps; empty when that failed
  };
  Shot DrawAndRead();  // draws, and reads it back

  // Waits so long for the next input; nothing when none came. Never anything in a window or a
  // renderer of the application's.
  std::optional<ViewInput> NextInput(int milliseconds);
  // To be called by an application whose window, which the wall is in, has another size. Pixels.
  void Resize(int width, int height);

 private:
  struct CMS_HIDDEN Impl;
  explicit VideoWall(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

}  // namespace cms

#include "cms/view/video_wall.h"

#include <SDL.h>
#include <SDL_ttf.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "cms/view/internal/tile_layout.h"
#include "cms/view/internal/view_text.h"
#include "cms/view/internal/view_tile.h"

namespace cms {
namespace {

constexpr int kTimelineHeight = 40;  // pixels
constexpr int kBarHeight = 14;
constexpr SDL_Color kText{230, 230, 230, 255};
constexpr SDL_Color kGood{120, 220, 120, 255};
constexpr SDL_Color kFault{255, 120, 100, 255};
constexpr SDL_Color kGroove{60, 60, 60, 255};
constexpr SDL_Color kRecorded{70, 130, 90, 255};

SDL_Color ColourOf(ViewTone tone) {
  switch (tone) {
    case ViewTone::kGood:
      return kGood;
    case ViewTone::kFault:
      return kFault;
    case ViewTone::kPlain:
      break;
  }
  return kText;
}

// The drivers of a graphics processor that compute on the main one.
bool IsSoftware(const char* name) {
  const std::string_view text = name != nullptr ? name : "";
  return text.find("llvmpipe") != std::string_view::npos ||
         text.find("softpipe") != std::string_view::npos ||
         text.find("swrast") != std::string_view::npos ||
         text.find("SWR") != std::string_view::npos;
}

bool DrawsInSoftware(SDL_Renderer* renderer) {
  SDL_RendererInfo info{};
  if (SDL_GetRendererInfo(renderer, &info) != 0 || (info.flags & SDL_RENDERER_SOFTWARE) != 0) {
    return true;
  }
  constexpr unsigned kGlRenderer = 0x1F01;
  using GetString = const unsigned char* (*)(unsigned);
  const auto getString = reinterpret_cast<GetString>(SDL_GL_GetProcAddress("glGetString"));
  return SDL_GL_GetCurrentContext() != nullptr && getString != nullptr &&
         IsSoftware(reinterpret_cast<const char*>(getString(kGlRenderer)));
}

// Where no display answers SDL goes on with a driver that shows nothing, which nobody wants but who
// asks for it.
bool ShowsNothing() {
  const char* const driver = SDL_GetCurrentVideoDriver();
  const std::string_view name = driver != nullptr ? driver : "";
  return std::getenv("SDL_VIDEODRIVER") == nullptr &&
         (name == "offscreen" || name == "dummy" || name == "evdev");
}

std::string SmallLetters(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char each) { return static_cast<char>(std::tolower(each)); });
  return text;
}

}  // namespace

struct VideoWall::Impl {
  ~Impl();
  bool Open(const VideoWallOptions& options, std::string* error);
  bool OpenWindow(const VideoWallOptions& options);
  bool OpenRenderer();

  SDL_Rect Whole() const;
  SDL_Rect TilesArea() const;
  SDL_Rect Bar() const;
  SDL_Rect Cell(unsigned tile) const;
  bool IsShown(unsigned tile) const { return tile < count && (!only || *only == tile); }
  void DrawAll();
  void DrawTimeline();
  std::optional<ViewInput> Read(const SDL_Event& event) const;

  bool started = false;
  bool ofApplication = false;  // the window is
  bool fonts = false;
  SdlOwn<SDL_Window> window;
  SdlOwn<SDL_Renderer> ownRenderer;
  SDL_Renderer* renderer = nullptr;
  SdlOwn<TTF_Font> font;
  bool graphicsProcessor = false;
  std::array<ViewTile, kMostTiles> tiles;
  unsigned count = 1;
  std::optional<unsigned> only;
  std::optional<unsigned> selected;
  std::optional<ViewTimeline> timeline;
  ViewText left;
  ViewText right;
};

VideoWall::Impl::~Impl() {
  tiles = {};  // textures go before their renderer
  left.Forget();
  right.Forget();
  font.reset();
  ownRenderer.reset();
  window.reset();
  if (fonts) {
    TTF_Quit();
  }
  if (started) {
    SDL_QuitSubSystem(SDL_INIT_VIDEO);
  }
}

bool VideoWall::Impl::OpenRenderer() {
  ownRenderer.reset(SDL_CreateRenderer(window.get(), -1, SDL_RENDERER_ACCELERATED));
  if (ownRenderer && DrawsInSoftware(ownRenderer.get())) {
    // SDL's own way costs less than a graphics processor that is only imitated.
    ownRenderer.reset();
  }
  graphicsProcessor = ownRenderer != nullptr;
  if (!ownRenderer) {
    ownRenderer.reset(SDL_CreateRenderer(window.get(), -1, SDL_RENDERER_SOFTWARE));
  }
  renderer = ownRenderer.get();
  return renderer != nullptr;
}

bool VideoWall::Impl::OpenWindow(const VideoWallOptions& options) {
  SDL_SetHint(SDL_HINT_VIDEO_ALLOW_SCREENSAVER, "0");
  SDL_SetHint(SDL_HINT_NO_SIGNAL_HANDLERS, "1");  // they are the application's
  SDL_SetHint(SDL_HINT_VIDEO_X11_NET_WM_BYPASS_COMPOSITOR, "0");
  if (SDL_InitSubSystem(SDL_INIT_VIDEO) != 0) {
    return false;
  }
  started = true;
  if (ShowsNothing()) {
    SDL_SetError("no display answers; is DISPLAY or WAYLAND_DISPLAY set?");
    return false;
  }
  ofApplication = options.nativeWindow != 0;
  window.reset(options.nativeWindow != 0
                   ? SDL_CreateWindowFrom(reinterpret_cast<void*>(options.nativeWindow))
                   : SDL_CreateWindow(options.title.c_str(), SDL_WINDOWPOS_UNDEFINED,
                                      SDL_WINDOWPOS_UNDEFINED, options.width, options.height,
                                      SDL_WINDOW_RESIZABLE | SDL_WINDOW_HIDDEN));
  if (!window || !OpenRenderer()) {
    return false;
  }
  // Only now: SDL may make the window anew for a renderer, and what was pressed in the first would
  // be lost.
  if (!ofApplication) {
    SDL_ShowWindow(window.get());
  }
  return true;
}

bool VideoWall::Impl::Open(const VideoWallOptions& options, std::string* error) {
  if (options.renderer != nullptr) {
    renderer = static_cast<SDL_Renderer*>(options.renderer);
    graphicsProcessor = !DrawsInSoftware(renderer);
  } else if (!OpenWindow(options)) {
    *error = std::string("no window can be opened: ") + SDL_GetError();
    return false;
  }
  if (TTF_Init() != 0) {
    *error = std::string("texts cannot be drawn: ") + TTF_GetError();
    return false;
  }
  fonts = true;
  font = OpenFont(options.font, error);
  return font != nullptr;
}

VideoWall::VideoWall(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
VideoWall::~VideoWall() = default;

std::unique_ptr<VideoWall> VideoWall::Open(const VideoWallOptions& options, std::string* error) {
  auto impl = std::make_unique<Impl>();
  std::string reason;
  if (!impl->Open(options, &reason)) {
    if (error != nullptr) {
      *error = reason;
    }
    return nullptr;
  }
  return std::unique_ptr<VideoWall>(new VideoWall(std::move(impl)));
}

bool VideoWall::HasGraphicsProcessor() const {
  return impl_->graphicsProcessor;
}

// --- What is shown
// --------------------------------------------------------------------------------

void VideoWall::SetTiles(unsigned count) {
  impl_->count = std::clamp(count, 1U, kMostTiles);
}

void VideoWall::ShowOnly(std::optional<unsigned> tile) {
  impl_->only = tile && *tile < impl_->count ? tile : std::nullopt;
}

void VideoWall::Select(std::optional<unsigned> tile) {
  impl_->selected = tile;
}

void VideoWall::SetFullScreen(bool full) {
  if (impl_->window) {
    SDL_SetWindowFullscreen(impl_->window.get(), full ? SDL_WINDOW_FULLSCREEN_DESKTOP : 0);
  }
}

bool VideoWall::IsFullScreen() const {
  return impl_->window &&
         (SDL_GetWindowFlags(impl_->window.get()) & SDL_WINDOW_FULLSCREEN_DESKTOP) != 0;
}

bool VideoWall::Upload(unsigned tile, const PlanarPicture& picture) {
  return tile < impl_->count && impl_->tiles[tile].Upload(impl_->renderer, picture);
}

bool VideoWall::UploadBgra(unsigned tile, const std::uint8_t* pixels, const tagSIZE& size) {
  return tile < impl_->count && impl_->tiles[tile].UploadBgra(impl_->renderer, pixels, size);
}

void VideoWall::Clear(unsigned tile) {
  if (tile < impl_->count) {
    impl_->tiles[tile].Clear();
  }
}

void VideoWall::SetCaption(unsigned tile, const std::string& text) {
  if (tile < impl_->count) {
    impl_->tiles[tile].Caption().Set(text, kText);
  }
}

void VideoWall::SetStatus(unsigned tile, const std::string& text, ViewTone tone) {
  if (tile < impl_->count) {
    impl_->tiles[tile].Status().Set(text, ColourOf(tone));
  }
}

void VideoWall::SetLens(unsigned tile, const ViewLens& lens) {
  if (tile < impl_->count) {
    impl_->tiles[tile].lens = Kept(lens);
  }
}

ViewLens VideoWall::Lens(unsigned tile) const {
  return tile < impl_->count ? impl_->tiles[tile].lens : ViewLens{};
}

void VideoWall::SetTimeline(std::optional<ViewTimeline> timeline) {
  impl_->timeline = std::move(timeline);
  if (impl_->timeline) {
    impl_->left.Set(impl_->timeline->left, kText);
    impl_->right.Set(impl_->timeline->right, kText);
  }
}

// --- Where it is
// ----------------------------------------------------------------------------------

SDL_Rect VideoWall::Impl::Whole() const {
  SDL_Rect whole{};
  SDL_GetRendererOutputSize(renderer, &whole.w, &whole.h);
  return whole;
}

SDL_Rect VideoWall::Impl::TilesArea() const {
  SDL_Rect area = Whole();
  area.h = std::max(1, area.h - (timeline ? kTimelineHeight : 0));
  return area;
}

SDL_Rect VideoWall::Impl::Bar() const {
  const SDL_Rect whole = Whole();
  return {0, whole.h - kBarHeight, whole.w, kBarHeight};
}

SDL_Rect VideoWall::Impl::Cell(unsigned tile) const {
  return only ? TilesArea() : CellOf(TilesArea(), count, tile);
}

std::optional<unsigned> VideoWall::TileAt(int x, int y) const {
  for (unsigned tile = 0; tile < impl_->count; ++tile) {
    if (impl_->IsShown(tile) && Contains(impl_->Cell(tile), x, y)) {
      return tile;
    }
  }
  return std::nullopt;
}

std::optional<std::pair<double, double>> VideoWall::PictureAt(unsigned tile, int x, int y) const {
  if (!impl_->IsShown(tile)) {
    return std::nullopt;
  }
  const ViewTile& shown = impl_->tiles[tile];
  const SDL_Rect place = shown.Place(impl_->Cell(tile));
  if (!Contains(place, x, y)) {
    return std::nullopt;
  }
  const double across = (x - place.x + 0.5) / place.w - 0.5;
  const double down = (y - place.y + 0.5) / place.h - 0.5;
  return std::pair(shown.lens.x + across / shown.lens.zoom, shown.lens.y + down / shown.lens.zoom);
}

std::optional<double> VideoWall::TimelineAt(int x, int y) const {
  const SDL_Rect bar = impl_->Bar();
  return impl_->timeline && Contains(bar, x, y)
             ? std::optional((x + 0.5) / static_cast<double>(bar.w))
             : std::nullopt;
}

tagSIZE VideoWall::SizeOf(unsigned tile) const {
  if (!impl_->IsShown(tile)) {
    return {};
  }
  const SDL_Rect cell = impl_->Cell(tile);
  return {cell.w, cell.h};
}

// --- Drawing
// --------------------------------------------------------------------------------------

void VideoWall::Impl::DrawTimeline() {
  const SDL_Rect whole = Whole();
  const SDL_Rect bar = Bar();
  const auto fill = [&](double from, double to, const SDL_Color& colour) {
    const int begin = static_cast<int>(std::clamp(from, 0.0, 1.0) * bar.w);
    const int end = static_cast<int>(std::clamp(to, 0.0, 1.0) * bar.w);
    const SDL_Rect part{begin, bar.y, std::max(1, end - begin), bar.h};
    SDL_SetRenderDrawColor(renderer, colour.r, colour.g, colour.b, colour.a);
    SDL_RenderFillRect(renderer, &part);
  };
  fill(0, 1, kGroove);
  for (const auto& [from, to] : timeline->filled) {
    fill(from, to, kRecorded);
  }
  const double pixel = 1.0 / std::max(1, bar.w);
  fill(timeline->position - pixel, timeline->position + 2 * pixel, kText);
  left.Draw(renderer, font.get(), 0, bar.y, whole.w / 2, true);
  right.Draw(renderer, font.get(), whole.w / 2, bar.y, whole.w / 2, true);
}

void VideoWall::Impl::DrawAll() {
  SDL_SetRenderDrawColor(renderer, 0, 0, 0, 255);
  SDL_RenderClear(renderer);
  for (unsigned tile = 0; tile < count; ++tile) {
    if (IsShown(tile)) {
      tiles[tile].Draw(renderer, font.get(), Cell(tile), selected == tile);
    }
  }
  if (timeline) {
    DrawTimeline();
  }
}

void VideoWall::Draw() {
  impl_->DrawAll();
  if (impl_->ownRenderer) {
    SDL_RenderPresent(impl_->renderer);
  }
}

VideoWall::Shot VideoWall::DrawAndRead() {
  impl_->DrawAll();
  const SDL_Rect whole = impl_->Whole();
  Shot shot{whole.w, whole.h, {}};
  shot.bgra.resize(static_cast<std::size_t>(whole.w) * static_cast<std::size_t>(whole.h) * 4);
  if (SDL_RenderReadPixels(impl_->renderer, nullptr, SDL_PIXELFORMAT_ARGB8888, shot.bgra.data(),
                           whole.w * 4) != 0) {
    shot.bgra.clear();
  }
  if (impl_->ownRenderer) {
    SDL_RenderPresent(impl_->renderer);
  }
  return shot;
}

// --- Input
// ----------------------------------------------------------------------------------------

std::optional<ViewInput> VideoWall::Impl::Read(const SDL_Event& event) const {
  ViewInput input;
  using Kind = ViewInput::Kind;
  switch (event.type) {
    case SDL_QUIT:
      input.kind = Kind::kClose;
      return input;
    case SDL_WINDOWEVENT:
      if (event.window.event != SDL_WINDOWEVENT_SIZE_CHANGED &&
          event.window.event != SDL_WINDOWEVENT_EXPOSED) {
        return std::nullopt;
      }
      input.kind = Kind::kResized;
      return input;
    case SDL_KEYDOWN:
      input.key = SmallLetters(SDL_GetKeyName(event.key.keysym.sym));
      input.shift = (event.key.keysym.mod & KMOD_SHIFT) != 0;
      return input;
    case SDL_MOUSEBUTTONDOWN:
    case SDL_MOUSEBUTTONUP:
      if (event.button.button != SDL_BUTTON_LEFT) {
        return std::nullopt;
      }
      input.kind = event.type == SDL_MOUSEBUTTONUP ? Kind::kRelease
                   : event.button.clicks == 2      ? Kind::kDoublePress
                                                   : Kind::kPress;
      input.x = event.button.x;
      input.y = event.button.y;
      return input;
    case SDL_MOUSEMOTION:
      if ((event.motion.state & SDL_BUTTON_LMASK) == 0) {
        return std::nullopt;
      }
      input.kind = Kind::kDrag;
      input.x = event.motion.x;
      input.y = event.motion.y;
      input.dragX = event.motion.xrel;
      input.dragY = event.motion.yrel;
      return input;
    case SDL_MOUSEWHEEL:
      input.kind = Kind::kWheel;
      input.wheel = event.wheel.preciseY;
      SDL_GetMouseState(&input.x, &input.y);
      return input;
    default:
      return std::nullopt;
  }
}

std::optional<ViewInput> VideoWall::NextInput(int milliseconds) {
  SDL_Event event;
  if (!impl_->window || impl_->ofApplication) {
    return std::nullopt;
  }
  bool any = SDL_WaitEventTimeout(&event, milliseconds) != 0;
  while (any) {
    if (auto input = impl_->Read(event)) {
      return input;
    }
    any = SDL_PollEvent(&event) != 0;
  }
  return std::nullopt;
}

void VideoWall::Resize(int width, int height) {
  if (impl_->ofApplication && width > 0 && height > 0) {
    SDL_SetWindowSize(impl_->window.get(), width, height);
  }
}

}  // namespace cms

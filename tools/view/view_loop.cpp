#include "tools/view/view_loop.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <stdexcept>

#include "tools/support/fisheye_options.h"
#include "tools/support/picture_file.h"
#include "tools/support/stop_signal.h"

namespace tools {
namespace {

constexpr std::chrono::milliseconds kPace{33};  // of taking pictures
constexpr std::chrono::milliseconds kDescribeEvery{500};
constexpr std::chrono::seconds kProblemShown{5};
constexpr double kZoomStep = 1.25;

}  // namespace

ViewLoop::ViewLoop(cms::VideoWall& wall, ViewSource& source, const ViewLoopOptions& options)
    : wall_(wall), source_(source), options_(options), looks_(source.Tiles(), options.fisheye) {
  wall_.SetTiles(source_.Tiles());
  for (unsigned tile = 0; tile < source_.Tiles(); ++tile) {
    Caption(tile);
  }
}

void ViewLoop::Run() {
  const auto start = Clock::now();
  auto next = start;
  auto describe = start;
  while (!StopRequested()) {
    const auto now = Clock::now();
    if (options_.seconds > 0 && now - start >= std::chrono::duration<double>(options_.seconds)) {
      return;
    }
    const auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(next - now);
    if (wait.count() > 0) {
      if (const auto input = wall_.NextInput(static_cast<int>(wait.count()))) {
        if (!OnInput(*input)) {
          return;
        }
      }
      continue;
    }
    next = std::max(next + kPace, now);  // what is late is left out
    if (refit_) {
      Fit();
    }
    redraw_ = UpdateTiles() || redraw_;
    if (now >= describe) {
      describe = now + kDescribeEvery;
      Describe();
    }
    if (redraw_) {
      redraw_ = false;
      wall_.SetTimeline(source_.Timeline());
      wall_.Draw();
      ++drawn_;
    }
  }
}

void ViewLoop::Fit() {
  refit_ = false;
  redraw_ = true;
  for (unsigned tile = 0; tile < source_.Tiles(); ++tile) {
    const tagSIZE size = wall_.SizeOf(tile);
    if (size.cx > 0) {
      const double zoom = wall_.Lens(tile).zoom;
      const auto zoomed = [zoom](long side) {
        return static_cast<long>(std::lround(static_cast<double>(side) * zoom));
      };
      source_.Fit(tile, {zoomed(size.cx), zoomed(size.cy)}, looks_[tile]);
    }
  }
}

bool ViewLoop::UpdateTiles() {
  bool changed = false;
  for (unsigned tile = 0; tile < source_.Tiles(); ++tile) {
    const bool updated = source_.Update(tile);
    changed = changed || (updated && wall_.SizeOf(tile).cx > 0);
  }
  return changed;
}

void ViewLoop::Describe() {
  for (unsigned tile = 0; tile < source_.Tiles(); ++tile) {
    const auto [text, tone] = source_.Status(tile);
    wall_.SetStatus(tile, text, tone);
  }
  if (Clock::now() < problemEnd_) {
    wall_.SetStatus(selected_.value_or(0), problem_, cms::ViewTone::kFault);
  }
  redraw_ = true;
}

// --- Input
// ----------------------------------------------------------------------------------------

bool ViewLoop::OnInput(const cms::ViewInput& input) {
  using Kind = cms::ViewInput::Kind;
  switch (input.kind) {
    case Kind::kClose:
      return false;
    case Kind::kResized:
      refit_ = true;
      break;
    case Kind::kKey:
      return OnKey(input);
    case Kind::kPress:
    case Kind::kDoublePress:
      OnPress(input);
      break;
    case Kind::kDrag:
      OnDrag(input);
      break;
    case Kind::kRelease:
      seeking_ = false;
      dragCamera_.reset();
      break;
    case Kind::kWheel:
      if (const auto tile = wall_.TileAt(input.x, input.y)) {
        ZoomAt(*tile, std::pow(kZoomStep, input.wheel), wall_.PictureAt(*tile, input.x, input.y));
      }
      break;
  }
  redraw_ = true;
  return true;
}

bool ViewLoop::OnKey(const cms::ViewInput& input) {
  const std::string& key = input.key;
  redraw_ = true;
  if (key == "q") {
    return false;
  }
  if (key == "escape") {
    if (wall_.IsFullScreen()) {
      wall_.SetFullScreen(false);
    }
    ShowOnly(std::nullopt);
  } else if (key == "f") {
    wall_.SetFullScreen(!wall_.IsFullScreen());
    refit_ = true;
  } else if (key == "return") {
    ShowOnly(only_ ? std::nullopt : selected_);
  } else if (key == "tab") {
    const unsigned count = source_.Tiles();
    const unsigned by = input.shift ? count - 1 : 1;
    Select(selected_ ? (*selected_ + by) % count : 0);
  } else if (key.size() == 1 && key[0] >= '1' && key[0] <= '9') {
    Select(static_cast<unsigned>(key[0] - '1'));
  } else if (key == "p") {
    ShootWall();
  } else if (key == "s") {
    Snapshot();
  } else if (key == "a") {
    listening_ = !listening_;
    Hear();
  } else if (key == "r") {
    Record();
  } else if (selected_ && (key == "+" || key == "=" || key == "keypad +")) {
    ZoomAt(*selected_, kZoomStep, std::nullopt);
  } else if (selected_ && (key == "-" || key == "keypad -")) {
    ZoomAt(*selected_, 1 / kZoomStep, std::nullopt);
  } else if (selected_ && key == "0") {
    ZoomAt(*selected_, 0, std::nullopt);
  } else if (selected_ && key == "d") {
    NextView(*selected_, input.shift ? -1 : 1);
  } else {
    source_.OnKey(input);
  }
  return true;
}

void ViewLoop::OnPress(const cms::ViewInput& input) {
  if (const auto position = wall_.TimelineAt(input.x, input.y)) {
    seeking_ = true;
    source_.Seek(*position);
    return;
  }
  const auto tile = wall_.TileAt(input.x, input.y);
  if (tile && *tile < source_.Tiles()) {
    Select(tile);
    if (input.kind == cms::ViewInput::Kind::kDoublePress) {
      ShowOnly(only_ ? std::nullopt : tile);
    }
    dragCamera_ = CameraAt(*tile, wall_.PictureAt(*tile, input.x, input.y));
  }
}

void ViewLoop::OnDrag(const cms::ViewInput& input) {
  if (seeking_) {
    if (const auto position = wall_.TimelineAt(input.x, input.y)) {
      source_.Seek(*position);
    }
    return;
  }
  if (!selected_) {
    return;
  }
  const tagSIZE size = wall_.SizeOf(*selected_);
  if (size.cx <= 0) {
    return;
  }
  const double across = -input.dragX / static_cast<double>(size.cx);
  const double down = -input.dragY / static_cast<double>(size.cy);
  if (dragCamera_) {
    constexpr double kAcross = 90;  // degrees, of a virtual camera at zoom 1
    const auto camera = static_cast<std::size_t>(*dragCamera_);
    const double zoom = looks_[*selected_].zooms[camera];
    const double shape = static_cast<double>(size.cy) / static_cast<double>(size.cx);
    Turn(*selected_, *dragCamera_, across * kAcross / zoom, -down * shape * kAcross / zoom, 1);
    return;
  }
  cms::ViewLens lens = wall_.Lens(*selected_);
  lens.x += across / lens.zoom;
  lens.y += down / lens.zoom;
  wall_.SetLens(*selected_, lens);
}

// The point of the picture stays where it is; a factor of 0 shows all of it.
void ViewLoop::ZoomAt(unsigned tile, double factor, std::optional<Point> at) {
  if (LooksAround(tile)) {
    const auto pointed = CameraAt(tile, at);
    for (int camera = 0; camera < static_cast<int>(cms::FisheyeView::kMostCameras); ++camera) {
      if (!pointed || *pointed == camera) {
        Turn(tile, camera, 0, 0, factor);
      }
    }
    return;
  }
  cms::ViewLens lens = wall_.Lens(tile);
  const Point point = at.value_or(Point{lens.x, lens.y});
  const double zoom = std::max(1.0, lens.zoom * factor);
  const double share = lens.zoom / zoom;
  lens.x = point.first + (lens.x - point.first) * share;
  lens.y = point.second + (lens.y - point.second) * share;
  lens.zoom = zoom;
  wall_.SetLens(tile, lens);
  refit_ = true;
}

// --- Fisheye
// --------------------------------------------------------------------------------------

bool ViewLoop::LooksAround(unsigned tile) const {
  return looks_[tile].parameter.viewMode >= static_cast<int>(cms::FisheyeViewKind::kOneCamera);
}

std::optional<int> ViewLoop::CameraAt(unsigned tile, const std::optional<Point>& at) const {
  const tagSIZE size = wall_.SizeOf(tile);
  if (!at || !LooksAround(tile)) {
    return std::nullopt;
  }
  const cms::FisheyeMap::Size shown{static_cast<int>(size.cx), static_cast<int>(size.cy)};
  const auto camera =
      cms::FisheyeMap(looks_[tile].Lens(), looks_[tile].View(), shown, shown)
          .CameraAt({at->first * shown.width - 0.5, at->second * shown.height - 0.5});
  return camera ? std::optional(static_cast<int>(*camera)) : std::nullopt;
}

void ViewLoop::Turn(unsigned tile, int camera, double pan, double tilt, double zoom) {
  cms::FisheyeSettings& look = looks_[tile];
  const auto index = static_cast<std::size_t>(camera);
  const cms::FisheyeCamera now = look.View().cameras[index];
  constexpr double kStraight = 90, kLeastZoom = 0.3, kMostZoom = 20;
  cms::stDewarpCamera turned;
  turned.camera = camera;
  turned.position.pan = static_cast<float>(std::remainder(now.pan + pan, 360));
  turned.position.tilt = static_cast<float>(std::clamp(now.tilt + tilt, -kStraight, kStraight));
  turned.zoom =
      static_cast<float>(zoom > 0 ? std::clamp(now.zoom * zoom, kLeastZoom, kMostZoom) : 1);
  look.Move(turned);
  refit_ = true;
}

void ViewLoop::NextView(unsigned tile, int by) {
  int& mode = looks_[tile].parameter.viewMode;
  mode = (mode + by + cms::kFisheyeViewKinds) % cms::kFisheyeViewKinds;
  looks_[tile].positions = {};
  looks_[tile].zooms = {1, 1, 1, 1};
  wall_.SetLens(tile, {});
  Caption(tile);
  refit_ = true;
}

// --- Tiles and pictures
// ---------------------------------------------------------------------------

void ViewLoop::Select(std::optional<unsigned> tile) {
  if (tile && *tile >= source_.Tiles()) {
    return;
  }
  selected_ = tile;
  wall_.Select(tile);
  if (listening_) {
    Hear();
  }
  if (only_) {
    ShowOnly(tile);
  }
}

void ViewLoop::Caption(unsigned tile) {
  const int mode = looks_[tile].parameter.viewMode;
  wall_.SetCaption(
      tile, source_.Caption(tile) +
                (mode != 0 ? "  " + FisheyeViewWords()[static_cast<std::size_t>(mode)] : "") +
                (listening_ && selected_ == tile ? "  sound" : ""));
}

void ViewLoop::Hear() {
  try {
    source_.Listen(listening_ ? selected_ : std::nullopt);
  } catch (const std::runtime_error& error) {
    listening_ = false;
    Tell(error.what());
  }
  for (unsigned tile = 0; tile < source_.Tiles(); ++tile) {
    Caption(tile);
  }
}

void ViewLoop::Record() {
  for (unsigned tile = 0; tile < source_.Tiles(); ++tile) {
    if (selected_ && *selected_ != tile) {
      continue;
    }
    try {
      source_.Record(tile);
    } catch (const std::runtime_error& error) {
      Tell(error.what());
    }
  }
}

void ViewLoop::Tell(const std::string& problem) {
  std::fprintf(stderr, "orvanta view: %s\n", problem.c_str());
  problem_ = problem;
  problemEnd_ = Clock::now() + kProblemShown;
}

void ViewLoop::ShowOnly(std::optional<unsigned> tile) {
  only_ = tile.has_value();
  wall_.ShowOnly(tile);
  refit_ = true;
}

// "DIR/wall-20261121-103000-1.png"; the number keeps those of one second apart.
std::string ViewLoop::PictureName(const std::string& of) {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  char stamp[32];
  std::strftime(stamp, sizeof stamp, "-%Y%m%d-%H%M%S-", &local);
  const std::string name = of + stamp + std::to_string(++pictureCount_) + ".png";
  return (std::filesystem::path(options_.pictures) / name).string();
}

void ViewLoop::Snapshot() {
  for (unsigned tile = 0; tile < source_.Tiles(); ++tile) {
    if (!selected_ || *selected_ == tile) {
      source_.Snapshot(tile, PictureName("tile" + std::to_string(tile + 1)));
    }
  }
}

void ViewLoop::ShootWall() {
  const std::string path = PictureName("wall");
  const cms::VideoWall::Shot shot = wall_.DrawAndRead();
  if (shot.bgra.empty()) {
    std::fprintf(stderr, "orvanta view: the window cannot be read for %s\n", path.c_str());
    return;
  }
  try {
    WritePng(path, shot.bgra.data(), shot.width, shot.height);
    std::fprintf(stderr, "orvanta view: wrote %s\n", path.c_str());
  } catch (const std::runtime_error& error) {
    std::fprintf(stderr, "orvanta view: %s\n", error.what());
  }
}

}  // namespace tools

// ViewLoop: a wall of a source's tiles, and what is done in it by keys and mouse.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "cms/live/media/fisheye.h"
#include "cms/view/video_wall.h"
#include "tools/view/view_source.h"

namespace tools {

struct ViewLoopOptions {
  std::string pictures;          // the folder of snapshots
  cms::FisheyeSettings fisheye;  // of all tiles, at first
  double seconds = 0;            // 0: until somebody ends it
};

class ViewLoop {
 public:
  // Both outlive it.
  ViewLoop(cms::VideoWall& wall, ViewSource& source, const ViewLoopOptions& options);

  // Until the window is closed, the process is told to stop, or the time is over. Pictures are
  // taken from the source at a steady pace, always the newest, so that a wall that cannot keep up
  // leaves pictures out; nothing is drawn while nothing changes.
  void Run();

  std::uint64_t Drawn() const { return drawn_; }  // walls

 private:
  using Clock = std::chrono::steady_clock;
  using Point = std::pair<double, double>;

  void Fit();
  bool UpdateTiles();
  void Describe();
  bool OnInput(const cms::ViewInput& input);  // false: the end
  bool OnKey(const cms::ViewInput& input);
  void OnPress(const cms::ViewInput& input);
  void OnDrag(const cms::ViewInput& input);
  void ZoomAt(unsigned tile, double factor, std::optional<Point> at);
  void NextView(unsigned tile, int by);
  void Select(std::optional<unsigned> tile);
  void ShowOnly(std::optional<unsigned> tile);
  void Caption(unsigned tile);
  void Hear();  // what is to be heard by now
  void Record();
  void Tell(const std::string& problem);  // for some seconds in the tile, and on standard error
  void Snapshot();
  void ShootWall();
  std::string PictureName(const std::string& of);
  bool LooksAround(unsigned tile) const;  // through virtual cameras
  // The virtual camera at a point of the tile's picture.
  std::optional<int> CameraAt(unsigned tile, const std::optional<Point>& at) const;
  void Turn(unsigned tile, int camera, double pan, double tilt, double zoom);

  cms::VideoWall& wall_;
  ViewSource& source_;
  const ViewLoopOptions options_;
  std::vector<cms::FisheyeSettings> looks_;  // of the tiles
  std::optional<unsigned> selected_;
  bool only_ = false;
  bool refit_ = true;
  bool redraw_ = true;
  bool listening_ = false;  // to the selected tile
  std::string problem_;     // the last one, shown until then
  Clock::time_point problemEnd_;
  bool seeking_ = false;           // the timeline is dragged
  std::optional<int> dragCamera_;  // a virtual camera is
  unsigned pictureCount_ = 0;
  std::uint64_t drawn_ = 0;
};

}  // namespace tools

// ViewSource: where the pictures of a view's tiles come from.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "cms/live/media/fisheye.h"
#include "cms/view/video_wall.h"

namespace tools {

// One thread, the wall's. Nothing here waits.
class ViewSource {
 public:
  virtual ~ViewSource() = default;

  virtual unsigned Tiles() const = 0;
  // Uploads the newest picture of a tile where it is another than before; true when the tile
  // changed.
  virtual bool Update(unsigned tile) = 0;
  // The tile has so many pixels for a picture, which is dewarped so.
  virtual void Fit(unsigned tile, const tagSIZE& size, const cms::FisheyeSettings& look) = 0;
  virtual std::string Caption(unsigned tile) = 0;
  // About once a second.
  virtual std::pair<std::string, cms::ViewTone> Status(unsigned tile) = 0;
  // Writes the next picture of the tile in its own size as PNG; Notice tells what became of it.
  virtual void Snapshot(unsigned tile, const std::string& path) = 0;
  // Plays the sound of that tile alone, or of none. Throws std::runtime_error when the device
  // cannot be used.
  virtual void Listen(std::optional<unsigned> tile) = 0;
  // Begins to record the tile, or ends it. Throws std::runtime_error when nothing can be written.
  virtual void Record(unsigned tile) = 0;
  virtual nlohmann::ordered_json Json(unsigned tile) = 0;

  // Of what is played; live there is none.
  virtual std::optional<cms::ViewTimeline> Timeline() { return std::nullopt; }
  virtual void Seek(double /*position*/) {}
  virtual bool OnKey(const cms::ViewInput& /*input*/) { return false; }  // false: not for it
};

}  // namespace tools

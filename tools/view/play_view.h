// PlayView: recordings of several sites in step.
#pragma once

#include <memory>
#include <utility>
#include <vector>

#include "cms/playback/multi_site_playback_ctrl.h"
#include "tools/support/playback_speaker.h"
#include "tools/view/view_source.h"

namespace tools {

class PlayView final : public ViewSource {
 public:
  // Begins to play. Throws std::runtime_error when nothing can be played. The wall outlives it.
  // `device` is that of sound.
  PlayView(_MULTI_SITE_PLAYBACK_CONFIG config, const std::string& device, cms::VideoWall& wall);

  unsigned Tiles() const override { return static_cast<unsigned>(tiles_.size()); }
  bool Update(unsigned tile) override;
  void Fit(unsigned tile, const tagSIZE& size, const cms::FisheyeSettings& look) override;
  std::string Caption(unsigned tile) override;
  std::pair<std::string, cms::ViewTone> Status(unsigned tile) override;
  void Snapshot(unsigned tile, const std::string& path) override;
  void Listen(std::optional<unsigned> tile) override;
  void Record(unsigned tile) override;
  nlohmann::ordered_json Json(unsigned tile) override;
  std::optional<cms::ViewTimeline> Timeline() override;
  void Seek(double position) override;
  bool OnKey(const cms::ViewInput& input) override;

 private:
  struct Tile {
    unsigned site = 0;
    unsigned channel = 0;
    unsigned imageId = 0;
    std::int64_t time = 0;  // of the picture in the tile, 0 without one
    std::uint64_t shown = 0;
    tagSIZE size;
    bool dewarps = false;
    tagSIZE recorded;      // as it was when the display size was set
    std::string snapshot;  // to be written
  };

  void FindSpans();
  void ApplySize(Tile& tile);
  void WriteSnapshot(Tile& tile, const unsigned char* pixels, const tagSIZE& size);
  void JumpBy(std::int64_t milliseconds);
  void Run(bool backward);

  cms::VideoWall& wall_;
  PlaybackSpeaker speaker_;  // outlives the playing
  CCMSMultiSitePlaybackCtrl control_;
  std::vector<Tile> tiles_;
  std::vector<std::pair<std::int64_t, std::int64_t>> spans_;  // recorded, milliseconds
};

}  // namespace tools

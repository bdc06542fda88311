// LiveView: cameras, as they are received.
#pragma once

#include <memory>
#include <vector>

#include "tools/data/site_recorder.h"
#include "tools/support/live_site.h"
#include "tools/view/view_source.h"

namespace tools {

class LiveView final : public ViewSource {
 public:
  // Opens the sites in the background. The wall outlives it. `records`: the process has entered
  // the data folder of what is recorded.
  LiveView(const std::vector<LiveOptions>& options, bool records, cms::VideoWall& wall);

  unsigned Tiles() const override { return static_cast<unsigned>(tiles_.size()); }
  bool Update(unsigned tile) override;
  void Fit(unsigned tile, const tagSIZE& size, const cms::FisheyeSettings& look) override;
  std::string Caption(unsigned tile) override;
  std::pair<std::string, cms::ViewTone> Status(unsigned tile) override;
  void Snapshot(unsigned tile, const std::string& path) override;
  void Listen(std::optional<unsigned> tile) override;
  void Record(unsigned tile) override;
  nlohmann::ordered_json Json(unsigned tile) override;

 private:
  struct Tile {
    LiveOptions options;
    std::unique_ptr<LiveSite> site;
    std::unique_ptr<SiteRecorder> recorder;  // once it was recorded
    bool recording = false;
    unsigned decoded = 0;  // pictures, when it was last looked
    std::uint64_t shown = 0;
    tagSIZE size;  // that the wall has
    bool dewarps = false;
    std::string snapshot;       // to be written
    unsigned snapshotFrom = 0;  // of pictures: the first that is decoded for it
  };

  bool Show(Tile& tile, unsigned number);
  void ApplySize(Tile& tile);

  cms::VideoWall& wall_;
  const bool planar_;  // the wall scales
  const bool records_;
  std::vector<Tile> tiles_;
};

}  // namespace tools

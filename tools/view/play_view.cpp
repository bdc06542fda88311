#include "tools/view/play_view.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include "cms/playback/local_pb_search_engine.h"
#include "tools/data/playback_sites.h"
#include "tools/support/picture_file.h"
#include "tools/support/time_text.h"
#include "tools/view/size_within.h"

namespace tools {
namespace {

constexpr std::int64_t kJumpMs = 10'000;

}  // namespace

PlayView::PlayView(_MULTI_SITE_PLAYBACK_CONFIG config, const std::string& device,
                   cms::VideoWall& wall)
    : wall_(wall), speaker_(device) {
  config.startPaused = false;
  speaker_.Join(config);
  if (control_.SetConfig(config) == 0 || control_.StartPlayback() == 0) {
    throw std::runtime_error(control_.GetLastErrorText());
  }
  for (int site = 0; site < control_.GetTotalPlaySite(); ++site) {
    const auto number = static_cast<unsigned>(site);
    for (int channel = 0; channel < control_.GetTotalChannel(number); ++channel) {
      if (tiles_.size() < cms::VideoWall::kMostTiles) {
        Tile tile;
        tile.site = number;
        tile.channel = static_cast<unsigned>(channel);
        tiles_.push_back(tile);
      }
    }
  }
  FindSpans();
}

// What the databases know to be recorded, of all sites together.
void PlayView::FindSpans() {
  LocalPBSearchEngine engine;
  engine.searchByInterval(control_.GetPlaybackDataStartTime() / 1000,
                          control_.GetPlaybackDataEndTime() / 1000);
  for (const stPBTimeInfo& span : engine.getNormalPBInfo()) {
    if (control_.GetPlayingSiteIdx(static_cast<int>(span.siteNumber)) >= 0) {
      spans_.emplace_back(span.start * 1000, (span.end + 1) * 1000);
    }
  }
}

bool PlayView::Update(unsigned tile) {
  Tile& own = tiles_[tile];
  const std::int64_t time = control_.CurTimeGet(own.site, own.channel);
  const unsigned imageId = control_.GetImageID(own.site, own.channel);
  if (time == 0 || imageId == own.imageId) {
    const bool cleared = time == 0 && own.time != 0;
    if (cleared) {
      wall_.Clear(tile);
      own.time = 0;
    }
    return cleared;
  }
  const tagSIZE recorded = control_.GetWidHei(own.site, own.channel);
  if (recorded.cx != own.recorded.cx || recorded.cy != own.recorded.cy) {
    own.recorded = recorded;
    ApplySize(own);
  }
  own.imageId = imageId;
  own.time = time;
  bool shown = false;
  tagSIZE size;
  if (const unsigned char* const pixels = control_.LockDecodedImage(own.site, own.channel, &size)) {
    const bool whole = size.cx == recorded.cx && size.cy == recorded.cy;
    if (!own.snapshot.empty() && whole) {
      WriteSnapshot(own, pixels, size);
    }
    shown = wall_.UploadBgra(tile, pixels, size);
    control_.UnlockDecodedImage(own.site, own.channel);
  }
  own.shown += shown ? 1 : 0;
  return shown;
}

void PlayView::WriteSnapshot(Tile& tile, const unsigned char* pixels, const tagSIZE& size) {
  try {
    WritePng(tile.snapshot, pixels, size.cx, size.cy);
    std::fprintf(stderr, "orvanta view: wrote %s\n", tile.snapshot.c_str());
  } catch (const std::runtime_error& error) {
    std::fprintf(stderr, "orvanta view: %s\n", error.what());
  }
  tile.snapshot.clear();
  ApplySize(tile);
}

void PlayView::ApplySize(Tile& tile) {
  tagSIZE size = SizeWithin(tile.size, tile.recorded);
  if (!tile.snapshot.empty()) {
    size = tile.recorded;
  } else if (tile.dewarps) {
    size = tile.size;
  }
  control_.SetDecoderRenderCallback(tile.site, tile.channel, &size, nullptr);
}

void PlayView::Fit(unsigned tile, const tagSIZE& size, const cms::FisheyeSettings& look) {
  Tile& own = tiles_[tile];
  own.size = size;
  if (own.dewarps || look.Dewarps()) {
    control_.SetFisheye(own.site, own.channel, look);
  }
  own.dewarps = look.Dewarps();
  ApplySize(own);
}

std::string PlayView::Caption(unsigned tile) {
  const Tile& own = tiles_[tile];
  return "site " + std::to_string(control_.GetSiteNum(own.site)) +
         (control_.GetTotalChannel(own.site) > 1 ? "." + std::to_string(own.channel) : "");
}

std::pair<std::string, cms::ViewTone> PlayView::Status(unsigned tile) {
  const Tile& own = tiles_[tile];
  if (own.time == 0) {
    return {"no recording here", cms::ViewTone::kPlain};
  }
  cms::stPlaybackChannelStatus status;
  control_.GetChannelStatus(own.site, own.channel, &status);
  if (status.lost != 0) {
    return {std::to_string(status.lost) + " damaged pictures", cms::ViewTone::kFault};
  }
  return {PlaybackTimeText(own.time), cms::ViewTone::kGood};
}

void PlayView::Snapshot(unsigned tile, const std::string& path) {
  tiles_[tile].snapshot = path;
  ApplySize(tiles_[tile]);
}

// Heard at speed 1 forward.
void PlayView::Listen(std::optional<unsigned> tile) {
  control_.SetAllAudioState(0);
  if (!tile) {
    speaker_.Stop();
    return;
  }
  speaker_.Start();
  control_.SetChAudioState(tiles_[*tile].site, tiles_[*tile].channel, 1);
}

void PlayView::Record(unsigned /*tile*/) {
  throw std::runtime_error("what is played is recorded already");
}

nlohmann::ordered_json PlayView::Json(unsigned tile) {
  const Tile& own = tiles_[tile];
  cms::stPlaybackChannelStatus status;
  control_.GetChannelStatus(own.site, own.channel, &status);
  return {{"site", control_.GetSiteNum(own.site)},
          {"channel", own.channel},
          {"decoded", status.shown},
          {"shown", own.shown},
          {"lost", status.lost}};
}

// --- Transport
// ------------------------------------------------------------------------------------

std::optional<cms::ViewTimeline> PlayView::Timeline() {
  const std::int64_t start = control_.GetPlaybackDataStartTime();
  const auto length =
      static_cast<double>(std::max<std::int64_t>(1, control_.GetTotalPlaybackTime()));
  const std::int64_t now = control_.GetPlaybackTime();
  cms::ViewTimeline line;
  line.position = static_cast<double>(now - start) / length;
  for (const auto& [from, to] : spans_) {
    line.filled.emplace_back(static_cast<double>(from - start) / length,
                             static_cast<double>(to - start) / length);
  }
  const int speed = control_.GetPlaySpeed();
  std::string how = speed == 0 ? "paused" : speed < 0 ? "backward" : "playing";
  if (speed > 1 || speed < -1) {
    how += ", " + std::to_string(1 << (std::abs(speed) - 1)) + "x";
  }
  line.left = PlaybackTimeText(now) + "   " + how;
  line.right = LocalTime(now / 1000);
  return line;
}

void PlayView::Seek(double position) {
  const auto length = static_cast<double>(control_.GetTotalPlaybackTime());
  control_.SetPlaybackTargetTime(control_.GetPlaybackDataStartTime() +
                                 static_cast<std::int64_t>(position * length));
}

void PlayView::JumpBy(std::int64_t milliseconds) {
  control_.SetPlaybackTargetTime(std::clamp(control_.GetPlaybackTime() + milliseconds,
                                            control_.GetPlaybackDataStartTime(),
                                            control_.GetPlaybackDataEndTime()));
}

void PlayView::Run(bool backward) {
  control_.PlaybackPause();  // from where the first step leads to one of the two
  if (backward) {
    control_.PlaybackSetSlowDown();
  } else {
    control_.PlaybackSetSpeedUp();
  }
}

bool PlayView::OnKey(const cms::ViewInput& input) {
  const std::string& key = input.key;
  if (key == "space" || key == "k") {
    if (control_.IsPlaybackPause() != 0) {
      control_.PlaybackResume();
    } else {
      control_.PlaybackPause();
    }
  } else if (key == "right") {
    input.shift ? JumpBy(kJumpMs) : static_cast<void>(control_.PlaybackStepForward());
  } else if (key == "left") {
    input.shift ? JumpBy(-kJumpMs) : static_cast<void>(control_.PlaybackStepBackward());
  } else if (key == "l" || key == "j") {
    const bool backward = key == "j";
    const int speed = control_.GetPlaySpeed();
    if (backward ? speed < 0 : speed > 0) {  // once more: twice as fast
      backward ? control_.PlaybackSetSlowDown() : control_.PlaybackSetSpeedUp();
    } else {
      Run(backward);
    }
  } else if (key == "up") {
    control_.PlaybackSetSpeedUp();
  } else if (key == "down") {
    control_.PlaybackSetSlowDown();
  } else if (key == "home") {
    control_.SetPlaybackTargetTime(control_.GetPlaybackDataStartTime());
  } else if (key == "end") {
    control_.SetPlaybackTargetTime(control_.GetPlaybackDataEndTime());
  } else {
    return false;
  }
  return true;
}

}  // namespace tools

#include "tools/view/live_view.h"

#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "tools/view/size_within.h"

namespace tools {
namespace {

constexpr int kRecordingMiB = 256;  // of a file

}  // namespace

LiveView::LiveView(const std::vector<LiveOptions>& options, bool records, cms::VideoWall& wall)
    : wall_(wall), planar_(wall.HasGraphicsProcessor()), records_(records) {
  for (const LiveOptions& each : options) {
    Tile tile;
    tile.options = each;
    tile.site = std::make_unique<LiveSite>(each);
    const int planar = planar_ ? 1 : 0;
    tile.site->Client().SetDecoder(0, DECODER_PARAMETER_PLANAR, &planar);
    tiles_.push_back(std::move(tile));
  }
  for (const Tile& tile : tiles_) {
    tile.site->Open();
  }
}

bool LiveView::Update(unsigned tile) {
  Tile& own = tiles_[tile];
  const unsigned decoded = own.site->DecodedPictures();
  if (decoded == own.decoded) {
    return false;
  }
  if (own.decoded == 0) {
    ApplySize(own);  // its shape is known now
  }
  own.decoded = decoded;
  if (!own.snapshot.empty() && decoded > own.snapshotFrom) {
    const std::string path = std::exchange(own.snapshot, {});
    try {
      own.site->WriteSnapshot(path);
      std::fprintf(stderr, "orvanta view: wrote %s\n", path.c_str());
    } catch (const std::runtime_error& error) {
      std::fprintf(stderr, "orvanta view: %s\n", error.what());
    }
    ApplySize(own);
    return false;
  }
  const bool shown = Show(own, tile);
  own.shown += shown ? 1 : 0;
  return shown;
}

bool LiveView::Show(Tile& tile, unsigned number) {
  bool shown = false;
  if (planar_ && tile.snapshot.empty()) {
    CMSClientBase& client = tile.site->Client();
    cms::PlanarPicture picture;
    shown = client.LockDecodedPlanes(0, &picture) && wall_.Upload(number, picture);
    client.unlockDecodedImage(0);
  } else if (tile.snapshot.empty()) {
    tile.site->WithPicture([&](const unsigned char* pixels, const tagSIZE& size) {
      shown = wall_.UploadBgra(number, pixels, size);
    });
  }
  return shown;
}

// The decoder makes pictures of the size that they are shown in, where it has to make some at all.
void LiveView::ApplySize(Tile& tile) {
  CMSClientBase& client = tile.site->Client();
  const int planar = planar_ && tile.snapshot.empty() ? 1 : 0;
  client.SetDecoder(0, DECODER_PARAMETER_PLANAR, &planar);
  tagSIZE size;
  if (tile.snapshot.empty() && tile.dewarps) {
    size = tile.size;
  } else if (tile.snapshot.empty() && !planar_) {
    unsigned width = 0;
    unsigned height = 0;
    client.GetWidthAndHeight(0, &width, &height);
    size = SizeWithin(tile.size, {static_cast<long>(width), static_cast<long>(height)});
  }
  client.SetDecoder(0, DECODER_PARAMETER_DISPLAY_SIZE, &size);
}

void LiveView::Fit(unsigned tile, const tagSIZE& size, const cms::FisheyeSettings& look) {
  Tile& own = tiles_[tile];
  own.size = size;
  own.dewarps = look.Dewarps();
  own.site->Look(look);
  ApplySize(own);
}

std::string LiveView::Caption(unsigned tile) {
  return std::to_string(tile + 1) + "  " + tiles_[tile].site->Url();
}

std::pair<std::string, cms::ViewTone> LiveView::Status(unsigned tile) {
  Tile& own = tiles_[tile];
  const cms::ConnectionStatus status = own.site->Status();
  const cms::CMSFrameData totals = own.site->Totals();
  const bool playing = status.state == cms::ConnectionState::kPlaying;
  if (status.fault != cms::ConnectionFault::kNone) {
    return {std::string(cms::ConnectionFaultName(status.fault)) + ": " + status.detail,
            cms::ViewTone::kFault};
  }
  if (own.recording) {
    own.recorder->FollowDay();
    if (const int error = own.site->Client().GetRecordingStatus().error; error != 0) {
      return {std::string("recording failed: ") + std::strerror(error), cms::ViewTone::kFault};
    }
  }
  if (!playing) {
    return {cms::ConnectionStateName(status.state), cms::ViewTone::kPlain};
  }
  char text[96];
  std::snprintf(text, sizeof text, "%.0f fps  %.1f Mbit/s%s", static_cast<double>(totals.fps),
                static_cast<double>(totals.kbps) / 1000, own.recording ? "  recording" : "");
  return {text, cms::ViewTone::kGood};
}

void LiveView::Snapshot(unsigned tile, const std::string& path) {
  Tile& own = tiles_[tile];
  own.snapshot = path;
  // The next picture may be in work already, in the other size.
  own.snapshotFrom = own.site->DecodedPictures() + 1;
  ApplySize(own);
}

void LiveView::Listen(std::optional<unsigned> tile) {
  for (unsigned each = 0; each < Tiles(); ++each) {
    if (each != tile) {
      tiles_[each].site->SetListening(false);  // cards that play one sound at a time are free then
    }
  }
  if (tile) {
    tiles_[*tile].site->SetListening(true);
  }
}

// Ending one waits for no disk: Json does.
void LiveView::Record(unsigned tile) {
  Tile& own = tiles_[tile];
  if (!records_) {
    throw std::runtime_error("no place for recordings; say --record DIR");
  }
  if (!own.recorder) {
    own.recorder = std::make_unique<SiteRecorder>(*own.site, own.options, kRecordingMiB);
  }
  own.recording ? own.recorder->End() : own.recorder->Start();
  own.recording = !own.recording;
}

nlohmann::ordered_json LiveView::Json(unsigned tile) {
  Tile& own = tiles_[tile];
  nlohmann::ordered_json json = own.site->Json();
  json["shown"] = own.shown;
  json["recorded"] = own.site->Client().GetRecordingStatus().frames;
  own.recorder.reset();
  own.site->Close();
  return json;
}

}  // namespace tools

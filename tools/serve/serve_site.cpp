#include "tools/serve/serve_site.h"

#include "cms/recording/gap_log.h"
#include "tools/support/camera_site.h"

namespace tools {
namespace {

std::unique_ptr<LiveSite> SecondOf(LiveOptions options, const std::string& url, FrameTap& tap) {
  if (url.empty()) {
    return nullptr;
  }
  options.url = url;
  return std::make_unique<LiveSite>(options, &tap);
}

std::unique_ptr<CameraMover> MoverOf(const LiveOptions& options) {
  return options.onvif.empty()
             ? nullptr
             : std::make_unique<CameraMover>(
                   AccessOf(options.onvif, options.user, options.password, options.security));
}

}  // namespace

ServeSite::ServeSite(const LiveOptions& options, int fileSizeMiB, const std::string& secondUrl)
    : number_(options.number + 1),
      stream_(number_),
      live_(options, secondUrl.empty() ? &stream_ : nullptr),
      second_(SecondOf(options, secondUrl, stream_)),
      mover_(MoverOf(options)),
      watched_(second_.get()),
      pictures_(second_ ? *second_ : live_, number_),
      recorder_(live_, options, fileSizeMiB) {}

void ServeSite::Record(bool on) {
  const std::lock_guard lock(recorderLock_);
  if (on) {
    recorder_.Start();
  } else {
    recorder_.Stop();
  }
}

void ServeSite::FollowDay() {
  const std::lock_guard lock(recorderLock_);
  recorder_.FollowDay();
}

nlohmann::ordered_json ServeSite::StatusJson() {
  nlohmann::ordered_json told{{"site", number_}};
  told.update(live_.StatusJson());
  CMSClientBase& client = live_.Client();
  const auto gap = client.GetRecordingGap();
  told["watched_codec"] = second_ ? second_->Codec() : live_.Codec();
  told["onvif"] = mover_ != nullptr;
  told["recording"] = client.IsRecording() != 0;
  told["recorded_bytes"] = client.GetRecordingStatus().bytes;
  told["recording_fault"] = gap ? cms::GapCauseName(gap->cause) : std::string();
  return told;
}

// Recording is wanted as long as somebody at the page has it on: then a file is open, or a gap is.
SiteFigures ServeSite::Figures() {
  SiteFigures figures = FiguresOf(live_.Client());
  figures.number = static_cast<unsigned>(number_);
  figures.url = live_.Url();
  figures.wanted = live_.Client().IsRecording() != 0 || figures.gap.has_value();
  return figures;
}

}  // namespace tools

#include "tools/serve/play_session.h"

#include <chrono>
#include <map>
#include <stdexcept>

#include "cms/runtime/wide_text.h"
#include "tools/serve/random_id.h"
#include "tools/support/stop_signal.h"

namespace tools {
namespace {

using nlohmann::ordered_json;
using std::chrono::milliseconds;

// How often is looked for new pictures.
constexpr milliseconds kTurn{20};
// The transport is told so often at least, so that a viewer that went is noticed.
constexpr milliseconds kTell{500};

}  // namespace

PlaySession::PlaySession(const std::vector<stPBTimeInfo>& spans, std::int64_t moment, int speed)
    : id_(RandomId()) {
  std::map<std::uint32_t, cms::_MULTI_PB_SITE_CONFIG> sites;
  for (const stPBTimeInfo& span : spans) {
    cms::_MULTI_PB_SITE_CONFIG& site = sites[span.siteNumber];
    site.siteNumber = span.siteNumber;
    site.channelCount = 0;
    site.siteName = span.records.front().GetSiteNameW();
    for (const FX_RecordDBInfo& record : span.records) {
      site.files.push_back(record.GetFilenameW());
    }
  }
  _MULTI_SITE_PLAYBACK_CONFIG config;
  for (auto& [number, site] : sites) {
    names_.push_back(cms::Utf8FromWide(site.siteName));
    config.sites.push_back(std::move(site));
  }
  config.startTime = moment;
  if (control_.SetConfig(config) == 0 || control_.StartPlayback() == 0) {
    throw std::runtime_error("cannot play: " + control_.GetLastErrorText());
  }
  if (speed == 0) {
    control_.PlaybackPause();
  }
  for (int i = 1; i < speed; ++i) {
    control_.PlaybackSetSpeedUp();
  }
  for (int i = 0; i > speed; --i) {
    control_.PlaybackSetSlowDown();
  }
  for (unsigned site = 0; site < names_.size(); ++site) {
    for (int channel = 0; channel < control_.GetTotalChannel(site); ++channel) {
      views_.push_back({site, static_cast<unsigned>(channel)});
    }
  }
}

bool PlaySession::Transport(std::string_view what) {
  using Control = CCMSMultiSitePlaybackCtrl;
  constexpr std::pair<std::string_view, int (Control::*)()> kWords[] = {
      {"pause", &Control::PlaybackPause},         {"resume", &Control::PlaybackResume},
      {"forward", &Control::PlaybackStepForward}, {"backward", &Control::PlaybackStepBackward},
      {"faster", &Control::PlaybackSetSpeedUp},   {"slower", &Control::PlaybackSetSlowDown}};
  for (const auto& [word, operation] : kWords) {
    if (word == what) {
      (control_.*operation)();
      return true;
    }
  }
  return false;
}

bool PlaySession::TakeTurn(std::int64_t turn) {
  const bool later = turn > turn_;
  turn_ = std::max(turn_, turn);
  return later;
}

ordered_json PlaySession::Describe() const {
  ordered_json sites = ordered_json::array();
  for (unsigned site = 0; site < names_.size(); ++site) {
    sites.push_back({{"site", control_.GetSiteNum(site)}, {"name", names_[site]}});
  }
  return {{"session", id_},
          {"start", control_.GetPlaybackDataStartTime()},
          {"end", control_.GetPlaybackDataEndTime()},
          {"sites", sites}};
}

ordered_json PlaySession::State() const {
  ordered_json gaps = ordered_json::array();
  for (const View& view : views_) {
    if (control_.GetChFrameState(view.site, view.channel) == cms::PLAYBACK_CHANNEL_GAP) {
      gaps.push_back(control_.GetSiteNum(view.site));
    }
  }
  return {{"time", control_.GetPlaybackTime()},
          {"speed", control_.GetPlaySpeed()},
          {"end_of_file", control_.IsAllEndOfFile() != 0},
          {"gaps", gaps}};
}

PictureRecord PlaySession::NextPicture(View& view) {
  const unsigned image = control_.GetImageID(view.site, view.channel);
  if (image == view.shown) {
    return nullptr;
  }
  tagSIZE size{};
  const std::int64_t time = control_.CurTimeGet(view.site, view.channel);
  const unsigned char* const picture = control_.LockDecodedImage(view.site, view.channel, &size);
  if (picture == nullptr) {
    return nullptr;
  }
  struct Unlock {
    CCMSMultiSitePlaybackCtrl& control;
    const View& view;
    ~Unlock() { control.UnlockDecodedImage(view.site, view.channel); }
  } const unlock{control_, view};
  if (control_.GetImageID(view.site, view.channel) != image) {
    return nullptr;  // of another time; the next turn
  }
  view.shown = image;
  return MakePictureRecord({{"site", control_.GetSiteNum(view.site)},
                            {"channel", view.channel},
                            {"time", time},
                            {"width", size.cx},
                            {"height", size.cy}},
                           encoder_.Encode(picture, size.cx, size.cy));
}

void PlaySession::Stream(WebRequest& request) {
  if (!request.Send(HarmlessJson(Describe()) + "\n")) {
    return;
  }
  ordered_json told;
  milliseconds silent = kTell;
  do {
    for (View& view : views_) {
      if (const PictureRecord picture = NextPicture(view);
          picture != nullptr && !request.Send(*picture)) {
        return;
      }
    }
    ordered_json state = State();
    const bool stepped = state["speed"] == 0 && state["time"] != told["time"];
    const bool moved =
        stepped || state["speed"] != told["speed"] || state["end_of_file"] != told["end_of_file"];
    silent += kTurn;
    if (moved || silent >= kTell) {
      if (!request.Send(HarmlessJson(state) + "\n")) {
        return;
      }
      told = std::move(state);
      silent = milliseconds::zero();
    }
  } while (!WaitForStop(kTurn));
  request.EndStream();
}

}  // namespace tools

#include "tools/serve/serve_site.h"

#include "cms/recording/gap_log.h"

namespace tools {

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
  told["recording"] = client.IsRecording() != 0;
  told["recorded_bytes"] = client.GetRecordingStatus().bytes;
  told["recording_fault"] = gap ? cms::GapCauseName(gap->cause) : std::string();
  return told;
}

}  // namespace tools

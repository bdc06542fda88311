#include "tools/testcamera/onvif/happenings.h"

#include <algorithm>
#include <utility>

#include "tools/testcamera/onvif/camera_settings.h"

namespace testcamera {

// The topics are those of the ONVIF specifications of the imaging, device-IO and analytics
// services.
Happenings::Happenings(const OnvifOptions& options, GMainContext* context,
                       std::function<void(const Happening&)> tell)
    : tell_(std::move(tell)),
      all_({{"motion", "tns1:VideoSource/MotionAlarm", "Source", kVideoSource, "State", true},
            {"input", "tns1:Device/Trigger/DigitalInput", "InputToken", "DigitalInput0",
             "LogicalState", true},
            {"line", "tns1:RuleEngine/LineDetector/Crossed", "Rule", "Gate", "ObjectId", false},
            {"video-loss", "tns1:VideoSource/SignalLoss", "Source", kVideoSource, "State", true},
            {"tampering", "tns1:VideoSource/GlobalSceneChange/ImagingService", "Source",
             kVideoSource, "State", true},
            {"sound", "tns1:AudioAnalytics/Audio/DetectedSound", "AudioSource", kAudioSource,
             "isSoundDetected", true}}),
      scripts_({{"motion", options.motionEvery * 1000, options.motionLength * 1000},
                {"input", options.inputEvery * 1000, options.motionLength * 1000}}),
      timer_(context, [this] { Play(); }) {
  for (Script& script : scripts_) {
    script.at = g_get_monotonic_time() + script.every;
  }
  Arm();
}

bool Happenings::Set(const std::string& word, bool on) {
  const auto found =
      std::ranges::find_if(all_, [&](const Happening& each) { return word == each.word; });
  if (found == all_.end()) {
    return false;
  }
  if (word == "motion" && on != found->on) {
    if (on) {
      motions_.push_back({g_get_real_time(), 0});
    } else {
      motions_.back().to = g_get_real_time();
    }
  }
  if (!found->hasState || found->on != on) {
    found->on = on && found->hasState;
    tell_(*found);
  }
  return true;
}

void Happenings::Play() {
  for (Script& script : scripts_) {
    if (script.every > 0 && script.at <= g_get_monotonic_time()) {
      script.on = !script.on;
      script.at += script.on ? script.length : script.every - script.length;
      Set(script.word, script.on);
    }
  }
  Arm();
}

void Happenings::Arm() {
  std::int64_t next = -1;
  for (const Script& script : scripts_) {
    if (script.every > 0 && (next < 0 || script.at < next)) {
      next = script.at;
    }
  }
  timer_.SetAt(next);
}

}  // namespace testcamera

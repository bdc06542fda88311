// What a camera tells of what happens in front of it.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "cms/runtime/api.h"

namespace cms {

enum class CameraEventKind {
  kOther,  // what the others do not say; the topic tells
  kMotion,
  kInput,         // a digital input
  kLineCrossing,  // an object crossed a line; a moment, without a state
  kVideoLoss,     // the camera's own video source is gone
  kTampering,     // covered, turned away, blurred, too dark or too bright
};

// "motion", "input", "line", "video-loss", "tampering", "other".
CMS_API const char* CameraEventKindName(CameraEventKind kind);

enum class CameraEventState {
  kNone,  // of an event that is a moment, or has no state that is on or off
  kOn,
  kOff,
};

struct CameraEventItem {
  std::string name;
  std::string value;
  bool operator==(const CameraEventItem&) const = default;
};

// UTF-8 texts from the network: anything may stand in them but control characters.
struct CameraEvent {
  std::string topic;  // as the camera writes it: "tns1:VideoSource/MotionAlarm"
  CameraEventKind kind = CameraEventKind::kOther;
  CameraEventState state = CameraEventState::kNone;
  // How it was when the camera was asked first, or asked again after a while: not from this moment.
  bool initial = false;
  std::vector<CameraEventItem> source;  // which of its parts: {"Source", "VideoSource0"}
  std::vector<CameraEventItem> key;     // of several of the kind at one source; mostly empty
  std::vector<CameraEventItem> data;    // what is told of it, the state too
  std::int64_t cameraMs =
      0;  // milliseconds since 1970-01-01 UTC by the camera's clock; 0: not told
  std::int64_t receivedMs = 0;  // the same by ours, when it arrived
};

}  // namespace cms

// The camera's pipelines in gst-launch notation.
#pragma once

#include <string>

#include "tools/testcamera/camera_options.h"

namespace testcamera {

inline constexpr char kStampName[] = "stamp";      // raw pictures that want their number
inline constexpr char kUntimedName[] = "untimed";  // an encoder that loses the pictures' times
inline constexpr char kFeedName[] = "feed";        // the appsrc for a file's pictures

// Payloaders named pay0 and, with audio, pay1. The codec is the file's where one is played.
// What happens to the sound that clients send: written to the options' file as it comes.
std::string TalkPipeline(const CameraOptions& options);

std::string RtspPipeline(const CameraOptions& options, VideoCodec codec);

// Whether the pattern's name is one of GStreamer's.
bool IsPattern(const std::string& name);

// Ends in an appsink named "sink" that gets JPEG pictures at their time.
std::string HttpPipeline(const CameraOptions& options);

}  // namespace testcamera

// The time from opening a camera to its first whole picture as BGRA, of what a user would pick
// instead of the library.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace bench {

struct FirstPictureJob {
  std::string url;
  bool tcp = true;
  int width = 0;
  int height = 0;
  double limit = 20'000;  // milliseconds
};

// Whether the picture, width * 4 bytes a line, shows the number that the camera painted.
bool IsWhole(const FirstPictureJob& job, const std::uint8_t* bgra, int stride);

// Milliseconds; nothing when no picture came. libavformat and libavcodec, decoding on one thread,
// as FFmpeg's documentation asks for low delay: fflags nobuffer, flags low_delay, and nothing
// probed beyond what the session description says.
std::optional<double> FFmpegFirstPicture(const FirstPictureJob& job);

// rtspsrc latency=0 ! rtph264depay ! h264parse ! avdec_h264 ! videoconvert
std::optional<double> GStreamerFirstPicture(const FirstPictureJob& job);

}  // namespace bench

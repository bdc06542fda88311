#include "cms/live/fps_report.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>

namespace {

constexpr int kChannelLimit = 65;
constexpr int kMaxIntervalSeconds = INT32_MAX / 1000;
constexpr double kOldWeight = 0.8;
constexpr double kNewWeight = 0.2;

}  // namespace

CMSFpsReport::CMSFpsReport(bool useTickCount) : watch_(true, useTickCount) {}

CMSFpsReport::CMSFpsReport(const CMSFpsReport& other) {
  *this = other;
}

CMSFpsReport& CMSFpsReport::operator=(const CMSFpsReport& other) {
  if (this == &other) {
    return *this;
  }
  frames_ = other.frames_;
  debugger_ = other.debugger_;
  log_ = other.log_;
  bytes_ = other.bytes_;
  intervalMs_ = other.intervalMs_;
  channel_ = other.channel_;
  title_ = other.title_;
  recentFps_.store(other.GetRecentFps(), std::memory_order_relaxed);
  averageFps_.store(other.GetRecentAvgFps(), std::memory_order_relaxed);
  kbps_.store(other.GetKbps(), std::memory_order_relaxed);
  watch_ = other.watch_;
  return *this;
}

std::int64_t CMSFpsReport::ElapsedMilliseconds() const {
  if (watch_.getFrequency() == 0) {
    // The tick count has 32 bits: so has its difference, and a wrap does no harm.
    return static_cast<std::uint32_t>(watch_.getElaspedTicks());
  }
  return static_cast<std::int64_t>(watch_.getElaspedMilliseconds());
}

bool CMSFpsReport::AddFrameCount(unsigned long bytes, int frames) {
  const std::int64_t elapsed = ElapsedMilliseconds();
  const bool report = elapsed > intervalMs_;
  if (report) {
    const double milliseconds = static_cast<double>(elapsed);
    const double recent = frames_ / milliseconds * 1000;
    recentFps_.store(recent, std::memory_order_relaxed);
    averageFps_.store(GetRecentAvgFps() * kOldWeight + recent * kNewWeight,
                      std::memory_order_relaxed);
    kbps_.store(bytes_ * 8.0 / milliseconds * (1.0 / 1024) * 1000, std::memory_order_relaxed);
    frames_ = 0;
    bytes_ = 0;
    watch_.restart();
  }
  frames_ += frames;
  bytes_ += static_cast<std::uint32_t>(bytes);
  return report;
}

void CMSFpsReport::SetReportInterval(int seconds) {
  intervalMs_ = std::clamp(seconds, 0, kMaxIntervalSeconds) * 1000;
}

void CMSFpsReport::SetReportFormat(const char* format, ...) {
  char text[1024];
  va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  title_ = length >= 0 ? text : "";
}

void CMSFpsReport::SetChannel(int channel) {
  channel_ = channel % kChannelLimit;
}

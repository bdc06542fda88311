#include "cms/streaming/internal/frame_clock.h"

#include <algorithm>
#include <cstdlib>

namespace cms {
namespace {

// What a RTP time may be off from the time that has passed; beyond, the sender has begun anew.
constexpr std::int64_t kJump = 10 * kMicro;
// How long the quickest frame is remembered. Clocks that differ by 500 ppm part by 2.5 ms in it.
constexpr std::int64_t kWindow = 5 * kMicro;
constexpr std::int64_t kSilence = 10 * kMicro;  // behind it a stream no longer speaks for the other
// The ways of pictures and sound differ by less; reports that say otherwise do not mean one clock.
constexpr std::int64_t kMostApart = kMicro / 2;
// Reports of a clock that nobody set agree better with each other.
constexpr std::int64_t kClockStep = 20'000;
constexpr std::int64_t kSetBack = kMicro;  // our own clock was, when a time lies further back
// Ahead of our clock: such reports tell the time since the camera's start, as they may.
constexpr std::int64_t kMostAhead = std::int64_t{365} * 86400 * kMicro;

}  // namespace

void FrameClock::SetRate(Stream stream, std::uint32_t rate) {
  Of(stream) = Line{};
  Of(stream).rate = std::max<std::uint32_t>(rate, 1);
}

std::int64_t FrameClock::MediaTime(const Line& line, std::int64_t ticks) const {
  return ticks / line.rate * kMicro + ticks % line.rate * kMicro / line.rate;
}

void FrameClock::TakeReport(Stream stream, const SenderReport& report, std::int64_t wallSeconds) {
  Line& line = Of(stream);
  if (!line.begun) {
    line.begun = true;
    line.timestamp = report.timestamp;
  }
  const auto distance = static_cast<std::int32_t>(report.timestamp - line.timestamp);
  if (std::abs(MediaTime(line, distance)) > kJump) {
    return;  // of a sender that has begun anew, or is no more
  }
  const std::int64_t sender =
      MicrosecondsOfNtp(report.ntp, wallSeconds) - MediaTime(line, line.ticks + distance);
  const bool set = line.sender && std::abs(sender - *line.sender) > kClockStep;
  if (set && line.comparable) {
    for (Line& each : lines_) {
      each.comparable = false;  // until its next report
    }
  }
  line.sender = sender;
  line.comparable = true;
}

void FrameClock::Advance(Line& line, const Arrival& arrival) {
  const auto tick = static_cast<std::int64_t>(arrival.tickUs);
  const auto step = line.begun ? static_cast<std::int32_t>(arrival.timestamp - line.timestamp) : 0;
  const bool jumps = line.anyFrame && std::abs(MediaTime(line, step) - (tick - line.tick)) > kJump;
  if (jumps) {
    line.sender.reset();
    line.comparable = false;
  } else {
    line.reorders = line.reorders || (line.anyFrame && step < 0);
  }
  line.step = jumps || line.reorders ? 0 : MediaTime(line, step);
  line.ticks += step;
  line.timestamp = arrival.timestamp;
  line.tick = tick;
  const std::int64_t distance = tick - MediaTime(line, line.ticks);
  if (!line.anyFrame || jumps) {
    line.quickest = distance;
    line.windowQuickest = distance;
    line.windowBegin = tick;
  } else if (tick - line.windowBegin >= kWindow) {
    line.quickest = line.windowQuickest;
    line.windowQuickest = distance;
    line.windowBegin = tick;
  }
  line.windowQuickest = std::min(line.windowQuickest, distance);
  line.quickest = std::min(line.quickest, distance);
  line.begun = true;
  line.anyFrame = true;
}

// Our ticks less the camera's clock, of the quickest frames of both streams.
std::optional<std::int64_t> FrameClock::CommonDistance(std::int64_t tick) const {
  const auto& [pictures, sound] = lines_;
  for (const Line& line : lines_) {
    if (!line.comparable || !line.anyFrame || line.reorders || tick - line.tick > kSilence) {
      return std::nullopt;
    }
  }
  const std::int64_t one = pictures.quickest - *pictures.sender;
  const std::int64_t other = sound.quickest - *sound.sender;
  return std::abs(one - other) < kMostApart ? std::optional(std::min(one, other)) : std::nullopt;
}

FrameMoment FrameClock::MomentOf(Stream stream, const Arrival& arrival) {
  Line& line = Of(stream);
  Advance(line, arrival);
  const std::int64_t media = MediaTime(line, line.ticks);
  std::int64_t late = arrival.lengthUs;
  if (const auto common = CommonDistance(line.tick)) {
    late = line.tick - (media + *line.sender + *common);
  } else if (!line.reorders) {
    late += line.tick - media - line.quickest;
  }
  FrameMoment times;
  times.arrivalUs = arrival.tickUs;
  times.timeUs = arrival.wallUs - std::max<std::int64_t>(late, 0);
  const std::int64_t least = std::clamp(arrival.wallUs, line.wall + 1,
                                        line.wall + std::max<std::int64_t>(line.step / 2, 1));
  if (times.timeUs < least && line.wall - times.timeUs < kSetBack) {
    times.timeUs = least;
  }
  line.wall = times.timeUs;
  const std::int64_t camera = line.sender ? media + *line.sender : 0;
  times.cameraUs = camera > 0 && camera - arrival.wallUs < kMostAhead ? camera : 0;
  return times;
}

}  // namespace cms

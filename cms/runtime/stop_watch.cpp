#include "cms/runtime/stop_watch.h"

#include <ctime>

#include "cms/runtime/clock.h"

namespace {

constexpr std::uint64_t kNanosecondsPerSecond = 1'000'000'000;

bool HighResolutionCounter(std::uint64_t& count) {
  timespec time{};
  if (clock_gettime(CLOCK_MONOTONIC, &time) != 0) {
    return false;
  }
  count = static_cast<std::uint64_t>(time.tv_sec) * kNanosecondsPerSecond +
          static_cast<std::uint64_t>(time.tv_nsec);
  return true;
}

}  // namespace

StopWatch::StopWatch(bool startNow, bool useTickCount) {
  std::uint64_t count = 0;
  frequency_ = !useTickCount && HighResolutionCounter(count) ? kNanosecondsPerSecond : 0;
  begin_ = getTimeStamp();
  if (startNow) {
    start();
  }
}

std::uint64_t StopWatch::getTimeStamp() const {
  std::uint64_t count = 0;
  if (frequency_ != 0 && HighResolutionCounter(count)) {
    return count;
  }
  return cms::TickCount();
}

void StopWatch::reset() {
  start_ = 0;
  stop_ = 0;
  running_ = false;
}

void StopWatch::restart() {
  reset();
  start();
}

void StopWatch::start() {
  start_ = getTimeStamp();
  running_ = true;
}

void StopWatch::stop() {
  stop_ = getTimeStamp();
  running_ = false;
}

std::uint64_t StopWatch::getElaspedTicks() const {
  return (running_ ? getTimeStamp() : stop_) - start_;
}

std::uint64_t StopWatch::getElaspedMilliseconds() const {
  const std::uint64_t ticks = getElaspedTicks();
  return frequency_ == 0 ? ticks : ticks * 1000 / frequency_;
}

void StopWatch::syncTimer(const StopWatch& other) {
  start_ = other.start_;
}

// StopWatch, a measurer of elapsed time.
#pragma once

#include <cstdint>

#include "cms/runtime/api.h"

// Counts nanoseconds of the monotonic clock, or milliseconds of the library's 32-bit tick count.
// One thread at a time; a plain value otherwise.
class CMS_API StopWatch {
 public:
  explicit StopWatch(bool startNow = false, bool useTickCount = false);

  void reset();    // clears start and stop
  void restart();  // reset, then start
  void start();    // keeps the stop time stamp
  void stop();

  bool isRunning() const { return running_; }
  std::uint64_t getTimeStamp() const;                        // now, in counts
  std::uint64_t getFrequency() const { return frequency_; }  // counts a second; 0: milliseconds
  std::uint64_t getBeginTimeStamp() const { return begin_; }
  std::uint64_t getStartTimeStamp() const { return start_; }
  std::uint64_t getStopTimeStamp() const { return stop_; }

  // From start to stop, or to now while running. The milliseconds of a nanosecond count are right
  // up to 213 days.
  std::uint64_t getElaspedTicks() const;
  std::uint64_t getElaspedMilliseconds() const;

  // Takes over the other's start time stamp and nothing else.
  void syncTimer(const StopWatch& other);

 private:
  std::uint64_t frequency_ = 0;
  std::uint64_t begin_ = 0;
  std::uint64_t start_ = 0;
  std::uint64_t stop_ = 0;
  bool running_ = false;
};

// FragmentClock: when each picture of a live stream is shown, in a row without seams.
#pragma once

#include <cstdint>

namespace cms {

// A fragment tells how long its picture is shown before the next one is known, and browsers take
// pictures for lost behind which there is a hole. So each begins where the one before ended, and
// the lengths are such that the row keeps to the times at which pictures were taken.
//
// All in units of one clock. One thread at a time.
class FragmentClock {
 public:
  explicit FragmentClock(std::int64_t unitsASecond) : second_(unitsASecond) {}

  struct Span {
    std::int64_t begin = 0;
    std::int64_t length = 0;
    bool shifted = false;  // see Shift
  };
  // `taken` at or behind 0. Where the row may have a hole (`mayPart`: a key picture) it follows a
  // stream that has paused.
  Span Next(std::int64_t taken, bool mayPart);

  // How far the row is behind the times that are told, since these went back.
  std::int64_t Shift() const { return shift_; }

 private:
  std::int64_t second_;
  bool any_ = false;
  std::int64_t last_ = 0;      // time told
  std::int64_t next_ = 0;      // the end of the row
  std::int64_t interval_ = 0;  // from picture to picture, smoothed; 0: not known
  std::int64_t shift_ = 0;
};

}  // namespace cms

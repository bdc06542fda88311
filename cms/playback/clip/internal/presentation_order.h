// PresentationOrder: times for pictures that are shown in another order than they are decoded in.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <limits>
#include <optional>

#include "cms/playback/clip/internal/frame_times.h"

namespace cms {

struct OrderedFrame {
  TimedFrame timed;               // its time is that of presentation
  std::int64_t decodingTime = 0;  // microseconds, always growing; never behind that
};

// The k-th picture shown has the time of the k-th that came; it is decoded as many pictures earlier
// as may be decoded before it and shown behind it. Frames come out in the order that they were
// added in. Holds frames without their payload, some dozen at most.
class PresentationOrder {
 public:
  // How many pictures may come in front of one that is shown before them. With 0 every frame comes
  // out at once as it is.
  explicit PresentationOrder(int reordering);

  // `number` grows in the order of presentation; audio's is not looked at.
  void Add(TimedFrame frame, std::int64_t number);
  void End();  // nothing follows

  std::optional<OrderedFrame> Next();  // nothing until more was added

 private:
  struct Waiting {
    OrderedFrame frame;
    std::int64_t number = 0;
    bool ready = false;
  };
  struct Time {
    std::int64_t time = 0;
    std::int64_t interval = 0;
  };

  void GiveTime();
  std::int64_t DecodingTime(const TimedFrame& timed);

  std::size_t reordering_;
  std::deque<Waiting> waiting_;
  std::deque<Time> times_;         // of pictures that came, for as many as wait for one
  std::deque<std::int64_t> came_;  // the last times
  std::int64_t shown_ = std::numeric_limits<std::int64_t>::min();  // number that last got a time
};

}  // namespace cms

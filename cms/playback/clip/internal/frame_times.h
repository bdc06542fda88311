// FrameTimes: the moments of recorded frames, also of those whose headers tell whole seconds.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>

#include "cms/playback/clip/internal/recording_frames.h"

namespace cms {

struct TimedFrame {
  RecordedFrame frame;
  std::int64_t time = 0;      // microseconds since 1970-01-01 UTC; video: always growing
  std::int64_t interval = 0;  // video: up to the next one as far as it is known
  bool told = false;          // by its header
};

// Frames have the time that their headers tell (DrvHeader::TimeUs). Where those tell seconds alone,
// the pictures of a second are spread evenly over it. Those of a second that was begun or ended
// within (the first and the last, and around a gap) keep the distance of the second beside it, or
// of the frame rate in their header. Audio has the time of the picture in front of it. A clock that
// was set back is followed from the last time on; set forward, it leaves a gap. Holds the frames of
// two seconds, without their payload.
class FrameTimes {
 public:
  void Add(RecordedFrame frame);
  void End();  // nothing follows

  std::optional<TimedFrame> Next();  // nothing until more was added

 private:
  struct Second {
    std::int64_t second = 0;
    std::int64_t pictures = 0;
    bool continues = false;  // the one before it is the second before it
    std::int64_t shift = 0;
    std::deque<RecordedFrame> frames;
  };

  void Release();

  std::deque<Second> seconds_;
  std::deque<TimedFrame> ready_;
  std::int64_t shift_ = 0;         // seconds, for clocks that were set back
  std::int64_t lastInterval_ = 0;  // of the second in front
  std::int64_t lastTime_ = 0;
};

}  // namespace cms

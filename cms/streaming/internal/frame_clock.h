// FrameClock: when the frames of an opening were taken, by our clock and by the camera's.
#pragma once

#include <array>
#include <cstdint>
#include <optional>

#include "cms/live/media/frame_moment.h"
#include "cms/streaming/internal/sender_report.h"

namespace cms {

// What comes over a network comes early or late, a key picture as long as it takes to be sent, and
// the clocks of a camera's sensor, of its microphone and of this host run apart by seconds a day.
// The time of a frame is its arrival less what it was late beyond the quickest frames of the last
// seconds, which its RTP time tells. Sender reports (RFC 3550, 6.4.1) say where the RTP times of
// pictures and of sound lie on the camera's one clock: where both streams have them, both are put
// on our clock by the same distance, and so stay together however their clocks drift. Else a block
// of sound is taken to have come the moment that its last sample was heard.
//
// Pictures that are sent in another order than they are shown have the times of their arrival.
//
// What is learned later, from a first report or a quicker frame, is made up for at half the
// camera's pace: a step back would leave a burst of pictures at one time, which no player shows.
//
// Reads no clock and takes no lock: all of it belongs to the receiving thread.
class FrameClock {
 public:
  enum class Stream { kPictures, kSound };

  // Of one frame, as it is received.
  struct Arrival {
    std::uint32_t timestamp = 0;  // of RTP
    std::uint64_t tickUs = 0;     // cms::TickMicroseconds when it was complete
    std::int64_t wallUs = 0;      // cms::WallMicroseconds then
    std::int64_t lengthUs = 0;    // of sound: what it lasts
  };

  // Hz of the RTP times; 0 counts as 1. Before the first frame.
  void SetRate(Stream stream, std::uint32_t rate);
  // `wallSeconds`: ours, for what the camera's clock leaves open.
  void TakeReport(Stream stream, const SenderReport& report, std::int64_t wallSeconds);
  FrameMoment MomentOf(Stream stream, const Arrival& arrival);

 private:
  // Microseconds throughout. Media time: RTP time from the stream's beginning on, without wraps.
  struct Line {
    std::int64_t rate = 90'000;
    bool begun = false;  // there is a media time
    bool anyFrame = false;
    bool reorders = false;
    std::uint32_t timestamp = 0;  // of the last frame
    std::int64_t ticks = 0;       // its media time, in units of the rate
    std::int64_t tick = 0;        // its arrival
    std::int64_t step = 0;        // its media time less that of the frame before
    std::int64_t wall = 0;        // its time

    // Arrival less media time: of the quickest frames of the last window, and of the one that runs.
    std::int64_t quickest = 0;
    std::int64_t windowQuickest = 0;
    std::int64_t windowBegin = 0;

    std::optional<std::int64_t> sender;  // the camera's clock less media time
    bool comparable =
        false;  // the other stream's reports tell of the same clock, unless it was set
  };

  std::int64_t MediaTime(const Line& line, std::int64_t ticks) const;
  void Advance(Line& line, const Arrival& arrival);
  std::optional<std::int64_t> CommonDistance(std::int64_t tick) const;
  Line& Of(Stream stream) { return lines_[static_cast<std::size_t>(stream)]; }

  std::array<Line, 2> lines_;
};

}  // namespace cms

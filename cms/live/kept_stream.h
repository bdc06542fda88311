// KeptStream, what the keeping of a site client asks of its stream.
#pragma once

#include <cstdint>
#include <optional>

#include "cms/live/connection_status.h"
#include "cms/runtime/api.h"

namespace cms {

// Totals since the client was made, over all openings.
struct StreamCounts {
  std::uint64_t packets = 0;   // of the video, not only whole frames: the watchdog's sign of life
  std::uint64_t lost = 0;      // packets
  std::uint64_t oversize = 0;  // frames
  // Whole frames of the video; nothing: they are not counted.
  std::optional<std::uint64_t> frames = std::nullopt;
  bool soundAlone = false;  // the camera describes no video
};

// A site client that can be kept derives from this beside CMSClientBase, and gives itself to that
// one's constructor. Opening and closing come one at a time, with no lock held, and may wait for
// the camera; the others wait for nobody and come from any thread.
class CMS_API KeptStream {
 public:
  // Opens and plays. False with the reason in the client's status; soon, or at once, while the
  // client's opening is cancelled.
  virtual bool OpenForKeeping() = 0;
  virtual void CloseForKeeping() = 0;
  // Keeps the session alive when it is time to; *nextInMs are the milliseconds until the next call.
  // Any other result than kNone ends the stream.
  virtual ConnectionFault KeepAlive(std::uint64_t now, std::uint64_t* nextInMs) = 0;
  virtual StreamCounts Counts() const = 0;

 protected:
  ~KeptStream() = default;
};

}  // namespace cms

// PlaybackTrack finds frames of a reader by time and steps through them.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "cms/playback/internal/playback_data_reader.h"

namespace cms {

// A frame and the group that it belongs to; false when there is none.
struct FrameRef {
  std::shared_ptr<const PlaybackGop> gop;
  std::size_t index = 0;

  explicit operator bool() const { return gop != nullptr; }
  const PlaybackFrame& Frame() const { return gop->video[index]; }
  std::int64_t Time() const { return Frame().time; }
  const GopPlace& Place() const { return gop->place; }
  // Also when the group was loaded again meanwhile.
  bool Is(const FrameRef& other) const {
    return gop != nullptr && other.gop != nullptr && index == other.index &&
           gop->place == other.gop->place;
  }
};

// Groups that cannot be read are passed over. Keeps the last groups in memory. Not for two threads
// at once.
class PlaybackTrack {
 public:
  explicit PlaybackTrack(PlaybackDataReader& reader) : reader_(reader) {}

  FrameRef At(std::int64_t time);  // the last frame at the time or before it
  FrameRef First();
  FrameRef After(const FrameRef& frame);
  FrameRef Before(const FrameRef& frame);
  FrameRef KeyAfter(const FrameRef& frame);   // of the next group
  FrameRef KeyBefore(const FrameRef& frame);  // of the group before
  static FrameRef KeyOf(const FrameRef& frame) { return {frame.gop, 0}; }

  // Up to when a frame is the one to show: until the next one; at a gap, one interval long.
  std::int64_t ValidUntil(const FrameRef& frame);
  bool Covers(const FrameRef& frame, std::int64_t time) {  // false for no frame
    return frame && time < ValidUntil(frame);
  }

  void Forget();  // what is in memory, because the reader knows more now

 private:
  std::shared_ptr<const PlaybackGop> Group(const GopPlace& place);
  bool IsGap(const FrameRef& frame, const FrameRef& next);
  std::shared_ptr<const PlaybackGop> GroupFrom(std::optional<GopPlace> place, bool forward);

  PlaybackDataReader& reader_;
  std::array<std::shared_ptr<const PlaybackGop>, 4> recent_;
  std::size_t oldest_ = 0;
};

}  // namespace cms

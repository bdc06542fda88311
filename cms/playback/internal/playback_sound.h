// PlaybackSound hands out the sound that lies between the pictures of a channel.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "cms/playback/internal/playback_sink.h"
#include "cms/playback/internal/playback_track.h"

namespace cms {

// With each picture go the blocks that follow the one before it in the recording; behind a leap the
// picture's own alone. Of the channel's reader thread.
class PlaybackSound {
 public:
  PlaybackSound(unsigned site, unsigned channel, PlaybackDataReader& reader, PlaybackTrack& track)
      : site_(site), channel_(channel), reader_(reader), track_(track) {}

  void Leap() { leapt_ = true; }  // what lies up to the next picture is not heard

  // A picture was shown; `audible` is the last one that was shown with its sound.
  void Shown(const FrameRef& shown, const FrameRef& audible, PlaybackSink& sink);

 private:
  void HandOutUpTo(const FrameRef& shown, PlaybackSink& sink);
  void HandOut(const PlaybackGop& gop, std::size_t from, std::size_t to, PlaybackSink& sink);

  const unsigned site_;
  const unsigned channel_;
  PlaybackDataReader& reader_;
  PlaybackTrack& track_;
  FrameRef heard_;  // up to which sound was handed out
  bool leapt_ = true;
  std::vector<std::uint8_t> bytes_;
};

}  // namespace cms

// PlaybackSink: where the frames, pictures and sound of played channels go.
#pragma once

#include <cstdint>

#include "cms/playback/playback_config.h"

namespace cms {

// Called on the channels' reader threads, with no lock held.
class PlaybackSink {
 public:
  virtual int GetFrameCallBack(const void* frame, long size,
                               _MULTI_PB_GET_FRAME_CALL_BACK_PARAM* parameter) = 0;
  virtual void OnPicture(unsigned site, unsigned channel, std::int64_t time) = 0;
  virtual bool WantsAudio(unsigned site, unsigned channel) = 0;
  virtual void OnAudio(_MULTI_PB_AUDIO_BLOCK& block) = 0;

 protected:
  ~PlaybackSink() = default;
};

}  // namespace cms

#include "cms/playback/internal/playback_sound.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "cms/live/media/frame_header.h"

namespace cms {

void PlaybackSound::Shown(const FrameRef& shown, const FrameRef& audible, PlaybackSink& sink) {
  if (audible && !audible.Is(heard_)) {
    HandOutUpTo(audible, sink);
  }
  leapt_ = leapt_ || !audible.Is(shown);
}

void PlaybackSound::HandOutUpTo(const FrameRef& shown, PlaybackSink& sink) {
  FrameRef from = std::exchange(heard_, shown);
  if (std::exchange(leapt_, false)) {
    from = {};
  }
  if (!sink.WantsAudio(site_, channel_)) {
    return;
  }
  std::size_t first = shown.index;
  if (from && from.Place() == shown.Place()) {
    first = std::min(from.index + 1, shown.index);
  } else if (from && track_.KeyAfter(from).Is(PlaybackTrack::KeyOf(shown))) {
    HandOut(*from.gop, from.index + 1, from.gop->video.size(), sink);
    first = 0;
  }
  HandOut(*shown.gop, first, shown.index + 1, sink);
}

void PlaybackSound::HandOut(const PlaybackGop& gop, std::size_t from, std::size_t to,
                            PlaybackSink& sink) {
  for (const PlaybackGop::Audio& each : gop.audio) {
    if (each.after < from || each.after >= to) {
      continue;
    }
    bytes_.resize(each.frame.area + each.frame.payload);
    if (bytes_.size() <= sizeof(DRVFrameHeader) ||
        reader_.Read(gop.place, each.frame, bytes_) < bytes_.size()) {
      continue;
    }
    AudioFormatDescriptor format;
    std::memcpy(&format, bytes_.data() + sizeof(DRVFrameHeader) / 2, sizeof(format));
    _MULTI_PB_AUDIO_BLOCK block;
    block.site = site_;
    block.channel = channel_;
    block.time = each.frame.time;
    block.codecId = format.codecId;
    block.sampleRate = format.sampleRate;
    block.channels = format.channels;
    block.bitsPerSample = format.bitsPerSample;
    block.data = bytes_.data() + each.frame.area;
    block.size = static_cast<long>(each.frame.payload);
    sink.OnAudio(block);
  }
}

}  // namespace cms

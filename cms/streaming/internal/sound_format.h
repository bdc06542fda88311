// SoundFormat: what a camera's sound is, as its session description says it.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "cms/live/media/frame_header.h"
#include "cms/streaming/internal/aac_payload.h"
#include "cms/streaming/media_session.h"

namespace cms {

struct SoundFormat {
  AudioFormatDescriptor descriptor;  // codec 0: there is none that is received
  std::optional<AacPayload> aac;     // how AAC lies in its packets
  // A line for people: why the sound that the camera offers is not received; else empty.
  std::string problem;

  // What a block of this sound lasts, in microseconds.
  std::int64_t LengthUs(std::span<const std::uint8_t> block) const;
};

// `asSpecified`: PCMU, PCMA and L16 alone, as MediaSession chooses.
SoundFormat SoundFormatOf(const _RTSPSUBSESSION_CONFIG& audio, bool asSpecified);

}  // namespace cms

// SoundFragments: live sound as AAC in fragmented MP4, for the Media Source Extensions of browsers.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "cms/live/media/audio_endpoint.h"
#include "cms/runtime/api.h"

namespace cms {

// AAC goes into the fragments as it is; what else the audio decoders know is made AAC. Times count
// from the same origin as those of the stream's VideoFragments. One thread at a time.
class CMS_API SoundFragments {
 public:
  // Microseconds since 1970-01-01 UTC. Blocks are younger.
  explicit SoundFragments(std::int64_t originUs);
  ~SoundFragments();
  SoundFragments(const SoundFragments&) = delete;
  SoundFragments& operator=(const SoundFragments&) = delete;

  // What the following blocks are, of which its codec, rate and channels count; false when they
  // cannot be made AAC. The same again changes nothing.
  bool SetFormat(const tCMSAudioPlayerConfig& format);
  // Appends the fragments that are complete with this block, taken at `timeUs` (see FrameMoment);
  // none, and false, for most blocks of a few milliseconds. Throws std::runtime_error when the
  // codec library fails.
  bool Append(std::span<const std::uint8_t> block, std::int64_t timeUs,
              std::vector<std::uint8_t>& out);

  // Once a fragment was appended; another header has a greater version.
  std::span<const std::uint8_t> Header() const;
  const std::string& Codec() const;  // "mp4a.40.2"
  unsigned Version() const;

 private:
  struct CMS_HIDDEN State;
  const std::unique_ptr<State> state_;
};

}  // namespace cms

// VideoFragments: H.264 as fragmented MP4, for the Media Source Extensions of browsers.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "cms/runtime/api.h"

namespace cms {

struct FragmentPicture {
  std::span<const std::uint8_t> bytes;  // units with start codes, as cameras' frames have them
  bool key = false;
  std::int64_t timeUs = 0;  // when it was taken, see FrameMoment
  unsigned width = 0;       // of a key picture, pixels
  unsigned height = 0;
  // Up to the next one, microseconds, where that is known: then it is shown from `timeUs` on for as
  // long. 0: not known, as of live pictures, which are shown in a row that follows their times.
  std::int64_t lengthUs = 0;
};

// A fragment (ISO/IEC 14496-12, 8.8; 14496-15) for each picture, which is not decoded; a player is
// given the header first, and then fragments from one of a key picture on. Pictures that are shown
// in another order than they come in (B-frames) are not told apart: see HasReordering.
//
// Nothing is allocated for a picture once `out` is large enough, except for a key picture some
// hundred bytes. One thread at a time.
class CMS_API VideoFragments {
 public:
  // What the fragments' times count from: microseconds since 1970-01-01 UTC. Pictures are younger.
  explicit VideoFragments(std::int64_t originUs);
  ~VideoFragments();
  VideoFragments(const VideoFragments&) = delete;
  VideoFragments& operator=(const VideoFragments&) = delete;

  // Appends the picture's fragment. False, and nothing is appended: before the first key picture
  // with parameter sets, and where nothing of the picture is H.264.
  bool Append(const FragmentPicture& picture, std::vector<std::uint8_t>& out);

  // Of the pictures from the last key picture on.
  std::span<const std::uint8_t> Header() const;
  const std::string& Codec() const;  // as browsers call it (RFC 6381): "avc1.64001F"
  unsigned Version() const;          // another header, codec or origin has a greater one; from 1
  // What the times count from: another than it was told since our clock was set back.
  std::int64_t OriginUs() const;
  // Whether the stream may have B-frames, as far as its headers tell.
  bool HasReordering() const;

 private:
  struct CMS_HIDDEN State;
  const std::unique_ptr<State> state_;
};

}  // namespace cms

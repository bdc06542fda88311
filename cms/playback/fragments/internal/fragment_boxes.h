// What the fragments of pictures and of sound have in common: a file's beginning with one track,
// and fragments of one sample each.
#pragma once

#include <cstdint>
#include <functional>

#include "cms/playback/fragments/internal/mp4_box.h"

namespace cms {

struct FragmentTrack {
  bool video = true;
  std::uint32_t clock = 0;  // units of time a second
  unsigned width = 0;       // of pictures
  unsigned height = 0;
};

// Appends the beginning of the file; `entry` appends the one entry of the sample description.
void PutFragmentHeader(Mp4Bytes& out, const FragmentTrack& track,
                       const std::function<void(Mp4Bytes&)>& entry);

struct FragmentSample {
  std::uint32_t number = 0;  // of the fragment
  std::uint64_t time = 0;    // in units of the clock
  std::uint32_t length = 0;  // likewise
  bool key = true;
};

// Appends what stands in front of a fragment's bytes, and tells where it begins. The bytes are
// appended next.
std::size_t BeginFragment(Mp4Bytes& out, const FragmentSample& sample);
// False when there are no bytes: then nothing of the fragment is left.
bool EndFragment(Mp4Bytes& out, std::size_t begin);

}  // namespace cms

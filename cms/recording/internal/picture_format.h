// Whether two key frames can stand in one file.
#pragma once

#include <cstdint>
#include <span>

namespace cms {

// A number that changes with the codec and with what a decoder is told in front of the picture: the
// sequence parameter set of H.264 and H.265, the layer header of MPEG-4, the picture size of MJPEG.
// `area` is a video frame's header area. 0 stands for nothing that is known. No allocation; any
// thread.
std::uint64_t PictureFormatOf(std::span<const std::uint8_t> area,
                              std::span<const std::uint8_t> payload);

}  // namespace cms

// Writing pictures for people to look at.
#pragma once

#include <string>

#include "cms/playback/clip/recording_export.h"

namespace tools {

// Writes BGRA rows without gaps as a PNG file; throws std::runtime_error naming the path.
void WritePng(const std::string& path, const unsigned char* bgra, long width, long height);

// A JPEG stays as the camera made it. Writes "<path>.part" and renames it; throws
// std::runtime_error with the path.
void WriteJpeg(const std::string& path, const cms::RecordedPicture& picture);

}  // namespace tools

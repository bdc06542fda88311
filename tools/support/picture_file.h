// Writing pictures for people to look at.
#pragma once

#include <string>

namespace tools {

// Writes BGRA rows without gaps as a PNG file; throws std::runtime_error naming the path.
void WritePng(const std::string& path, const unsigned char* bgra, long width, long height);

}  // namespace tools

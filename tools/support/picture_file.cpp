#include "tools/support/picture_file.h"

#include <png.h>

#include <stdexcept>

namespace tools {

void WritePng(const std::string& path, const unsigned char* bgra, long width, long height) {
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  image.width = static_cast<png_uint_32>(width);
  image.height = static_cast<png_uint_32>(height);
  image.format = PNG_FORMAT_BGRA;
  if (png_image_write_to_file(&image, path.c_str(), 0, bgra, 0, nullptr) == 0) {
    throw std::runtime_error("cannot write " + path + ": " + image.message);
  }
}

}  // namespace tools

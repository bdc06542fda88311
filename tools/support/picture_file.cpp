#include "tools/support/picture_file.h"

#include <png.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "cms/runtime/file_io.h"
#include "tools/serve/jpeg_encoder.h"

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

void WriteJpeg(const std::string& path, const cms::RecordedPicture& picture) {
  const std::string bytes =
      picture.jpeg.empty()
          ? JpegEncoder().Encode(picture.bgra.data(), picture.width, picture.height)
          : std::string(picture.jpeg.begin(), picture.jpeg.end());
  auto& io = cms::SystemFileIo();
  const std::string part = path + ".part";
  cms::ScopedFile file(io, part, cms::kFileWrite | cms::kFileCreate | cms::kFileTruncate);
  if (!file) {
    throw std::runtime_error(path + ": " + std::strerror(errno));
  }
  const bool written = io.WriteAll(file.Handle(), bytes.data(), bytes.size()) == bytes.size();
  if (!written || !file.Close() || io.Rename(part, path) != 0) {
    const int error = errno;
    io.Remove(part);
    throw std::runtime_error(path + ": " + std::strerror(error));
  }
}

}  // namespace tools
